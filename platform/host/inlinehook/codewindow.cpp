#include "codewindow.h"

#include <errno.h>
#include <linux/membarrier.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "rawsyscall.h"

namespace corvane::inlinehook {

namespace {

constexpr uintptr_t kPageSize = 4096;

std::atomic<bool> g_coreSyncRegistered{false};

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
    // Runs while other threads are paused: a raw system call, never libc's syscall().
    if (g_coreSyncRegistered.load(std::memory_order_acquire)) {
        Sys(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED_SYNC_CORE, 0, 0);
    }
}

}  // namespace corvane::inlinehook
