// The engine on real AArch64 functions of system libraries (libm, libz) and of a hand-written
// test library with landing pads and shapes that must be refused.
#include <string.h>

#include <functional>
#include <limits>
#include <vector>

#include "tests/inlinehook/inlinehooktest.h"

namespace {

using inlinehooktest::Bytes;
using inlinehooktest::Orig;
using inlinehooktest::Symbol;

using Unary = double (*)(double);
using Binary = double (*)(double, double);
using Checksum = unsigned long (*)(unsigned long, const unsigned char*, unsigned);
using Bound = unsigned long (*)(unsigned long);
using IntFunction = int (*)(int);

void* g_unaryOrig = nullptr;
double UnaryReplacement(double x) {
    return Orig<Unary>(&g_unaryOrig)(x) + 1000.0;
}
void* g_binaryOrig = nullptr;
double BinaryReplacement(double x, double y) {
    return Orig<Binary>(&g_binaryOrig)(x, y) + 1000.0;
}
void* g_checksumOrig = nullptr;
unsigned long ChecksumReplacement(unsigned long seed, const unsigned char* data, unsigned size) {
    return Orig<Checksum>(&g_checksumOrig)(seed, data, size) ^ 0x5a5a5a5aUL;
}
void* g_boundOrig = nullptr;
unsigned long BoundReplacement(unsigned long size) {
    return Orig<Bound>(&g_boundOrig)(size) + 7;
}
void* g_intOrig = nullptr;
int IntReplacement(int x) {
    return Orig<IntFunction>(&g_intOrig)(x) * 2;
}
void* g_outerOrig = nullptr;
int OuterReplacement(int x) {
    return Orig<IntFunction>(&g_outerOrig)(x) + 1;
}

uint64_t DoubleBits(double value) {
    uint64_t bits;
    memcpy(&bits, &value, sizeof(bits));
    return bits;
}
double Input(int i) {
    return i % 97 == 0 ? std::numeric_limits<double>::quiet_NaN() : -40.0 + i * 0.0731;
}
uint64_t PlusThousand(uint64_t bits) {
    double value;
    memcpy(&value, &bits, sizeof(value));
    return DoubleBits(value + 1000.0);
}

struct RealFunction {
    const char* library;
    const char* symbol;
    std::function<uint64_t(void* function, int input)> call;
    void* replacement;
    void** orig;
    std::function<uint64_t(uint64_t original)> replaced;
};

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
    auto bound = [](void* f, int i) {
        return static_cast<uint64_t>(
            reinterpret_cast<Bound>(f)(static_cast<unsigned long>(i) * 977));
    };
    auto xorMask = [](uint64_t r) { return r ^ 0x5a5a5a5aULL; };
    auto plus7 = [](uint64_t r) { return r + 7; };
    void* u = reinterpret_cast<void*>(UnaryReplacement);
    void* b = reinterpret_cast<void*>(BinaryReplacement);
    void* c = reinterpret_cast<void*>(ChecksumReplacement);
    return {
        {"libm.so.6", "cbrt", unary, u, &g_unaryOrig, PlusThousand},
        {"libm.so.6", "hypot", binary, b, &g_binaryOrig, PlusThousand},
        {"libm.so.6", "erf", unary, u, &g_unaryOrig, PlusThousand},
        {"libm.so.6", "fmod", binary, b, &g_binaryOrig, PlusThousand},
        {"libm.so.6", "log1p", unary, u, &g_unaryOrig, PlusThousand},
        {"libz.so.1", "crc32", checksum, c, &g_checksumOrig, xorMask},
        {"libz.so.1", "adler32", checksum, c, &g_checksumOrig, xorMask},
        {"libz.so.1", "compressBound", bound, reinterpret_cast<void*>(BoundReplacement),
         &g_boundOrig, plus7},
    };
}

constexpr int kInputs = 1000;
constexpr uint32_t kBranchMask = 0xfc000000;
constexpr uint32_t kBranch = 0x14000000;

uint32_t WordAt(const std::vector<uint8_t>& bytes, size_t offset) {
    uint32_t word;
    memcpy(&word, bytes.data() + offset, sizeof(word));
    return word;
}

