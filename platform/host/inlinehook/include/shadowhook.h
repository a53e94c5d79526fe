// The inline-hook C API the library installs its hooks through. On a device the ShadowHook
// library provides it; on a Linux host our own engine implements the same functions, modes and
// error numbers, so the calling code is identical on both.
//
// On the host engine (docs/inlinehook.md):
//  - every call is thread-safe; hooks may be installed and removed while other threads run the
//    hooked function, each call then sees the function either hooked or not;
//  - the error numbers it returns are OK, UNINIT, INVALID_ARG, OOM, MPROT, INIT_ERRNO (signal
//    handler not installed), HOOK_DLSYM, HOOK_DUP, HOOK_SYMSZ, HOOK_ENTER (other threads could
//    not be paused for the patch), HOOK_REWRITE_FAILED and UNHOOK_NOTFOUND; the others keep a
//    message for callers that print any number;
//  - it owns SIGURG (passing on every SIGURG that is not its own to the previous handler);
//  - in shared mode replacements keep the same contract as on a device (the macros at the end):
//    they call what they replaced with SHADOWHOOK_CALL_PREV and pop their frame before returning,
//    or they run once per thread.
#pragma once

#include <stdbool.h>
#include <stdint.h>

#define SHADOWHOOK_ERRNO_OK 0
#define SHADOWHOOK_ERRNO_PENDING 1
#define SHADOWHOOK_ERRNO_UNINIT 2
#define SHADOWHOOK_ERRNO_INVALID_ARG 3
#define SHADOWHOOK_ERRNO_OOM 4
#define SHADOWHOOK_ERRNO_MPROT 5
#define SHADOWHOOK_ERRNO_WRITE_CRASH 6
#define SHADOWHOOK_ERRNO_INIT_ERRNO 7
#define SHADOWHOOK_ERRNO_INIT_SIGSEGV 8
#define SHADOWHOOK_ERRNO_INIT_SIGBUS 9
#define SHADOWHOOK_ERRNO_INIT_ENTER 10
#define SHADOWHOOK_ERRNO_INIT_SAFE 11
#define SHADOWHOOK_ERRNO_INIT_LINKER 12
#define SHADOWHOOK_ERRNO_INIT_HUB 13
#define SHADOWHOOK_ERRNO_HUB_CREAT 14
#define SHADOWHOOK_ERRNO_MONITOR_DLOPEN 15
#define SHADOWHOOK_ERRNO_MONITOR_THREAD 16
#define SHADOWHOOK_ERRNO_HOOK_DLOPEN_CRASH 17
#define SHADOWHOOK_ERRNO_HOOK_DLSYM 18
#define SHADOWHOOK_ERRNO_HOOK_DLSYM_CRASH 19
#define SHADOWHOOK_ERRNO_HOOK_DUP 20
#define SHADOWHOOK_ERRNO_HOOK_DLADDR_CRASH 21
#define SHADOWHOOK_ERRNO_HOOK_DLINFO 22
#define SHADOWHOOK_ERRNO_HOOK_SYMSZ 23
#define SHADOWHOOK_ERRNO_HOOK_ENTER 24
#define SHADOWHOOK_ERRNO_HOOK_REWRITE_CRASH 25
#define SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED 26
#define SHADOWHOOK_ERRNO_UNHOOK_NOTFOUND 27

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    SHADOWHOOK_MODE_SHARED = 0,  // hooks of one address chain; the newest runs first
    SHADOWHOOK_MODE_UNIQUE = 1   // a second hook of one address fails with HOOK_DUP
} shadowhook_mode_t;

#define SHADOWHOOK_IS_SHARED_MODE (SHADOWHOOK_MODE_SHARED == shadowhook_get_mode())
#define SHADOWHOOK_IS_UNIQUE_MODE (SHADOWHOOK_MODE_UNIQUE == shadowhook_get_mode())

// Initialises the engine once per process; later calls return the first call's result and
// change nothing. A mode other than shared or unique fails with INVALID_ARG. `debuggable` logs
// every step and every failure's exact reason under the tag "corvane_inlinehook".
int shadowhook_init(shadowhook_mode_t mode, bool debuggable);
int shadowhook_get_init_errno(void);
shadowhook_mode_t shadowhook_get_mode(void);
bool shadowhook_get_debuggable(void);
void shadowhook_set_debuggable(bool debuggable);

