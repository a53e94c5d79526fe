// The relocation of displaced AArch64 instructions, on hand-assembled functions copied into memory
// the test maps: one function per instruction class an entry holds, hooked through the API and
// run through the hook, through orig and after unhook; words the engine must refuse; and the
// absolute forms the relocator falls back to when its trampoline lies beyond B's ±128 MiB.
#include <string.h>
#include <sys/mman.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/host/inlinehook/codewindow.h"
#include "platform/host/inlinehook/prologuerelocator.h"
#include "tests/inlinehook/inlinehooktest.h"

namespace {

using corvane::inlinehook::CodeBounds;
using corvane::inlinehook::PrologueRelocator;
using inlinehooktest::Bytes;

constexpr size_t kPageSize = 4096;
// Layout of a test page: the function under test, a branch target, a helper, and data it reads.
constexpr uint32_t kCode = 0x100;
constexpr uint32_t kBody = 0x300;
constexpr uint32_t kOther = 0x340;
constexpr uint32_t kHelper = 0x400;
constexpr uint32_t kData = 0x800;

// One page of hand-made code, read+execute once sealed, unmapped at the end.
class CodePage {
  public:
    explicit CodePage(void* hint = nullptr, int extraFlags = 0) {
        void* page = mmap(hint, kPageSize, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | extraFlags, -1, 0);
        m_base = page == MAP_FAILED ? nullptr : static_cast<uint8_t*>(page);
    }
    ~CodePage() {
        if (m_base != nullptr) {
            munmap(m_base, kPageSize);
        }
    }
    CodePage(const CodePage&) = delete;
    CodePage& operator=(const CodePage&) = delete;

    bool valid() const { return m_base != nullptr; }
    uintptr_t address(size_t offset) const { return reinterpret_cast<uintptr_t>(m_base) + offset; }
    void Write(size_t offset, const void* bytes, size_t length) {
        memcpy(m_base + offset, bytes, length);
    }
    void WriteWords(size_t offset, const std::vector<uint32_t>& words) {
        Write(offset, words.data(), words.size() * 4);
    }
    void Seal() {
        __builtin___clear_cache(reinterpret_cast<char*>(m_base),
                                reinterpret_cast<char*>(m_base) + kPageSize);
        ASSERT_EQ(0, mprotect(m_base, kPageSize, PROT_READ | PROT_EXEC));
    }

