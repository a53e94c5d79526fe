// Hooks installed and removed thousands of times while other threads call the function in a
// tight loop: no caller may crash or see anything but the original or the replacement result.
// The targets cover each way the engine writes an entry: with the other threads paused (several
// displaced instructions, or 5 bytes straddling a cache line), by one atomic store, and in
// shared mode by retargeting a chain whose entry stays patched.
#include <math.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/inlinehook/inlinehooktest.h"

namespace {

using inlinehooktest::Bytes;
using inlinehooktest::Code;
using inlinehooktest::IntFunction;
using inlinehooktest::Symbol;
using inlinehooktest::Unary;

struct Target {
    const char* library;  // null: the hand-written test library
    const char* symbol;
    bool integer;
    bool chained = false;  // toggled on top of a permanent hook
};

void PrintTo(const Target& target, std::ostream* out) {
    *out << target.symbol << (target.chained ? "_chained" : "");
}

#if defined(__SANITIZE_THREAD__)
// Thread sanitizer holds a signal back until the thread reaches code it instruments, so every
// pause waits for that; fewer cycles keep the run short.
constexpr int kCycles = 200;
#else
constexpr int kCycles = 2000;
#endif
constexpr int kCallers = 2;
constexpr int kInputs = 64;

void* g_baseOrig = nullptr;
double PermanentBase(double x) {
    SHADOWHOOK_STACK_SCOPE();
    return SHADOWHOOK_CALL_PREV(PermanentBase, x) - 1.0;
}

class HookConcurrencyTest : public ::testing::TestWithParam<Target> {
  protected:
    void SetUp() override { inlinehooktest::InitShared(); }
};

TEST_P(HookConcurrencyTest, CallersSeeTheOriginalOrTheReplacementWhileHooksToggle) {
    const Target& target = GetParam();
    std::string library =
        target.library != nullptr ? target.library : inlinehooktest::TestLibrary();
    void* address = Symbol(library.c_str(), target.symbol);
    ASSERT_NE(nullptr, address);
    const std::vector<uint8_t> before = Bytes(address);
    void* base = nullptr;
    if (target.chained) {
        base = shadowhook_hook_sym_addr(address, Code(PermanentBase), &g_baseOrig);
        ASSERT_NE(nullptr, base) << shadowhook_to_errmsg(shadowhook_get_errno());
    }

    // Expected results, computed before the toggling starts.
    auto call = [&](int i) -> double {
        return target.integer ? reinterpret_cast<IntFunction>(address)(i)
                              : reinterpret_cast<Unary>(address)(0.37 * i + 0.25);
    };
    std::vector<double> original(kInputs), replaced(kInputs);
    for (int i = 0; i < kInputs; ++i) {
        original[i] = call(i);
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
                for (int i = 0; i < kInputs; ++i) {
                    double result = call(i);
                    if (result == replaced[i]) {
                        replacedSeen.fetch_add(1, std::memory_order_relaxed);
                    } else if (result != original[i]) {
                        wrong.fetch_add(1, std::memory_order_relaxed);
                    }
                }
                calls.fetch_add(kInputs, std::memory_order_relaxed);
            }
        });
    }
    // Lets the callers run between toggles, so every state is really met under load.
    auto letCallersRun = [&]() {
        long seen = calls.load();
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (calls.load() == seen && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
    };

    int failures = 0;
    for (int cycle = 0; cycle < kCycles && failures == 0; ++cycle) {
        void* stub = shadowhook_hook_sym_addr(address, replacement, orig);
        if (stub == nullptr) {
            ADD_FAILURE() << "cycle " << cycle << ": "
                          << shadowhook_to_errmsg(shadowhook_get_errno());
            break;
        }
        if (cycle % 8 == 0) {
            letCallersRun();
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
