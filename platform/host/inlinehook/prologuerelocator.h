// Moves the first instructions of a function elsewhere so that they still do what they did.
//
// A hook overwrites the first 5 bytes of a function with a jump; the whole instructions those
// bytes touch (the "displaced" instructions) are copied into a trampoline, rewritten where their
// meaning depends on where they sit, and followed by a jump back to the first byte after them.
// Analyze() decodes and checks them without writing anything; Emit() produces the trampoline for
// a given address. Whatever cannot be moved with certainty is refused with a reason.
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
    bool functionKnown() const { return functionEnd > functionStart; }
};

// One displaced instruction and how it has to be rewritten.
struct DisplacedInstruction {
    enum class Kind {
        Plain,            // position-independent: copied as it is
        RipRelative,      // memory operand addressed from RIP: displacement recomputed
        Jump,             // jmp rel8/rel32
        ConditionalJump,  // jcc rel8/rel32
        Call,             // call: the original return address is pushed, then a jump
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
    // Bytes of the jmp rel32 written over the function's entry.
    static constexpr size_t kPatchSize = 5;

    HookStatus Analyze(uintptr_t address, const CodeBounds& bounds);

    size_t regionLength() const { return m_length; }
    const std::vector<DisplacedInstruction>& instructions() const { return m_instructions; }
    // Upper bound of the trampoline Emit() writes, wherever it is placed.
    size_t maxTrampolineSize() const;

    // Writes into `code` the trampoline for placement at `base`.
    HookStatus Emit(uintptr_t base, std::vector<uint8_t>* code);
    // (offset in the function, offset in the trampoline) of every displaced instruction but the
    // first: where a thread stopped between them continues once the entry is patched.
    std::vector<std::pair<size_t, size_t>> InteriorBoundaries() const;

  private:
    HookStatus ScanFunction(const CodeBounds& bounds) const;

    uintptr_t m_address = 0;
    size_t m_length = 0;
    std::vector<DisplacedInstruction> m_instructions;
};

}  // namespace corvane::inlinehook
