// The shared-mode entry on AArch64: HubEntry runs between the hooked function's entry and the
// replacement, with the arguments still in their registers and the caller's return address in
// x30 (already authenticated by the entry relay where the function signs it).
#include <string.h>

#include "hub.h"

extern "C" void CorvaneHubEntry();

// x16 holds the Hub, x17 the jump target (both scratch at a call boundary). Saved around the C++
// part: every register that can carry an argument (x0-x7, x8 for an indirect result, q0-q7) and
// the frame record. It starts with BTI C so that a BTI-guarded build accepts the indirect jump in.
asm(R"(
    .text
    .p2align 4
    .globl CorvaneHubEntry
    .hidden CorvaneHubEntry
    .type CorvaneHubEntry, %function
CorvaneHubEntry:
    .cfi_startproc
    hint #34
    stp x29, x30, [sp, #-224]!
    .cfi_def_cfa_offset 224
    .cfi_offset 29, -224
    .cfi_offset 30, -216
    mov x29, sp
    stp x0, x1, [sp, #16]
    stp x2, x3, [sp, #32]
    stp x4, x5, [sp, #48]
    stp x6, x7, [sp, #64]
    str x8, [sp, #80]
    stp q0, q1, [sp, #96]
    stp q2, q3, [sp, #128]
    stp q4, q5, [sp, #160]
    stp q6, q7, [sp, #192]
    mov x0, x16
    mov x1, x30
    bl CorvaneHubPush
    mov x17, x0
    ldp x0, x1, [sp, #16]
    ldp x2, x3, [sp, #32]
    ldp x4, x5, [sp, #48]
    ldp x6, x7, [sp, #64]
    ldr x8, [sp, #80]
    ldp q0, q1, [sp, #96]
    ldp q2, q3, [sp, #128]
    ldp q4, q5, [sp, #160]
    ldp q6, q7, [sp, #192]
    ldp x29, x30, [sp], #224
    .cfi_def_cfa_offset 0
    br x17
    .cfi_endproc
    .size CorvaneHubEntry, .-CorvaneHubEntry
)");

namespace corvane::inlinehook {

void EncodeHubStub(const Hub* hub, uint8_t* code) {
    // ldr x16, [pc + 16] ; ldr x17, [pc + 20] ; br x17 ; udf #0 ; .quad hub ; .quad HubEntry
    const uint32_t words[] = {0x58000090, 0x580000b1, 0xd61f0220, 0x00000000};
    uint64_t hubAddress = reinterpret_cast<uintptr_t>(hub);
    uint64_t entry = reinterpret_cast<uintptr_t>(&CorvaneHubEntry);
    memcpy(code, words, sizeof(words));
    memcpy(code + 16, &hubAddress, sizeof(hubAddress));
    memcpy(code + 24, &entry, sizeof(entry));
}

}  // namespace corvane::inlinehook