// The result of this thread's last hook or unhook call, and a message for any error number.
int shadowhook_get_errno(void);
const char* shadowhook_to_errmsg(int error_number);

// Replaces the function at `sym_addr` by `new_addr`. `*orig_addr` (optional) receives an entry
// that runs the original function (in shared mode too: calling it skips every other replacement
// chained on the function; use SHADOWHOOK_CALL_PREV there); it is written before the hook takes
// effect and left alone on failure. Returns a stub for shadowhook_unhook, or null on error. Stubs
// are opaque handles, never reused within a process.
void* shadowhook_hook_sym_addr(void* sym_addr, void* new_addr, void** orig_addr);
// The same for `sym_name` exported by `lib_name` (a file name or path as dlopen takes it), which
// must already be loaded: the host engine never loads a library to hook it.
void* shadowhook_hook_sym_name(const char* lib_name, const char* sym_name, void* new_addr,
                               void** orig_addr);
// Removes a hook: 0 on success, -1 on error (see shadowhook_get_errno). The orig entry it handed
// out stays callable afterwards.
int shadowhook_unhook(void* stub);

// What the macros below call from inside a replacement function. In shared mode every thread
// keeps a frame per replacement it has entered through a hook: the replacement (identified by the
// return address it was called with) pops it before returning. Until it does, calls of the same
// hooked function on that thread run the original, unless reentry is allowed.
//
// The entry after `func` in the chain of the function it replaces: the next older replacement or
// the original. In unique mode, the original.
void* shadowhook_get_prev_func(void* func);
void shadowhook_pop_stack(void* return_address);
void shadowhook_allow_reentrant(void* return_address);
void shadowhook_disallow_reentrant(void* return_address);
// The return address of the replacement running on this thread (its hooked function's caller).
void* shadowhook_get_return_address(void);

#ifdef __cplusplus
}
#endif

// Calls what `func` (the replacement this is written in) replaced, with the arguments given.
#ifdef __cplusplus
#define SHADOWHOOK_CALL_PREV(func, ...) \
    ((decltype(&(func)))shadowhook_get_prev_func((void*)(func)))(__VA_ARGS__)
#else
#define SHADOWHOOK_CALL_PREV(func, func_sig, ...) \
    ((func_sig)shadowhook_get_prev_func((void*)(func)))(__VA_ARGS__)
#endif

// Ends the replacement's frame; run it before every return of a replacement (C and C++).
#define SHADOWHOOK_POP_STACK()                                 \
    do {                                                       \
        if (SHADOWHOOK_IS_SHARED_MODE) {                       \
            shadowhook_pop_stack(__builtin_return_address(0)); \
        }                                                      \
    } while (0)

#ifdef __cplusplus
// Pops the replacement's frame when the scope it is declared in ends (C++ only).
class ShadowhookStackScope {
  public:
    explicit ShadowhookStackScope(void* return_address) : return_address_(return_address) {}
    ~ShadowhookStackScope() {
        if (SHADOWHOOK_IS_SHARED_MODE) {
            shadowhook_pop_stack(return_address_);
        }
    }
    ShadowhookStackScope(const ShadowhookStackScope&) = delete;
    ShadowhookStackScope& operator=(const ShadowhookStackScope&) = delete;

  private:
    void* return_address_;
};
#define SHADOWHOOK_STACK_SCOPE() \
    ShadowhookStackScope shadowhook_stack_scope_(__builtin_return_address(0))
#endif

// From here to SHADOWHOOK_DISALLOW_REENTRANT (or the pop), a call of the hooked function on this
// thread enters its replacements again instead of running the original.
#define SHADOWHOOK_ALLOW_REENTRANT()                                 \
    do {                                                             \
        if (SHADOWHOOK_IS_SHARED_MODE) {                             \
            shadowhook_allow_reentrant(__builtin_return_address(0)); \
        }                                                            \
    } while (0)
#define SHADOWHOOK_DISALLOW_REENTRANT()                                 \
    do {                                                                \
        if (SHADOWHOOK_IS_SHARED_MODE) {                                \
            shadowhook_disallow_reentrant(__builtin_return_address(0)); \
        }                                                               \
    } while (0)

// The address the hooked function was called from, inside a replacement.
#define SHADOWHOOK_RETURN_ADDRESS()                                      \
    ((void*)(SHADOWHOOK_IS_SHARED_MODE ? shadowhook_get_return_address() \
                                       : __builtin_return_address(0)))
