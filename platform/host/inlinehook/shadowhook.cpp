// The ShadowHook C API on a Linux host: argument checks, the once-per-process initialisation,
// the per-thread error number and the messages; the work is HookEngine's.
#include "shadowhook.h"

#include <dlfcn.h>
#include <string.h>

#include <atomic>
#include <mutex>

#include "hookengine.h"
#include "hooklog.h"
#include "hookstatus.h"

#define SHADOWHOOK_API extern "C" __attribute__((visibility("default")))

namespace {

using corvane::inlinehook::Format;
using corvane::inlinehook::HookEngine;
using corvane::inlinehook::HookStatus;

std::mutex g_initMutex;
bool g_initCalled = false;  // guarded by g_initMutex
std::atomic<int> g_initResult{SHADOWHOOK_ERRNO_UNINIT};
std::atomic<int> g_mode{SHADOWHOOK_MODE_SHARED};
thread_local int t_errno = SHADOWHOOK_ERRNO_OK;

struct ErrorMessage {
    int number;
    const char* text;
};

// One sentence per error number, saying what happened and what to do. Numbers the host engine
// never returns keep a message too, since callers may print any number they hold.
constexpr ErrorMessage kMessages[] = {
    {SHADOWHOOK_ERRNO_OK, "OK"},
    {SHADOWHOOK_ERRNO_PENDING,
     "the hook waits for its library to be loaded (not used by the host engine)"},
    {SHADOWHOOK_ERRNO_UNINIT,
     "the inline-hook engine is not initialised: call shadowhook_init first and check that it "
     "returned 0"},
    {SHADOWHOOK_ERRNO_INVALID_ARG,
     "invalid argument: a required pointer is null, the mode is neither shared (0) nor unique "
     "(1), or the address is not hookable code (not mapped executable, the replacement itself, or "
     "one of the engine's own orig entries)"},
    {SHADOWHOOK_ERRNO_OOM,
     "out of memory: no memory for the hook's records, or no free address space within 2 GiB of "
     "the function for its relay and trampoline"},
    {SHADOWHOOK_ERRNO_MPROT,
     "mprotect failed: the function's code page or a relay page could not be made writable (a "
     "security policy forbidding writable code?), or /proc/self/maps could not be read"},
    {SHADOWHOOK_ERRNO_WRITE_CRASH, "writing the function's first bytes crashed"},
    {SHADOWHOOK_ERRNO_INIT_ERRNO,
     "initialisation failed: the SIGURG handler the engine pauses threads with could not be "
     "installed"},
    {SHADOWHOOK_ERRNO_INIT_SIGSEGV, "initialisation failed: the SIGSEGV handler could not be set"},
    {SHADOWHOOK_ERRNO_INIT_SIGBUS, "initialisation failed: the SIGBUS handler could not be set"},
    {SHADOWHOOK_ERRNO_INIT_ENTER, "initialisation failed: the entry trampolines could not be set"},
    {SHADOWHOOK_ERRNO_INIT_SAFE, "initialisation failed: the safe-call table could not be set"},
    {SHADOWHOOK_ERRNO_INIT_LINKER, "initialisation failed: the dynamic linker could not be hooked"},
    {SHADOWHOOK_ERRNO_INIT_HUB, "initialisation failed: the shared-mode hub could not be set"},
    {SHADOWHOOK_ERRNO_HUB_CREAT, "the shared-mode hub for this address could not be created"},
    {SHADOWHOOK_ERRNO_MONITOR_DLOPEN, "library loads could not be monitored"},
    {SHADOWHOOK_ERRNO_MONITOR_THREAD, "the library-load monitor thread could not be started"},
    {SHADOWHOOK_ERRNO_HOOK_DLOPEN_CRASH, "looking the library up crashed"},
    {SHADOWHOOK_ERRNO_HOOK_DLSYM,
     "symbol not found: the library is not loaded in this process or does not export that "
     "symbol; load the library first (the host engine does not keep hooks pending)"},
    {SHADOWHOOK_ERRNO_HOOK_DLSYM_CRASH, "looking the symbol up crashed"},
    {SHADOWHOOK_ERRNO_HOOK_DUP,
     "already hooked: in unique mode an address takes one hook, and in shared mode the same "
     "replacement cannot be chained twice on one address; unhook the existing hook first"},
    {SHADOWHOOK_ERRNO_HOOK_DLADDR_CRASH, "looking the address up crashed"},
    {SHADOWHOOK_ERRNO_HOOK_DLINFO, "no information about the library holding the address"},
    {SHADOWHOOK_ERRNO_HOOK_SYMSZ,
     "the function is too short: by its ELF symbol size, or by a return or jump within its "
     "first bytes, it ends before the 5 bytes the hook's jump needs"},
    {SHADOWHOOK_ERRNO_HOOK_ENTER,
     "the other threads could not be paused to patch the function safely (a thread did not "
     "answer, too many threads, or the engine's SIGURG handler was replaced); nothing was "
     "changed, try again"},
    {SHADOWHOOK_ERRNO_HOOK_REWRITE_CRASH, "rewriting the function's first instructions crashed"},
    {SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED,
     "the function's first instructions cannot be moved safely (an instruction the engine does "
     "not relocate, a branch from later in the function back into them, a call before their end, "
     "a breakpoint, or a target out of reach); nothing was changed, and enabling debuggable logs "
     "the exact reason"},
    {SHADOWHOOK_ERRNO_UNHOOK_NOTFOUND,
     "unknown stub: it was not returned by a hook call, or it has already been unhooked"},
};

int Finish(const HookStatus& status, const char* call) {
    t_errno = status.number;
    if (!status.ok()) {
        INLINEHOOK_LOGW("%s failed: %d (%s)%s%s", call, status.number,
                        shadowhook_to_errmsg(status.number), status.detail.empty() ? "" : ": ",
                        status.detail.c_str());
    }
    return status.number;
}

bool Initialised() {
    return g_initResult.load(std::memory_order_acquire) == SHADOWHOOK_ERRNO_OK;
}

void* HookAddress(void* sym_addr, void* new_addr, void** orig_addr, const char* call) {
    if (!Initialised()) {
        Finish(HookStatus::Error(SHADOWHOOK_ERRNO_UNINIT, ""), call);
        return nullptr;
    }
    if (sym_addr == nullptr || new_addr == nullptr) {
        Finish(HookStatus::Error(SHADOWHOOK_ERRNO_INVALID_ARG, sym_addr == nullptr
                                                                   ? "the function address is null"
                                                                   : "the replacement is null"),
               call);
        return nullptr;
    }
    void* stub = nullptr;
    HookStatus status;
    try {
        status =
            HookEngine::Instance().Hook(reinterpret_cast<uintptr_t>(sym_addr),
                                        reinterpret_cast<uintptr_t>(new_addr), orig_addr, &stub);
    } catch (...) {
        // Only allocation throws in the engine; nothing may cross the C API.
        status = HookStatus::Error(SHADOWHOOK_ERRNO_OOM, "");
    }
    Finish(status, call);
    return status.ok() ? stub : nullptr;
}

}  // namespace

