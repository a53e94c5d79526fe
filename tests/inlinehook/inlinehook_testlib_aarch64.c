// Functions whose machine code must be exactly so, written in assembly with ELF symbol sizes,
// for the AArch64 inline-hook tests. Each takes an int in w0 and returns an int in w0.
__asm__(
    ".text\n"
    // A global function symbol on a 16-byte boundary.
    ".macro ih_function name\n"
    "    .balign 16\n"
    "    .globl \\name\n"
    "    .type \\name, %function\n"
    "\\name:\n"
    ".endm\n"

    // Only a landing pad before the end of its symbol: no room for the jump after it.
    "ih_function ih_tiny\n"
    "    bti c\n"
    ".size ih_tiny, .-ih_tiny\n"
    "    ret\n"

    // A loop back to the function's very first instruction.
    "ih_function ih_entry_loop\n"
    "    sub w0, w0, #1\n"
    "    cmp w0, #0\n"
    "    b.gt ih_entry_loop\n"
    "    ret\n"
    ".size ih_entry_loop, .-ih_entry_loop\n"

    // Return-address signing at the entry, then a frame and a call: the pad stays in place and
    // the relay authenticates the return address before the replacement runs. 3x + 7.
    "ih_function ih_pac\n"
    "    paciasp\n"
    "    stp x29, x30, [sp, #-16]!\n"
    "    mov x29, sp\n"
    "    bl ih_helper_triple\n"
    "    add w0, w0, #7\n"
    "    ldp x29, x30, [sp], #16\n"
    "    autiasp\n"
    "    ret\n"
    ".size ih_pac, .-ih_pac\n"

    ".balign 16\n"
    ".type ih_helper_triple, %function\n"
    "ih_helper_triple:\n"
    "    add w0, w0, w0, lsl #1\n"
    "    ret\n"
    ".size ih_helper_triple, .-ih_helper_triple\n"

    // A second entry point right after another function's landing pad: x + 6 from the inner one.
    "ih_function ih_alias_outer\n"
    "    bti c\n"
    ".globl ih_alias_inner\n"
    ".type ih_alias_inner, %function\n"
    "ih_alias_inner:\n"
    "    bti c\n"
    "    add w0, w0, #5\n"
    "    add w0, w0, #1\n"
    "    ret\n"
    ".size ih_alias_outer, .-ih_alias_outer\n"
    ".size ih_alias_inner, .-ih_alias_inner\n"

    // No symbol sizes. The first loops back to the instruction after its landing pad; the second
    // returns x + 7.
    "ih_function ih_unsized_back_branch\n"
    "    bti c\n"
    "1:  sub w0, w0, #1\n"
    "    cmp w0, #0\n"
    "    b.gt 1b\n"
    "    ret\n"

    "ih_function ih_unsized\n"
    "    bti c\n"
    "    add w0, w0, #3\n"
    "    add w0, w0, #4\n"
    "    ret\n"
    ".section .note.GNU-stack,\"\",%progbits\n");
