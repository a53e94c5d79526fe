#include "prologuerelocator.h"

#include <Zydis/Zydis.h>
#include <string.h>

#include <algorithm>
#include <limits>

#include "codewindow.h"

namespace corvane::inlinehook {

namespace {

using Kind = DisplacedInstruction::Kind;
using CallForm = DisplacedInstruction::CallForm;

// Sizes of what Emit writes for each rewritten form.
constexpr size_t kJmpRel32Size = 5;      // E9 rel32
constexpr size_t kJmpAbsoluteSize = 14;  // FF 25 00000000, then the 8-byte target
constexpr size_t kJccRel32Size = 6;      // 0F 8x rel32
constexpr size_t kJccAbsoluteSize = 16;  // 7x 0E (inverted, over what follows), then jmp absolute
constexpr size_t kPushRipSize = 6;       // FF 35 disp32: push qword [rip + disp32]
constexpr size_t kLiteralSize = 8;
// endbr64: the landing pad indirect branches must reach under indirect-branch tracking.
constexpr uint8_t kEndbr64[] = {0xf3, 0x0f, 0x1e, 0xfa};

bool FitsRel32(int64_t value) {
    return value >= std::numeric_limits<int32_t>::min() &&
           value <= std::numeric_limits<int32_t>::max();
}

void Put32(std::vector<uint8_t>* code, size_t at, int32_t value) {
    memcpy(code->data() + at, &value, sizeof(value));
}

void Append(std::vector<uint8_t>* code, const void* bytes, size_t length) {
    const uint8_t* begin = static_cast<const uint8_t*>(bytes);
    code->insert(code->end(), begin, begin + length);
}

void AppendJumpAbsolute(std::vector<uint8_t>* code, uintptr_t target) {
    static const uint8_t kJmpRipSlot[] = {0xff, 0x25, 0, 0, 0, 0};
    Append(code, kJmpRipSlot, sizeof(kJmpRipSlot));
    Append(code, &target, sizeof(target));
}

// An unconditional jump from the end of `code` (placed at `base`) to `target`.
void AppendJump(std::vector<uint8_t>* code, uintptr_t base, uintptr_t target) {
    int64_t rel = static_cast<int64_t>(target - (base + code->size() + kJmpRel32Size));
    if (FitsRel32(rel)) {
        code->push_back(0xe9);
        int32_t rel32 = static_cast<int32_t>(rel);
        Append(code, &rel32, sizeof(rel32));
    } else {
        AppendJumpAbsolute(code, target);
    }
}

const char* Name(const ZydisDecodedInstruction& instruction) {
    const char* name = ZydisMnemonicGetString(instruction.mnemonic);
    return name != nullptr ? name : "?";
}

std::string Hex(const uint8_t* bytes, size_t length) {
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        text += Format(i == 0 ? "%02x" : " %02x", bytes[i]);
    }
    return text;
}

HookStatus Refuse(const std::string& why) {
    return HookStatus::Error(SHADOWHOOK_ERRNO_HOOK_REWRITE_FAILED, why);
}

bool IsTrap(ZydisMnemonic mnemonic) {
    switch (mnemonic) {
        case ZYDIS_MNEMONIC_INT3:
        case ZYDIS_MNEMONIC_INT1:
        case ZYDIS_MNEMONIC_INT:
        case ZYDIS_MNEMONIC_INTO:
        case ZYDIS_MNEMONIC_UD0:
        case ZYDIS_MNEMONIC_UD1:
        case ZYDIS_MNEMONIC_UD2:
        case ZYDIS_MNEMONIC_HLT:
            return true;
        default:
            return false;
    }
}

// Fills `out` (offset, length and bytes already set) from the decoded instruction at `pc`.
HookStatus Classify(const ZydisDecodedInstruction& instruction, const ZydisDecodedOperand* operands,
                    uintptr_t pc, DisplacedInstruction* out) {
    // Zydis also flags RIP-relative memory operands as relative; only immediates count here.
    const bool relative = instruction.raw.imm[0].is_relative || instruction.raw.imm[1].is_relative;
    const size_t at = out->offset;
    auto absolute = [&](const ZydisDecodedOperand& operand, uintptr_t* target) {
        ZyanU64 value = 0;
        if (!ZYAN_SUCCESS(ZydisCalcAbsoluteAddress(&instruction, &operand, pc, &value))) {
            return false;
        }
        *target = static_cast<uintptr_t>(value);
        return true;
    };
    auto ripOperand = [&]() -> const ZydisDecodedOperand* {
        for (size_t i = 0; i < instruction.operand_count; ++i) {
            if (operands[i].type == ZYDIS_OPERAND_TYPE_MEMORY &&
                operands[i].mem.base == ZYDIS_REGISTER_RIP) {
                return &operands[i];
            }
        }
        return nullptr;
    };
    auto takeRipOperand = [&](const ZydisDecodedOperand& operand) {
        if (instruction.raw.disp.size != 32 || !absolute(operand, &out->target)) {
            return Refuse(Format("cannot resolve the RIP-relative operand of %s at +%zu",
                                 Name(instruction), at));
        }
        out->dispOffset = instruction.raw.disp.offset;
        return HookStatus::Ok();
    };

    if (instruction.meta.branch_type == ZYDIS_BRANCH_TYPE_FAR) {
        return Refuse(Format("far %s at +%zu cannot be moved", Name(instruction), at));
    }
    if (IsTrap(instruction.mnemonic)) {
        return Refuse(
            Format("%s at +%zu (a breakpoint or trap) cannot be moved; is a debugger "
                   "attached?",
                   Name(instruction), at));
    }
    const bool branch = instruction.mnemonic == ZYDIS_MNEMONIC_CALL ||
                        instruction.mnemonic == ZYDIS_MNEMONIC_JMP ||
                        instruction.meta.category == ZYDIS_CATEGORY_COND_BR;
    if (branch && instruction.operand_width != 64) {
        return Refuse(Format("%s at +%zu has a %u-bit operand size", Name(instruction), at,
                             instruction.operand_width));
    }

    if (instruction.mnemonic == ZYDIS_MNEMONIC_CALL) {
        out->kind = Kind::Call;
        out->terminates = true;  // rewritten as push + jump
        const ZydisDecodedOperand& operand = operands[0];
        if (relative) {
            out->callForm = CallForm::Relative;
            if (!absolute(operand, &out->target)) {
                return Refuse(Format("cannot resolve the target of the call at +%zu", at));
            }
            return HookStatus::Ok();
        }
        out->modrmOffset = instruction.raw.modrm.offset;
        if (operand.type == ZYDIS_OPERAND_TYPE_MEMORY) {
            if (operand.mem.base == ZYDIS_REGISTER_RIP) {
                out->callForm = CallForm::IndirectRip;
                return takeRipOperand(operand);
            }
            if (operand.mem.base == ZYDIS_REGISTER_RSP || operand.mem.index == ZYDIS_REGISTER_RSP) {
                return Refuse(
                    Format("the call at +%zu reads its target relative to the stack "
                           "pointer",
                           at));
            }
        }
        out->callForm = CallForm::Indirect;
        return HookStatus::Ok();
    }
    if (instruction.mnemonic == ZYDIS_MNEMONIC_JMP) {
        out->terminates = true;
        if (relative) {
            out->kind = Kind::Jump;
            if (!absolute(operands[0], &out->target)) {
                return Refuse(Format("cannot resolve the target of the jmp at +%zu", at));
            }
            return HookStatus::Ok();
        }
        if (const ZydisDecodedOperand* rip = ripOperand()) {
            out->kind = Kind::RipRelative;
            return takeRipOperand(*rip);
        }
        return HookStatus::Ok();
    }
    if (relative) {
        const bool shortJcc = instruction.opcode_map == ZYDIS_OPCODE_MAP_DEFAULT &&
                              instruction.opcode >= 0x70 && instruction.opcode <= 0x7f;
        const bool nearJcc = instruction.opcode_map == ZYDIS_OPCODE_MAP_0F &&
                             instruction.opcode >= 0x80 && instruction.opcode <= 0x8f;
        if (instruction.meta.category == ZYDIS_CATEGORY_COND_BR && (shortJcc || nearJcc)) {
            out->kind = Kind::ConditionalJump;
            out->condition = instruction.opcode & 0x0f;
            if (!absolute(operands[0], &out->target)) {
                return Refuse(
                    Format("cannot resolve the target of %s at +%zu", Name(instruction), at));
            }
            return HookStatus::Ok();
        }
        return Refuse(Format("%s at +%zu is a relative instruction the engine does not move",
                             Name(instruction), at));
    }
    if (instruction.mnemonic == ZYDIS_MNEMONIC_RET) {
        out->terminates = true;
        return HookStatus::Ok();
    }
    if (const ZydisDecodedOperand* rip = ripOperand()) {
        out->kind = Kind::RipRelative;
        return takeRipOperand(*rip);
    }
    return HookStatus::Ok();
}

}  // namespace

