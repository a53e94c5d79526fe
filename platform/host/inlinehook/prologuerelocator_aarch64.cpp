// AArch64: the entry jump is one B (±128 MiB) over one instruction, so a single aligned 4-byte
// store installs and removes it and no thread ever has to be paused. A landing pad at the entry
// (BTI, PACIASP, PACIBSP) stays where it is, so that indirect calls into a BTI-guarded function
// still land on it; the B replaces the instruction after it. The relays jump through x17, which
// callers treat as clobbered at a call (the linker's veneers use it too) and which a `BTI c`
// accepts as a landing-pad caller.
#include <string.h>

#include <algorithm>

#include "codewindow.h"
#include "prologuerelocator.h"

namespace corvane::inlinehook {

namespace {

using Kind = DisplacedInstruction::Kind;

constexpr size_t kWord = 4;
constexpr uint32_t kNop = 0xd503201f;
constexpr uint32_t kUdf = 0x00000000;
constexpr uint32_t kAutiasp = 0xd50323bf;
constexpr uint32_t kAutibsp = 0xd50323ff;
constexpr uint32_t kBrX17 = 0xd61f0220;
constexpr unsigned kScratch = 17;  // x17 (IP1)
constexpr unsigned kLinkRegister = 30;
constexpr int64_t kBranchReach = 128LL << 20;
// Every displaced instruction becomes at most three words and two literals; two instructions,
// the jump back (two words and a literal) and the pool's alignment word.
constexpr size_t kMaxTrampoline = 2 * (3 * kWord + 16) + 2 * kWord + 8 + kWord;

int64_t SignExtend(uint64_t value, unsigned bits) {
    uint64_t sign = 1ULL << (bits - 1);
    return static_cast<int64_t>((value ^ sign) - sign);
}

uint32_t ReadWord(uintptr_t pc) {
    uint32_t word;
    CopyFromCode(&word, pc, sizeof(word));
    return word;
}

bool IsBti(uint32_t w) {
    return (w & 0xffffff3f) == 0xd503241f;  // bti, bti c, bti j, bti jc
}

HookStatus Refuse(std::string detail) {
    return HookStatus::Error(SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED, std::move(detail));
}

// The address a PC-relative instruction refers to, or false when it is not PC-relative.
bool PcRelativeTarget(uint32_t w, uintptr_t pc, uintptr_t* target) {
    if ((w & 0x7c000000) == 0x14000000) {  // B, BL
        *target = pc + static_cast<uintptr_t>(SignExtend(w & 0x3ffffff, 26) * 4);
    } else if ((w & 0xff000000) == 0x54000000 ||  // B.cond, BC.cond
               (w & 0x7e000000) == 0x34000000 ||  // CBZ, CBNZ
               (w & 0x3b000000) == 0x18000000) {  // LDR (literal), LDRSW, PRFM
        *target = pc + static_cast<uintptr_t>(SignExtend((w >> 5) & 0x7ffff, 19) * 4);
    } else if ((w & 0x7e000000) == 0x36000000) {  // TBZ, TBNZ
        *target = pc + static_cast<uintptr_t>(SignExtend((w >> 5) & 0x3fff, 14) * 4);
    } else if ((w & 0x1f000000) == 0x10000000) {  // ADR, ADRP
        int64_t imm = SignExtend((((w >> 5) & 0x7ffff) << 2) | ((w >> 29) & 3), 21);
        *target = (w & 0x80000000) != 0
                      ? (pc & ~uintptr_t{0xfff}) + static_cast<uintptr_t>(imm * 4096)
                      : pc + static_cast<uintptr_t>(imm);
    } else {
        return false;
    }
    return true;
}

HookStatus Classify(uint32_t w, uintptr_t pc, size_t offset, DisplacedInstruction* out) {
    out->offset = offset;
    out->length = kWord;
    memcpy(out->bytes, &w, sizeof(w));
    if ((w & 0xffe0001f) == 0xd4200000 || (w & 0xffe0001f) == 0xd4400000 || (w & 0xffff0000) == 0) {
        return Refuse(
            Format("brk, hlt or udf (%#010x) at +%zu: a debugger breakpoint?", w, offset));
    }
    uintptr_t target = 0;
    if (!PcRelativeTarget(w, pc, &target)) {
        // BR, RET and their authenticating forms end the flow; BLR returns into the trampoline.
        if ((w & 0xfe000000) == 0xd6000000) {
            unsigned opc = (w >> 21) & 0xf;
            if (opc == 4 || opc == 5) {
                return Refuse(Format("eret/drps at +%zu", offset));
            }
            out->terminates = opc != 1 && opc != 9;
        }
        return HookStatus::Ok();
    }
    out->target = target;
    if ((w & 0xfc000000) == 0x14000000) {
        out->kind = Kind::Jump;
        out->terminates = true;
    } else if ((w & 0xfc000000) == 0x94000000) {
        out->kind = Kind::Call;
    } else if ((w & 0xff000000) == 0x54000000) {
        out->condition = w & 0xf;
        out->kind = out->condition >= 0xe ? Kind::Jump : Kind::ConditionalJump;  // AL and NV
        out->terminates = out->kind == Kind::Jump;
    } else if ((w & 0x7e000000) == 0x34000000 || (w & 0x7e000000) == 0x36000000) {
        out->kind = Kind::ConditionalJump;
    } else if ((w & 0x1f000000) == 0x10000000) {
        out->kind = Kind::PcAddress;
    } else {
        if ((w & 0xc4000000) == 0xc4000000) {  // opc 11 with V: unallocated
            return Refuse(Format("unallocated literal load %#010x at +%zu", w, offset));
        }
        out->kind = Kind::LiteralLoad;
    }
    return HookStatus::Ok();
}

uint32_t LoadLiteral(unsigned reg) {
    return 0x58000000 | reg;  // LDR Xt, literal; the offset is filled in with the pool
}

bool InBranchReach(uintptr_t from, uintptr_t to) {
    int64_t distance = static_cast<int64_t>(to - from);
    return distance >= -kBranchReach && distance < kBranchReach;
}

uint32_t Branch(uintptr_t from, uintptr_t to) {
    return 0x14000000 | (static_cast<uint32_t>((to - from) >> 2) & 0x3ffffff);
}

// Builds a trampoline: words, then an 8-byte aligned pool of the literals they load.
class Assembler {
  public:
    explicit Assembler(uintptr_t base) : m_base(base) {}

