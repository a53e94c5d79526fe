#include "islandallocator.h"

#include <errno.h>
#include <string.h>
#include <sys/mman.h>

#include "hooklog.h"
#include "memorymap.h"

namespace corvane::inlinehook {

namespace {

constexpr size_t kAlignment = 16;
// Candidates tried before giving up; others may map concurrently, so a free gap can vanish.
constexpr size_t kMaxAttempts = 16;

bool Within(uintptr_t near, uintptr_t start, size_t size) {
    uintptr_t end = start + size;
    uintptr_t low = near > IslandAllocator::kReach ? near - IslandAllocator::kReach : 0;
    return start >= low && end <= near + IslandAllocator::kReach;
}

}  // namespace

HookStatus IslandAllocator::Allocate(uintptr_t near, size_t size, uintptr_t* block) {
    size = (size + kAlignment - 1) & ~(kAlignment - 1);
    if (size == 0 || size > kIslandSize) {
        return HookStatus::Error(SHADOWHOOK_ERRNO_OOM, Format("cannot place %zu bytes", size));
    }
    for (Island& island : m_islands) {
        uintptr_t start = island.base + island.used;
        if (island.used + size <= kIslandSize && Within(near, start, size)) {
            island.used += size;
            *block = start;
            return HookStatus::Ok();
        }
    }
    Island island{};
    HookStatus status = MapIslandNear(near, size, &island);
    if (!status.ok()) {
        return status;
    }
    island.used = size;
    m_islands.push_back(island);
    *block = island.base;
    return HookStatus::Ok();
}

HookStatus IslandAllocator::MapIslandNear(uintptr_t near, size_t size, Island* island) {
    MemoryMap map;
    HookStatus status = map.Load();
    if (!status.ok()) {
        return HookStatus::Error(SHADOWHOOK_ERRNO_OOM, status.detail);
    }
    // The whole island within reach, so every block carved from it is too; `size` must at least
    // fit at its start.
    std::vector<uintptr_t> candidates = map.FreeBlocksNear(near, kIslandSize, kReach - size);
    size_t attempts = 0;
    for (uintptr_t candidate : candidates) {
        if (attempts++ == kMaxAttempts) {
            break;
        }
        void* mapped = mmap(reinterpret_cast<void*>(candidate), kIslandSize, kIslandProt,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        if (mapped == MAP_FAILED) {
            continue;
        }
        if (reinterpret_cast<uintptr_t>(mapped) != candidate) {
            // A kernel older than MAP_FIXED_NOREPLACE took the address as a mere hint.
            munmap(mapped, kIslandSize);
            continue;
        }
        island->base = candidate;
        INLINEHOOK_LOGI("relay island mapped at %#lx (%zu KiB) for code at %#lx",
                        static_cast<unsigned long>(candidate), kIslandSize / 1024,
                        static_cast<unsigned long>(near));
        return HookStatus::Ok();
    }
    return HookStatus::Error(
        SHADOWHOOK_ERRNO_OOM,
        Format("no free address space within 2 GiB of %#lx for a relay island (%zu candidates)",
               static_cast<unsigned long>(near), candidates.size()));
}

bool IslandAllocator::Contains(uintptr_t address) const {
    for (const Island& island : m_islands) {
        if (address >= island.base && address < island.base + kIslandSize) {
            return true;
        }
    }
    return false;
}

size_t IslandAllocator::bytesInUse() const {
    size_t total = 0;
    for (const Island& island : m_islands) {
        total += island.used;
    }
    return total;
}

}  // namespace corvane::inlinehook
