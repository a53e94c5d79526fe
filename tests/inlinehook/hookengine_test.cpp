// The engine on real functions of system libraries (libm, libz) and of a hand-written test
// library: results through the hook and through orig, the entry jump and byte-exact restore,
// shared-mode chains, refusals that touch nothing, and chain nodes kept out of use for a grace
// period.
#include "platform/host/inlinehook/hookengine.h"

#include <math.h>
#include <stdint.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "platform/host/inlinehook/prologuerelocator.h"
#include "tests/inlinehook/inlinehooktest.h"

namespace {

using corvane::inlinehook::PrologueRelocator;
using inlinehooktest::Bytes;
using inlinehooktest::Code;
using inlinehooktest::g_intOrig;
using inlinehooktest::g_unaryOrig;
using inlinehooktest::IntFunction;
using inlinehooktest::Orig;
using inlinehooktest::PlusThousand;
using inlinehooktest::Symbol;
using inlinehooktest::Twice;
using inlinehooktest::Unary;

using Binary = double (*)(double, double);
using Checksum = unsigned long (*)(unsigned long, const unsigned char*, unsigned);

#if defined(__x86_64__)
// jmp rel32 over the first bytes.
size_t ExpectedJumpOffset(const std::vector<uint8_t>&) {
    return 0;
}
bool IsEntryJump(const uint8_t* code) {
    return code[0] == 0xe9;
}
// ih_back_branch loops into its second instruction, inside the displaced bytes; ih_cross_line's
// entry straddles a cache line and ih_single is patched by one unaligned locked store.
const char* const kRefusedLoops[] = {"ih_entry_loop", "ih_back_branch"};
const char* const kPatchShapes[] = {"ih_cross_line", "ih_single"};
#else
uint32_t WordAt(const uint8_t* code) {
    uint32_t word;
    memcpy(&word, code, sizeof(word));
    return word;
}
// A BTI or PACIASP/PACIBSP at the entry stays there; the B goes in the word after it.
size_t ExpectedJumpOffset(const std::vector<uint8_t>& before) {
    uint32_t word = WordAt(before.data());
    return (word & 0xffffff3f) == 0xd503241f || word == 0xd503233f || word == 0xd503237f ? 4 : 0;
}
bool IsEntryJump(const uint8_t* code) {
    return (WordAt(code) & 0xfc000000) == 0x14000000;
}
const char* const kRefusedLoops[] = {"ih_entry_loop"};
const char* const kPatchShapes[] = {"ih_pac", "ih_bti_adr"};
#endif

// The hook's entry jump sits where expected and nothing else of the function changed.
void ExpectOnlyTheEntryJump(const std::vector<uint8_t>& before, const std::vector<uint8_t>& after) {
    size_t at = ExpectedJumpOffset(before);
    EXPECT_TRUE(IsEntryJump(after.data() + at)) << "no entry jump at +" << at;
    for (size_t i = 0; i < before.size(); ++i) {
        if (i < at || i >= at + PrologueRelocator::kPatchSize) {
            EXPECT_EQ(before[i], after[i]) << "byte +" << i << " changed";
        }
    }
}

void* g_binaryOrig = nullptr;
double BinaryReplacement(double x, double y) {
    SHADOWHOOK_STACK_SCOPE();
    return SHADOWHOOK_CALL_PREV(BinaryReplacement, x, y) + 1000.0;
}
void* g_checksumOrig = nullptr;
unsigned long ChecksumReplacement(unsigned long seed, const unsigned char* data, unsigned n) {
    SHADOWHOOK_STACK_SCOPE();
    return SHADOWHOOK_CALL_PREV(ChecksumReplacement, seed, data, n) ^ 0x5a5a5a5aUL;
}

// A real function, how to call it with the i-th test input (result as exact bits), and the
// replacement that hooks it. Between them their prologues displace what compilers emit at
// entries. On Debian 12 x86-64: a stack frame (cbrt: sub rsp; movapd), a RIP-relative load
// (hypot, log1p) or operand in second place (fmod, j0), a 1-byte push first (erf), an early
// conditional branch (remainder: jp, taken on NaN) and a near jump out of the function (crc32,
// adler32: jmp to the _z variant).
struct RealFunction {
    const char* library;
    const char* symbol;
    std::function<uint64_t(void* function, int input)> call;
    void* replacement;
    void** orig;
    std::function<uint64_t(uint64_t original)> replaced;  // the replacement's result
};

uint64_t DoubleBits(double value) {
    uint64_t bits;
    memcpy(&bits, &value, sizeof(bits));
    return bits;
}
double Input(int i) {
    return i % 97 == 0 ? std::numeric_limits<double>::quiet_NaN() : -40.0 + i * 0.0731;
}
uint64_t BitsPlusThousand(uint64_t bits) {
    double value;
    memcpy(&value, &bits, sizeof(value));
    return DoubleBits(value + 1000.0);
}

std::vector<RealFunction> RealFunctions() {
    static const std::vector<unsigned char> data = [] {
        std::vector<unsigned char> bytes(4096);
        uint32_t state = 12345;
        for (unsigned char& byte : bytes) {
            state = state * 1103515245 + 12345;
            byte = static_cast<unsigned char>(state >> 16);
        }
        return bytes;
    }();
    auto unary = [](void* f, int i) { return DoubleBits(reinterpret_cast<Unary>(f)(Input(i))); };
    auto binary = [](void* f, int i) {
        return DoubleBits(reinterpret_cast<Binary>(f)(Input(i), Input(i * 7 + 3) + 0.5));
    };
    auto checksum = [](void* f, int i) {
        return static_cast<uint64_t>(reinterpret_cast<Checksum>(f)(
            static_cast<unsigned long>(i), data.data() + i % 64, static_cast<unsigned>(i % 700)));
    };
    auto xorMask = [](uint64_t r) { return r ^ 0x5a5a5a5aULL; };
    void* u = Code(PlusThousand);
    void* b = Code(BinaryReplacement);
    void* c = Code(ChecksumReplacement);
    return {
        {"libm.so.6", "cbrt", unary, u, &g_unaryOrig, BitsPlusThousand},
            {"libm.so.6", "hypot", binary, b, &g_binaryOrig, BitsPlusThousand},
            {"libm.so.6", "erf", unary, u, &g_unaryOrig, BitsPlusThousand},
            {"libm.so.6", "fmod", binary, b, &g_binaryOrig, BitsPlusThousand},
            {"libm.so.6", "log1p", unary, u, &g_unaryOrig, BitsPlusThousand},
            {"libz.so.1", "crc32", checksum, c, &g_checksumOrig, xorMask},
            {"libz.so.1", "adler32", checksum, c, &g_checksumOrig, xorMask},
#if defined(__x86_64__)
            {"libm.so.6", "j0", unary, u, &g_unaryOrig, BitsPlusThousand},
            {"libm.so.6", "remainder", binary, b, &g_binaryOrig, BitsPlusThousand},
#endif
    };
}

constexpr int kInputs = 1000;

using HookEngineTest = inlinehooktest::SharedModeTest;

TEST_F(HookEngineTest, HookedSystemFunctionsGiveTheReplacementAndOrigTheOriginal) {
    for (const RealFunction& function : RealFunctions()) {
        SCOPED_TRACE(function.symbol);
        void* address = Symbol(function.library, function.symbol);
        ASSERT_NE(nullptr, address);
        std::vector<uint64_t> expected;
        for (int i = 0; i < kInputs; ++i) {
            expected.push_back(function.call(address, i));
        }
        std::vector<uint8_t> before = Bytes(address);

        void* stub = shadowhook_hook_sym_addr(address, function.replacement, function.orig);
        ASSERT_NE(nullptr, stub) << shadowhook_to_errmsg(shadowhook_get_errno());
        EXPECT_EQ(SHADOWHOOK_ERRNO_OK, shadowhook_get_errno());
        ASSERT_NE(nullptr, *function.orig);
        ExpectOnlyTheEntryJump(before, Bytes(address));

        int mismatches = 0;
        for (int i = 0; i < kInputs; ++i) {
            mismatches += function.call(address, i) != function.replaced(expected[i]);
            mismatches += function.call(*function.orig, i) != expected[i];
        }
        EXPECT_EQ(0, mismatches);

        ASSERT_EQ(0, shadowhook_unhook(stub));
        EXPECT_EQ(before, Bytes(address)) << "original bytes restored exactly";
        for (int i = 0; i < kInputs; i += 7) {
            mismatches += function.call(address, i) != expected[i];
        }
        EXPECT_EQ(0, mismatches);
    }
}

TEST_F(HookEngineTest, HookBySymbolNameFindsLoadedLibraries) {
    Unary cbrtFunction = reinterpret_cast<Unary>(Symbol("libm.so.6", "cbrt"));
    const double original = cbrtFunction(27.5);
    void* stub = shadowhook_hook_sym_name("libm.so.6", "cbrt", Code(PlusThousand), &g_unaryOrig);
    ASSERT_NE(nullptr, stub) << shadowhook_to_errmsg(shadowhook_get_errno());
    EXPECT_EQ(original + 1000.0, cbrtFunction(27.5));
    EXPECT_EQ(0, shadowhook_unhook(stub));

    for (auto [library, symbol] : {std::pair{"libm.so.6", "corvane_no_such_function"},
                                   std::pair{"libcorvane_never_loaded.so", "cbrt"}}) {
        EXPECT_EQ(nullptr, shadowhook_hook_sym_name(library, symbol, Code(PlusThousand), nullptr));
        EXPECT_EQ(SHADOWHOOK_ERRNO_HOOK_DLSYM, shadowhook_get_errno()) << library << symbol;
    }
}

// Thousands of cycles on one function: each gets a stub never handed out before, the hook works
// every time and the bytes come back exactly; an orig entry taken before its hook was removed
// (a thread still inside the replacement) keeps running the original.
TEST_F(HookEngineTest, ManyHookUnhookCyclesKeepWorkingWithFreshStubs) {
    void* address = Symbol("libm.so.6", "cbrt");
    Unary function = reinterpret_cast<Unary>(address);
    std::vector<uint8_t> before = Bytes(address);
    const double original = function(8.0);
    std::set<void*> stubs;
    std::vector<Unary> staleOrigs;
    for (int cycle = 0; cycle < 3000; ++cycle) {
        void* stub = shadowhook_hook_sym_addr(address, Code(PlusThousand), &g_unaryOrig);
        ASSERT_NE(nullptr, stub) << "cycle " << cycle << ": "
                                 << shadowhook_to_errmsg(shadowhook_get_errno());
        ASSERT_TRUE(stubs.insert(stub).second) << "stub reused in cycle " << cycle;
        ASSERT_EQ(original + 1000.0, function(8.0)) << cycle;
        if (cycle % 500 == 0) {
            staleOrigs.push_back(Orig<Unary>(&g_unaryOrig));
        }
        ASSERT_EQ(0, shadowhook_unhook(stub)) << cycle;
        ASSERT_EQ(original, function(8.0)) << cycle;
    }
    EXPECT_EQ(before, Bytes(address));
    for (Unary stale : staleOrigs) {
        EXPECT_EQ(original, stale(8.0));
    }
}

// Shared mode: three hooks on one function, each recording that it ran and adding its own
// amount, removed in every order.
thread_local std::string t_trace;
void* g_chainOrig[3] = {};
template <int N>
double ChainReplacement(double x) {
    SHADOWHOOK_STACK_SCOPE();
    t_trace += static_cast<char>('1' + N);
    return SHADOWHOOK_CALL_PREV(ChainReplacement<N>, x) + (N == 0 ? 1 : N == 1 ? 10 : 100);
}
const Unary kChain[3] = {ChainReplacement<0>, ChainReplacement<1>, ChainReplacement<2>};

TEST_F(HookEngineTest, SharedChainsRunNewestFirstAndSurviveRemovalInAnyOrder) {
    void* address = Symbol("libm.so.6", "cbrt");
    Unary target = reinterpret_cast<Unary>(address);
    const double original = target(125.0);
    const std::vector<uint8_t> before = Bytes(address);
    std::vector<int> order = {0, 1, 2};
    int permutations = 0;
    do {
        SCOPED_TRACE("removal order " + std::to_string(order[0]) + std::to_string(order[1]) +
                     std::to_string(order[2]));
        void* stubs[3];
        for (int i = 0; i < 3; ++i) {
            stubs[i] = shadowhook_hook_sym_addr(address, Code(kChain[i]), &g_chainOrig[i]);
            ASSERT_NE(nullptr, stubs[i]) << shadowhook_to_errmsg(shadowhook_get_errno());
        }
        bool active[3] = {true, true, true};
        for (size_t removed = 0; removed <= 3; ++removed) {
            std::string expectedTrace;
            double expected = original;
            for (int i = 2; i >= 0; --i) {
                if (active[i]) {
                    expectedTrace += static_cast<char>('1' + i);
                    expected += i == 0 ? 1 : i == 1 ? 10 : 100;
                }
            }
            t_trace.clear();
            EXPECT_EQ(expected, target(125.0));
            EXPECT_EQ(expectedTrace, t_trace);
            if (removed < 3) {
                int victim = order[removed];
                ASSERT_EQ(0, shadowhook_unhook(stubs[victim]));
                EXPECT_EQ(-1, shadowhook_unhook(stubs[victim]));
                EXPECT_EQ(SHADOWHOOK_ERRNO_UNHOOK_NOTFOUND, shadowhook_get_errno());
                active[victim] = false;
            }
        }
        EXPECT_EQ(before, Bytes(address));
        ++permutations;
    } while (std::next_permutation(order.begin(), order.end()));
    EXPECT_EQ(6, permutations);
}

TEST_F(HookEngineTest, ChainNodesOfRemovedHooksAreReusedOnlyAfterTheGracePeriod) {
    using corvane::inlinehook::HookEngine;
    HookEngine& engine = HookEngine::Instance();
    void* address = Symbol("libm.so.6", "erf");
    void* base = shadowhook_hook_sym_addr(address, Code(kChain[0]), &g_chainOrig[0]);
    ASSERT_NE(nullptr, base);
    auto cycle = [&]() {
        void* stub = shadowhook_hook_sym_addr(address, Code(PlusThousand), &g_unaryOrig);
        ASSERT_NE(nullptr, stub);
        ASSERT_EQ(0, shadowhook_unhook(stub));
    };
    cycle();
    HookEngine::Statistics start = engine.GetStatistics();
    for (int i = 0; i < 50; ++i) {
        cycle();
    }
    HookEngine::Statistics held = engine.GetStatistics();
    EXPECT_EQ(start.sites, held.sites) << "the function's trampoline is reused";
    EXPECT_EQ(start.chainNodes + 50, held.chainNodes)
        << "within the grace period every removed node is kept out of use";

    engine.SetGracePeriod(std::chrono::milliseconds(0));
    for (int i = 0; i < 500; ++i) {
        cycle();
    }
    HookEngine::Statistics recycled = engine.GetStatistics();
    engine.SetGracePeriod(HookEngine::kDefaultGracePeriod);
    EXPECT_EQ(held.chainNodes, recycled.chainNodes) << "nodes reused, none made";
    EXPECT_EQ(held.islandBytes, recycled.islandBytes);
    EXPECT_EQ(held.islands, recycled.islands);
    EXPECT_EQ(0, shadowhook_unhook(base));
}

uint8_t g_notCode[16] = {42};

// Refusals leave the function and the orig slot exactly as they were.
TEST_F(HookEngineTest, RefusedHooksTouchNothing) {
    ASSERT_NE(nullptr, dlopen(inlinehooktest::TestLibrary().c_str(), RTLD_NOW)) << dlerror();
    void* cbrtAddress = Symbol("libm.so.6", "cbrt");
    void* first = shadowhook_hook_sym_addr(cbrtAddress, Code(kChain[0]), &g_chainOrig[0]);
    ASSERT_NE(nullptr, first);
    struct Case {
        std::string name;
        void* address;
        void* replacement;
        int error;
    };
    std::vector<Case> cases = {
        {"the same replacement twice in shared mode", cbrtAddress, Code(kChain[0]),
         SHADOWHOOK_ERRNO_HOOK_DUP},
        {"data, not code", g_notCode, Code(PlusThousand), SHADOWHOOK_ERRNO_INVALID_ARG},
        {"the engine's own relay", g_chainOrig[0], Code(kChain[1]), SHADOWHOOK_ERRNO_INVALID_ARG},
        {"a function replacing itself", Code(kChain[2]), Code(kChain[2]),
         SHADOWHOOK_ERRNO_INVALID_ARG},
        {"ih_tiny: shorter than the entry jump",
         Symbol(inlinehooktest::TestLibrary().c_str(), "ih_tiny"), Code(Twice),
         SHADOWHOOK_ERRNO_HOOK_SYMSZ},
    };
    for (const char* loop : kRefusedLoops) {
        cases.push_back({std::string(loop) + ": branches back into the displaced code",
                         Symbol(inlinehooktest::TestLibrary().c_str(), loop), Code(Twice),
                         SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED});
    }
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_NE(nullptr, c.address);
        std::vector<uint8_t> before = Bytes(c.address, 16);
        void* orig = nullptr;
        EXPECT_EQ(nullptr, shadowhook_hook_sym_addr(c.address, c.replacement, &orig));
        EXPECT_EQ(c.error, shadowhook_get_errno());
        EXPECT_EQ(nullptr, orig);
        EXPECT_EQ(before, Bytes(c.address, 16));
    }
    EXPECT_EQ(0, shadowhook_unhook(first));
}

