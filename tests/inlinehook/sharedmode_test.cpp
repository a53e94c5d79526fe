// How replacements behave in shared mode, as they do on a device: a replacement that never pops
// its frame runs once per thread; the chain is walked newest first with SHADOWHOOK_CALL_PREV, also
// while hooks are removed, and SHADOWHOOK_RETURN_ADDRESS names the caller in each replacement;
// orig is the original; recursion reaches the original unless reentry is allowed.
#include <atomic>
#include <string>
#include <thread>

#include "platform/host/inlinehook/hookengine.h"
#include "tests/inlinehook/inlinehooktest.h"

namespace {

using corvane::inlinehook::HookEngine;
using inlinehooktest::Bytes;
using inlinehooktest::Code;
using inlinehooktest::Orig;
using inlinehooktest::Symbol;
using inlinehooktest::Unary;

Unary Function(const char* symbol) {
    return reinterpret_cast<Unary>(Symbol("libm.so.6", symbol));
}

thread_local std::string t_trace;

double ForgetsToPop(double x) {
    return SHADOWHOOK_CALL_PREV(ForgetsToPop, x) + 1000.0;
}

using SharedModeTest = inlinehooktest::SharedModeTest;

TEST_F(SharedModeTest, AReplacementThatDoesNotPopRunsOncePerThreadThenTheOriginalRuns) {
    Unary cbrtFunction = Function("cbrt");
    const double original = cbrtFunction(27.0);
    void* stub = shadowhook_hook_sym_addr(Code(cbrtFunction), Code(ForgetsToPop), nullptr);
    ASSERT_NE(nullptr, stub) << shadowhook_to_errmsg(shadowhook_get_errno());
    // Each on a fresh thread: the frame left behind must not reach other tests.
    for (int thread = 0; thread < 2; ++thread) {
        std::thread([&] {
            EXPECT_EQ(original + 1000.0, cbrtFunction(27.0));
            EXPECT_EQ(original, cbrtFunction(27.0));
        }).join();
    }
    EXPECT_EQ(0, shadowhook_unhook(stub));
}

// Three replacements, each recording that it ran and the caller of the hooked function (the same
// after it called the older ones), and adding its own amount; the newest may remove itself while
// it runs.
void* g_orig[3] = {};
void* g_stubs[3] = {};
void* g_callers[3] = {};
std::atomic<bool> g_removeNewestWhileRunning{false};
constexpr double kAmount[3] = {1, 10, 100};
template <int N>
double Chained(double x) {
    SHADOWHOOK_STACK_SCOPE();
    t_trace += static_cast<char>('1' + N);
    if (N == 2 && g_removeNewestWhileRunning.exchange(false)) {
        EXPECT_EQ(0, shadowhook_unhook(g_stubs[2]));
    }
    g_callers[N] = SHADOWHOOK_RETURN_ADDRESS();
    double result = SHADOWHOOK_CALL_PREV(Chained<N>, x) + kAmount[N];
    EXPECT_EQ(g_callers[N], SHADOWHOOK_RETURN_ADDRESS());
    return result;
}
__attribute__((noinline)) double CallOnce(Unary function, double x) {
    double result = function(x);
    asm volatile("" ::: "memory");  // keeps the call a call, not a tail jump
    return result;
}
constexpr uintptr_t kCallOnceMaxSize = 256;
const Unary kChained[3] = {Chained<0>, Chained<1>, Chained<2>};

void* Hook(Unary function, int n) {
    g_stubs[n] = shadowhook_hook_sym_addr(Code(function), Code(kChained[n]), &g_orig[n]);
    EXPECT_NE(nullptr, g_stubs[n]) << shadowhook_to_errmsg(shadowhook_get_errno());
    return g_stubs[n];
}

TEST_F(SharedModeTest,
       ChainsRunNewestFirstNameTheCallerAndSurviveRemovalInAnyOrderEvenWhileRunning) {
    Unary cbrtFunction = Function("cbrt");
    const double original = cbrtFunction(125.0);
    const std::vector<uint8_t> before = Bytes(Code(cbrtFunction));
    for (int n = 0; n < 3; ++n) {
        ASSERT_NE(nullptr, Hook(cbrtFunction, n));
        EXPECT_EQ(original, Orig<Unary>(&g_orig[n])(125.0)) << "every orig is the original";
    }
    // The middle one goes first, then the oldest under the newest, then the newest alone (the
    // newest with older ones left is removed below, while it runs).
    const struct {
        int victim;
        const char* trace;
        double added;
    } kSteps[] = {{1, "321", 111}, {0, "31", 101}, {2, "3", 100}, {-1, "", 0}};
    for (const auto& step : kSteps) {
        t_trace.clear();
        EXPECT_EQ(original + step.added, CallOnce(cbrtFunction, 125.0)) << step.trace;
        EXPECT_EQ(step.trace, t_trace);
        if (step.victim >= 0) {
            ASSERT_EQ(0, shadowhook_unhook(g_stubs[step.victim]));
            EXPECT_EQ(-1, shadowhook_unhook(g_stubs[step.victim]));
            EXPECT_EQ(SHADOWHOOK_ERRNO_UNHOOK_NOTFOUND, shadowhook_get_errno());
        }
    }
    EXPECT_EQ(before, Bytes(Code(cbrtFunction)));
    for (void* caller : g_callers) {
        auto begin = reinterpret_cast<uintptr_t>(&CallOnce);
        auto address = reinterpret_cast<uintptr_t>(caller);
        EXPECT_TRUE(address > begin && address < begin + kCallOnceMaxSize) << caller;
    }

    // Removed while it runs: its call still walks on to the older ones, on a chain built of
    // reused nodes while a later node of the same replacement, removed when it stood alone, waits.
    ASSERT_NE(nullptr, Hook(cbrtFunction, 2));
    ASSERT_EQ(0, shadowhook_unhook(g_stubs[2]));
    HookEngine::Instance().SetGracePeriod(std::chrono::milliseconds(0));
    for (int n = 0; n < 3; ++n) {
        ASSERT_NE(nullptr, Hook(cbrtFunction, n));
    }
    HookEngine::Instance().SetGracePeriod(HookEngine::kDefaultGracePeriod);
    g_removeNewestWhileRunning = true;
    t_trace.clear();
    EXPECT_EQ(original + 111, cbrtFunction(125.0));
    t_trace += '|';
    EXPECT_EQ(original + 11, cbrtFunction(125.0));
    EXPECT_EQ("321|21", t_trace);
    EXPECT_EQ(0, shadowhook_unhook(g_stubs[0]));
    EXPECT_EQ(0, shadowhook_unhook(g_stubs[1]));
}

// A replacement calling its own hooked function; with reentry allowed it enters itself again,
// down to kDepth levels, where it disallows reentry and the original answers.
constexpr int kDepth = 3;
bool g_allowReentry = false;
thread_local int t_depth = 0;
Unary g_selfTarget = nullptr;
double CallsItself(double x) {
    SHADOWHOOK_STACK_SCOPE();
    t_trace += 'S';
    if (g_allowReentry) {
        SHADOWHOOK_ALLOW_REENTRANT();
    }
    if (++t_depth >= kDepth) {
        SHADOWHOOK_DISALLOW_REENTRANT();
    }
    return g_selfTarget(x) + 1.0;
}

TEST_F(SharedModeTest, RecursionReachesTheOriginalUnlessReentryIsAllowed) {
    g_selfTarget = Function("log1p");
    const double original = g_selfTarget(2.0);
    void* stub = shadowhook_hook_sym_addr(Code(g_selfTarget), Code(CallsItself), nullptr);
    ASSERT_NE(nullptr, stub);
    for (bool allow : {false, true}) {
        g_allowReentry = allow;
        t_depth = 0;
        t_trace.clear();
        EXPECT_EQ(original + (allow ? kDepth : 1), g_selfTarget(2.0)) << allow;
        EXPECT_EQ(allow ? std::string(kDepth, 'S') : "S", t_trace);
    }
    EXPECT_EQ(0, shadowhook_unhook(stub));
}

}  // namespace
