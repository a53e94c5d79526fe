// Functions whose machine code must be exactly so, written in assembly with ELF symbol sizes,
// for the inline-hook tests. Each takes an int in edi and returns an int in eax.
__asm__(
    ".text\n"
    // A global function symbol, its entry `skip` bytes into an `align`-byte boundary.
    ".macro ih_function name, align=16, skip=0\n"
    "    .balign \\align\n"
    "    .skip \\skip, 0xcc\n"
    "    .globl \\name\n"
    "    .type \\name, @function\n"
    "\\name:\n"
    ".endm\n"

    // Three bytes long by its symbol size: too short for a 5-byte jump.
    "ih_function ih_tiny\n"
    "    xorl %eax, %eax\n"
    "    ret\n"
    ".size ih_tiny, .-ih_tiny\n"

    // A loop back to the function's very first byte. The branch names a local label: a branch to
    // the global symbol is left to the linker by some assemblers (clang's), which sends it
    // through the library's PLT instead of back into the function.
    "ih_function ih_entry_loop\n"
    "1:  subl $1, %edi\n"
    "    testl %edi, %edi\n"
    "    jg 1b\n"
    "    movl %edi, %eax\n"
    "    ret\n"
    ".size ih_entry_loop, .-ih_entry_loop\n"

    // Its first 5 bytes straddle a cache line (the entry sits 61 bytes into a line), so no
    // atomic store can patch it; the displaced push/mov are several instructions.
    "ih_function ih_cross_line, 64, 61\n"
    "    pushq %rbp\n"
    "    movq %rsp, %rbp\n"
    "    leal 7(%rdi,%rdi,2), %eax\n"
    "    popq %rbp\n"
    "    ret\n"
    ".size ih_cross_line, .-ih_cross_line\n"

    // One 6-byte instruction displaced, 5 bytes into a cache line: patched by a single
    // unaligned locked store, no thread paused.
    "ih_function ih_single, 64, 5\n"
    "    leal 0x12345(%rdi), %eax\n"
    "    ret\n"
    ".size ih_single, .-ih_single\n"

    // Spins edi times on its first two instructions (a loop kept inside the trampoline), then
    // returns 5: a thread is almost always found between displaced instructions.
    "ih_function ih_prologue_spin\n"
    "1:  decl %edi\n"
    "    jnz 1b\n"
    "    leal 5(%rdi), %eax\n"
    "    ret\n"
    ".size ih_prologue_spin, .-ih_prologue_spin\n"

    // An indirect-branch landing pad, then two instructions to displace: 3 * (x + 7).
    "ih_function ih_endbr\n"
    "    endbr64\n"
    "    movl %edi, %eax\n"
    "    addl $7, %eax\n"
    "    imull $3, %eax, %eax\n"
    "    ret\n"
    ".size ih_endbr, .-ih_endbr\n"

    // A second entry point 2 bytes into another function: x + 7 from the outer one, x + 6 from
    // the inner one.
    "ih_function ih_alias_outer\n"
    "    incl %edi\n"
    ".globl ih_alias_inner\n"
    ".type ih_alias_inner, @function\n"
    "ih_alias_inner:\n"
    "    leal 5(%rdi), %eax\n"
    "    addl $1, %eax\n"
    "    ret\n"
    ".size ih_alias_outer, .-ih_alias_outer\n"
    ".size ih_alias_inner, .-ih_alias_inner\n"

    // No symbol sizes. The first loops back into its displaced bytes; the second does not and
    // returns x + 7.
    "ih_function ih_unsized_back_branch\n"
    "    movl %edi, %eax\n"
    "1:  addl $3, %eax\n"
    "    decl %edi\n"
    "    jg 1b\n"
    "    ret\n"
    "ih_function ih_unsized\n"
    "    movl %edi, %eax\n"
    "    addl $3, %eax\n"
    "    addl $4, %eax\n"
    "    ret\n");

// A replacement living in a shared library, as the system's own replacements do: it runs the
// original through the orig entry the engine handed out. The benchmark hooks a libz function
// with it.
void* ih_forward_orig;
unsigned long ih_forward(unsigned long value) {
    unsigned long (*orig)(unsigned long) =
        (unsigned long (*)(unsigned long))__atomic_load_n(&ih_forward_orig, __ATOMIC_RELAXED);
    return orig(value);
}