bool IsLandingPad(uint32_t word) {
    return (word & 0xffffff3f) == 0xd503241f || word == 0xd503233f || word == 0xd503237f;
}

class HookEngineTest : public ::testing::Test {
  protected:
    void SetUp() override { inlinehooktest::InitShared(); }
};

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
        size_t patched = IsLandingPad(WordAt(before, 0)) ? 4 : 0;

        void* stub = shadowhook_hook_sym_addr(address, function.replacement, function.orig);
        ASSERT_NE(nullptr, stub) << shadowhook_to_errmsg(shadowhook_get_errno());
        ASSERT_NE(nullptr, *function.orig);
        std::vector<uint8_t> hooked = Bytes(address);
        EXPECT_EQ(kBranch, WordAt(hooked, patched) & kBranchMask) << "a B at +" << patched;
        for (size_t i = 0; i < before.size(); ++i) {
            if (i < patched || i >= patched + 4) {
                EXPECT_EQ(before[i], hooked[i]) << "only the one word changes, not +" << i;
            }
        }
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

TEST_F(HookEngineTest, LandingPadsStayAtTheEntryThroughChainsAndRemoval) {
    ASSERT_NE(nullptr, dlopen(inlinehooktest::TestLibrary().c_str(), RTLD_NOW));
    for (const char* symbol : {"ih_pac", "ih_bti_adr"}) {
        SCOPED_TRACE(symbol);
        void* address = Symbol(inlinehooktest::TestLibrary().c_str(), symbol);
        ASSERT_NE(nullptr, address);
        auto function = reinterpret_cast<IntFunction>(address);
        std::vector<int> expected;
        for (int x = -50; x < 50; ++x) {
            expected.push_back(function(x));
        }
        std::vector<uint8_t> before = Bytes(address);
        void* inner =
            shadowhook_hook_sym_addr(address, reinterpret_cast<void*>(IntReplacement), &g_intOrig);
        ASSERT_NE(nullptr, inner) << shadowhook_to_errmsg(shadowhook_get_errno());
        void* outer = shadowhook_hook_sym_addr(address, reinterpret_cast<void*>(OuterReplacement),
                                               &g_outerOrig);
        ASSERT_NE(nullptr, outer) << shadowhook_to_errmsg(shadowhook_get_errno());
        EXPECT_EQ(WordAt(before, 0), WordAt(Bytes(address), 0)) << "the landing pad is kept";
        for (int x = -50; x < 50; ++x) {
            EXPECT_EQ(expected[x + 50] * 2 + 1, function(x)) << x;
        }
        ASSERT_EQ(0, shadowhook_unhook(inner));
        for (int x = -50; x < 50; ++x) {
            EXPECT_EQ(expected[x + 50] + 1, function(x)) << x;
        }
        ASSERT_EQ(0, shadowhook_unhook(outer));
        EXPECT_EQ(before, Bytes(address));
        for (int x = -50; x < 50; ++x) {
            EXPECT_EQ(expected[x + 50], function(x)) << x;
        }
    }
}

TEST_F(HookEngineTest, RefusedFunctionsAreLeftUntouched) {
    ASSERT_NE(nullptr, dlopen(inlinehooktest::TestLibrary().c_str(), RTLD_NOW));
    struct Refused {
        const char* symbol;
        int error;
    } cases[] = {
        {"ih_tiny", SHADOWHOOK_ERRNO_HOOK_SYMSZ},  // only a landing pad by its symbol size
        {"ih_entry_loop", SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED},  // b.gt back to the entry
    };
    for (const Refused& refused : cases) {
        SCOPED_TRACE(refused.symbol);
        void* address = Symbol(inlinehooktest::TestLibrary().c_str(), refused.symbol);
        ASSERT_NE(nullptr, address);
        std::vector<uint8_t> before = Bytes(address, 16);
        void* orig = nullptr;
        EXPECT_EQ(nullptr, shadowhook_hook_sym_addr(
                               address, reinterpret_cast<void*>(IntReplacement), &orig));
        EXPECT_EQ(refused.error, shadowhook_get_errno());
        EXPECT_EQ(nullptr, orig);
        EXPECT_EQ(before, Bytes(address, 16));
    }
}

}  // namespace
