// Code stores on x86-64: locked exchanges within a cache line, plain moves done in assembly.

#include "codewindow.h"

namespace corvane::inlinehook {

namespace {

constexpr uintptr_t kCacheLine = 64;

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
        // Byte by byte rather than memcpy: this runs while other threads are paused, when no
        // library function may be entered (a user may have hooked it).
        uint64_t desired = current;
        for (size_t i = 0; i < length; ++i) {
            const unsigned shift = static_cast<unsigned>(8 * (offset + i));
            desired = (desired & ~(uint64_t{0xff} << shift)) | (uint64_t{bytes[i]} << shift);
        }
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

}  // namespace corvane::inlinehook
