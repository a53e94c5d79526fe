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

uintptr_t Distance(uintptr_t a, uintptr_t b) {
    return a > b ? a - b : b - a;
}

bool Within(uintptr_t near, uintptr_t start, size_t size, uintptr_t reach) {
    uintptr_t low = near > reach ? near - reach : 0;
    return start >= low && start + size <= near + reach;
}

}  // namespace

HookStatus IslandAllocator::Allocate(uintptr_t near, size_t size, uintptr_t* block) {
    size = (size + kAlignment - 1) & ~(kAlignment - 1);
    if (size == 0 || size > kIslandSize) {
        return HookStatus::Error(SHADOWHOOK_ERRNO_OOM, Format("cannot place %zu bytes", size));
    }
    if (TakeFromIsland(near, size, kReuseReach, block)) {
        return HookStatus::Ok();
    }
    MemoryMap map;
    HookStatus status = map.Load();
    if (!status.ok()) {
        return HookStatus::Error(SHADOWHOOK_ERRNO_OOM, status.detail);
    }
    // The whole island within reach, so every block carved from it is too.
    std::vector<uintptr_t> candidates = map.FreeBlocksNear(near, kIslandSize, kReach);
    // When free space is no closer than an existing island, that island does as well.
    bool nothingClose = candidates.empty() || Distance(candidates.front(), near) > kReuseReach;
    if (nothingClose && TakeFromIsland(near, size, kReach, block)) {
        return HookStatus::Ok();
    }
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
        INLINEHOOK_LOGI("relay island mapped at %#lx (%zu KiB) for code at %#lx",
                        static_cast<unsigned long>(candidate), kIslandSize / 1024,
                        static_cast<unsigned long>(near));
        m_islands.push_back(Island{candidate, size});
        *block = candidate;
        return HookStatus::Ok();
    }
    if (TakeFromIsland(near, size, kReach, block)) {
        return HookStatus::Ok();
    }
    return HookStatus::Error(
        SHADOWHOOK_ERRNO_OOM,
        Format("no free address space within %lu MiB of %#lx for a relay island (%zu candidates)",
               static_cast<unsigned long>(kReach >> 20), static_cast<unsigned long>(near),
               candidates.size()));
}

bool IslandAllocator::TakeFromIsland(uintptr_t near, size_t size, uintptr_t reach,
                                     uintptr_t* block) {
    for (Island& island : m_islands) {
        uintptr_t start = island.base + island.used;
        if (island.used + size <= kIslandSize && Within(near, start, size, reach)) {
            island.used += size;
            *block = start;
            return true;
        }
    }
    return false;
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
