// Reading /proc/<pid>/maps text and finding free address space within jump reach of code,
// without taking the room the heap and the main stack grow into.
#include "platform/host/inlinehook/memorymap.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

namespace {

using corvane::inlinehook::MappedRegion;
using corvane::inlinehook::MemoryMap;

constexpr uintptr_t kGiB = 1ULL << 30;
constexpr uintptr_t kMiB = 1ULL << 20;

const char kMaps[] =
    "555555554000-555555556000 r--p 00000000 fe:01 1234   /usr/bin/camera\n"
    "555555556000-555555558000 r-xp 00002000 fe:01 1234   /usr/bin/camera\n"
    "555555558000-555555579000 rw-p 00000000 00:00 0      [heap]\n"
    "7f0000000000-7f0000020000 r--p 00000000 fe:01 99     /usr/lib/libm.so.6\n"
    "7f0000020000-7f0000080000 r-xp 00020000 fe:01 99     /usr/lib/libm.so.6\n"
    "7f0000080000-7f0000090000 r--p 00080000 fe:01 99     /usr/lib/libm.so.6\n"
    "7f00000a0000-7f00000b0000 rwxp 00000000 00:00 0 \n"
    "7ffffffde000-7ffffffff000 rw-p 00000000 00:00 0      [stack]\n"
    "garbage line\n";

// The parse, then free blocks near library code, executable code next to the heap, and code just
// below the stack.
TEST(MemoryMapTest, ParsesTheMapAndFindsFreeBlocksWithinReachNearestFirstLeavingRoomToGrow) {
    MemoryMap map;
    map.Parse(kMaps);
    ASSERT_EQ(8u, map.regions().size());
    const MappedRegion* text = map.Find(0x7f0000030000);
    ASSERT_NE(nullptr, text);
    EXPECT_EQ(PROT_READ | PROT_EXEC, text->prot);
    EXPECT_EQ("/usr/lib/libm.so.6", text->name);
    EXPECT_EQ(PROT_READ | PROT_WRITE | PROT_EXEC, map.Find(0x7f00000a0000)->prot);
    EXPECT_EQ(nullptr, map.Find(0x7f0000090000)) << "end is exclusive";
    // Readable code runs on through the adjacent read-only mapping, and stops at the hole.
    EXPECT_EQ(0x7f0000090000u, map.ReadableEnd(0x7f0000030000));
    EXPECT_EQ(0u, map.ReadableEnd(0x7f0000095000));

    const size_t size = 64 * 1024;
    for (uintptr_t near : {0x7f0000030000ULL, 0x555555557000ULL, 0x7fffe0000000ULL}) {
        SCOPED_TRACE(near);
        std::vector<uintptr_t> blocks = map.FreeBlocksNear(near, size, 2 * kGiB - 64 * 1024);
        ASSERT_FALSE(blocks.empty());
        uintptr_t previousDistance = 0;
        for (uintptr_t block : blocks) {
            EXPECT_EQ(0u, block % 4096);
            uintptr_t distance = block > near ? block + size - near : near - block;
            EXPECT_LE(distance, 2 * kGiB);
            EXPECT_GE(distance + size, previousDistance) << "nearest first";
            previousDistance = distance;
            for (const MappedRegion& region : map.regions()) {
                EXPECT_TRUE(block + size <= region.start || block >= region.end)
                    << std::hex << block << " overlaps " << region.start;
            }
            EXPECT_FALSE(block >= 0x555555579000 && block < 0x555555579000 + 256 * kMiB)
                << "inside the heap's growth room";
            EXPECT_FALSE(block + size > 0x7ffffffde000 - 256 * kMiB && block < 0x7ffffffde000)
                << "inside the stack's growth room";
        }
    }
    // Right below the library is the nearest free space.
    std::vector<uintptr_t> nearLibrary = map.FreeBlocksNear(0x7f0000030000, size, 2 * kGiB);
    EXPECT_EQ(0x7f0000000000u - size, nearLibrary.front());
}

// A stale EINTR left by the caller must not make a successful read of the live map look
// interrupted (which would drop what was read, or spin at the end of the file).
TEST(MemoryMapTest, LoadsThisProcessMapWhateverErrnoHolds) {
    MemoryMap map;
    errno = EINTR;
    ASSERT_TRUE(map.Load().ok());
    EXPECT_NE(nullptr, map.Find(reinterpret_cast<uintptr_t>(kMaps)));
}

}  // namespace