    uintptr_t pc() const { return m_base + m_words.size() * kWord; }
    void Put(uint32_t word) { m_words.push_back(word); }
    void PutLoad(unsigned reg, uint64_t value) {
        m_literals.push_back({m_words.size(), value});
        Put(LoadLiteral(reg));
    }
    // A jump anywhere: B when in reach, otherwise through x17.
    void PutJump(uintptr_t to) {
        if (InBranchReach(pc(), to)) {
            Put(Branch(pc(), to));
        } else {
            PutLoad(kScratch, to);
            Put(kBrX17);
        }
    }
    size_t JumpWords(uintptr_t from, uintptr_t to) const { return InBranchReach(from, to) ? 1 : 2; }

    void Finish(std::vector<uint8_t>* code) {
        if (!m_literals.empty() && pc() % 8 != 0) {
            Put(kUdf);
        }
        size_t pool = m_words.size();
        for (size_t i = 0; i < m_literals.size(); ++i) {
            size_t literalWord = pool + 2 * i;
            uint32_t imm19 = static_cast<uint32_t>(literalWord - m_literals[i].index) & 0x7ffff;
            m_words[m_literals[i].index] |= imm19 << 5;
        }
        code->resize(m_words.size() * kWord + m_literals.size() * 8);
        memcpy(code->data(), m_words.data(), m_words.size() * kWord);
        for (size_t i = 0; i < m_literals.size(); ++i) {
            memcpy(code->data() + pool * kWord + i * 8, &m_literals[i].value, 8);
        }
    }

