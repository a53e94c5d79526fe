// The relocation of displaced instructions, on hand-assembled functions copied into memory the
// test maps: one function per instruction class a prologue holds, hooked through the API and run
// through the hook, through orig and after unhook; sequences the engine must refuse; and the
// long forms the relocator falls back to when its trampoline lies beyond rel32 reach.
#include "platform/host/inlinehook/prologuerelocator.h"

#include <string.h>
#include <sys/mman.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/inlinehook/inlinehooktest.h"

namespace {

using corvane::inlinehook::CodeBounds;
using corvane::inlinehook::HookStatus;
using corvane::inlinehook::PrologueRelocator;
using inlinehooktest::Bytes;

using IntFunction = int (*)(int);

constexpr size_t kPageSize = 4096;
// Layout of a test page: the function under test, a jump target far enough to need rel32, a
// helper it calls, and data it reads.
constexpr size_t kCodeOffset = 0x100;
constexpr size_t kBodyOffset = 0x300;
constexpr size_t kHelperOffset = 0x400;
constexpr size_t kDataOffset = 0x800;

// One page of hand-made code, read+execute once sealed, unmapped at the end.
class CodePage {
  public:
    explicit CodePage(void* hint = nullptr, int extraFlags = 0) {
        void* page = mmap(hint, kPageSize, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | extraFlags, -1, 0);
        m_base = page == MAP_FAILED ? nullptr : static_cast<uint8_t*>(page);
        if (m_base != nullptr) {
            memset(m_base, 0xcc, kPageSize);
        }
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
    void Write(size_t offset, const std::vector<uint8_t>& bytes) {
        memcpy(m_base + offset, bytes.data(), bytes.size());
    }
    void Seal() { ASSERT_EQ(0, mprotect(m_base, kPageSize, PROT_READ | PROT_EXEC)); }

  private:
    uint8_t* m_base = nullptr;
};

// rel32 from the end of an instruction ending at `from` (page offsets) to `to`.
std::vector<uint8_t> Rel32(size_t from, size_t to) {
    int32_t rel = static_cast<int32_t>(static_cast<int64_t>(to) - static_cast<int64_t>(from));
    std::vector<uint8_t> bytes(4);
    memcpy(bytes.data(), &rel, 4);
    return bytes;
}

std::vector<uint8_t> Join(std::initializer_list<std::vector<uint8_t>> parts) {
    std::vector<uint8_t> joined;
    for (const auto& part : parts) {
        joined.insert(joined.end(), part.begin(), part.end());
    }
    return joined;
}

// A function of one int, its bytes (placed at kCodeOffset), and what it computes.
struct HandMade {
    const char* name;
    std::vector<uint8_t> code;
    std::function<int(int)> expected;
};

const size_t c = kCodeOffset;

std::vector<HandMade> RelocatableFunctions() {
    return {
        {"endbr64 and a frame: push rbp; mov rbp, rsp",
         {0xf3, 0x0f, 0x1e, 0xfa, 0x55, 0x48, 0x89, 0xe5, 0x8d, 0x47, 0x07, 0x5d, 0xc3},
         [](int x) { return x + 7; }},
        {"RIP-relative load: mov eax, [rip+data]",
         Join({{0x8b, 0x05}, Rel32(c + 6, kDataOffset), {0x01, 0xf8, 0xc3}}),
         [](int x) { return x + 1000; }},
        {"RIP-relative lea, then a load through it",
         Join({{0x48, 0x8d, 0x0d}, Rel32(c + 7, kDataOffset + 4), {0x8b, 0x01, 0x01, 0xf8, 0xc3}}),
         [](int x) { return x + 2000; }},
        {"short jcc out of the displaced bytes: test; js; lea",
         {0x85, 0xff, 0x78, 0x04, 0x8d, 0x47, 0x01, 0xc3, 0x89, 0xf8, 0xf7, 0xd8, 0xc3},
         [](int x) { return x < 0 ? -x : x + 1; }},
        {"near jcc: cmp edi, 10; jg rel32",
         Join({{0x83, 0xff, 0x0a, 0x0f, 0x8f},
               Rel32(c + 9, c + 13),
               {0x8d, 0x47, 0x05, 0xc3, 0x8d, 0x04, 0x3f, 0xc3}}),
         [](int x) { return x > 10 ? 2 * x : x + 5; }},
        {"short jmp as the last displaced instruction",
         {0x31, 0xc0, 0x01, 0xf8, 0xeb, 0x03, 0xcc, 0xcc, 0xcc, 0x83, 0xc0, 0x05, 0xc3},
         [](int x) { return x + 5; }},
        {"near jmp at the entry", Join({{0xe9}, Rel32(c + 5, kBodyOffset)}),
         [](int x) { return 3 * x; }},
        {"call rel32 at the entry", Join({{0xe8}, Rel32(c + 5, kHelperOffset), {0x01, 0xf8, 0xc3}}),
         [](int x) { return x + 40; }},
        {"call through a RIP-relative pointer",
         Join({{0xff, 0x15}, Rel32(c + 6, kDataOffset + 8), {0x01, 0xf8, 0xc3}}),
         [](int x) { return x + 40; }},
        {"push rbx; sub rsp, 16; mov [rsp+8], edi",
         {0x53, 0x48, 0x83, 0xec, 0x10, 0x89, 0x7c, 0x24, 0x08, 0x8b, 0x44,
          0x24, 0x08, 0x83, 0xc0, 0x03, 0x48, 0x83, 0xc4, 0x10, 0x5b, 0xc3},
         [](int x) { return x + 3; }},
        {"a loop inside the displaced bytes: mov; shr; jnz back",
         {0x89, 0xf8, 0xd1, 0xe8, 0x75, 0xfc, 0x8d, 0x47, 0x05, 0xc3},
         [](int x) { return x + 5; }},
    };
}

// Fills a page with the function, the far body (3x), the helper (returns 40) and the data.
void Assemble(CodePage* page, const std::vector<uint8_t>& code) {
    page->Write(kCodeOffset, code);
    page->Write(kBodyOffset, {0x8d, 0x04, 0x7f, 0xc3});                // lea eax,[rdi+rdi*2]
    page->Write(kHelperOffset, {0xb8, 0x28, 0x00, 0x00, 0x00, 0xc3});  // mov eax, 40
    int32_t data[2] = {1000, 2000};
    uintptr_t helper = page->address(kHelperOffset);
    std::vector<uint8_t> bytes(16);
    memcpy(bytes.data(), data, 8);
    memcpy(bytes.data() + 8, &helper, 8);
    page->Write(kDataOffset, bytes);
}

const int kInputs[] = {-1000, -20, -11, -1, 0, 1, 2, 9, 10, 11, 12, 77, 1000, 123456};

void* g_orig = nullptr;
int Replacement(int x) {
    return inlinehooktest::Orig<IntFunction>(&g_orig)(x) * 3 + 1;
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
        void* address = reinterpret_cast<void*>(page.address(kCodeOffset));
        auto call = reinterpret_cast<IntFunction>(address);
        for (int x : kInputs) {
            ASSERT_EQ(function.expected(x), call(x)) << "hand assembly is wrong for " << x;
        }
        std::vector<uint8_t> before = Bytes(address, 24);

        void* stub =
            shadowhook_hook_sym_addr(address, reinterpret_cast<void*>(Replacement), &g_orig);
        ASSERT_NE(nullptr, stub) << shadowhook_to_errmsg(shadowhook_get_errno());
        for (int x : kInputs) {
            EXPECT_EQ(function.expected(x) * 3 + 1, call(x)) << x;
            EXPECT_EQ(function.expected(x), inlinehooktest::Orig<IntFunction>(&g_orig)(x)) << x;
        }
        ASSERT_EQ(0, shadowhook_unhook(stub));
        EXPECT_EQ(before, Bytes(address, 24));
        for (int x : kInputs) {
            EXPECT_EQ(function.expected(x), call(x)) << x;
        }
    }
}

TEST_F(PrologueRelocatorTest, SequencesThatCannotMoveAreRefusedUntouched) {
    struct Refused {
        const char* name;
        std::vector<uint8_t> code;
        int error;
    } cases[] = {
        {"ret: the function ends before 5 bytes", {0xc3}, SHADOWHOOK_ERRNO_HOOK_SYMSZ},
        {"xor; ret", {0x31, 0xc0, 0xc3}, SHADOWHOOK_ERRNO_HOOK_SYMSZ},
        {"jrcxz (rel8 only)",
         {0xe3, 0x03, 0x31, 0xc0, 0x31, 0xc0, 0xc3},
         SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED},
        {"loop (rel8 only)",
         {0x31, 0xc0, 0xe2, 0xfe, 0x31, 0xc0, 0xc3},
         SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED},
        {"int3 at the entry (a breakpoint)",
         {0xcc, 0x31, 0xc0, 0x31, 0xc0, 0xc3},
         SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED},
        {"call rax followed by more displaced bytes",
         {0xff, 0xd0, 0x89, 0xf8, 0x01, 0xc0, 0xc3},
         SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED},
        {"reads its own first bytes",
         {0x8b, 0x05, 0xfc, 0xff, 0xff, 0xff, 0xc3},
         SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED},
        {"undecodable: movntps with a register operand",
         {0x0f, 0x2b, 0xc0, 0x31, 0xc0, 0xc3},
         SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED},
    };
    for (const Refused& refused : cases) {
        SCOPED_TRACE(refused.name);
        CodePage page;
        ASSERT_TRUE(page.valid());
        Assemble(&page, refused.code);
        page.Seal();
        void* address = reinterpret_cast<void*>(page.address(kCodeOffset));
        std::vector<uint8_t> before = Bytes(address, 16);
        void* orig = nullptr;
        EXPECT_EQ(nullptr,
                  shadowhook_hook_sym_addr(address, reinterpret_cast<void*>(Replacement), &orig));
        EXPECT_EQ(refused.error, shadowhook_get_errno());
        EXPECT_EQ(nullptr, orig);
        EXPECT_EQ(before, Bytes(address, 16));
    }
}

// Maps a page more than 2 GiB away from `near`, where rel32 cannot reach.
std::unique_ptr<CodePage> FarPage(uintptr_t near) {
    for (uintptr_t distance = 3ULL << 30; distance <= (64ULL << 30); distance += 1ULL << 30) {
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

TEST(PrologueRelocatorFarTest, BeyondRel32ReachBranchesBecomeAbsoluteAndRipOperandsAreRefused) {
    struct Case {
        const char* name;
        size_t index;  // into RelocatableFunctions()
        bool relocatable;
    } cases[] = {
        {"jump back after plain instructions", 0, true},
        {"RIP-relative load", 1, false},
        {"short jcc out", 3, true},
        {"near jcc out", 4, true},
        {"near jmp", 6, true},
        {"call rel32", 7, true},
        {"loop inside", 10, true},
    };
    std::vector<HandMade> functions = RelocatableFunctions();
    for (const Case& test : cases) {
        const HandMade& function = functions[test.index];
        SCOPED_TRACE(function.name);
        CodePage page;
        ASSERT_TRUE(page.valid());
        Assemble(&page, function.code);
        page.Seal();
        uintptr_t address = page.address(kCodeOffset);
        std::unique_ptr<CodePage> far = FarPage(address);
        ASSERT_NE(nullptr, far) << "no free address space 3..64 GiB away";

        CodeBounds bounds;
        bounds.readableEnd = page.address(kPageSize);
        PrologueRelocator relocator;
        ASSERT_TRUE(relocator.Analyze(address, bounds).ok());
        std::vector<uint8_t> trampoline;
        HookStatus status = relocator.Emit(far->address(0), &trampoline);
        if (!test.relocatable) {
            EXPECT_EQ(SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED, status.number);
            continue;
        }
        ASSERT_TRUE(status.ok()) << status.detail;
        EXPECT_LE(trampoline.size(), relocator.maxTrampolineSize());
        far->Write(0, trampoline);
        far->Seal();
        auto moved = reinterpret_cast<IntFunction>(far->address(0));
        for (int x : kInputs) {
            EXPECT_EQ(function.expected(x), moved(x)) << x;
        }
    }
}

}  // namespace
