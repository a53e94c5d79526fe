// The engine on real functions of libm and of a hand-written test library: results through the
// hook and through orig, byte-exact restore, then thousands of hook cycles
// while other threads call the function in a tight loop, where no caller may crash or see
// anything but the original or the replacement result; and chain nodes kept out of use for a
// grace period.
#include "platform/host/inlinehook/hookengine.h"

#include <math.h>
#include <stdint.h>

#include <atomic>
#include <limits>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/inlinehook/inlinehooktest.h"

namespace {

using corvane::inlinehook::HookEngine;
using inlinehooktest::Bytes;
using inlinehooktest::Code;
using inlinehooktest::IntFunction;
using inlinehooktest::Symbol;
using inlinehooktest::Unary;

double PermanentBase(double x) {
    SHADOWHOOK_STACK_SCOPE();
    return SHADOWHOOK_CALL_PREV(PermanentBase, x) - 1.0;
}

struct Target {
    const char* symbol;
    bool integer;          // an int function of the hand-written test library, else libm's double
    bool chained = false;  // toggled on top of a permanent hook, which keeps the entry patched
};

double Input(int i) {
    return i % 97 == 0 ? std::numeric_limits<double>::quiet_NaN() : -4.0 + i * 0.0731;
}
uint64_t Bits(double value) {
    uint64_t bits;
    memcpy(&bits, &value, sizeof(bits));
    return bits;
}

// The i-th call as exact bits, and what the replacement (Twice or PlusThousand) makes of it.
uint64_t Call(bool integer, void* f, int i) {
    return integer ? static_cast<uint32_t>(reinterpret_cast<IntFunction>(f)(i - 128))
                   : Bits(reinterpret_cast<Unary>(f)(Input(i)));
}
uint64_t Hooked(bool integer, uint64_t result) {
    double value;
    memcpy(&value, &result, sizeof(value));
    return integer ? static_cast<uint32_t>(static_cast<int32_t>(result) * 2) : Bits(value + 1000.0);
}

#if defined(__SANITIZE_THREAD__)
// Thread sanitizer holds a signal back until the thread reaches code it instruments, so every
// pause waits for that; fewer cycles keep the run short.
constexpr int kCycles = 200;
#else
constexpr int kCycles = 2000;
#endif
constexpr int kCallers = 2;
constexpr int kInputs = 256;

class HookConcurrencyTest : public inlinehooktest::SharedModeTest,
                            public ::testing::WithParamInterface<Target> {};

// Every cycle also gets a stub never handed out before.
TEST_P(HookConcurrencyTest, HooksGiveTheReplacementOrigTheOriginalAlsoWhileTogglingUnderLoad) {
    const Target& target = GetParam();
    const bool integer = target.integer;
    void* address =
        integer ? inlinehooktest::TestSymbol(target.symbol) : Symbol("libm.so.6", target.symbol);
    ASSERT_NE(nullptr, address);
    const std::vector<uint8_t> before = Bytes(address);
    std::vector<uint64_t> real(kInputs), plain(kInputs), replaced(kInputs);
    for (int i = 0; i < kInputs; ++i) {
        real[i] = Call(integer, address, i);
    }
    void* base = nullptr;
    if (target.chained) {
        base = shadowhook_hook_sym_addr(address, Code(PermanentBase), nullptr);
        ASSERT_NE(nullptr, base) << shadowhook_to_errmsg(shadowhook_get_errno());
    }
    for (int i = 0; i < kInputs; ++i) {
        plain[i] = Call(integer, address, i);
        replaced[i] = Hooked(integer, plain[i]);
    }
    void** orig = integer ? &inlinehooktest::g_intOrig : &inlinehooktest::g_unaryOrig;
    void* replacement = integer ? Code(inlinehooktest::Twice) : Code(inlinehooktest::PlusThousand);
    auto mismatches = [&](void* function, const std::vector<uint64_t>& expected) {
        int count = 0;
        for (int i = 0; i < kInputs; ++i) {
            count += Call(integer, function, i) != expected[i];
        }
        return count;
    };

    void* stub = shadowhook_hook_sym_addr(address, replacement, orig);
    ASSERT_NE(nullptr, stub) << shadowhook_to_errmsg(shadowhook_get_errno());
    EXPECT_EQ(SHADOWHOOK_ERRNO_OK, shadowhook_get_errno());
    EXPECT_EQ(0, mismatches(address, replaced));
    EXPECT_EQ(0, mismatches(*orig, real));
    ASSERT_EQ(0, shadowhook_unhook(stub));
    EXPECT_EQ(0, mismatches(address, plain));

    std::atomic<bool> stop{false};
    std::atomic<long> calls{0}, wrong{0}, replacedSeen{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < kCallers; ++t) {
        callers.emplace_back([&]() {
            while (!stop.load(std::memory_order_relaxed)) {
                long seen = 0, bad = 0;
                for (int i = 0; i < kInputs; ++i) {
                    uint64_t result = Call(integer, address, i);
                    seen += result == replaced[i];
                    bad += result != replaced[i] && result != plain[i];
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
    int failures = 0;
    for (int cycle = 0; cycle < kCycles && failures == 0; ++cycle) {
        stub = shadowhook_hook_sym_addr(address, replacement, orig);
        EXPECT_NE(nullptr, stub) << cycle << ": " << shadowhook_to_errmsg(shadowhook_get_errno());
        failures += !stubs.insert(stub).second;
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
    EXPECT_EQ(before, Bytes(address)) << "original bytes restored exactly";
    EXPECT_EQ(0, mismatches(address, real));
}

// Between them the libm prologues displace what compilers emit at entries (on Debian 12 x86-64:
// a stack frame in cbrt, a RIP-relative load in log1p or as second operand in j0, a 1-byte push
// first in erf). Erf and cbrt displace several instructions, so other threads are paused; log1p
// is one atomic store.
// Of the test library's entries one straddles a cache line, one is a single unaligned locked
// store, one keeps a landing pad (endbr64, PACIASP); beside the shapes the engine refuses, one is
// an entry point inside another function and one has no symbol size. AArch64 writes one aligned
// word and never pauses.
INSTANTIATE_TEST_SUITE_P(Targets, HookConcurrencyTest,
                         ::testing::Values(Target{"cbrt", false}, Target{"erf", false},
                                           Target{"log1p", false}, Target{"cbrt", false, true},
#if defined(__x86_64__)
                                           Target{"j0", false}, Target{"ih_cross_line", true},
                                           Target{"ih_single", true}, Target{"ih_endbr", true},
#else
                      Target{"ih_pac", true},
#endif
                                           Target{"ih_alias_inner", true},
                                           Target{"ih_unsized", true}),
                         [](const ::testing::TestParamInfo<Target>& info) {
                             return std::string(info.param.symbol) +
                                    (info.param.chained ? "_chained" : "");
                         });

using HookEngineTest = inlinehooktest::SharedModeTest;

TEST_F(HookEngineTest, ChainNodesOfRemovedHooksAreReusedOnlyAfterTheGracePeriod) {
    HookEngine& engine = HookEngine::Instance();
    void* address = Symbol("libm.so.6", "erf");
    void* base = shadowhook_hook_sym_addr(address, Code(PermanentBase), nullptr);
    ASSERT_NE(nullptr, base);
    // After 1 and 50 hook cycles within the grace period, then 500 with none.
    std::vector<HookEngine::Statistics> after;
    for (int count : {1, 50, 500}) {
        engine.SetGracePeriod(count == 500 ? std::chrono::milliseconds(0)
                                           : HookEngine::kDefaultGracePeriod);
        for (int i = 0; i < count; ++i) {
            void* stub =
                shadowhook_hook_sym_addr(address, Code(inlinehooktest::PlusThousand), nullptr);
            ASSERT_NE(nullptr, stub);
            ASSERT_EQ(0, shadowhook_unhook(stub));
        }
        after.push_back(engine.GetStatistics());
    }
    engine.SetGracePeriod(HookEngine::kDefaultGracePeriod);
    EXPECT_EQ(after[0].sites, after[1].sites) << "the function's trampoline is reused";
    EXPECT_EQ(after[0].chainNodes + 50, after[1].chainNodes)
        << "within the grace period every removed node is kept out of use";
    EXPECT_EQ(after[1].chainNodes, after[2].chainNodes) << "nodes reused, none made";
    EXPECT_EQ(after[1].islandBytes, after[2].islandBytes);
    EXPECT_EQ(0, shadowhook_unhook(base));
}

}  // namespace
