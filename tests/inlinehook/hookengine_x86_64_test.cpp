// The engine on real functions of system libraries (libm, libz) and of a hand-written test
// library: results through the hook and through orig, byte-exact restore, shared-mode chains,
// refusals that touch nothing, and bounded memory over many cycles.
#include "platform/host/inlinehook/hookengine.h"

#include <Zydis/Zydis.h>
#include <math.h>
#include <stdint.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "tests/inlinehook/inlinehooktest.h"

namespace {

using inlinehooktest::Bytes;
using inlinehooktest::Orig;
using inlinehooktest::Symbol;

using Unary = double (*)(double);
using Binary = double (*)(double, double);
using Checksum = unsigned long (*)(unsigned long, const unsigned char*, unsigned int);
using StreamCall = int (*)(void*);
using Bound = unsigned long (*)(unsigned long);

// Replacements: each calls the orig entry its hook received and changes the result in a way the
// test can predict, so a result tells whether the hook ran.
void* g_unaryOrig = nullptr;
double UnaryReplacement(double x) {
    return Orig<Unary>(&g_unaryOrig)(x) + 1000.0;
}
void* g_binaryOrig = nullptr;
double BinaryReplacement(double x, double y) {
    return Orig<Binary>(&g_binaryOrig)(x, y) + 1000.0;
}
void* g_checksumOrig = nullptr;
unsigned long ChecksumReplacement(unsigned long seed, const unsigned char* data, unsigned int n) {
    return Orig<Checksum>(&g_checksumOrig)(seed, data, n) ^ 0x5a5a5a5aUL;
}
void* g_streamOrig = nullptr;
int StreamReplacement(void* stream) {
    return Orig<StreamCall>(&g_streamOrig)(stream) + 100;
}
void* g_boundOrig = nullptr;
unsigned long BoundReplacement(unsigned long length) {
    return Orig<Bound>(&g_boundOrig)(length) + 7;
}

// What the displaced instructions of a function hold, as the tests decode them.
enum Feature : unsigned {
    kRipRelative = 1,
    kConditionalBranch = 2,
    kRelativeJump = 4,
    kPush = 8,
    kSubRsp = 16,
    kSeveralInstructions = 32,
};

unsigned PrologueFeatures(const void* function) {
    ZydisDecoder decoder;
    ZydisDecoderInit(&decoder, ZYDIS_MACHINE_MODE_LONG_64, ZYDIS_STACK_WIDTH_64);
    unsigned features = 0;
    size_t offset = 0;
    int count = 0;
    while (offset < 5) {
        ZydisDecodedInstruction instruction;
        ZydisDecodedOperand operands[ZYDIS_MAX_OPERAND_COUNT];
        const uint8_t* pc = static_cast<const uint8_t*>(function) + offset;
        if (!ZYAN_SUCCESS(ZydisDecoderDecodeFull(&decoder, pc, 16, &instruction, operands))) {
            return 0;
        }
        for (int i = 0; i < instruction.operand_count; ++i) {
            if (operands[i].type == ZYDIS_OPERAND_TYPE_MEMORY &&
                operands[i].mem.base == ZYDIS_REGISTER_RIP) {
                features |= kRipRelative;
            }
        }
        if (instruction.meta.category == ZYDIS_CATEGORY_COND_BR) {
            features |= kConditionalBranch;
        }
        if (instruction.mnemonic == ZYDIS_MNEMONIC_JMP &&
            (instruction.attributes & ZYDIS_ATTRIB_IS_RELATIVE) != 0) {
            features |= kRelativeJump;
        }
        if (instruction.mnemonic == ZYDIS_MNEMONIC_PUSH) {
            features |= kPush;
        }
        if (instruction.mnemonic == ZYDIS_MNEMONIC_SUB &&
            operands[0].reg.value == ZYDIS_REGISTER_RSP) {
            features |= kSubRsp;
        }
        offset += instruction.length;
        ++count;
    }
    return features | (count > 1 ? static_cast<unsigned>(kSeveralInstructions) : 0u);
}

// A real function, how to call it with the i-th test input (result as exact bits), and the
// replacement that hooks it. Prologues on Debian 12 (x86-64), as decoded by the tests:
//   cbrt       sub rsp, 0x28 ; movapd                 (stack frame, several instructions)
//   hypot      movq xmm3, [rip+...]                   (RIP-relative load, one instruction)
//   erf        push rbp ; movq rax, xmm0              (1-byte push first)
//   fmod       movapd ; andpd xmm2, [rip+...]         (RIP-relative operand, second place)
//   j0         movapd ; andpd xmm1, [rip+...]
//   remainder  ucomisd ; jp +...                      (early conditional branch, taken on NaN)
//   log1p      movsd xmm1, [rip+...]
//   crc32      mov edx, edx ; jmp crc32_z@plt         (near jump out of the function)
//   adler32    mov edx, edx ; jmp adler32_z@plt
//   inflateReset  test rdi, rdi ; je +...             (early conditional branch, taken on null)
//   compressBound mov rax, rdi ; mov rdx, rdi
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
    if (i % 97 == 0) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    return -40.0 + i * 0.0731;
}
uint64_t PlusThousand(uint64_t bits) {
    double value;
    memcpy(&value, &bits, sizeof(value));
    return DoubleBits(value + 1000.0);
}