SHADOWHOOK_API int shadowhook_init(shadowhook_mode_t mode, bool debuggable) {
    std::lock_guard<std::mutex> lock(g_initMutex);
    if (g_initCalled) {
        t_errno = g_initResult.load();
        return t_errno;
    }
    g_initCalled = true;
    corvane::inlinehook::SetDebuggable(debuggable);
    HookStatus status;
    // A C caller may pass any int as the mode. In C++ a shadowhook_mode_t outside its two
    // enumerators is not a value the compiler has to keep (it may fold this very test away), so
    // the mode is looked at through its int representation until it is known to be valid.
    static_assert(sizeof(shadowhook_mode_t) == sizeof(int), "the mode is passed as an int");
    int rawMode = 0;
    memcpy(&rawMode, &mode, sizeof(rawMode));
    if (rawMode != SHADOWHOOK_MODE_SHARED && rawMode != SHADOWHOOK_MODE_UNIQUE) {
        status =
            HookStatus::Error(SHADOWHOOK_ERRNO_INVALID_ARG, Format("unknown mode %d", rawMode));
    } else {
        g_mode.store(mode);
        try {
            status = HookEngine::Instance().Initialise(mode);
        } catch (...) {
            status = HookStatus::Error(SHADOWHOOK_ERRNO_OOM, "");
        }
    }
    g_initResult.store(status.number, std::memory_order_release);
    if (status.ok()) {
        INLINEHOOK_LOGI("initialised in %s mode",
                        mode == SHADOWHOOK_MODE_UNIQUE ? "unique" : "shared");
    }
    return Finish(status, "shadowhook_init");
}

