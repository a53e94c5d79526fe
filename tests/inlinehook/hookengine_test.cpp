// The engine on real functions of libm and of a hand-written test library: results through the
// hook and through orig, the entry jump and byte-exact restore, refusals with their error numbers
// that touch nothing, and chain nodes kept out of use for a grace period.
#include "platform/host/inlinehook/hookengine.h"

#include <math.h>
#include <stdint.h>

#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "platform/host/inlinehook/prologuerelocator.h"
#include "tests/inlinehook/inlinehooktest.h"

namespace {

using corvane::inlinehook::HookEngine;
using corvane::inlinehook::PrologueRelocator;
using inlinehooktest::Bytes;
using inlinehooktest::Code;
using inlinehooktest::IntFunction;
using inlinehooktest::PlusThousand;
using inlinehooktest::Symbol;
using inlinehooktest::TestLibrary;
using inlinehooktest::Twice;
using inlinehooktest::Unary;

using Binary = double (*)(double, double);

#if defined(__x86_64__)
// jmp rel32 over the first bytes.
size_t ExpectedJumpOffset(const std::vector<uint8_t>&) {
    return 0;
}
bool IsEntryJump(const uint8_t* code) {
    return code[0] == 0xe9;
}
// ih_back_branch loops into its second instruction, inside the displaced bytes.
const char* const kRefusedLoops[] = {"ih_entry_loop", "ih_back_branch"};
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

enum class Kind { kUnary, kBinary, kInt };

// A function and the shape of its calls. Between them the libm prologues displace what compilers
// emit at entries (on Debian 12 x86-64: a stack frame in cbrt, a RIP-relative load in hypot and
// log1p or as second operand in fmod and j0, a 1-byte push first in erf, an early conditional
// branch in remainder, taken on NaN). The test library's entries must be patched in a particular
// way: one straddles a cache line, one is a single unaligned store, one keeps a landing pad.
struct RealFunction {
    const char* library;  // null: the hand-written test library
    const char* symbol;
    Kind kind;
};

const RealFunction kRealFunctions[] = {
    {"libm.so.6", "cbrt", Kind::kUnary},    {"libm.so.6", "hypot", Kind::kBinary},
    {"libm.so.6", "erf", Kind::kUnary},     {"libm.so.6", "fmod", Kind::kBinary},
    {"libm.so.6", "log1p", Kind::kUnary},
#if defined(__x86_64__)
    {"libm.so.6", "j0", Kind::kUnary},      {"libm.so.6", "remainder", Kind::kBinary},
    {nullptr, "ih_cross_line", Kind::kInt}, {nullptr, "ih_single", Kind::kInt},
#else
    {nullptr, "ih_pac", Kind::kInt},      {nullptr, "ih_bti_adr", Kind::kInt},
#endif
};

double Input(int i) {
    return i % 97 == 0 ? std::numeric_limits<double>::quiet_NaN() : -40.0 + i * 0.0731;
}
uint64_t Bits(double value) {
    uint64_t bits;
    memcpy(&bits, &value, sizeof(bits));
    return bits;
}

// The i-th call as exact bits; `hooked` gives what the kind's replacement makes of `original`.
uint64_t Call(Kind kind, void* f, int i) {
    switch (kind) {
        case Kind::kUnary:
            return Bits(reinterpret_cast<Unary>(f)(Input(i)));
        case Kind::kBinary:
            return Bits(reinterpret_cast<Binary>(f)(Input(i), Input(i * 7 + 3) + 0.5));
        case Kind::kInt:
            return static_cast<uint32_t>(reinterpret_cast<IntFunction>(f)(i - 500));
    }
    return 0;
}
uint64_t Hooked(Kind kind, uint64_t original) {
    double value;
    memcpy(&value, &original, sizeof(value));
    return kind == Kind::kInt ? static_cast<uint32_t>(static_cast<int32_t>(original) * 2)
                              : Bits(value + 1000.0);
}

constexpr int kInputs = 1000;

using HookEngineTest = inlinehooktest::SharedModeTest;

TEST_F(HookEngineTest, HookedFunctionsGiveTheReplacementOrigTheOriginalAndUnhookRestores) {
    for (const RealFunction& function : kRealFunctions) {
        SCOPED_TRACE(function.symbol);
        std::string library = function.library != nullptr ? function.library : TestLibrary();
        void* address = Symbol(library.c_str(), function.symbol);
        ASSERT_NE(nullptr, address);
        const Kind kind = function.kind;
        std::vector<uint64_t> expected;
        for (int i = 0; i < kInputs; ++i) {
            expected.push_back(Call(kind, address, i));
        }
        std::vector<uint8_t> before = Bytes(address);

        void** orig = kind == Kind::kUnary    ? &inlinehooktest::g_unaryOrig
                      : kind == Kind::kBinary ? &g_binaryOrig
                                              : &inlinehooktest::g_intOrig;
        void* replacement = kind == Kind::kUnary    ? Code(PlusThousand)
                            : kind == Kind::kBinary ? Code(BinaryReplacement)
                                                    : Code(Twice);
        void* stub = shadowhook_hook_sym_addr(address, replacement, orig);
        ASSERT_NE(nullptr, stub) << shadowhook_to_errmsg(shadowhook_get_errno());
        EXPECT_EQ(SHADOWHOOK_ERRNO_OK, shadowhook_get_errno());
        ExpectOnlyTheEntryJump(before, Bytes(address));
        int mismatches = 0;
        for (int i = 0; i < kInputs; ++i) {
            mismatches += Call(kind, address, i) != Hooked(kind, expected[i]);
            mismatches += Call(kind, *orig, i) != expected[i];
        }
        EXPECT_EQ(0, mismatches);

        ASSERT_EQ(0, shadowhook_unhook(stub));
        EXPECT_EQ(before, Bytes(address)) << "original bytes restored exactly";
        for (int i = 0; i < kInputs; i += 7) {
            mismatches += Call(kind, address, i) != expected[i];
        }
        EXPECT_EQ(0, mismatches);
    }
}

void* g_origA = nullptr;
double ReplacementA(double x) {
    SHADOWHOOK_STACK_SCOPE();
    return SHADOWHOOK_CALL_PREV(ReplacementA, x) + 1.0;
}
uint8_t g_notCode[16] = {42};

// Refusals return their error number and leave the function and the orig slot as they were.
TEST_F(HookEngineTest, RefusedCallsFailWithTheirErrorNumberAndTouchNothing) {
    void* cbrtAddress = Symbol("libm.so.6", "cbrt");
    void* removed = shadowhook_hook_sym_addr(cbrtAddress, Code(PlusThousand), nullptr);
    ASSERT_EQ(0, shadowhook_unhook(removed));
    void* first = shadowhook_hook_sym_addr(cbrtAddress, Code(ReplacementA), &g_origA);
    ASSERT_NE(nullptr, first);
    const int kInvalid = SHADOWHOOK_ERRNO_INVALID_ARG;
    const int kRewrite = SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED;
    struct Hook {
        std::string name;
        void* address;
        void* replacement;
        int error;
    };
    std::vector<Hook> hooks = {
        {"null address", nullptr, Code(Twice), kInvalid},
        {"null replacement", cbrtAddress, nullptr, kInvalid},
        {"the same replacement twice in shared mode", cbrtAddress, Code(ReplacementA),
         SHADOWHOOK_ERRNO_HOOK_DUP},
        {"data, not code", g_notCode, Code(Twice), kInvalid},
        {"the engine's own relay", g_origA, Code(PlusThousand), kInvalid},
        {"a function replacing itself", Code(Twice), Code(Twice), kInvalid},
        {"ih_tiny: shorter than the entry jump", Symbol(TestLibrary().c_str(), "ih_tiny"),
         Code(Twice), SHADOWHOOK_ERRNO_HOOK_SYMSZ},
    };
    for (const char* loop : kRefusedLoops) {
        hooks.push_back({std::string(loop) + ": branches back into the displaced code",
                         Symbol(TestLibrary().c_str(), loop), Code(Twice), kRewrite});
    }
    for (const Hook& hook : hooks) {
        SCOPED_TRACE(hook.name);
        const void* watched = hook.address != nullptr ? hook.address : g_notCode;
        std::vector<uint8_t> before = Bytes(watched, 16);
        void* orig = nullptr;
        EXPECT_EQ(nullptr, shadowhook_hook_sym_addr(hook.address, hook.replacement, &orig));
        EXPECT_EQ(hook.error, shadowhook_get_errno());
        EXPECT_EQ(nullptr, orig);
        EXPECT_EQ(before, Bytes(watched, 16));
    }

    struct Other {
        const char* name;
        std::function<bool()> fails;
        int error;
    } others[] = {
        {"by name: null library",
         [] { return !shadowhook_hook_sym_name(nullptr, "cbrt", Code(Twice), nullptr); }, kInvalid},
        {"by name: no such symbol",
         [] { return !shadowhook_hook_sym_name("libm.so.6", "ih_none", Code(Twice), nullptr); },
         SHADOWHOOK_ERRNO_HOOK_DLSYM},
        {"by name: a library never loaded",
         [] { return !shadowhook_hook_sym_name("libih_never.so", "cbrt", Code(Twice), nullptr); },
         SHADOWHOOK_ERRNO_HOOK_DLSYM},
        {"unhook: null", [] { return shadowhook_unhook(nullptr) == -1; }, kInvalid},
        {"unhook: a removed stub", [&] { return shadowhook_unhook(removed) == -1; },
         SHADOWHOOK_ERRNO_UNHOOK_NOTFOUND},
        {"unhook: an orig slot", [] { return shadowhook_unhook(&g_origA) == -1; },
         SHADOWHOOK_ERRNO_UNHOOK_NOTFOUND},
    };
    for (const Other& other : others) {
        EXPECT_TRUE(other.fails()) << other.name;
        EXPECT_EQ(other.error, shadowhook_get_errno()) << other.name;
    }
    EXPECT_EQ(0, shadowhook_unhook(first));
    EXPECT_EQ(2.0, reinterpret_cast<Unary>(cbrtAddress)(8.0));
}

TEST_F(HookEngineTest, ChainNodesOfRemovedHooksAreReusedOnlyAfterTheGracePeriod) {
    HookEngine& engine = HookEngine::Instance();
    void* address = Symbol("libm.so.6", "erf");
    void* base = shadowhook_hook_sym_addr(address, Code(ReplacementA), &g_origA);
    ASSERT_NE(nullptr, base);
    auto cycles = [&](int count) {
        for (int i = 0; i < count; ++i) {
            void* stub = shadowhook_hook_sym_addr(address, Code(PlusThousand), nullptr);
            ASSERT_NE(nullptr, stub);
            ASSERT_EQ(0, shadowhook_unhook(stub));
        }
    };
    cycles(1);
    HookEngine::Statistics start = engine.GetStatistics();
    cycles(50);
    HookEngine::Statistics held = engine.GetStatistics();
    EXPECT_EQ(start.sites, held.sites) << "the function's trampoline is reused";
    EXPECT_EQ(start.chainNodes + 50, held.chainNodes)
        << "within the grace period every removed node is kept out of use";

    engine.SetGracePeriod(std::chrono::milliseconds(0));
    cycles(500);
    HookEngine::Statistics recycled = engine.GetStatistics();
    engine.SetGracePeriod(HookEngine::kDefaultGracePeriod);
    EXPECT_EQ(held.chainNodes, recycled.chainNodes) << "nodes reused, none made";
    EXPECT_EQ(held.islandBytes, recycled.islandBytes);
    EXPECT_EQ(0, shadowhook_unhook(base));
}

}  // namespace