std::vector<unsigned char> SampleData() {
    std::vector<unsigned char> data(4096);
    uint32_t state = 12345;
    for (unsigned char& byte : data) {
        state = state * 1103515245 + 12345;
        byte = static_cast<unsigned char>(state >> 16);
    }
    return data;
}

std::vector<RealFunction> RealFunctions() {
    static const std::vector<unsigned char> data = SampleData();
    auto unary = [](void* f, int i) { return DoubleBits(reinterpret_cast<Unary>(f)(Input(i))); };
    auto binary = [](void* f, int i) {
        return DoubleBits(reinterpret_cast<Binary>(f)(Input(i), Input(i * 7 + 3) + 0.5));
    };
    auto checksum = [](void* f, int i) {
        return static_cast<uint64_t>(reinterpret_cast<Checksum>(f)(
            static_cast<unsigned long>(i), data.data() + i % 64, static_cast<unsigned>(i % 700)));
    };
    auto stream = [](void* f, int i) {
        // A null stream and a zeroed one both take the early error branches.
        alignas(16) static unsigned char zeroed[256] = {};
        return static_cast<uint64_t>(reinterpret_cast<StreamCall>(f)(i % 2 ? zeroed : nullptr));
    };
    auto bound = [](void* f, int i) {
        return static_cast<uint64_t>(
            reinterpret_cast<Bound>(f)(static_cast<unsigned long>(i) * 977));
    };
    auto xorMask = [](uint64_t r) { return r ^ 0x5a5a5a5aULL; };
    auto plus100 = [](uint64_t r) { return static_cast<uint64_t>(static_cast<int>(r) + 100); };
    auto plus7 = [](uint64_t r) { return r + 7; };
    void* u = reinterpret_cast<void*>(UnaryReplacement);
    void* b = reinterpret_cast<void*>(BinaryReplacement);
    return {
        {"libm.so.6", "cbrt", unary, u, &g_unaryOrig, PlusThousand},
        {"libm.so.6", "hypot", binary, b, &g_binaryOrig, PlusThousand},
        {"libm.so.6", "erf", unary, u, &g_unaryOrig, PlusThousand},
        {"libm.so.6", "fmod", binary, b, &g_binaryOrig, PlusThousand},
        {"libm.so.6", "j0", unary, u, &g_unaryOrig, PlusThousand},
        {"libm.so.6", "remainder", binary, b, &g_binaryOrig, PlusThousand},
        {"libm.so.6", "log1p", unary, u, &g_unaryOrig, PlusThousand},
        {"libz.so.1", "crc32", checksum, reinterpret_cast<void*>(ChecksumReplacement),
         &g_checksumOrig, xorMask},
        {"libz.so.1", "adler32", checksum, reinterpret_cast<void*>(ChecksumReplacement),
         &g_checksumOrig, xorMask},
        {"libz.so.1", "inflateReset", stream, reinterpret_cast<void*>(StreamReplacement),
         &g_streamOrig, plus100},
        {"libz.so.1", "compressBound", bound, reinterpret_cast<void*>(BoundReplacement),
         &g_boundOrig, plus7},
    };
}

constexpr int kInputs = 2000;

class HookEngineTest : public ::testing::Test {
  protected:
    void SetUp() override { inlinehooktest::InitShared(); }
};