SHADOWHOOK_API int shadowhook_get_init_errno(void) {
    return g_initResult.load(std::memory_order_acquire);
}

SHADOWHOOK_API shadowhook_mode_t shadowhook_get_mode(void) {
    return static_cast<shadowhook_mode_t>(g_mode.load());
}

SHADOWHOOK_API bool shadowhook_get_debuggable(void) {
    return corvane::inlinehook::IsDebuggable();
}

SHADOWHOOK_API void shadowhook_set_debuggable(bool debuggable) {
    corvane::inlinehook::SetDebuggable(debuggable);
}

SHADOWHOOK_API int shadowhook_get_errno(void) {
    return t_errno;
}

SHADOWHOOK_API const char* shadowhook_to_errmsg(int error_number) {
    for (const ErrorMessage& message : kMessages) {
        if (message.number == error_number) {
            return message.text;
        }
    }
    return "unknown error number";
}

SHADOWHOOK_API void* shadowhook_hook_sym_addr(void* sym_addr, void* new_addr, void** orig_addr) {
    return HookAddress(sym_addr, new_addr, orig_addr, "shadowhook_hook_sym_addr");
}

SHADOWHOOK_API void* shadowhook_hook_sym_name(const char* lib_name, const char* sym_name,
                                              void* new_addr, void** orig_addr) {
    constexpr const char* kCall = "shadowhook_hook_sym_name";
    if (!Initialised()) {
        Finish(HookStatus::Error(SHADOWHOOK_ERRNO_UNINIT, ""), kCall);
        return nullptr;
    }
    if (lib_name == nullptr || sym_name == nullptr || new_addr == nullptr) {
        Finish(HookStatus::Error(SHADOWHOOK_ERRNO_INVALID_ARG,
                                 "the library name, symbol name or replacement is null"),
               kCall);
        return nullptr;
    }
    // Only libraries already loaded: hooking must not load code as a side effect.
    void* library = dlopen(lib_name, RTLD_NOW | RTLD_NOLOAD);
    if (library == nullptr) {
        Finish(HookStatus::Error(SHADOWHOOK_ERRNO_HOOK_DLSYM,
                                 Format("%s is not loaded in this process", lib_name)),
               kCall);
        return nullptr;
    }
    void* address = dlsym(library, sym_name);
    dlclose(library);
    if (address == nullptr) {
        Finish(HookStatus::Error(SHADOWHOOK_ERRNO_HOOK_DLSYM,
                                 Format("%s does not export %s", lib_name, sym_name)),
               kCall);
        return nullptr;
    }
    return HookAddress(address, new_addr, orig_addr, kCall);
}

SHADOWHOOK_API int shadowhook_unhook(void* stub) {
    constexpr const char* kCall = "shadowhook_unhook";
    if (!Initialised()) {
        Finish(HookStatus::Error(SHADOWHOOK_ERRNO_UNINIT, ""), kCall);
        return -1;
    }
    if (stub == nullptr) {
        Finish(HookStatus::Error(SHADOWHOOK_ERRNO_INVALID_ARG, "the stub is null"), kCall);
        return -1;
    }
    HookStatus status;
    try {
        status = HookEngine::Instance().Unhook(stub);
    } catch (...) {
        status = HookStatus::Error(SHADOWHOOK_ERRNO_OOM, "");
    }
    return Finish(status, kCall) == SHADOWHOOK_ERRNO_OK ? 0 : -1;
}
