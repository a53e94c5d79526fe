// System calls made without the C library, for the window in which other threads are paused.
//
// Any exported function of libc can be hooked by the user (open, read, clock_gettime, syscall
// itself); a replacement may take a lock that a paused thread holds, and then the pausing thread
// waits forever. So from the first pause signal until the threads run again the engine enters
// the kernel only through these, and calls no function of any library. They return the kernel's
// result: a negative errno on failure, and errno is left alone.
#pragma once

#include <stdint.h>

#include <type_traits>

namespace corvane::inlinehook {

inline long RawSyscall(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0,
                       long f = 0) {
#if defined(__x86_64__)
    long result;
    register long r10 __asm__("r10") = d;
    register long r8 __asm__("r8") = e;
    register long r9 __asm__("r9") = f;
    __asm__ __volatile__("syscall"
                         : "=a"(result)
                         : "a"(number), "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8), "r"(r9)
                         : "rcx", "r11", "memory");
    return result;
#elif defined(__aarch64__)
    register long x8 __asm__("x8") = number;
    register long x0 __asm__("x0") = a;
    register long x1 __asm__("x1") = b;
    register long x2 __asm__("x2") = c;
    register long x3 __asm__("x3") = d;
    register long x4 __asm__("x4") = e;
    register long x5 __asm__("x5") = f;
    __asm__ __volatile__("svc #0"
                         : "+r"(x0)
                         : "r"(x8), "r"(x1), "r"(x2), "r"(x3), "r"(x4), "r"(x5)
                         : "memory");
    return x0;
#else
#error "raw system calls are written for x86-64 and AArch64 only"
#endif
}

template <typename A = long, typename B = long, typename C = long, typename D = long,
          typename E = long, typename F = long>
long Sys(long number, A a = 0, B b = 0, C c = 0, D d = 0, E e = 0, F f = 0) {
    auto word = [](auto value) {
        if constexpr (std::is_pointer_v<decltype(value)>) {
            return reinterpret_cast<long>(value);
        } else if constexpr (std::is_null_pointer_v<decltype(value)>) {
            return 0L;
        } else {
            return static_cast<long>(value);
        }
    };
    return RawSyscall(number, word(a), word(b), word(c), word(d), word(e), word(f));
}

}  // namespace corvane::inlinehook