// Entries of the hand-written library the engine must patch in a particular way (see the
// library), each with a chain of two hooks removed innermost first.
void* g_outerOrig = nullptr;
int PlusOne(int x) {
    SHADOWHOOK_STACK_SCOPE();
    return SHADOWHOOK_CALL_PREV(PlusOne, x) + 1;
}

TEST_F(HookEngineTest, HandWrittenEntriesArePatchedChainedAndRestored) {
    for (const char* symbol : kPatchShapes) {
        SCOPED_TRACE(symbol);
        void* address = Symbol(inlinehooktest::TestLibrary().c_str(), symbol);
        ASSERT_NE(nullptr, address);
        auto function = reinterpret_cast<IntFunction>(address);
        std::vector<int> expected;
        for (int x = -50; x < 50; ++x) {
            expected.push_back(function(x));
        }
        auto mismatches = [&](int (*result)(int)) {
            int count = 0;
            for (int x = -50; x < 50; ++x) {
                count += function(x) != result(expected[x + 50]);
            }
            return count;
        };
        std::vector<uint8_t> before = Bytes(address, 16);
        void* inner = shadowhook_hook_sym_addr(address, Code(Twice), &g_intOrig);
        ASSERT_NE(nullptr, inner) << shadowhook_to_errmsg(shadowhook_get_errno());
        ExpectOnlyTheEntryJump(before, Bytes(address, 16));
        void* outer = shadowhook_hook_sym_addr(address, Code(PlusOne), &g_outerOrig);
        ASSERT_NE(nullptr, outer) << shadowhook_to_errmsg(shadowhook_get_errno());
        EXPECT_EQ(0, mismatches([](int r) { return r * 2 + 1; }));
        ASSERT_EQ(0, shadowhook_unhook(inner));
        EXPECT_EQ(0, mismatches([](int r) { return r + 1; }));
        ASSERT_EQ(0, shadowhook_unhook(outer));
        EXPECT_EQ(before, Bytes(address, 16));
        EXPECT_EQ(0, mismatches([](int r) { return r; }));
    }
}

}  // namespace
