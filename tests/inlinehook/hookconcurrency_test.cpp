// Hooks installed and removed thousands of times while other threads call the function in a
// tight loop: no caller may crash or see anything but the original or the replacement result.
// The targets cover each way the engine writes an entry: with the other threads paused (several
// displaced instructions, or 5 bytes straddling a cache line), by one atomic store, and in
// shared mode by retargeting a chain whose entry stays patched.
#include <math.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/inlinehook/inlinehooktest.h"

namespace {

using inlinehooktest::Bytes;
using inlinehooktest::Code;
using inlinehooktest::IntFunction;
using inlinehooktest::Orig;
using inlinehooktest::Symbol;
using inlinehooktest::Unary;

struct Target {
    const char* library;  // null: the hand-written test library
    const char* symbol;
    bool integer;
    bool chained = false;  // toggled on top of a permanent hook
};

#if defined(__SANITIZE_THREAD__)
// Thread sanitizer holds a signal back until the thread reaches code it instruments, so every
// pause waits for that; fewer cycles keep the run short.
constexpr int kCycles = 200;
#else
constexpr int kCycles = 2000;
#endif
constexpr int kCallers = 2;
constexpr int kInputs = 64;

double PermanentBase(double x) {
    SHADOWHOOK_STACK_SCOPE();
    return SHADOWHOOK_CALL_PREV(PermanentBase, x) - 1.0;
}

class HookConcurrencyTest : public ::testing::TestWithParam<Target> {
  protected:
    void SetUp() override { inlinehooktest::InitShared(); }
};

// Every cycle also gets a stub never handed out before, and an orig entry taken before its hook
// was removed (a thread still inside the replacement) keeps running the original.
TEST_P(HookConcurrencyTest, CallersSeeTheOriginalOrTheReplacementWhileHooksToggle) {
    const Target& target = GetParam();
    std::string library =
        target.library != nullptr ? target.library : inlinehooktest::TestLibrary();
    void* address = Symbol(library.c_str(), target.symbol);
    ASSERT_NE(nullptr, address);
    const std::vector<uint8_t> before = Bytes(address);
    auto call = [&](void* function, int i) -> double {
        return target.integer ? reinterpret_cast<IntFunction>(function)(i)
                              : reinterpret_cast<Unary>(function)(0.37 * i + 0.25);
    };
    const double unhooked = call(address, 3);
    void* base = nullptr;
    if (target.chained) {
        base = shadowhook_hook_sym_addr(address, Code(PermanentBase), nullptr);
        ASSERT_NE(nullptr, base) << shadowhook_to_errmsg(shadowhook_get_errno());
    }
    std::vector<double> original(kInputs), replaced(kInputs);
    for (int i = 0; i < kInputs; ++i) {
        original[i] = call(address, i);
        replaced[i] = target.integer ? original[i] * 2 : original[i] + 1000.0;
    }
    void* replacement =
        target.integer ? Code(inlinehooktest::Twice) : Code(inlinehooktest::PlusThousand);
    void** orig = target.integer ? &inlinehooktest::g_intOrig : &inlinehooktest::g_unaryOrig;

    std::atomic<bool> stop{false};
    std::atomic<long> calls{0};
    std::atomic<long> wrong{0};
    std::atomic<long> replacedSeen{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < kCallers; ++t) {
        callers.emplace_back([&]() {
            while (!stop.load(std::memory_order_relaxed)) {
                long seen = 0, bad = 0;
                for (int i = 0; i < kInputs; ++i) {
                    double result = call(address, i);
                    seen += result == replaced[i];
                    bad += result != replaced[i] && result != original[i];
                }
                replacedSeen += seen;
                wrong += bad;
                calls += kInputs;
            }
        });
    }
    // Lets the callers run between toggles, so every state is really met under load.
    auto letCallersRun = [&]() {
        long seen = calls.load();
        corvanetest::WaitFor([&] { return calls.load() != seen; });
    };
    std::set<void*> stubs;
    std::vector<void*> staleOrigs;
    int failures = 0;
    for (int cycle = 0; cycle < kCycles && failures == 0; ++cycle) {
        void* stub = shadowhook_hook_sym_addr(address, replacement, orig);
        EXPECT_NE(nullptr, stub) << cycle << ": " << shadowhook_to_errmsg(shadowhook_get_errno());
        failures += !stubs.insert(stub).second;
        if (cycle % 8 == 0) {
            letCallersRun();
            staleOrigs.push_back(Orig<void*>(orig));
        }
        failures += shadowhook_unhook(stub) != 0;
        if (cycle % 8 == 4) {
            letCallersRun();
        }
    }
    stop = true;
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(0, failures);
    EXPECT_EQ(0, wrong.load());
    EXPECT_GT(replacedSeen.load(), 0) << "the callers never ran while hooked";
    EXPECT_GT(calls.load() - replacedSeen.load(), 0);
    for (size_t i = 0; i < staleOrigs.size(); i += 50) {
        EXPECT_EQ(unhooked, call(staleOrigs[i], 3));
    }
    if (base != nullptr) {
        EXPECT_EQ(0, shadowhook_unhook(base));
    }
    EXPECT_EQ(before, Bytes(address));
}

INSTANTIATE_TEST_SUITE_P(
    Targets, HookConcurrencyTest,
#if defined(__x86_64__)
    ::testing::Values(Target{"libm.so.6", "erf", false},       // push rbp first: threads paused
                      Target{"libm.so.6", "cbrt", false},      // sub rsp; movapd: threads paused
                      Target{"libm.so.6", "log1p", false},     // one instruction: atomic store
                      Target{nullptr, "ih_cross_line", true},  // straddles a cache line
                      Target{nullptr, "ih_single", true},      // unaligned locked store
                      Target{"libm.so.6", "cbrt", false, true}),
#else
    // AArch64: one aligned 4-byte store, never a pause; ih_pac keeps a PACIASP at its entry.
    ::testing::Values(Target{"libm.so.6", "erf", false}, Target{"libm.so.6", "cbrt", false},
                      Target{"libm.so.6", "log1p", false}, Target{nullptr, "ih_pac", true},
                      Target{"libm.so.6", "cbrt", false, true}),
#endif
    [](const ::testing::TestParamInfo<Target>& info) {
        return std::string(info.param.symbol) + (info.param.chained ? "_chained" : "");
    });

}  // namespace
