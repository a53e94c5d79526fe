// Helpers shared by the inline-hook tests: initialisation, real library functions, byte
// snapshots, replacements with predictable results and checks that run inside forked children.
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

using Unary = double (*)(double);
using IntFunction = int (*)(int);

// Shared mode, as the system itself initialises the engine. Unique-mode and not-initialised
// scenarios run in forked children.
class SharedModeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(SHADOWHOOK_ERRNO_OK, shadowhook_init(SHADOWHOOK_MODE_SHARED, false));
    }
};

// Address of `symbol` in an already loadable library (loaded if needed, never unloaded).
inline void* Symbol(const char* library, const char* symbol) {
    void* handle = dlopen(library, RTLD_NOW);
    EXPECT_NE(nullptr, handle) << dlerror();
    void* address = handle != nullptr ? dlsym(handle, symbol) : nullptr;
    EXPECT_NE(nullptr, address) << symbol << " in " << library;
    return address;
}

// A function of the hand-written test library.
inline void* TestSymbol(const char* symbol) {
    return Symbol((std::string(CORVANE_BUILD_DIR) + "/testlib/libinlinehook_testlib.so").c_str(),
                  symbol);
}

inline std::vector<uint8_t> Bytes(const void* address, size_t count = 32) {
    const uint8_t* begin = static_cast<const uint8_t*>(address);
    return std::vector<uint8_t>(begin, begin + count);
}

template <typename Function>
void* Code(Function function) {
    return reinterpret_cast<void*>(function);
}

// The orig entry the engine handed out, read as the replacement reads it on other threads.
template <typename Function>
Function Orig(void* const* slot) {
    return reinterpret_cast<Function>(__atomic_load_n(slot, __ATOMIC_ACQUIRE));
}

// Replacements that run what they replaced and change its result in a way the tests predict, so
// a result tells whether the hook ran. The orig slots receive the original function.
inline void* g_unaryOrig = nullptr;
inline double PlusThousand(double x) {
    SHADOWHOOK_STACK_SCOPE();
    return SHADOWHOOK_CALL_PREV(PlusThousand, x) + 1000.0;
}
inline void* g_intOrig = nullptr;
inline int Twice(int x) {
    SHADOWHOOK_STACK_SCOPE();
    return SHADOWHOOK_CALL_PREV(Twice, x) * 2;
}

// Scenarios that need the engine uninitialised run in a forked child; that only works if this
// process never initialised it, which holds under CTest (one process per test case).
#define SKIP_IF_ENGINE_INITIALISED()                                                  \
    do {                                                                              \
        if (shadowhook_get_init_errno() != SHADOWHOOK_ERRNO_UNINIT) {                 \
            GTEST_SKIP() << "the engine is already initialised in this process; run " \
                            "this case alone (as CTest does)";                        \
        }                                                                             \
    } while (0)

}  // namespace inlinehooktest

// For bodies run with RunInChild: report the failed condition and exit non-zero.
#define CHILD_CHECK(condition)                                                            \
    do {                                                                                  \
        if (!(condition)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            return 1;                                                                     \
        }                                                                                 \
    } while (0)
