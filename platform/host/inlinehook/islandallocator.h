// Executable memory for relays and trampolines, placed within reach of the code that jumps into
// it: ±2 GiB (rel32) on x86-64, ±128 MiB (B imm26) on AArch64.
//
// Islands are 64 KiB anonymous mappings, read+execute; the engine makes a page writable only
// while it writes (CodeWindow). Blocks are handed out by bumping and never returned: a thread may
// still run a trampoline long after its hook is gone, so nothing here is ever unmapped. The engine
// bounds the total by reusing a function's trampoline for every later hook of the same function
// and by recycling per-hook relays (see HookEngine).
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/mman.h>

#include <vector>

#include "hookstatus.h"

namespace corvane::inlinehook {

class IslandAllocator {
  public:
    static constexpr size_t kIslandSize = 64 * 1024;
    // Farthest a block may lie from the address it serves, with room to spare for the few bytes
    // between a jump and the end of its block.
#if defined(__aarch64__)
    static constexpr uintptr_t kReach = (128ULL << 20) - kIslandSize;
#else
    static constexpr uintptr_t kReach = 0x7fff0000;
#endif
    // An existing island serves an address only this close, so that what the displaced
    // instructions address (the function's own library) stays in reach of the trampoline too; a
    // new island goes as close as free address space allows.
#if defined(__aarch64__)
    static constexpr uintptr_t kReuseReach = 32ULL << 20;
#else
    static constexpr uintptr_t kReuseReach = 256ULL << 20;
#endif
    static constexpr int kIslandProt = PROT_READ | PROT_EXEC;

    // A 16-byte aligned block of `size` bytes wholly within kReach of `near`.
    HookStatus Allocate(uintptr_t near, size_t size, uintptr_t* block);
    bool Contains(uintptr_t address) const;

    size_t islandCount() const {
        return m_islands.size();
    }
    size_t bytesInUse() const;

  private:
    struct Island {
        uintptr_t base;
        size_t used;
    };
    bool TakeFromIsland(uintptr_t near, size_t size, uintptr_t reach, uintptr_t* block);

    std::vector<Island> m_islands;
};

}  // namespace corvane::inlinehook