  private:
    struct Literal {
        size_t index;
        uint64_t value;
    };
    uintptr_t m_base;
    std::vector<uint32_t> m_words;
    std::vector<Literal> m_literals;
};

// The inverse of a conditional branch, with its offset set to `bytes`.
uint32_t InvertedSkip(uint32_t w, size_t bytes) {
    uint32_t words = static_cast<uint32_t>(bytes / kWord);
    if ((w & 0xff000000) == 0x54000000) {  // the skip is a plain B.cond, even for a BC.cond
        return ((w ^ 1) & ~(0x7ffffu << 5) & ~0x10u) | (words << 5);
    }
    if ((w & 0x7e000000) == 0x34000000) {
        return ((w ^ (1u << 24)) & ~(0x7ffffu << 5)) | (words << 5);
    }
    return ((w ^ (1u << 24)) & ~(0x3fffu << 5)) | (words << 5);  // TBZ, TBNZ
}

}  // namespace

void PrologueRelocator::EncodeRelay(EntrySigning signing, uint8_t* code) {
    uint32_t words[kSlotOffset / kWord] = {
        signing == EntrySigning::KeyA   ? kAutiasp
        : signing == EntrySigning::KeyB ? kAutibsp
                                        : kNop,
        LoadLiteral(kScratch) | (3u << 5),  // the slot, 12 bytes on
        kBrX17,
        kUdf,
    };
    memcpy(code, words, sizeof(words));
}

bool PrologueRelocator::EncodeEntryJump(uintptr_t from, uintptr_t to, uint8_t* patch) {
    if (!InBranchReach(from, to) || from % kWord != 0 || to % kWord != 0) {
        return false;
    }
    uint32_t word = Branch(from, to);
    memcpy(patch, &word, sizeof(word));
    return true;
}

HookStatus PrologueRelocator::Analyze(uintptr_t address, const CodeBounds& bounds) {
    m_address = address;
    m_length = 0;
    m_patchOffset = 0;
    m_entrySigning = EntrySigning::None;
    m_instructions.clear();
    if (address % kWord != 0) {
        return HookStatus::Error(
            SHADOWHOOK_ERRNO_INVALID_ARG,
            Format("%#lx is not 4-byte aligned", static_cast<unsigned long>(address)));
    }
    uintptr_t limit = bounds.readableEnd;
    if (bounds.functionKnown()) {
        limit = std::min(limit, bounds.functionEnd);
    }
    if (address + kWord > limit) {
        return HookStatus::Error(SHADOWHOOK_ERRNO_HOOK_SYMSZ, "no instruction at the address");
    }
    uint32_t first = ReadWord(address);
    if (IsBti(first) || first == 0xd503233f || first == 0xd503237f) {
        m_patchOffset = kWord;
        m_entrySigning = first == 0xd503233f   ? EntrySigning::KeyA
                         : first == 0xd503237f ? EntrySigning::KeyB
                                               : EntrySigning::None;
        DisplacedInstruction pad;
        pad.kind = Kind::LandingPad;
        pad.length = kWord;
        memcpy(pad.bytes, &first, sizeof(first));
        m_instructions.push_back(pad);
    }
    m_length = m_patchOffset + kPatchSize;
    if (address + m_length > limit) {
        return HookStatus::Error(
            SHADOWHOOK_ERRNO_HOOK_SYMSZ,
            Format("the function ends %zu bytes after the hooked address; the jump needs %zu%s",
                   static_cast<size_t>(limit - address), m_length,
                   m_patchOffset != 0 ? " (after the landing pad kept at the entry)" : ""));
    }
    DisplacedInstruction displaced;
    uintptr_t pc = address + m_patchOffset;
    HookStatus status = Classify(ReadWord(pc), pc, m_patchOffset, &displaced);
    if (!status.ok()) {
        return status;
    }
    bool branch = displaced.kind == Kind::Jump || displaced.kind == Kind::ConditionalJump ||
                  displaced.kind == Kind::Call;
    bool inside = displaced.target >= address && displaced.target < address + m_length;
    if ((branch || displaced.kind == Kind::LiteralLoad) && inside) {
        return Refuse(Format("the instruction at +%zu refers to the displaced bytes themselves",
                             m_patchOffset));
    }
    uint32_t word;
    memcpy(&word, displaced.bytes, sizeof(word));
    bool generalLoad = (word & 0x04000000) == 0 && (word >> 30) != 3;
    if (displaced.kind == Kind::LiteralLoad && generalLoad && (word & 31) == 31) {
        return Refuse(Format("literal load into xzr at +%zu", m_patchOffset));
    }
    m_instructions.push_back(displaced);
    return ScanFunction(bounds.scanStart(address), bounds.scanStop());
}

HookStatus PrologueRelocator::ScanFunction(uintptr_t first, uintptr_t end) const {
    uintptr_t start = (first + kWord - 1) & ~uintptr_t{kWord - 1};
    for (uintptr_t pc = start; pc + kWord <= end; pc += kWord) {
        if (pc >= m_address && pc < m_address + m_length) {
            continue;
        }
        uintptr_t target = 0;
        uint32_t w = ReadWord(pc);
        bool adr = (w & 0x9f000000) == 0x10000000;
        if (PcRelativeTarget(w, pc, &target) && (w & 0x9f000000) != 0x90000000 &&
            target >= m_address && target < m_address + m_length) {
            // A branch to the entry itself (a loop to the top) would run the hook again; one to
            // the instruction after a landing pad would skip it.
            return Refuse(Format("the %s at %+ld refers to the displaced bytes (+%zu)",
                                 adr ? "adr" : "instruction", static_cast<long>(pc - m_address),
                                 static_cast<size_t>(target - m_address)));
        }
    }
    return HookStatus::Ok();
}

size_t PrologueRelocator::maxTrampolineSize() const {
    return kMaxTrampoline;
}

HookStatus PrologueRelocator::Emit(uintptr_t base, std::vector<uint8_t>* code) {
    Assembler a(base);
    bool terminated = false;
    for (DisplacedInstruction& displaced : m_instructions) {
        displaced.emittedOffset = a.pc() - base;
        uint32_t w;
        memcpy(&w, displaced.bytes, sizeof(w));
        unsigned reg = w & 31;
        switch (displaced.kind) {
            case Kind::Plain:
            case Kind::LandingPad:
                a.Put(w);
                break;
            case Kind::Jump:
                a.PutJump(displaced.target);
                break;
            case Kind::Call:
                // The callee returns into the original function, where unwinders expect it.
                a.PutLoad(kLinkRegister, m_address + displaced.offset + kWord);
                a.PutJump(displaced.target);
                break;
            case Kind::ConditionalJump: {
                size_t jump = a.JumpWords(a.pc() + kWord, displaced.target);
                a.Put(InvertedSkip(w, (1 + jump) * kWord));
                a.PutJump(displaced.target);
                break;
            }
            case Kind::PcAddress:
                if (reg == 31) {
                    a.Put(kNop);  // into xzr: nothing to do
                } else {
                    a.PutLoad(reg, displaced.target);
                }
                break;
            case Kind::LiteralLoad: {
                bool vector = (w & 0x04000000) != 0;
                unsigned opc = w >> 30;
                if (!vector && opc == 3) {
                    a.Put(kNop);  // PRFM: a hint, dropped
                    break;
                }
                unsigned base = vector ? kScratch : reg;
                a.PutLoad(base, displaced.target);
                static constexpr uint32_t kGeneral[3] = {0xb9400000, 0xf9400000, 0xb9800000};
                static constexpr uint32_t kVector[3] = {0xbd400000, 0xfd400000, 0x3dc00000};
                a.Put((vector ? kVector[opc] : kGeneral[opc]) | (base << 5) | reg);
                break;
            }
            default:
                return Refuse("unexpected instruction class");
        }
        terminated = displaced.terminates;
    }
    if (!terminated) {
        a.PutJump(m_address + m_length);
    }
    a.Finish(code);
    if (code->size() > maxTrampolineSize()) {
        return Refuse(
            Format("trampoline of %zu bytes exceeds %zu", code->size(), maxTrampolineSize()));
    }
    return HookStatus::Ok();
}

std::vector<std::pair<size_t, size_t>> PrologueRelocator::InteriorBoundaries() const {
    // Only one instruction is overwritten; a thread that has run the landing pad before it goes
    // through the entry relay, which undoes what the pad did.
    return {};
}

}  // namespace corvane::inlinehook