TEST_F(HookEngineTest, ChosenProloguesCoverTheInstructionClassesCompilersEmit) {
    unsigned seen = 0;
    for (const RealFunction& function : RealFunctions()) {
        void* address = Symbol(function.library, function.symbol);
        ASSERT_NE(nullptr, address);
        unsigned features = PrologueFeatures(address);
        EXPECT_NE(0u, features) << function.symbol << ": prologue does not decode";
        seen |= features;
    }
    // If a library update changes these prologues, pick other functions for the table above.
    for (unsigned feature :
         {kRipRelative, kConditionalBranch, kRelativeJump, kPush, kSubRsp, kSeveralInstructions}) {
        EXPECT_NE(0u, seen & feature) << "no chosen function displaces feature " << feature;
    }
}

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
        std::vector<uint8_t> hooked = Bytes(address);
        EXPECT_EQ(0xe9, hooked[0]) << "entry is a jmp rel32";
        EXPECT_TRUE(std::equal(before.begin() + 5, before.end(), hooked.begin() + 5))
            << "only the first 5 bytes change";

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
    void* cbrtAddress = Symbol("libm.so.6", "cbrt");
    ASSERT_NE(nullptr, Symbol("libz.so.1", "adler32"));
    const double original = reinterpret_cast<Unary>(cbrtAddress)(27.5);
    void* stub = shadowhook_hook_sym_name("libm.so.6", "cbrt",
                                          reinterpret_cast<void*>(UnaryReplacement), &g_unaryOrig);
    ASSERT_NE(nullptr, stub) << shadowhook_to_errmsg(shadowhook_get_errno());
    EXPECT_EQ(original + 1000.0, reinterpret_cast<Unary>(cbrtAddress)(27.5));
    EXPECT_EQ(0, shadowhook_unhook(stub));

    struct Case {
        const char* library;
        const char* symbol;
    } cases[] = {
        {"libm.so.6", "corvane_no_such_function"},
        {"libcorvane_never_loaded.so", "cbrt"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(nullptr,
                  shadowhook_hook_sym_name(c.library, c.symbol,
                                           reinterpret_cast<void*>(UnaryReplacement), nullptr));
        EXPECT_EQ(SHADOWHOOK_ERRNO_HOOK_DLSYM, shadowhook_get_errno()) << c.library << c.symbol;
    }
}

TEST_F(HookEngineTest, ManyHookUnhookCyclesKeepWorkingAndRestoreExactly) {
    void* address = Symbol("libm.so.6", "cbrt");
    std::vector<uint8_t> before = Bytes(address);
    const double original = reinterpret_cast<Unary>(address)(8.0);
    for (int cycle = 0; cycle < 3000; ++cycle) {
        void* stub = shadowhook_hook_sym_addr(address, reinterpret_cast<void*>(UnaryReplacement),
                                              &g_unaryOrig);
        ASSERT_NE(nullptr, stub) << "cycle " << cycle << ": "
                                 << shadowhook_to_errmsg(shadowhook_get_errno());
        ASSERT_EQ(original + 1000.0, reinterpret_cast<Unary>(address)(8.0)) << cycle;
        ASSERT_EQ(0, shadowhook_unhook(stub)) << cycle;
        ASSERT_EQ(original, reinterpret_cast<Unary>(address)(8.0)) << cycle;
    }
    EXPECT_EQ(before, Bytes(address));
}

TEST_F(HookEngineTest, OrigOfARemovedHookStillRunsTheOriginal) {
    void* address = Symbol("libm.so.6", "cbrt");
    const double original = reinterpret_cast<Unary>(address)(64.0);
    void* stub =
        shadowhook_hook_sym_addr(address, reinterpret_cast<void*>(UnaryReplacement), &g_unaryOrig);
    ASSERT_NE(nullptr, stub);
    Unary stale = Orig<Unary>(&g_unaryOrig);
    ASSERT_EQ(0, shadowhook_unhook(stub));
    // A thread that was inside the replacement when it was removed calls this afterwards.
    EXPECT_EQ(original, stale(64.0));
}

