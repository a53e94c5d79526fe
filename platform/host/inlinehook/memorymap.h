// A snapshot of the process's mappings (/proc/self/maps): which protection an address has, how
// far readable code extends, and where free address space lies near a given address.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "hookstatus.h"

namespace corvane::inlinehook {

struct MappedRegion {
    uintptr_t start = 0;
    uintptr_t end = 0;
    int prot = 0;  // PROT_READ | PROT_WRITE | PROT_EXEC as the kernel reports them
    std::string name;
};

class MemoryMap {
  public:
    HookStatus Load();
    // Builds a map from text in the /proc/<pid>/maps format (also used by the tests).
    void Parse(const std::string& text);

    const MappedRegion* Find(uintptr_t address) const;
    // First address past the run of contiguous readable mappings holding `address` (0: none).
    uintptr_t ReadableEnd(uintptr_t address) const;
    // Page-aligned start addresses for a free block of `size` bytes lying wholly within
    // `reach` bytes of `near`, nearest first. Room is left for the heap and the main stack to
    // grow.
    std::vector<uintptr_t> FreeBlocksNear(uintptr_t near, size_t size, uintptr_t reach) const;

    const std::vector<MappedRegion>& regions() const { return m_regions; }

  private:
    std::vector<MappedRegion> m_regions;
};

}  // namespace corvane::inlinehook
