// The relocation of displaced instructions, on hand-assembled functions copied into memory the
// test maps: one function per instruction class an entry holds, hooked through the API and run
// through the hook, through orig and after unhook; code the engine must refuse; and the long
// forms the relocator falls back to when its trampoline lies beyond the reach of a relative
// branch (rel32 on x86-64, B's ±128 MiB on AArch64).
#include "platform/host/inlinehook/prologuerelocator.h"

#include <string.h>
#include <sys/mman.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/inlinehook/inlinehooktest.h"

namespace {

using corvane::inlinehook::CodeBounds;
using corvane::inlinehook::HookStatus;
using corvane::inlinehook::PrologueRelocator;
using inlinehooktest::Bytes;
using inlinehooktest::Code;
using inlinehooktest::PlusThousand;
using inlinehooktest::Symbol;

constexpr size_t kPageSize = 4096;
#if defined(__x86_64__)
constexpr int kFiller = 0xcc;  // int3 wherever the code runs astray
#else
constexpr int kFiller = 0;  // udf
#endif
// Layout of a test page: the function under test, bodies it branches to, a helper it calls, and
// data it reads.
constexpr uint32_t kCode = 0x100;
constexpr uint32_t kBody = 0x300;
constexpr uint32_t kHelper = 0x400;
constexpr uint32_t kData = 0x800;

// One page of hand-made code, read+execute once sealed, unmapped at the end.
class CodePage {
  public:
    explicit CodePage(void* hint = nullptr, int extraFlags = 0)
        : m_base(static_cast<uint8_t*>(mmap(hint, kPageSize, PROT_READ | PROT_WRITE,
                                            MAP_PRIVATE | MAP_ANONYMOUS | extraFlags, -1, 0))) {
        if (valid()) {
            memset(m_base, kFiller, kPageSize);
        }
    }
    ~CodePage() {
        if (valid()) {
            munmap(m_base, kPageSize);
        }
    }
    CodePage(const CodePage&) = delete;
    CodePage& operator=(const CodePage&) = delete;
    bool valid() const { return m_base != MAP_FAILED; }
    uintptr_t address(size_t offset) const { return reinterpret_cast<uintptr_t>(m_base) + offset; }
    void Write(size_t offset, const std::vector<uint8_t>& bytes) {
        memcpy(m_base + offset, bytes.data(), bytes.size());
    }
    void Seal() {
        __builtin___clear_cache(reinterpret_cast<char*>(m_base),
                                reinterpret_cast<char*>(m_base) + kPageSize);
        ASSERT_EQ(0, mprotect(m_base, kPageSize, PROT_READ | PROT_EXEC));
    }