// Shared mode: three hooks on one function, each recording that it ran and adding its own
// amount, removed in every order.
thread_local std::string t_trace;
void* g_chainOrig[3] = {};
template <int N>
double ChainReplacement(double x) {
    t_trace += static_cast<char>('1' + N);
    return Orig<Unary>(&g_chainOrig[N])(x) + (N == 0 ? 1 : N == 1 ? 10 : 100);
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
            stubs[i] = shadowhook_hook_sym_addr(address, reinterpret_cast<void*>(kChain[i]),
                                                &g_chainOrig[i]);
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

TEST_F(HookEngineTest, RelaysOfRemovedHooksAreReusedOnlyAfterTheGracePeriod) {
    using corvane::inlinehook::HookEngine;
    HookEngine& engine = HookEngine::Instance();
    void* address = Symbol("libm.so.6", "erf");
    // The first hook of a function runs the original through the trampoline; later hooks each
    // need a relay.
    void* base =
        shadowhook_hook_sym_addr(address, reinterpret_cast<void*>(kChain[0]), &g_chainOrig[0]);
    ASSERT_NE(nullptr, base);
    auto cycle = [&]() {
        void* stub = shadowhook_hook_sym_addr(address, reinterpret_cast<void*>(UnaryReplacement),
                                              &g_unaryOrig);
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
    EXPECT_EQ(start.relaysAllocated + 50, held.relaysAllocated)
        << "within the grace period every removed relay is kept out of use";

    engine.SetRelayGracePeriod(std::chrono::milliseconds(0));
    for (int i = 0; i < 500; ++i) {
        cycle();
    }
    HookEngine::Statistics recycled = engine.GetStatistics();
    engine.SetRelayGracePeriod(HookEngine::kDefaultRelayGracePeriod);
    EXPECT_EQ(held.relaysAllocated, recycled.relaysAllocated) << "relays reused, none carved";
    EXPECT_EQ(held.islandBytes, recycled.islandBytes);
    EXPECT_EQ(held.islands, recycled.islands);
    EXPECT_EQ(0, shadowhook_unhook(base));
}

TEST_F(HookEngineTest, SharedModeRefusesTheSameReplacementTwiceOnOneAddress) {
    void* address = Symbol("libm.so.6", "cbrt");
    void* first =
        shadowhook_hook_sym_addr(address, reinterpret_cast<void*>(kChain[0]), &g_chainOrig[0]);
    ASSERT_NE(nullptr, first);
    void* orig = nullptr;
    EXPECT_EQ(nullptr,
              shadowhook_hook_sym_addr(address, reinterpret_cast<void*>(kChain[0]), &orig));
    EXPECT_EQ(SHADOWHOOK_ERRNO_HOOK_DUP, shadowhook_get_errno());
    EXPECT_EQ(nullptr, orig) << "orig untouched on failure";
    EXPECT_EQ(0, shadowhook_unhook(first));
}

// Functions of the hand-written library: what the engine refuses, leaving every byte as it was,
// and the two patch paths it must handle (straddling a cache line, one unaligned locked store).
TEST_F(HookEngineTest, RefusedFunctionsAreLeftUntouched) {
    ASSERT_NE(nullptr, dlopen(inlinehooktest::TestLibrary().c_str(), RTLD_NOW)) << dlerror();
    struct Case {
        const char* symbol;
        int error;
    } cases[] = {
        {"ih_tiny", SHADOWHOOK_ERRNO_HOOK_SYMSZ},
        {"ih_back_branch", SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED},
        {"ih_entry_loop", SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.symbol);
        void* address = Symbol(inlinehooktest::TestLibrary().c_str(), c.symbol);
        std::vector<uint8_t> before = Bytes(address, 16);
        void* orig = nullptr;
        EXPECT_EQ(nullptr,
                  shadowhook_hook_sym_addr(address, reinterpret_cast<void*>(kChain[0]), &orig));
        EXPECT_EQ(c.error, shadowhook_get_errno());
        EXPECT_EQ(nullptr, orig);
        EXPECT_EQ(before, Bytes(address, 16));
    }
}

void* g_intOrig = nullptr;
int IntReplacement(int x) {
    return reinterpret_cast<int (*)(int)>(__atomic_load_n(&g_intOrig, __ATOMIC_ACQUIRE))(x) * 2;
}

TEST_F(HookEngineTest, EntriesStraddlingACacheLineOrUnalignedArePatchedAndRestored) {
    for (const char* symbol : {"ih_cross_line", "ih_single"}) {
        SCOPED_TRACE(symbol);
        void* address = Symbol(inlinehooktest::TestLibrary().c_str(), symbol);
        ASSERT_NE(nullptr, address);
        auto function = reinterpret_cast<int (*)(int)>(address);
        std::vector<uint8_t> before = Bytes(address, 16);
        const int original = function(5);
        void* stub =
            shadowhook_hook_sym_addr(address, reinterpret_cast<void*>(IntReplacement), &g_intOrig);
        ASSERT_NE(nullptr, stub) << shadowhook_to_errmsg(shadowhook_get_errno());
        EXPECT_EQ(original * 2, function(5));
        EXPECT_EQ(0, shadowhook_unhook(stub));
        EXPECT_EQ(before, Bytes(address, 16));
        EXPECT_EQ(original, function(5));
    }
}

int g_notCode = 42;

TEST_F(HookEngineTest, AddressesThatAreNotHookableCodeAreInvalid) {
    void* address = Symbol("libm.so.6", "cbrt");
    void* stub =
        shadowhook_hook_sym_addr(address, reinterpret_cast<void*>(UnaryReplacement), &g_unaryOrig);
    ASSERT_NE(nullptr, stub);
    void* origEntry = g_unaryOrig;
    void* cases[][2] = {
        {&g_notCode, reinterpret_cast<void*>(UnaryReplacement)},  // data, not code
        {origEntry, reinterpret_cast<void*>(kChain[1])},          // the engine's own relay
        {reinterpret_cast<void*>(kChain[2]), reinterpret_cast<void*>(kChain[2])},  // itself
    };
    for (auto& c : cases) {
        EXPECT_EQ(nullptr, shadowhook_hook_sym_addr(c[0], c[1], nullptr));
        EXPECT_EQ(SHADOWHOOK_ERRNO_INVALID_ARG, shadowhook_get_errno());
    }
    EXPECT_EQ(0, shadowhook_unhook(stub));
}

}  // namespace
