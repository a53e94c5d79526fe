#include "codewindow.h"

#include <errno.h>
#include <linux/membarrier.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

namespace corvane::inlinehook {

namespace {

constexpr uintptr_t kPageSize = 4096;
constexpr uintptr_t kCacheLine = 64;

std::atomic<bool> g_coreSyncRegistered{false};

// Locked 8-byte compare-exchange at any address within a cache line. Written in assembly because
// the location may be unaligned, which the C++ atomics do not allow.
bool CompareExchange8(uintptr_t address, uint64_t expected, uint64_t desired) {
    uint64_t previous = expected;
    __asm__ __volatile__("lock cmpxchgq %2, %1"
                         : "+a"(previous), "+m"(*reinterpret_cast<volatile uint64_t*>(address))
                         : "r"(desired)
                         : "memory", "cc");
    return previous == expected;
}

}  // namespace

CodeWindow::~CodeWindow() {
    Close();
}

HookStatus CodeWindow::Open(uintptr_t address, size_t length, int prot) {
    uintptr_t first = address & ~(kPageSize - 1);
    uintptr_t last = (address + length - 1) & ~(kPageSize - 1);
    for (uintptr_t page = first; page <= last; page += kPageSize) {
        bool open = false;
        for (size_t i = 0; i < m_count; ++i) {
            open = open || m_pages[i].address == page;
        }
        if (open) {
            continue;
        }
        if (m_count == kMaxPages) {
            return HookStatus::Error(SHADOWHOOK_ERRNO_MPROT,
                                     "too many pages to make writable in one step");
        }
        if (mprotect(reinterpret_cast<void*>(page), kPageSize, prot | PROT_WRITE) != 0) {
            return HookStatus::Error(SHADOWHOOK_ERRNO_MPROT,
                                     Format("mprotect(%#lx, +write) failed: %s",
                                            static_cast<unsigned long>(page), strerror(errno)));
        }
        m_pages[m_count++] = Page{page, prot};
    }
    return HookStatus::Ok();
}

void CodeWindow::Close() {
    while (m_count > 0) {
        const Page& page = m_pages[--m_count];
        // A failure here leaves a page writable, never unusable: nothing more can be done.
        mprotect(reinterpret_cast<void*>(page.address), kPageSize, page.prot);
    }
}

bool CanStoreCodeAtomically(uintptr_t address, size_t length) {
    uintptr_t line = address & ~(kCacheLine - 1);
    return length <= 8 && address + length <= line + kCacheLine;
}

void StoreCodeAtomically(uintptr_t address, const uint8_t* bytes, size_t length) {
    uintptr_t line = address & ~(kCacheLine - 1);
    // The 8-byte window starting at `address`, pulled back so that it ends inside the line.
    uintptr_t window = address + 8 <= line + kCacheLine ? address : line + kCacheLine - 8;
    size_t offset = address - window;
    for (;;) {
        uint64_t current;
        CopyFromCode(&current, window, sizeof(current));
        uint64_t desired = current;
        memcpy(reinterpret_cast<uint8_t*>(&desired) + offset, bytes, length);
        if (window % 8 == 0) {
            // An aligned 8-byte store is atomic on x86-64; xchg also orders it with everything.
            __asm__ __volatile__("xchgq %0, %1"
                                 : "+r"(desired),
                                   "+m"(*reinterpret_cast<volatile uint64_t*>(window))
                                 :
                                 : "memory");
            return;
        }
        if (CompareExchange8(window, current, desired)) {
            return;
        }
    }
}

void StoreSlot(uintptr_t slot, uintptr_t value) {
    // x86-64 stores are release stores; the clobber keeps the compiler from reordering.
    __asm__ __volatile__("movq %1, %0"
                         : "=m"(*reinterpret_cast<volatile uint64_t*>(slot))
                         : "r"(static_cast<uint64_t>(value))
                         : "memory");
}

uintptr_t LoadSlot(uintptr_t slot) {
    uint64_t value;
    __asm__ __volatile__("movq %1, %0"
                         : "=r"(value)
                         : "m"(*reinterpret_cast<const volatile uint64_t*>(slot))
                         : "memory");
    return static_cast<uintptr_t>(value);
}

void CopyToCode(uintptr_t address, const void* bytes, size_t length) {
    void* destination = reinterpret_cast<void*>(address);
    const void* source = bytes;
    __asm__ __volatile__("rep movsb" : "+D"(destination), "+S"(source), "+c"(length) : : "memory");
}

void CopyFromCode(void* out, uintptr_t address, size_t length) {
    const void* source = reinterpret_cast<const void*>(address);
    __asm__ __volatile__("rep movsb" : "+D"(out), "+S"(source), "+c"(length) : : "memory");
}

void RegisterCoreSync() {
    long commands = syscall(SYS_membarrier, MEMBARRIER_CMD_QUERY, 0, 0);
    if (commands < 0 || (commands & MEMBARRIER_CMD_PRIVATE_EXPEDITED_SYNC_CORE) == 0) {
        return;
    }
    if (syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED_SYNC_CORE, 0, 0) == 0) {
        g_coreSyncRegistered.store(true, std::memory_order_release);
    }
}

void SyncCores() {
    if (g_coreSyncRegistered.load(std::memory_order_acquire)) {
        syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED_SYNC_CORE, 0, 0);
    }
}

}  // namespace corvane::inlinehook
