#include "shadowhook.h"

#include <stddef.h>

int shadowhook_init(shadowhook_mode_t mode, bool debuggable) {
    (void)mode;
    (void)debuggable;
    return SHADOWHOOK_ERRNO_INIT_ERRNO;
}
int shadowhook_get_init_errno(void) {
    return SHADOWHOOK_ERRNO_INIT_ERRNO;
}
shadowhook_mode_t shadowhook_get_mode(void) {
    return SHADOWHOOK_MODE_SHARED;
}
bool shadowhook_get_debuggable(void) {
    return false;
}
void shadowhook_set_debuggable(bool debuggable) {
    (void)debuggable;
}
int shadowhook_get_errno(void) {
    return SHADOWHOOK_ERRNO_UNINIT;
}
const char* shadowhook_to_errmsg(int error_number) {
    (void)error_number;
    return "inline-hook engine not built";
}
void* shadowhook_hook_sym_addr(void* sym_addr, void* new_addr, void** orig_addr) {
    (void)sym_addr;
    (void)new_addr;
    (void)orig_addr;
    return NULL;
}
void* shadowhook_hook_sym_name(const char* lib_name, const char* sym_name, void* new_addr,
                               void** orig_addr) {
    (void)lib_name;
    (void)sym_name;
    (void)new_addr;
    (void)orig_addr;
    return NULL;
}
int shadowhook_unhook(void* stub) {
    (void)stub;
    return -1;
}