  private:
    uint8_t* m_base = nullptr;
};

// Encoders for the words the cases need; offsets are page offsets.
uint32_t Imm(uint32_t from, uint32_t to, unsigned bits) {
    return static_cast<uint32_t>((static_cast<int64_t>(to) - from) / 4) & ((1u << bits) - 1);
}
uint32_t B(uint32_t from, uint32_t to) {
    return 0x14000000 | Imm(from, to, 26);
}
uint32_t Bl(uint32_t from, uint32_t to) {
    return 0x94000000 | Imm(from, to, 26);
}
uint32_t BCond(uint32_t from, uint32_t to, uint32_t cond) {
    return 0x54000000 | Imm(from, to, 19) << 5 | cond;
}
uint32_t Cb(uint32_t op, uint32_t from, uint32_t to) {  // op: 0x34000000 cbz, 0x35000000 cbnz w0
    return op | Imm(from, to, 19) << 5;
}
uint32_t Tb(uint32_t op, unsigned bit, uint32_t from, uint32_t to) {  // tbz/tbnz w0, #bit
    return op | (bit & 31) << 19 | Imm(from, to, 14) << 5;
}
uint32_t Literal(uint32_t op, unsigned reg, uint32_t from, uint32_t to) {
    return op | Imm(from, to, 19) << 5 | reg;
}
uint32_t Adr(unsigned reg, uint32_t from, uint32_t to) {
    uint32_t imm = static_cast<uint32_t>(static_cast<int64_t>(to) - from) & 0x1fffff;
    return 0x10000000 | (imm & 3) << 29 | (imm >> 2) << 5 | reg;
}

constexpr uint32_t kRet = 0xd65f03c0;
constexpr uint32_t kBtiC = 0xd503245f;
constexpr uint32_t kPaciasp = 0xd503233f;
constexpr uint32_t kAutiasp = 0xd50323bf;
constexpr uint32_t kAddW0W1 = 0x0b010000;  // add w0, w0, w1
constexpr uint32_t kAddX0X1 = 0x8b010000;  // add x0, x0, x1
constexpr uint32_t kLdrW1X1 = 0xb9400021;  // ldr w1, [x1]
uint32_t AddW0(unsigned imm) {
    return 0x11000000 | imm << 10;
}
constexpr uint32_t kLdrW = 0x18000000, kLdrX = 0x58000000, kLdrsw = 0x98000000;
constexpr uint32_t kLdrS = 0x1c000000, kLdrD = 0x5c000000, kLdrQ = 0x9c000000;
constexpr uint32_t kPrfm = 0xd8000000;
constexpr uint32_t kFcvtzsW1S0 = 0x1e380001, kFcvtzsW1D0 = 0x1e780001;
constexpr uint32_t kCbz = 0x34000000, kCbnz = 0x35000000, kTbz = 0x36000000, kTbnz = 0x37000000;
constexpr uint32_t kGt = 0xc;

// A function of one int, its words (placed at kCode), and what it computes. `flags`: it reads
// the condition flags set by the caller (cmp w0, #10), which a C++ replacement does not keep.
struct HandMade {
    const char* name;
    std::vector<uint32_t> code;
    std::function<int(int)> expected;
    bool flags = false;
};

const uint32_t c = kCode;

std::vector<HandMade> RelocatableFunctions() {
    return {
        {"plain: add; ret", {AddW0(7), kRet}, [](int x) { return x + 7; }},
        {"bti c kept at the entry", {kBtiC, AddW0(7), kRet}, [](int x) { return x + 7; }},
        {"paciasp kept at the entry, the relay authenticates",
         {kPaciasp, AddW0(7), kAutiasp, kRet},
         [](int x) { return x + 7; }},
        {"b to a body elsewhere", {B(c, kBody)}, [](int x) { return 3 * x; }},
        {"cbz w0",
         {Cb(kCbz, c, kOther), AddW0(5), kRet},
         [](int x) { return x == 0 ? 77 : x + 5; }},
        {"cbnz w0",
         {Cb(kCbnz, c, kOther), AddW0(5), kRet},
         [](int x) { return x != 0 ? 77 : x + 5; }},
        {"tbz w0, #3",
         {Tb(kTbz, 3, c, kOther), AddW0(5), kRet},
         [](int x) { return (x & 8) == 0 ? 77 : x + 5; }},
        {"tbnz w0, #31",
         {Tb(kTbnz, 31, c, kOther), AddW0(5), kRet},
         [](int x) { return x < 0 ? 77 : x + 5; }},
        {"b.gt on the caller's flags",
         {BCond(c, kOther, kGt), AddW0(5), kRet},
         [](int x) { return x > 10 ? 77 : x + 5; },
         true},
        {"adr x1, data",
         {Adr(1, c, kData), kLdrW1X1, kAddW0W1, kRet},
         [](int x) { return x + 1000; }},
        {"adrp x1, page; add x1, x1, #0x800",
         {0x90000001, 0x91200021, kLdrW1X1, kAddW0W1, kRet},
         [](int x) { return x + 1000; }},
        {"ldr w1, literal",
         {Literal(kLdrW, 1, c, kData), kAddW0W1, kRet},
         [](int x) { return x + 1000; }},
        {"ldr x1, literal",
         {Literal(kLdrX, 1, c, kData + 8), kAddW0W1, kRet},
         [](int x) { return x + 2000; }},
        {"ldrsw x1, literal",
         {Literal(kLdrsw, 1, c, kData + 4), kAddX0X1, kRet},
         [](int x) { return x - 5; }},
        {"ldr s0, literal",
         {Literal(kLdrS, 0, c, kData + 16), kFcvtzsW1S0, kAddW0W1, kRet},
         [](int x) { return x + 2; }},
        {"ldr d0, literal",
         {Literal(kLdrD, 0, c, kData + 24), kFcvtzsW1D0, kAddW0W1, kRet},
         [](int x) { return x + 4; }},
        {"ldr q0, literal",
         {Literal(kLdrQ, 0, c, kData + 32), kFcvtzsW1D0, kAddW0W1, kRet},
         [](int x) { return x + 6; }},
        {"prfm literal (dropped)",
         {Literal(kPrfm, 0, c, kData), AddW0(7), kRet},
         [](int x) { return x + 7; }},
    };
}

// Fills a page with the function, the bodies it branches to, a helper and the data.
void Assemble(CodePage* page, const std::vector<uint32_t>& code) {
    page->WriteWords(kCode, code);
    page->WriteWords(kBody, {0x0b000400, kRet});    // add w0, w0, w0, lsl #1
    page->WriteWords(kOther, {0x528009a0, kRet});   // mov w0, #77
    page->WriteWords(kHelper, {0x52800501, kRet});  // mov w1, #40
    struct {
        int32_t word = 1000;
        int32_t negative = -5;
        int64_t doubleword = 2000;
        float single = 2.5f;
        float pad = 0;
        double twice = 4.0;
        double quad[2] = {6.0, 0.0};
    } data;
    page->Write(kData, &data, sizeof(data));
}

const int kInputs[] = {-1000, -20, -11, -1, 0, 1, 2, 7, 8, 9, 10, 11, 12, 77, 1000, 123456};

// Calls hand-made code with the flags set by `cmp w0, #10`, as conditional entries expect.
int Call(uintptr_t function, int x) {
    register uint64_t x0 asm("x0") = static_cast<uint32_t>(x);
    register uint64_t x16 asm("x16") = function;
    __asm__ __volatile__("cmp w0, #10\n\tblr x16"
                         : "+r"(x0), "+r"(x16)
                         :
                         : "x1", "x2", "x3", "x4", "x5", "x6", "x7", "x8", "x9", "x10", "x11",
                           "x12", "x13", "x14", "x15", "x17", "x30", "v0", "v1", "v2", "v3", "v4",
                           "v5", "v6", "v7", "v16", "v17", "v18", "v19", "v20", "v21", "v22", "v23",
                           "v24", "v25", "v26", "v27", "v28", "v29", "v30", "v31", "cc", "memory");
    return static_cast<int>(x0);
}

void* g_orig = nullptr;
int Replacement(int x) {
    return Call(reinterpret_cast<uintptr_t>(__atomic_load_n(&g_orig, __ATOMIC_ACQUIRE)), x) * 3 + 1;
}

class PrologueRelocatorTest : public ::testing::Test {
  protected:
    void SetUp() override { inlinehooktest::InitShared(); }
};

TEST_F(PrologueRelocatorTest, EachInstructionClassRunsCorrectlyFromTheTrampoline) {
    for (const HandMade& function : RelocatableFunctions()) {
        SCOPED_TRACE(function.name);
        CodePage page;
        ASSERT_TRUE(page.valid());
        Assemble(&page, function.code);
        page.Seal();
        uintptr_t address = page.address(kCode);
        for (int x : kInputs) {
            ASSERT_EQ(function.expected(x), Call(address, x)) << "hand assembly is wrong for " << x;
        }
        std::vector<uint8_t> before = Bytes(reinterpret_cast<void*>(address), 24);

        void* stub = shadowhook_hook_sym_addr(reinterpret_cast<void*>(address),
                                              reinterpret_cast<void*>(Replacement), &g_orig);
        ASSERT_NE(nullptr, stub) << shadowhook_to_errmsg(shadowhook_get_errno());
        // A landing pad stays the first word; the jump replaces the word after it.
        if (function.code[0] == kBtiC || function.code[0] == kPaciasp) {
            EXPECT_EQ(0, memcmp(before.data(), reinterpret_cast<void*>(address), 4));
        }
        for (int x : kInputs) {
            if (!function.flags) {
                EXPECT_EQ(function.expected(x) * 3 + 1, Call(address, x)) << x;
            }
            EXPECT_EQ(function.expected(x), Call(reinterpret_cast<uintptr_t>(g_orig), x)) << x;
        }
        ASSERT_EQ(0, shadowhook_unhook(stub));
        EXPECT_EQ(before, Bytes(reinterpret_cast<void*>(address), 24));
        for (int x : kInputs) {
            EXPECT_EQ(function.expected(x), Call(address, x)) << x;
        }
    }
}

TEST_F(PrologueRelocatorTest, WordsThatCannotMoveAreRefusedUntouched) {
    struct Refused {
        const char* name;
        std::vector<uint32_t> code;
    } cases[] = {
        {"brk #0 at the entry (a breakpoint)", {0xd4200000, kRet}},
        {"hlt at the entry", {0xd4400000, kRet}},
        {"udf at the entry", {0x00000000, kRet}},
        {"udf after a landing pad", {kBtiC, 0x00000000, kRet}},
        {"b to itself", {B(c, c)}},
        {"cbz to itself", {Cb(kCbz, c, c), kRet}},
        {"ldr literal of its own first word", {Literal(kLdrW, 0, c, c), kRet}},
        {"branch back to the landing pad", {kBtiC, B(c + 4, c), kRet}},
        {"literal load into xzr", {Literal(kLdrX, 31, c, kData), kRet}},
    };
    for (const Refused& refused : cases) {
        SCOPED_TRACE(refused.name);
        CodePage page;
        ASSERT_TRUE(page.valid());
        Assemble(&page, refused.code);
        page.Seal();
        void* address = reinterpret_cast<void*>(page.address(kCode));
        std::vector<uint8_t> before = Bytes(address, 16);
        void* orig = nullptr;
        EXPECT_EQ(nullptr,
                  shadowhook_hook_sym_addr(address, reinterpret_cast<void*>(Replacement), &orig));
        EXPECT_EQ(SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED, shadowhook_get_errno());
        EXPECT_EQ(nullptr, orig);
        EXPECT_EQ(before, Bytes(address, 16));
    }
    EXPECT_EQ(nullptr, shadowhook_hook_sym_addr(reinterpret_cast<char*>(Replacement) + 2,
                                                reinterpret_cast<void*>(Replacement), nullptr));
    EXPECT_EQ(SHADOWHOOK_ERRNO_INVALID_ARG, shadowhook_get_errno()) << "unaligned address";
}

// Maps a page more than 128 MiB away from `near`, where B cannot reach.
std::unique_ptr<CodePage> FarPage(uintptr_t near) {
    for (uintptr_t distance = 1ULL << 30; distance <= (64ULL << 30); distance += 1ULL << 30) {
        for (uintptr_t hint : {near + distance, near - distance}) {
            hint &= ~(kPageSize - 1);
            auto page =
                std::make_unique<CodePage>(reinterpret_cast<void*>(hint), MAP_FIXED_NOREPLACE);
            if (page->valid() && page->address(0) == hint) {
                return page;
            }
        }
    }
    return nullptr;
}

TEST(PrologueRelocatorFarTest, BeyondBranchReachEverythingGoesThroughAbsoluteAddresses) {
    for (const HandMade& function : RelocatableFunctions()) {
        SCOPED_TRACE(function.name);
        CodePage page;
        ASSERT_TRUE(page.valid());
        Assemble(&page, function.code);
        page.Seal();
        uintptr_t address = page.address(kCode);
        std::unique_ptr<CodePage> far = FarPage(address);
        ASSERT_NE(nullptr, far);

        PrologueRelocator relocator;
        CodeBounds bounds;
        bounds.readableEnd = page.address(kPageSize);
        ASSERT_TRUE(relocator.Analyze(address, bounds).ok());
        std::vector<uint8_t> code;
        auto status = relocator.Emit(far->address(0), &code);
        ASSERT_TRUE(status.ok()) << status.detail;
        far->Write(0, code.data(), code.size());
        far->Seal();
        // The trampoline runs the displaced words and continues in the original function.
        for (int x : kInputs) {
            EXPECT_EQ(function.expected(x), Call(far->address(0), x)) << x;
        }
    }
}

TEST(PrologueRelocatorFarTest, CallsReturnIntoTheOriginalFunction) {
    CodePage page;
    ASSERT_TRUE(page.valid());
    Assemble(&page, {Bl(c, kHelper), kAddW0W1, kRet});
    page.Seal();
    uintptr_t address = page.address(kCode);
    for (bool far : {false, true}) {
        SCOPED_TRACE(far ? "far" : "near");
        PrologueRelocator relocator;
        CodeBounds bounds;
        bounds.readableEnd = page.address(kPageSize);
        ASSERT_TRUE(relocator.Analyze(address, bounds).ok());
        uintptr_t base = far ? address + (1ULL << 30) : address + kPageSize;
        std::vector<uint8_t> code;
        ASSERT_TRUE(relocator.Emit(base, &code).ok());
        std::vector<uint32_t> words(code.size() / 4);
        memcpy(words.data(), code.data(), words.size() * 4);
        // ldr x30, =function+4, then a jump to the helper: it returns after the displaced call.
        ASSERT_EQ(0x5800001eu, words[0] & 0xff00001f);
        size_t literal = ((words[0] >> 5) & 0x7ffff);
        uint64_t returnAddress;
        memcpy(&returnAddress, code.data() + literal * 4, 8);
        EXPECT_EQ(address + 4, returnAddress);
        if (far) {
            EXPECT_EQ(0x58000011u, words[1] & 0xff00001f) << "ldr x17, =helper";
            EXPECT_EQ(0xd61f0220u, words[2]) << "br x17";
        } else {
            uint32_t imm26 = static_cast<uint32_t>((page.address(kHelper) - (base + 4)) >> 2);
            EXPECT_EQ(0x14000000u | (imm26 & 0x3ffffff), words[1]) << "b helper";
        }
    }
}

}  // namespace