HookStatus PrologueRelocator::Analyze(uintptr_t address, const CodeBounds& bounds) {
    m_address = address;
    m_length = 0;
    m_patchOffset = 0;
    m_instructions.clear();

    uintptr_t limit = bounds.readableEnd;
    if (bounds.functionKnown()) {
        limit = std::min(limit, bounds.functionEnd);
    }
    auto tooShort = [&]() {
        return HookStatus::Error(
            SHADOWHOOK_ERRNO_HOOK_SYMSZ,
            Format("the function ends %zu bytes after the hooked address (ELF symbol size), "
                   "inside the instructions the %zu-byte jump%s would overwrite",
                   static_cast<size_t>(bounds.functionEnd - address), kPatchSize,
                   m_patchOffset != 0 ? " after the endbr64 kept at the entry" : ""));
    };

    ZydisDecoder decoder;
    ZydisDecoderInit(&decoder, ZYDIS_MACHINE_MODE_LONG_64, ZYDIS_STACK_WIDTH_64);
    // An endbr64 at the entry stays there, and the jump goes after it: a process tracking indirect
    // branches faults on an indirect call that lands anywhere else. The trampoline starts with
    // a copy of it, since orig entries are called indirectly too.
    if (limit > address && limit - address >= sizeof(kEndbr64) &&
        memcmp(reinterpret_cast<const void*>(address), kEndbr64, sizeof(kEndbr64)) == 0) {
        m_patchOffset = sizeof(kEndbr64);
    }
    const size_t patchEnd = m_patchOffset + kPatchSize;
    size_t offset = 0;
    while (offset < patchEnd) {
        uintptr_t pc = address + offset;
        if (pc >= limit) {
            if (bounds.functionKnown() && limit == bounds.functionEnd) {
                return tooShort();
            }
            return HookStatus::Error(SHADOWHOOK_ERRNO_HOOK_SYMSZ,
                                     Format("readable code ends %zu bytes after the address; the "
                                            "jump needs %zu",
                                            offset, patchEnd));
        }
        ZydisDecodedInstruction instruction;
        ZydisDecodedOperand operands[ZYDIS_MAX_OPERAND_COUNT];
        ZyanStatus decoded = ZydisDecoderDecodeFull(&decoder, reinterpret_cast<const void*>(pc),
                                                    limit - pc, &instruction, operands);
        if (!ZYAN_SUCCESS(decoded)) {
            if (decoded == ZYDIS_STATUS_NO_MORE_DATA && bounds.functionKnown() &&
                limit == bounds.functionEnd) {
                return tooShort();
            }
            size_t available = std::min<size_t>(limit - pc, 8);
            return Refuse(Format("cannot decode the instruction at +%zu (bytes %s)", offset,
                                 Hex(reinterpret_cast<const uint8_t*>(pc), available).c_str()));
        }
        DisplacedInstruction displaced;
        displaced.offset = offset;
        displaced.length = instruction.length;
        CopyFromCode(displaced.bytes, pc, instruction.length);
        HookStatus status = Classify(instruction, operands, pc, &displaced);
        if (!status.ok()) {
            return status;
        }
        m_instructions.push_back(displaced);
        offset += instruction.length;
        if (displaced.kind == Kind::Call && offset < patchEnd) {
            return Refuse(
                Format("the call at +%zu is followed by more displaced instructions; "
                       "its return address would point into the patched bytes",
                       displaced.offset));
        }
        // Without a symbol size nothing says the bytes after a return or jump belong to this
        // function; overwriting them could break the next one.
        if (displaced.terminates && offset < patchEnd && !bounds.functionKnown()) {
            return HookStatus::Error(
                SHADOWHOOK_ERRNO_HOOK_SYMSZ,
                Format("the function ends with %s after %zu bytes; the jump needs %zu",
                       Name(instruction), offset, patchEnd));
        }
    }
    m_length = offset;

    for (size_t i = 0; i < m_instructions.size(); ++i) {
        DisplacedInstruction& displaced = m_instructions[i];
        bool jump = displaced.kind == Kind::Jump || displaced.kind == Kind::ConditionalJump;
        bool inside = displaced.target >= address && displaced.target < address + m_length;
        if (jump && inside) {
            size_t targetOffset = displaced.target - address;
            auto it = std::find_if(m_instructions.begin(), m_instructions.end(),
                                   [targetOffset](const DisplacedInstruction& other) {
                                       return other.offset == targetOffset;
                                   });
            if (it == m_instructions.end()) {
                return Refuse(Format("the branch at +%zu lands inside an instruction (+%zu)",
                                     displaced.offset, targetOffset));
            }
            displaced.internal = true;
            displaced.internalIndex = static_cast<size_t>(it - m_instructions.begin());
        }
        bool ripOperand =
            displaced.kind == Kind::RipRelative ||
            (displaced.kind == Kind::Call && displaced.callForm == CallForm::IndirectRip);
        // The bytes of a landing pad kept at the entry do not change; every later one does, the
        // first patched byte included.
        if (ripOperand && displaced.target >= address + m_patchOffset &&
            displaced.target < address + m_length) {
            return Refuse(
                Format("the instruction at +%zu addresses the function's own first "
                       "bytes (+%zu), which the hook overwrites",
                       displaced.offset, static_cast<size_t>(displaced.target - address)));
        }
    }
    return ScanFunction(bounds.scanStart(address), bounds.scanStop());
}

