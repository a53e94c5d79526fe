#include "memorymap.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

namespace corvane::inlinehook {

namespace {

constexpr uintptr_t kPageSize = 4096;
// Nothing is placed below this: the kernel refuses low addresses (mmap_min_addr) and a null
// dereference with an offset must keep faulting.
constexpr uintptr_t kLowestAddress = 1ULL << 20;
#if defined(__aarch64__)
// Top of the 48-bit user address space of an AArch64 kernel with 4 KiB pages; a kernel with a
// smaller space simply has no free gaps up there.
constexpr uintptr_t kHighestAddress = 0x0000fffffffff000ULL;
#else
// Top of the 47-bit user address space every x86-64 kernel gives without asking for more.
constexpr uintptr_t kHighestAddress = 0x00007ffffffff000ULL;
#endif
// Room left above the brk heap and below the main thread's stack so both can still grow.
constexpr uintptr_t kHeapGrowthRoom = 256ULL << 20;
constexpr uintptr_t kStackGrowthRoom = 256ULL << 20;

uintptr_t AlignUp(uintptr_t value) {
    return (value + kPageSize - 1) & ~(kPageSize - 1);
}
uintptr_t AlignDown(uintptr_t value) {
    return value & ~(kPageSize - 1);
}
uintptr_t Distance(uintptr_t a, uintptr_t b) {
    return a > b ? a - b : b - a;
}

}  // namespace

HookStatus MemoryMap::Load() {
    int fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return HookStatus::Error(SHADOWHOOK_ERRNO_MPROT,
                                 Format("cannot open /proc/self/maps: %s", strerror(errno)));
    }
    std::string text;
    char buffer[16384];
    for (;;) {
        ssize_t count = read(fd, buffer, sizeof(buffer));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        text.append(buffer, static_cast<size_t>(count));
    }
    close(fd);
    Parse(text);
    if (m_regions.empty()) {
        return HookStatus::Error(SHADOWHOOK_ERRNO_MPROT, "/proc/self/maps lists no mappings");
    }
    return HookStatus::Ok();
}

void MemoryMap::Parse(const std::string& text) {
    m_regions.clear();
    size_t position = 0;
    while (position < text.size()) {
        size_t lineEnd = text.find('\n', position);
        if (lineEnd == std::string::npos) {
            lineEnd = text.size();
        }
        std::string line = text.substr(position, lineEnd - position);
        position = lineEnd + 1;

        // "start-end perms offset dev inode   name"
        const char* cursor = line.c_str();
        char* after = nullptr;
        MappedRegion region;
        region.start = strtoull(cursor, &after, 16);
        if (after == cursor || *after != '-') {
            continue;
        }
        cursor = after + 1;
        region.end = strtoull(cursor, &after, 16);
        if (after == cursor || *after != ' ' || region.end <= region.start) {
            continue;
        }
        cursor = after + 1;
        if (strlen(cursor) < 4) {
            continue;
        }
        region.prot = (cursor[0] == 'r' ? PROT_READ : 0) | (cursor[1] == 'w' ? PROT_WRITE : 0) |
                      (cursor[2] == 'x' ? PROT_EXEC : 0);
        // Skip offset, device and inode; the rest (after blanks) is the name.
        int fields = 0;
        cursor += 4;
        while (*cursor != '\0' && fields < 3) {
            while (*cursor == ' ') {
                ++cursor;
            }
            while (*cursor != '\0' && *cursor != ' ') {
                ++cursor;
            }
            ++fields;
        }
        while (*cursor == ' ') {
            ++cursor;
        }
        region.name = cursor;
        m_regions.push_back(std::move(region));
    }
    std::sort(m_regions.begin(), m_regions.end(),
              [](const MappedRegion& a, const MappedRegion& b) { return a.start < b.start; });
}

const MappedRegion* MemoryMap::Find(uintptr_t address) const {
    auto it = std::upper_bound(
        m_regions.begin(), m_regions.end(), address,
        [](uintptr_t value, const MappedRegion& region) { return value < region.start; });
    if (it == m_regions.begin()) {
        return nullptr;
    }
    --it;
    return address < it->end ? &*it : nullptr;
}

uintptr_t MemoryMap::ReadableEnd(uintptr_t address) const {
    const MappedRegion* region = Find(address);
    if (region == nullptr || (region->prot & PROT_READ) == 0) {
        return 0;
    }
    uintptr_t end = region->end;
    for (const MappedRegion* next = Find(end); next != nullptr && (next->prot & PROT_READ) != 0;
         next = Find(end)) {
        end = next->end;
    }
    return end;
}

std::vector<uintptr_t> MemoryMap::FreeBlocksNear(uintptr_t near, size_t size,
                                                 uintptr_t reach) const {
    uintptr_t windowLow = near > reach ? near - reach : 0;
    uintptr_t windowHigh = near + reach;
    windowLow = std::max(windowLow, kLowestAddress);
    windowHigh = std::min(windowHigh, kHighestAddress);

    std::vector<uintptr_t> candidates;
    uintptr_t gapStart = 0;
    const MappedRegion* below = nullptr;
    for (size_t i = 0; i <= m_regions.size(); ++i) {
        const MappedRegion* above = i < m_regions.size() ? &m_regions[i] : nullptr;
        uintptr_t low = gapStart;
        uintptr_t high = above != nullptr ? above->start : kHighestAddress;
        if (below != nullptr && below->name == "[heap]") {
            low = below->end + kHeapGrowthRoom;
        }
        if (above != nullptr && above->name == "[stack]") {
            high = above->start > kStackGrowthRoom ? above->start - kStackGrowthRoom : 0;
        }
        low = AlignUp(std::max(low, windowLow));
        high = AlignDown(std::min(high, windowHigh));
        if (high > low && high - low >= size) {
            // The point of [low, high - size] nearest to `near`.
            uintptr_t last = AlignDown(high - size);
            uintptr_t best = std::min(std::max(AlignDown(near), low), last);
            candidates.push_back(best);
        }
        if (above != nullptr) {
            gapStart = std::max(gapStart, above->end);
            below = above;
        }
    }
    std::sort(candidates.begin(), candidates.end(),
              [near](uintptr_t a, uintptr_t b) { return Distance(a, near) < Distance(b, near); });
    return candidates;
}

}  // namespace corvane::inlinehook
