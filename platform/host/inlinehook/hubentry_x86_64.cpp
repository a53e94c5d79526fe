// The shared-mode entry on x86-64: HubEntry runs between the hooked function's entry and the
// replacement, with the arguments still in their registers and the caller's return address on
// top of the stack.
#include <string.h>

#include "hub.h"

extern "C" void CorvaneHubEntry();

// r11 holds the Hub (scratch at a call boundary, never an argument). Saved around the C++ part:
// every register that can carry an argument (rdi, rsi, rdx, rcx, r8, r9, xmm0-7), rax (the count
// of vector registers a variadic call passes) and r10 (a static chain). 216 bytes keep rsp
// 16-byte aligned at the call, since it is 8 off at entry.
asm(R"(
    .text
    .p2align 4
    .globl CorvaneHubEntry
    .hidden CorvaneHubEntry
    .type CorvaneHubEntry, @function
CorvaneHubEntry:
    .cfi_startproc
    endbr64
    sub $216, %rsp
    .cfi_adjust_cfa_offset 216
    mov %rdi, 0(%rsp)
    mov %rsi, 8(%rsp)
    mov %rdx, 16(%rsp)
    mov %rcx, 24(%rsp)
    mov %r8, 32(%rsp)
    mov %r9, 40(%rsp)
    mov %rax, 48(%rsp)
    mov %r10, 56(%rsp)
    movaps %xmm0, 64(%rsp)
    movaps %xmm1, 80(%rsp)
    movaps %xmm2, 96(%rsp)
    movaps %xmm3, 112(%rsp)
    movaps %xmm4, 128(%rsp)
    movaps %xmm5, 144(%rsp)
    movaps %xmm6, 160(%rsp)
    movaps %xmm7, 176(%rsp)
    mov %r11, %rdi
    mov 216(%rsp), %rsi
    call CorvaneHubPush@PLT
    mov %rax, %r11
    mov 0(%rsp), %rdi
    mov 8(%rsp), %rsi
    mov 16(%rsp), %rdx
    mov 24(%rsp), %rcx
    mov 32(%rsp), %r8
    mov 40(%rsp), %r9
    mov 48(%rsp), %rax
    mov 56(%rsp), %r10
    movaps 64(%rsp), %xmm0
    movaps 80(%rsp), %xmm1
    movaps 96(%rsp), %xmm2
    movaps 112(%rsp), %xmm3
    movaps 128(%rsp), %xmm4
    movaps 144(%rsp), %xmm5
    movaps 160(%rsp), %xmm6
    movaps 176(%rsp), %xmm7
    add $216, %rsp
    .cfi_adjust_cfa_offset -216
    jmp *%r11
    .cfi_endproc
    .size CorvaneHubEntry, .-CorvaneHubEntry
)");

namespace corvane::inlinehook {

void EncodeHubStub(const Hub* hub, uint8_t* code) {
    // endbr64 ; movabs r11, hub ; jmp qword [rip + 0] ; .quad CorvaneHubEntry ; int3 x4. The stub
    // and the hub entry are both reached by indirect jumps, so both begin with a landing pad for
    // processes that track indirect branches.
    uint64_t hubAddress = reinterpret_cast<uintptr_t>(hub);
    uint64_t entry = reinterpret_cast<uintptr_t>(&CorvaneHubEntry);
    const uint8_t landingPad[] = {0xf3, 0x0f, 0x1e, 0xfa};
    memcpy(code, landingPad, sizeof(landingPad));
    code[4] = 0x49;
    code[5] = 0xbb;
    memcpy(code + 6, &hubAddress, sizeof(hubAddress));
    const uint8_t jump[] = {0xff, 0x25, 0x00, 0x00, 0x00, 0x00};
    memcpy(code + 14, jump, sizeof(jump));
    memcpy(code + 20, &entry, sizeof(entry));
    memset(code + 28, 0xcc, kHubStubSize - 28);
}

}  // namespace corvane::inlinehook