HookStatus PrologueRelocator::ScanFunction(uintptr_t start, uintptr_t end) const {
    ZydisDecoder decoder;
    ZydisDecoderInit(&decoder, ZYDIS_MACHINE_MODE_LONG_64, ZYDIS_STACK_WIDTH_64);
    const uintptr_t regionEnd = m_address + m_length;
    uintptr_t pc = start;
    while (pc < end) {
        if (pc >= m_address && pc < regionEnd) {
            pc = regionEnd;
            continue;
        }
        ZydisDecodedInstruction instruction;
        if (!ZYAN_SUCCESS(ZydisDecoderDecodeInstruction(
                &decoder, nullptr, reinterpret_cast<const void*>(pc), end - pc, &instruction))) {
            ++pc;  // data or padding: resynchronise on the next byte
            continue;
        }
        const uintptr_t next = pc + instruction.length;
        if ((instruction.attributes & ZYDIS_ATTRIB_IS_RELATIVE) != 0) {
            for (const auto& immediate : instruction.raw.imm) {
                if (!immediate.is_relative) {
                    continue;
                }
                uintptr_t target = next + static_cast<uintptr_t>(immediate.value.s);
                bool recursion = instruction.mnemonic == ZYDIS_MNEMONIC_CALL && target == m_address;
                if (target >= m_address && target < regionEnd && !recursion) {
                    return Refuse(Format(
                        "%s at +%#lx branches back to +%zu, into the first %zu bytes the hook "
                        "displaces (a loop or label at the function's start)",
                        Name(instruction), static_cast<unsigned long>(pc - m_address),
                        static_cast<size_t>(target - m_address), m_length));
                }
            }
        }
        if (instruction.mnemonic == ZYDIS_MNEMONIC_LEA &&
            (instruction.attributes & ZYDIS_ATTRIB_HAS_MODRM) != 0 &&
            instruction.raw.modrm.mod == 0 && instruction.raw.modrm.rm == 5) {
            uintptr_t target = next + static_cast<uintptr_t>(instruction.raw.disp.value);
            if (target > m_address && target < regionEnd) {
                return Refuse(
                    Format("lea at +%#lx takes the address +%zu inside the displaced "
                           "bytes (a computed jump target?)",
                           static_cast<unsigned long>(pc - m_address),
                           static_cast<size_t>(target - m_address)));
            }
        }
        pc = next;
    }
    return HookStatus::Ok();
}

