// Helpers shared by the inline-hook tests: initialisation, real library functions, byte
// snapshots and checks that run inside forked children.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "shadowhook.h"
#include "tests/support/testsupport.h"

namespace inlinehooktest {

// Shared mode, as the system itself initialises the engine. Unique-mode and not-initialised
// scenarios run in forked children.
inline void InitShared() {
    ASSERT_EQ(SHADOWHOOK_ERRNO_OK, shadowhook_init(SHADOWHOOK_MODE_SHARED, false));
    ASSERT_EQ(SHADOWHOOK_MODE_SHARED, shadowhook_get_mode());
}

// Address of `symbol` in an already loadable library (loaded if needed, never unloaded).
inline void* Symbol(const char* library, const char* symbol) {
    void* handle = dlopen(library, RTLD_NOW);
    if (handle == nullptr) {
        ADD_FAILURE() << "dlopen(" << library << "): " << dlerror();
        return nullptr;
    }
    void* address = dlsym(handle, symbol);
    EXPECT_NE(nullptr, address) << symbol << " in " << library;
    return address;
}

inline std::string TestLibrary() {
    return std::string(CORVANE_BUILD_DIR) + "/testlib/libinlinehook_testlib.so";
}

inline std::vector<uint8_t> Bytes(const void* address, size_t count = 32) {
    const uint8_t* begin = static_cast<const uint8_t*>(address);
    return std::vector<uint8_t>(begin, begin + count);
}

// The orig entry the engine handed out, read as the replacement reads it on other threads.
template <typename Function>
Function Orig(void* const* slot) {
    return reinterpret_cast<Function>(__atomic_load_n(slot, __ATOMIC_ACQUIRE));
}

}  // namespace inlinehooktest

// For bodies run with RunInChild: report the failed condition and exit non-zero.
#define CHILD_CHECK(condition)                                                            \
    do {                                                                                  \
        if (!(condition)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            return 1;                                                                     \
        }                                                                                 \
    } while (0)
