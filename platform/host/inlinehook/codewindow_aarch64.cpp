// Code stores on AArch64: an aligned 4-byte store is single-copy atomic, so a thread fetching the
// instruction sees the old or the new one; every write to code is followed by the cache
// maintenance that makes it visible to instruction fetch (clean to the point of unification,
// invalidate the instruction cache, barriers), which __builtin___clear_cache issues.
#include <string.h>

#include "codewindow.h"

namespace corvane::inlinehook {

namespace {

constexpr size_t kInstructionSize = 4;

void SyncInstructionCache(uintptr_t address, size_t length) {
    char* begin = reinterpret_cast<char*>(address);
    __builtin___clear_cache(begin, begin + length);
}

}  // namespace

bool CanStoreCodeAtomically(uintptr_t address, size_t length) {
    return length == kInstructionSize && address % kInstructionSize == 0;
}

void StoreCodeAtomically(uintptr_t address, const uint8_t* bytes, size_t length) {
    uint32_t word;
    memcpy(&word, bytes, length);
    __atomic_store_n(reinterpret_cast<uint32_t*>(address), word, __ATOMIC_RELEASE);
    SyncInstructionCache(address, length);
}

void StoreSlot(uintptr_t slot, uintptr_t value) {
    // Slots are data read by a literal load, not fetched as instructions: no cache maintenance.
    __atomic_store_n(reinterpret_cast<uint64_t*>(slot), static_cast<uint64_t>(value),
                     __ATOMIC_RELEASE);
}

uintptr_t LoadSlot(uintptr_t slot) {
    return static_cast<uintptr_t>(
        __atomic_load_n(reinterpret_cast<const uint64_t*>(slot), __ATOMIC_ACQUIRE));
}

void CopyToCode(uintptr_t address, const void* bytes, size_t length) {
    // Word by word where aligned, so that no instruction is ever seen half written.
    const auto* source = static_cast<const uint8_t*>(bytes);
    size_t done = 0;
    while (done < length) {
        uintptr_t at = address + done;
        if (at % kInstructionSize == 0 && length - done >= kInstructionSize) {
            uint32_t word;
            memcpy(&word, source + done, sizeof(word));
            __atomic_store_n(reinterpret_cast<uint32_t*>(at), word, __ATOMIC_RELAXED);
            done += kInstructionSize;
        } else {
            __atomic_store_n(reinterpret_cast<uint8_t*>(at), source[done], __ATOMIC_RELAXED);
            ++done;
        }
    }
    SyncInstructionCache(address, length);
}

void CopyFromCode(void* out, uintptr_t address, size_t length) {
    auto* destination = static_cast<uint8_t*>(out);
    for (size_t i = 0; i < length; ++i) {
        destination[i] =
            __atomic_load_n(reinterpret_cast<const uint8_t*>(address + i), __ATOMIC_RELAXED);
    }
}

}  // namespace corvane::inlinehook