void PrologueRelocator::EncodeRelay(EntrySigning, uint8_t* code) {
    static constexpr uint8_t kRelayCode[kSlotOffset] = {
        0xf3, 0x0f, 0x1e, 0xfa,              // endbr64
        0xff, 0x25, 0x06, 0x00, 0x00, 0x00,  // jmp qword [rip + 6]: the slot
        0xcc, 0xcc, 0xcc, 0xcc, 0xcc, 0xcc};
    memcpy(code, kRelayCode, sizeof(kRelayCode));
}

bool PrologueRelocator::EncodeEntryJump(uintptr_t from, uintptr_t to, uint8_t* patch) {
    int64_t rel = static_cast<int64_t>(to - (from + kPatchSize));
    if (rel < INT32_MIN || rel > INT32_MAX) {
        return false;
    }
    int32_t rel32 = static_cast<int32_t>(rel);
    patch[0] = 0xe9;
    memcpy(patch + 1, &rel32, sizeof(rel32));
    return true;
}

size_t PrologueRelocator::maxTrampolineSize() const {
    size_t size = 0;
    for (const DisplacedInstruction& displaced : m_instructions) {
        switch (displaced.kind) {
            case Kind::Plain:
            case Kind::RipRelative:
            case Kind::PcAddress:  // the AArch64 classes never occur here
            case Kind::LiteralLoad:
            case Kind::LandingPad:
                size += displaced.length;
                break;
            case Kind::Jump:
                size += kJmpAbsoluteSize;
                break;
            case Kind::ConditionalJump:
                size += kJccAbsoluteSize;
                break;
            case Kind::Call:
                size += kPushRipSize + std::max(kJmpAbsoluteSize, displaced.length) + kLiteralSize;
                break;
        }
    }
    return size + kJmpAbsoluteSize;
}

