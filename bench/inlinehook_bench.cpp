// Costs of the host inline-hook engine on real library functions:
//  - installing plus removing one hook, for a function patched by one atomic store (hypot), for
//    one displacing several instructions (cbrt), and for that one with another thread to pause;
//  - the first hook of a function, which also reads the memory map, decodes and checks the
//    whole function and builds its trampoline;
//  - a call through an installed hook, against the direct call (the difference is the hook's
//    extra cost): in shared mode through the function's hub to a replacement that calls
//    SHADOWHOOK_CALL_PREV and pops its frame; in unique mode (CORVANE_BENCH_UNIQUE=1 in the
//    environment) straight to a replacement that calls orig.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <stdlib.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "shadowhook.h"

namespace {

void* Lookup(const char* library, const char* symbol) {
    void* handle = dlopen(library, RTLD_NOW);
    return handle != nullptr ? dlsym(handle, symbol) : nullptr;
}

bool Initialise() {
    static const int result = shadowhook_init(
        getenv("CORVANE_BENCH_UNIQUE") != nullptr ? SHADOWHOOK_MODE_UNIQUE : SHADOWHOOK_MODE_SHARED,
        false);
    return result == SHADOWHOOK_ERRNO_OK;
}

using Unary = double (*)(double);
void* g_unaryOrig = nullptr;
double UnaryReplacement(double x) {
    return reinterpret_cast<Unary>(__atomic_load_n(&g_unaryOrig, __ATOMIC_ACQUIRE))(x);
}

using Bound = unsigned long (*)(unsigned long);
void* g_boundOrig = nullptr;
unsigned long BoundReplacement(unsigned long length) {
    return reinterpret_cast<Bound>(__atomic_load_n(&g_boundOrig, __ATOMIC_RELAXED))(length);
}
// As a replacement installed in shared mode must be written.
unsigned long SharedBoundReplacement(unsigned long length) {
    SHADOWHOOK_STACK_SCOPE();
    return SHADOWHOOK_CALL_PREV(SharedBoundReplacement, length);
}

// An idle thread, blocked until the benchmark ends: the engine must pause it whenever an entry
// rewrite could tear an instruction under it.
class IdleThread {
  public:
    IdleThread()
        : m_thread([this] {
              std::unique_lock<std::mutex> lock(m_mutex);
              m_wake.wait(lock, [this] { return m_done; });
          }) {}
    ~IdleThread() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_done = true;
        }
        m_wake.notify_one();
        m_thread.join();
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_done = false;
    std::thread m_thread;
};

void BM_InstallRemove(benchmark::State& state, const char* symbol, bool withIdleThread) {
    void* target = Lookup("libm.so.6", symbol);
    if (!Initialise() || target == nullptr) {
        state.SkipWithError("engine or function unavailable");
        return;
    }
    std::unique_ptr<IdleThread> idle = withIdleThread ? std::make_unique<IdleThread>() : nullptr;
    for (auto _ : state) {
        void* stub = shadowhook_hook_sym_addr(target, reinterpret_cast<void*>(UnaryReplacement),
                                              &g_unaryOrig);
        if (stub == nullptr || shadowhook_unhook(stub) != 0) {
            state.SkipWithError(shadowhook_to_errmsg(shadowhook_get_errno()));
            return;
        }
    }
}
// hypot: one displaced instruction, patched by one atomic store.
BENCHMARK_CAPTURE(BM_InstallRemove, hypot_one_instruction, "hypot", false)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(10)
    ->ReportAggregatesOnly(true);
// cbrt: several displaced instructions; a process that never started a thread pauses nothing.
BENCHMARK_CAPTURE(BM_InstallRemove, cbrt_several_instructions, "cbrt", false)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(10)
    ->ReportAggregatesOnly(true);
// The same with one other thread, which the engine pauses (and moves if need be) on install.
BENCHMARK_CAPTURE(BM_InstallRemove, cbrt_one_other_thread_paused, "cbrt", true)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(10)
    ->ReportAggregatesOnly(true);

// Each iteration hooks a libm function never hooked before, then unhooks it.
const char* const kFreshFunctions[] = {"acos",  "asin",  "atan",   "cos",    "cosh",  "exp2",
                                       "expm1", "floor", "ceil",   "log10",  "log2",  "sinh",
                                       "tan",   "tanh",  "trunc",  "round",  "asinh", "acosh",
                                       "atanh", "erfc",  "lgamma", "tgamma", "y0",    "y1"};
