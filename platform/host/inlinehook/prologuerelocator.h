// Moves the first instructions of a function elsewhere so that they still do what they did.
//
// A hook overwrites the first bytes of a function with a jump (5 bytes, jmp rel32, on x86-64; one
// 4-byte B on AArch64, after a landing pad kept at the entry); the whole instructions up to the
// end of the jump (the "displaced" instructions) are copied into a trampoline, rewritten where
// their meaning depends on where they sit, and followed by a jump back to the first byte after
// them. Analyze() decodes and checks them without writing anything; Emit() produces the
// trampoline for a given address. Whatever cannot be moved with certainty is refused with a
// reason. One implementation per architecture (prologuerelocator_<arch>.cpp), which also encodes
// the entry jump and the relays the engine writes.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <utility>
#include <vector>

#include "hookstatus.h"

namespace corvane::inlinehook {

// What is known about the code around the address to hook.
struct CodeBounds {
    uintptr_t readableEnd = 0;    // decoding never reads at or past this address
    uintptr_t functionStart = 0;  // extent of the ELF symbol holding the address,
    uintptr_t functionEnd = 0;    // both 0 when the ELF gives none
    // Without a symbol size: where the search for branches back into the displaced bytes ends
    // (a bounded window after the address, cut at the next symbol); 0 for no search.
    uintptr_t scanEnd = 0;
    bool functionKnown() const { return functionEnd > functionStart; }
    // The code searched for branches back into bytes displaced at `address`: the whole function
    // when its extent is known, else up to scanEnd (empty when scanEnd is 0).
    uintptr_t scanStart(uintptr_t address) const {
        return functionKnown() ? functionStart : address;
    }
    uintptr_t scanStop() const { return functionKnown() ? functionEnd : scanEnd; }
};

// One displaced instruction and how it has to be rewritten.
struct DisplacedInstruction {
    enum class Kind {
        Plain,            // position-independent: copied as it is
        RipRelative,      // memory operand addressed from RIP: displacement recomputed
        Jump,             // jmp rel8/rel32; AArch64 B
        ConditionalJump,  // jcc rel8/rel32; AArch64 B.cond, CBZ/CBNZ, TBZ/TBNZ
        Call,             // call: the original return address is pushed, then a jump; AArch64 BL
        PcAddress,        // AArch64 ADR/ADRP: the address is loaded from a literal
        LiteralLoad,      // AArch64 LDR (literal): loaded through the absolute address
        LandingPad,       // AArch64 BTI / PACIASP / PACIBSP at the entry: kept there, copied
    };
    enum class CallForm { Relative, IndirectRip, Indirect };

    Kind kind = Kind::Plain;
    CallForm callForm = CallForm::Relative;
    size_t offset = 0;  // from the hooked address
    size_t length = 0;
    uint8_t bytes[16] = {};
    uintptr_t target = 0;     // branch target or RIP-relative memory address
    size_t dispOffset = 0;    // where a RIP-relative disp32 sits in `bytes`
    size_t modrmOffset = 0;   // where the ModRM byte of an indirect call sits
    uint8_t condition = 0;    // jcc condition code (low nibble of the opcode)
    bool terminates = false;  // execution never falls through to the next instruction
    bool internal = false;    // branch to another displaced instruction
    size_t internalIndex = 0;
    size_t emittedOffset = 0;  // position in the trampoline, set by Emit
};

class PrologueRelocator {
  public:
#if defined(__aarch64__)
    // Bytes of the B written over the function's entry (after a landing pad).
    static constexpr size_t kPatchSize = 4;
    // A relay: [autiasp|autibsp|nop]; ldr x17, slot; br x17; udf; then the 8-byte slot.
    static constexpr size_t kRelaySize = 24;
    static constexpr size_t kSlotOffset = 16;
#else
    // Bytes of the jmp rel32 written over the function's entry (after an endbr64 kept there).
    static constexpr size_t kPatchSize = 5;
    // A relay: endbr64 (it is an orig entry, called indirectly) ; jmp qword [rip + 6] ; int3 x6 ;
    // then the 8-byte aligned slot it jumps through.
    static constexpr size_t kRelaySize = 24;
    static constexpr size_t kSlotOffset = 16;
#endif
    // What a thread entering the entry relay has done that the relay must undo before the
    // replacement runs: a return address signed by the landing pad kept at the entry.
    enum class EntrySigning { None, KeyA, KeyB };

    // The code of a relay (kSlotOffset bytes) jumping through its slot.
    static void EncodeRelay(EntrySigning signing, uint8_t* code);
    // The jump written at `from` to `to` (kPatchSize bytes); false when out of reach.
    static bool EncodeEntryJump(uintptr_t from, uintptr_t to, uint8_t* patch);

    HookStatus Analyze(uintptr_t address, const CodeBounds& bounds);

    size_t regionLength() const {
        return m_length;
    }
    // Where the entry jump goes, from the hooked address: past a landing pad kept in place.
    size_t patchOffset() const {
        return m_patchOffset;
    }
    EntrySigning entrySigning() const {
        return m_entrySigning;
    }
    const std::vector<DisplacedInstruction>& instructions() const {
        return m_instructions;
    }
    // Upper bound of the trampoline Emit() writes, wherever it is placed.
    size_t maxTrampolineSize() const;

    // Writes into `code` the trampoline for placement at `base`.
    HookStatus Emit(uintptr_t base, std::vector<uint8_t>* code);
    // (offset in the function, offset in the trampoline) of every displaced instruction but the
    // first: where a thread stopped between them continues once the entry is patched.
    std::vector<std::pair<size_t, size_t>> InteriorBoundaries() const;

  private:
    // Refuses when code in [start, end) outside the displaced bytes refers back into them.
    HookStatus ScanFunction(uintptr_t start, uintptr_t end) const;

    uintptr_t m_address = 0;
    size_t m_length = 0;
    size_t m_patchOffset = 0;
    EntrySigning m_entrySigning = EntrySigning::None;
    std::vector<DisplacedInstruction> m_instructions;
};

}  // namespace corvane::inlinehook