HookStatus PrologueRelocator::Emit(uintptr_t base, std::vector<uint8_t>* out) {
    std::vector<uint8_t>& code = *out;
    code.clear();
    code.reserve(maxTrampolineSize());
    struct Fixup {
        size_t at;     // where the rel32 goes
        size_t next;   // offset it is relative to
        size_t index;  // instruction it points at
    };
    std::vector<Fixup> fixups;

    // Copies a RIP-relative instruction (bytes possibly adjusted) and re-aims its displacement.
    auto appendRipRelative = [&](const DisplacedInstruction& displaced, const uint8_t* bytes) {
        size_t start = code.size();
        Append(&code, bytes, displaced.length);
        int64_t disp = static_cast<int64_t>(displaced.target - (base + start + displaced.length));
        if (!FitsRel32(disp)) {
            return Refuse(
                Format("the RIP-relative operand at +%zu (address %#lx) is out of reach "
                       "of the trampoline at %#lx",
                       displaced.offset, static_cast<unsigned long>(displaced.target),
                       static_cast<unsigned long>(base)));
        }
        Put32(&code, start + displaced.dispOffset, static_cast<int32_t>(disp));
        return HookStatus::Ok();
    };

    for (DisplacedInstruction& displaced : m_instructions) {
        displaced.emittedOffset = code.size();
        switch (displaced.kind) {
            case Kind::Plain:
                Append(&code, displaced.bytes, displaced.length);
                break;
            case Kind::PcAddress:
            case Kind::LiteralLoad:
            case Kind::LandingPad:
                return Refuse("an AArch64 instruction class in x86-64 code");
            case Kind::RipRelative: {
                HookStatus status = appendRipRelative(displaced, displaced.bytes);
                if (!status.ok()) {
                    return status;
                }
                break;
            }
            case Kind::Jump:
                if (displaced.internal) {
                    code.push_back(0xe9);
                    code.resize(code.size() + 4);
                    fixups.push_back({code.size() - 4, code.size(), displaced.internalIndex});
                } else {
                    AppendJump(&code, base, displaced.target);
                }
                break;
            case Kind::ConditionalJump: {
                int64_t rel =
                    static_cast<int64_t>(displaced.target - (base + code.size() + kJccRel32Size));
                if (displaced.internal || FitsRel32(rel)) {
                    code.push_back(0x0f);
                    code.push_back(static_cast<uint8_t>(0x80 | displaced.condition));
                    code.resize(code.size() + 4);
                    if (displaced.internal) {
                        fixups.push_back({code.size() - 4, code.size(), displaced.internalIndex});
                    } else {
                        Put32(&code, code.size() - 4, static_cast<int32_t>(rel));
                    }
                } else {
                    // The inverted condition skips the absolute jump that follows.
                    code.push_back(static_cast<uint8_t>(0x70 | (displaced.condition ^ 1)));
                    code.push_back(static_cast<uint8_t>(kJmpAbsoluteSize));
                    AppendJumpAbsolute(&code, displaced.target);
                }
                break;
            }
            case Kind::Call: {
                // push qword [rip + literal]: the callee returns to the original code right
                // after the displaced bytes, where unwinders and profilers expect it.
                size_t push = code.size();
                static const uint8_t kPushRip[] = {0xff, 0x35, 0, 0, 0, 0};
                Append(&code, kPushRip, sizeof(kPushRip));
                if (displaced.callForm == CallForm::Relative) {
                    AppendJump(&code, base, displaced.target);
                } else {
                    // FF /2 (call) becomes FF /4 (jmp) with the same operand.
                    uint8_t bytes[sizeof(displaced.bytes)];
                    memcpy(bytes, displaced.bytes, sizeof(bytes));
                    uint8_t& modrm = bytes[displaced.modrmOffset];
                    modrm = static_cast<uint8_t>((modrm & 0xc7) | (4 << 3));
                    if (displaced.callForm == CallForm::IndirectRip) {
                        HookStatus status = appendRipRelative(displaced, bytes);
                        if (!status.ok()) {
                            return status;
                        }
                    } else {
                        Append(&code, bytes, displaced.length);
                    }
                }
                size_t literal = code.size();
                uintptr_t returnAddress = m_address + displaced.offset + displaced.length;
                Append(&code, &returnAddress, sizeof(returnAddress));
                Put32(&code, push + 2, static_cast<int32_t>(literal - (push + kPushRipSize)));
                break;
            }
        }
    }
    if (!m_instructions.back().terminates) {
        AppendJump(&code, base, m_address + m_length);
    }
    for (const Fixup& fixup : fixups) {
        int64_t rel = static_cast<int64_t>(m_instructions[fixup.index].emittedOffset) -
                      static_cast<int64_t>(fixup.next);
        Put32(&code, fixup.at, static_cast<int32_t>(rel));
    }
    if (code.size() > maxTrampolineSize()) {
        return Refuse(Format("internal error: trampoline of %zu bytes exceeds its bound of %zu",
                             code.size(), maxTrampolineSize()));
    }
    return HookStatus::Ok();
}

std::vector<std::pair<size_t, size_t>> PrologueRelocator::InteriorBoundaries() const {
    // A thread before or right after a landing pad kept at the entry runs into the jump whole.
    std::vector<std::pair<size_t, size_t>> boundaries;
    for (size_t i = 1; i < m_instructions.size(); ++i) {
        if (m_instructions[i].offset > m_patchOffset) {
            boundaries.emplace_back(m_instructions[i].offset, m_instructions[i].emittedOffset);
        }
    }
    return boundaries;
}

}  // namespace corvane::inlinehook