void BM_FirstHookOfAFunction(benchmark::State& state) {
    if (!Initialise()) {
        state.SkipWithError("engine unavailable");
        return;
    }
    size_t next = 0;
    size_t refused = 0;
    for (auto _ : state) {
        void* target = Lookup("libm.so.6", kFreshFunctions[next++ % std::size(kFreshFunctions)]);
        void* stub = target != nullptr
                         ? shadowhook_hook_sym_addr(
                               target, reinterpret_cast<void*>(UnaryReplacement), &g_unaryOrig)
                         : nullptr;
        if (stub == nullptr) {
            ++refused;
        } else {
            shadowhook_unhook(stub);
        }
    }
    state.counters["refused"] = static_cast<double>(refused);
}
BENCHMARK(BM_FirstHookOfAFunction)
    ->Unit(benchmark::kMicrosecond)
    ->Iterations(std::size(kFreshFunctions));

// compressBound: a few arithmetic instructions, so the hook's own cost dominates the difference.
// Each call depends on the previous result, so the loop measures latency, not throughput.
void CallLoop(benchmark::State& state, Bound function) {
    Bound volatile call = function;
    unsigned long value = 1;
    for (auto _ : state) {
        value = call(value & 0xffff);
        benchmark::DoNotOptimize(value);
    }
}

void BM_CallDirect(benchmark::State& state) {
    Bound target = reinterpret_cast<Bound>(Lookup("libz.so.1", "compressBound"));
    if (target == nullptr) {
        state.SkipWithError("libz unavailable");
        return;
    }
    CallLoop(state, target);
}
BENCHMARK(BM_CallDirect)->Repetitions(10)->ReportAggregatesOnly(true);

// The replacement calls the original through its orig entry. Where it lives matters on some
// CPUs: indirect jumps between the executable and the libraries, gigabytes apart, predict worse
// than jumps within the library area, where the system's own replacements (in its shared
// library) sit. Both are measured; the shared-library one comes from the inline-hook test library
// (build corvane_inlinehook_testlib first).
void BM_CallThroughHookCallingOrig(benchmark::State& state, bool replacementInLibrary) {
    if (!Initialise() || shadowhook_get_mode() != SHADOWHOOK_MODE_UNIQUE) {
        // In shared mode a replacement that never pops runs once per thread.
        state.SkipWithError("unique mode only: run with CORVANE_BENCH_UNIQUE=1");
        return;
    }
    void* target = Lookup("libz.so.1", "compressBound");
    void* replacement = reinterpret_cast<void*>(BoundReplacement);
    void** orig = &g_boundOrig;
    if (replacementInLibrary) {
        const char* library = CORVANE_LIB_DIR "/../testlib/libinlinehook_testlib.so";
        replacement = Lookup(library, "ih_forward");
        orig = static_cast<void**>(Lookup(library, "ih_forward_orig"));
        if (replacement == nullptr || orig == nullptr) {
            state.SkipWithError("libinlinehook_testlib.so not built");
            return;
        }
    }
    void* stub = Initialise() && target != nullptr
                     ? shadowhook_hook_sym_addr(target, replacement, orig)
                     : nullptr;
    if (stub == nullptr) {
        state.SkipWithError("could not hook compressBound");
        return;
    }
    CallLoop(state, reinterpret_cast<Bound>(target));
    shadowhook_unhook(stub);
}
BENCHMARK_CAPTURE(BM_CallThroughHookCallingOrig, replacement_in_shared_library, true)
    ->Repetitions(10)
    ->ReportAggregatesOnly(true);
BENCHMARK_CAPTURE(BM_CallThroughHookCallingOrig, replacement_in_executable, false)
    ->Repetitions(10)
    ->ReportAggregatesOnly(true);

// Shared mode: the entry leads to the function's hub, which pushes this thread's frame and jumps
// to the replacement; the replacement asks for the previous entry and pops its frame.
void BM_CallThroughSharedReplacementCallingPrev(benchmark::State& state) {
    void* target = Lookup("libz.so.1", "compressBound");
    if (!Initialise() || shadowhook_get_mode() != SHADOWHOOK_MODE_SHARED || target == nullptr) {
        state.SkipWithError("shared mode only");
        return;
    }
    void* stub =
        shadowhook_hook_sym_addr(target, reinterpret_cast<void*>(SharedBoundReplacement), nullptr);
    if (stub == nullptr) {
        state.SkipWithError("could not hook compressBound");
        return;
    }
    CallLoop(state, reinterpret_cast<Bound>(target));
    shadowhook_unhook(stub);
}
BENCHMARK(BM_CallThroughSharedReplacementCallingPrev)->Repetitions(10)->ReportAggregatesOnly(true);

}  // namespace