  private:
    uint8_t* m_base;
};

// A function of one int, its code (placed at kCode), and what it computes, or the error number
// a hook of it fails with.
struct HandMade {
    const char* name;
    std::vector<uint8_t> code;
    std::function<int(int)> expected;
    unsigned traits = 0;
    int refusal = 0;
};
enum Trait : unsigned {
    kReadsFlags = 1,  // set by the caller, which a C++ replacement does not keep
    kFarRefused = 2,  // a PC-relative operand no far trampoline can load absolutely
};
const int kRewrite = SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED;

std::function<int(int)> Plus(int n) {
    return [n](int x) { return x + n; };
}

#if defined(__x86_64__)

// The entry jump (jmp rel32) goes after an endbr64 kept at the entry.
size_t JumpOffset(const std::vector<uint8_t>& code) {
    return memcmp(code.data(), "\xf3\x0f\x1e\xfa", 4) == 0 ? 4 : 0;
}
bool IsEntryJump(const uint8_t* code) {
    return code[0] == 0xe9;
}

// Displacements are from the end of the instruction, with the function at kCode.
std::vector<HandMade> HandMadeFunctions() {
    return {
        {"endbr64 and a frame: push rbp; mov rbp, rsp",
         {0xf3, 0x0f, 0x1e, 0xfa, 0x55, 0x48, 0x89, 0xe5, 0x8d, 0x47, 0x07, 0x5d, 0xc3},
         Plus(7)},
        {"RIP-relative load: mov eax, [rip+0x6fa] (the data)",
         {0x8b, 0x05, 0xfa, 0x06, 0x00, 0x00, 0x01, 0xf8, 0xc3},
         Plus(1000),
         kFarRefused},
        {"short jcc out of the displaced bytes: test; js; lea",
         {0x85, 0xff, 0x78, 0x04, 0x8d, 0x47, 0x01, 0xc3, 0x89, 0xf8, 0xf7, 0xd8, 0xc3},
         [](int x) { return x < 0 ? -x : x + 1; }},
        {"near jcc: cmp edi, 10; jg +4",
         {0x83, 0xff, 0x0a, 0x0f, 0x8f, 0x04, 0x00, 0x00, 0x00, 0x8d, 0x47, 0x05, 0xc3, 0x8d, 0x04,
          0x3f, 0xc3},
         [](int x) { return x > 10 ? 2 * x : x + 5; }},
        {"near jmp at the entry to the body",
         {0xe9, 0xfb, 0x01, 0x00, 0x00},
         [](int x) { return 3 * x; }},
        {"call rel32 at the entry to the helper",
         {0xe8, 0xfb, 0x02, 0x00, 0x00, 0x01, 0xf8, 0xc3},
         Plus(40)},
        {"call through a RIP-relative pointer: call [rip+0x702] (data + 8)",
         {0xff, 0x15, 0x02, 0x07, 0x00, 0x00, 0x01, 0xf8, 0xc3},
         Plus(40),
         kFarRefused},
        {"a loop inside the displaced bytes: mov; shr; jnz back",
         {0x89, 0xf8, 0xd1, 0xe8, 0x75, 0xfc, 0x8d, 0x47, 0x05, 0xc3},
         Plus(5)},
        {"ret: the function ends before 5 bytes", {0xc3}, {}, 0, SHADOWHOOK_ERRNO_HOOK_SYMSZ},
        {"jrcxz (rel8 only)", {0xe3, 0x03, 0x31, 0xc0, 0x31, 0xc0, 0xc3}, {}, 0, kRewrite},
        {"int3 at the entry (a breakpoint)", {0xcc, 0x31, 0xc0, 0x31, 0xc0, 0xc3}, {}, 0, kRewrite},
        {"call rax, then more bytes", {0xff, 0xd0, 0x89, 0xf8, 0x01, 0xc0, 0xc3}, {}, 0, kRewrite},
        {"reads its own first bytes", {0x8b, 0x05, 0xfa, 0xff, 0xff, 0xff, 0xc3}, {}, 0, kRewrite},
        {"undecodable: movntps xmm0, xmm0", {0x0f, 0x2b, 0xc0, 0x31, 0xc0, 0xc3}, {}, 0, kRewrite},
    };
}

// Fills a page with the function, the far body (3x), the helper (returns 40) and the data.
void Assemble(CodePage* page, const std::vector<uint8_t>& code) {
    page->Write(kCode, code);
    page->Write(kBody, {0x8d, 0x04, 0x7f, 0xc3});                // lea eax,[rdi+rdi*2]
    page->Write(kHelper, {0xb8, 0x28, 0x00, 0x00, 0x00, 0xc3});  // mov eax, 40
    struct {
        int32_t data[2] = {1000, 2000};
        uintptr_t helper;
    } data;
    data.helper = page->address(kHelper);
    page->Write(kData, Bytes(&data, sizeof(data)));
}

int Call(uintptr_t function, int x) {
    return reinterpret_cast<int (*)(int)>(function)(x);
}

#else  // AArch64

// A second body, for branches that must leave the function on either side of a condition.
constexpr uint32_t kOther = 0x340;

// Encoders for the words the cases need; offsets are page offsets.
uint32_t Imm(uint32_t from, uint32_t to, unsigned bits) {
    return static_cast<uint32_t>((static_cast<int64_t>(to) - from) / 4) & ((1u << bits) - 1);
}
uint32_t B(uint32_t op, uint32_t from, uint32_t to) {  // B, BL
    return op | Imm(from, to, 26);
}
// B.cond, CBZ and literal loads, `op` holding the condition or the register.
uint32_t Imm19(uint32_t op, uint32_t from, uint32_t to) {
    return op | Imm(from, to, 19) << 5;
}
uint32_t Adr(unsigned reg, uint32_t from, uint32_t to) {
    uint32_t imm = static_cast<uint32_t>(static_cast<int64_t>(to) - from) & 0x1fffff;
    return 0x10000000 | (imm & 3) << 29 | (imm >> 2) << 5 | reg;
}
uint32_t AddW0(unsigned imm) {
    return 0x11000000 | imm << 10;
}
std::vector<uint8_t> Words(std::initializer_list<uint32_t> words) {
    return Bytes(words.begin(), words.size() * sizeof(uint32_t));
}

constexpr uint32_t kRet = 0xd65f03c0;
constexpr uint32_t kBrX15 = 0xd61f01e0;  // the return of a function that called out (see Call)
constexpr uint32_t kBtiC = 0xd503245f;
constexpr uint32_t kPaciasp = 0xd503233f;
constexpr uint32_t kAutiasp = 0xd50323bf;
constexpr uint32_t kAddW0W1 = 0x0b010000;  // add w0, w0, w1
constexpr uint32_t kLdrW1X1 = 0xb9400021;  // ldr w1, [x1]
constexpr uint32_t kLdrW = 0x18000000, kLdrX = 0x58000000, kLdrQ = 0x9c000000;
constexpr uint32_t kPrfm = 0xd8000000;
constexpr uint32_t kFcvtzsW1D0 = 0x1e780001;
constexpr uint32_t kB = 0x14000000, kBl = 0x94000000, kBGt = 0x5400000c;
constexpr uint32_t kCbz = 0x34000000;

const uint32_t c = kCode;

// The entry jump (B) goes after a BTI c or PACIASP kept at the entry.
size_t JumpOffset(const std::vector<uint8_t>& code) {
    const std::vector<uint8_t> first(code.begin(), code.begin() + 4);
    return first == Words({kBtiC}) || first == Words({kPaciasp}) ? 4 : 0;
}
bool IsEntryJump(const uint8_t* code) {
    return (code[3] & 0xfc) == 0x14;  // B, the top byte of a little-endian word
}

std::vector<HandMade> HandMadeFunctions() {
    auto branchTo77 = [](std::function<bool(int)> taken) {
        return [taken](int x) { return taken(x) ? 77 : x + 5; };
    };
    return {
        {"bti c kept at the entry", Words({kBtiC, AddW0(7), kRet}), Plus(7)},
        {"paciasp kept at the entry, the relay authenticates",
         Words({kPaciasp, AddW0(7), kAutiasp, kRet}), Plus(7)},
        {"b to a body elsewhere", Words({B(kB, c, kBody)}), [](int x) { return 3 * x; }},
        {"cbz w0", Words({Imm19(kCbz, c, kOther), AddW0(5), kRet}),
         branchTo77([](int x) { return x == 0; })},
        {"b.gt on the caller's flags", Words({Imm19(kBGt, c, kOther), AddW0(5), kRet}),
         branchTo77([](int x) { return x > 10; }), kReadsFlags},
        {"adr x1, data", Words({Adr(1, c, kData), kLdrW1X1, kAddW0W1, kRet}), Plus(1000)},
        {"adrp x1, page; add x1, x1, #0x800",
         Words({0x90000001, 0x91200021, kLdrW1X1, kAddW0W1, kRet}), Plus(1000)},
        {"ldr x1, literal", Words({Imm19(kLdrX | 1, c, kData + 8), kAddW0W1, kRet}), Plus(2000)},
        {"ldr q0, literal", Words({Imm19(kLdrQ, c, kData + 16), kFcvtzsW1D0, kAddW0W1, kRet}),
         Plus(6)},
        {"prfm literal (dropped)", Words({Imm19(kPrfm, c, kData), AddW0(7), kRet}), Plus(7)},
        {"bl to a helper that must return into the function, then back through x15",
         Words({B(kBl, c, kHelper), kAddW0W1, kBrX15}), Plus(40)},
        {"brk #0 at the entry (a breakpoint)", Words({0xd4200000, kRet}), {}, 0, kRewrite},
        {"udf after a landing pad", Words({kBtiC, 0x00000000, kRet}), {}, 0, kRewrite},
        {"cbz to itself", Words({Imm19(kCbz, c, c), kRet}), {}, 0, kRewrite},
        {"ldr literal of its own first word", Words({Imm19(kLdrW, c, c), kRet}), {}, 0, kRewrite},
        {"branch back to the landing pad", Words({kBtiC, B(kB, c + 4, c), kRet}), {}, 0, kRewrite},
        {"literal load into xzr", Words({Imm19(kLdrX | 31, c, kData), kRet}), {}, 0, kRewrite},
    };
}

// Fills a page with the function, the bodies it branches to, a helper and the data.
void Assemble(CodePage* page, const std::vector<uint8_t>& code) {
    page->Write(kCode, code);
    page->Write(kBody, Words({0x0b000400, kRet}));   // add w0, w0, w0, lsl #1
    page->Write(kOther, Words({0x528009a0, kRet}));  // mov w0, #77
    // w1 = 40 + (x30 - (function + 4)): a call that returns anywhere else spoils the result.
    page->Write(kHelper, Words({Adr(2, kHelper, kCode + 4), 0xcb0203c1, 0x1100a021, kRet}));
    struct {
        int32_t word = 1000;
        int32_t pad = 0;
        int64_t doubleword = 2000;
        double quad[2] = {6.0, 0.0};
    } data;
    page->Write(kData, Bytes(&data, sizeof(data)));
}

// Calls hand-made code with the flags set by `cmp w0, #10`, as conditional entries expect, and
// the return address also in x15, for code whose BL overwrote x30.
int Call(uintptr_t function, int x) {
    register uint64_t x0 asm("x0") = static_cast<uint32_t>(x);
    register uint64_t x16 asm("x16") = function;
    __asm__ __volatile__("adr x15, 1f\n\tcmp w0, #10\n\tblr x16\n1:"
                         : "+r"(x0), "+r"(x16)
                         :
                         : "x1", "x2", "x3", "x4", "x5", "x6", "x7", "x8", "x9", "x10", "x11",
                           "x12", "x13", "x14", "x15", "x17", "x30", "v0", "v1", "v2", "v3", "v4",
                           "v5", "v6", "v7", "v16", "v17", "v18", "v19", "v20", "v21", "v22", "v23",
                           "v24", "v25", "v26", "v27", "v28", "v29", "v30", "v31", "cc", "memory");
    return static_cast<int>(x0);
}

#endif

const int kInputs[] = {-1000, -20, -11, -1, 0, 1, 2, 7, 8, 9, 10, 11, 12, 77, 1000, 123456};

void* g_orig = nullptr;
int Replacement(int x) {
    SHADOWHOOK_STACK_SCOPE();
    return Call(reinterpret_cast<uintptr_t>(shadowhook_get_prev_func(Code(Replacement))), x) * 3 +
           1;
}

// A sealed page holding `code` at kCode with the bodies, helper and data it uses.
std::unique_ptr<CodePage> Page(const std::vector<uint8_t>& code) {
    auto page = std::make_unique<CodePage>();
    if (page->valid()) {
        Assemble(page.get(), code);
        page->Seal();
    }
    return page;
}

// Maps a page more than 2 GiB below `near`, where no relative branch reaches.
std::unique_ptr<CodePage> FarPage(uintptr_t near) {
    for (uintptr_t distance = 3ULL << 30; distance <= (64ULL << 30); distance += 1ULL << 30) {
        uintptr_t hint = (near - distance) & ~(kPageSize - 1);
        auto page = std::make_unique<CodePage>(reinterpret_cast<void*>(hint), MAP_FIXED_NOREPLACE);
        if (page->valid() && page->address(0) == hint) {
            return page;
        }
    }
    return nullptr;
}

using PrologueRelocatorTest = inlinehooktest::SharedModeTest;

// Each function is hooked through the API: only the entry jump changes (after a landing pad
// kept in place, which orig, called indirectly too, also begins with), and it runs through the
// hook, through orig and after unhook. It is then
// relocated to a trampoline beyond branch reach, which must reach everything through absolute
// addresses; only operands addressed from the PC that cannot be loaded absolutely are refused.
TEST_F(PrologueRelocatorTest, EachInstructionClassRunsFromNearAndFarTrampolines) {
    for (const HandMade& function : HandMadeFunctions()) {
        SCOPED_TRACE(function.name);
        if (function.refusal != 0) {
            continue;
        }
        std::unique_ptr<CodePage> page = Page(function.code);
        ASSERT_TRUE(page->valid());
        uintptr_t address = page->address(kCode);
        std::vector<uint8_t> before = Bytes(reinterpret_cast<void*>(address), 24);

        void* stub =
            shadowhook_hook_sym_addr(reinterpret_cast<void*>(address), Code(Replacement), &g_orig);
        ASSERT_NE(nullptr, stub) << shadowhook_to_errmsg(shadowhook_get_errno());
        std::vector<uint8_t> hooked = Bytes(reinterpret_cast<void*>(address), 24);
        size_t at = JumpOffset(before);
        EXPECT_TRUE(IsEntryJump(hooked.data() + at)) << "no entry jump at +" << at;
        EXPECT_EQ(Bytes(before.data(), at), Bytes(g_orig, at)) << "orig begins with the pad";
        for (size_t i = 0; i < before.size(); ++i) {
            if (i < at || i >= at + PrologueRelocator::kPatchSize) {
                EXPECT_EQ(before[i], hooked[i]) << "byte +" << i << " changed";
            }
        }
        for (int x : kInputs) {
            if (!(function.traits & kReadsFlags)) {
                EXPECT_EQ(function.expected(x) * 3 + 1, Call(address, x)) << x;
            }
            EXPECT_EQ(function.expected(x), Call(reinterpret_cast<uintptr_t>(g_orig), x)) << x;
        }
        ASSERT_EQ(0, shadowhook_unhook(stub));
        EXPECT_EQ(before, Bytes(reinterpret_cast<void*>(address), 24));

        std::unique_ptr<CodePage> far = FarPage(address);
        ASSERT_NE(nullptr, far) << "no free address space 3..64 GiB away";
        CodeBounds bounds;
        bounds.readableEnd = page->address(kPageSize);
        PrologueRelocator relocator;
        ASSERT_TRUE(relocator.Analyze(address, bounds).ok());
        std::vector<uint8_t> trampoline;
        HookStatus status = relocator.Emit(far->address(0), &trampoline);
        if (function.traits & kFarRefused) {
            EXPECT_EQ(SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED, status.number);
        } else {
            ASSERT_TRUE(status.ok()) << status.detail;
            EXPECT_LE(trampoline.size(), relocator.maxTrampolineSize());
            far->Write(0, trampoline);
            far->Seal();
        }
        for (int x : kInputs) {
            EXPECT_EQ(function.expected(x), Call(address, x)) << x;
            if (!(function.traits & kFarRefused)) {
                EXPECT_EQ(function.expected(x), Call(far->address(0), x)) << x;
            }
        }
    }
}

uint8_t g_notCode[16] = {42};
void* g_relayOrig = nullptr;

// Refusals return their error number and leave the code and the orig slot as they were. The
// test library's prologues are ones a hook would break: too short by their symbol size, looping
// back to the entry, holding another symbol's entry point, or (without a symbol size) branching
// back into the displaced bytes.
TEST_F(PrologueRelocatorTest, RefusedCallsFailWithTheirErrorNumberAndTouchNothing) {
    void* cbrtAddress = Symbol("libm.so.6", "cbrt");
    void* first = shadowhook_hook_sym_addr(cbrtAddress, Code(PlusThousand), &g_relayOrig);
    ASSERT_NE(nullptr, first);
    const int kInvalid = SHADOWHOOK_ERRNO_INVALID_ARG;
    struct Hook {
        std::string name;
        void* address;
        int error;
        void* replacement = Code(Replacement);
    };
    std::vector<Hook> hooks = {
        {"null address", nullptr, kInvalid},
        {"null replacement", cbrtAddress, kInvalid, nullptr},
        {"the same replacement twice in shared mode", cbrtAddress, SHADOWHOOK_ERRNO_HOOK_DUP,
         Code(PlusThousand)},
        {"data, not code", g_notCode, kInvalid},
        {"the engine's own relay", g_relayOrig, kInvalid},
        {"a function replacing itself", Code(Replacement), kInvalid},
#if defined(__aarch64__)
        {"unaligned", reinterpret_cast<char*>(Replacement) + 2, kInvalid},
#endif
    };
    const std::pair<const char*, int> kLibrary[] = {{"ih_tiny", SHADOWHOOK_ERRNO_HOOK_SYMSZ},
                                                    {"ih_entry_loop", kRewrite},
                                                    {"ih_alias_outer", kRewrite},
                                                    {"ih_unsized_back_branch", kRewrite}};
    for (const auto& [symbol, error] : kLibrary) {
        hooks.push_back({symbol, inlinehooktest::TestSymbol(symbol), error});
    }
    std::vector<std::unique_ptr<CodePage>> pages;
    for (const HandMade& refused : HandMadeFunctions()) {
        if (refused.refusal != 0) {
            pages.push_back(Page(refused.code));
            ASSERT_TRUE(pages.back()->valid());
            void* address = reinterpret_cast<void*>(pages.back()->address(kCode));
            hooks.push_back({refused.name, address, refused.refusal});
        }
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

    void* replacement = Code(Replacement);
    EXPECT_EQ(nullptr, shadowhook_hook_sym_name(nullptr, "cbrt", replacement, nullptr));
    EXPECT_EQ(kInvalid, shadowhook_get_errno());
    EXPECT_EQ(nullptr, shadowhook_hook_sym_name("libm.so.6", "ih_no", replacement, nullptr));
    EXPECT_EQ(SHADOWHOOK_ERRNO_HOOK_DLSYM, shadowhook_get_errno()) << "no such symbol";
    EXPECT_EQ(nullptr, shadowhook_hook_sym_name("libih_no.so", "cbrt", replacement, nullptr));
    EXPECT_EQ(SHADOWHOOK_ERRNO_HOOK_DLSYM, shadowhook_get_errno()) << "a library never loaded";
    EXPECT_EQ(-1, shadowhook_unhook(nullptr));
    EXPECT_EQ(kInvalid, shadowhook_get_errno());
    // The error number is the calling thread's own.
    std::thread([] { EXPECT_EQ(SHADOWHOOK_ERRNO_OK, shadowhook_get_errno()); }).join();
    EXPECT_EQ(kInvalid, shadowhook_get_errno());
    EXPECT_EQ(0, shadowhook_unhook(first));
    EXPECT_EQ(2.0, reinterpret_cast<inlinehooktest::Unary>(cbrtAddress)(8.0));
}

}  // namespace
