// Writing to code that other threads may be executing.
//
// CodeWindow makes the pages of a few byte ranges writable for its lifetime (adding PROT_WRITE to
// the protection each page had, and restoring exactly that protection afterwards); the free
// functions store into code so that a concurrently running thread sees the old or the new bytes,
// never a mixture.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "hookstatus.h"

namespace corvane::inlinehook {

class CodeWindow {
  public:
    CodeWindow() = default;
    ~CodeWindow();
    CodeWindow(const CodeWindow&) = delete;
    CodeWindow& operator=(const CodeWindow&) = delete;

    // Makes [address, address + length) writable; `prot` is the protection its pages have now
    // and get back when the window closes. Pages already open stay as they are.
    HookStatus Open(uintptr_t address, size_t length, int prot);
    // Restores every page now instead of at destruction.
    void Close();

  private:
    static constexpr size_t kMaxPages = 8;
    struct Page {
        uintptr_t address;
        int prot;
    };
    Page m_pages[kMaxPages];
    size_t m_count = 0;
};

// True when `length` (at most 8) bytes at `address` can be replaced by one atomic store: they lie
// within one 64-byte cache line, so an 8-byte window around them can be swapped with a locked
// compare-exchange (an exchange when aligned) without a split lock.
bool CanStoreCodeAtomically(uintptr_t address, size_t length);
// Replaces the bytes in one atomic operation; requires CanStoreCodeAtomically. The bytes around
// them inside the 8-byte window are kept as they are.
void StoreCodeAtomically(uintptr_t address, const uint8_t* bytes, size_t length);
// Atomic release store of an 8-byte aligned jump slot, and its acquire load.
void StoreSlot(uintptr_t slot, uintptr_t value);
uintptr_t LoadSlot(uintptr_t slot);

// Plain copies to and from code. Like the stores above they are done in assembly, out of the
// compiler's and the sanitizers' view: thread sanitizer keeps no shadow for library code and
// would fault on a write to it.
void CopyToCode(uintptr_t address, const void* bytes, size_t length);
void CopyFromCode(void* out, uintptr_t address, size_t length);

// Asks every running thread of the process to serialise its instruction stream after code was
// changed (membarrier SYNC_CORE), as cross-modifying code requires. A no-op where the kernel
// lacks it: x86 then still snoops instruction fetches, which is what other engines rely on.
void RegisterCoreSync();
void SyncCores();

}  // namespace corvane::inlinehook
