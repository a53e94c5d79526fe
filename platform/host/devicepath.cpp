#include "platform/devicepath.h"

#include <stdlib.h>

std::string DevicePath(const std::string& path) {
    const char* sysroot = getenv("CORVANE_SYSROOT");
    if (sysroot == nullptr || sysroot[0] == '\0' || path.empty() || path[0] != '/') {
        return path;
    }
    std::string prefixed(sysroot);
    while (!prefixed.empty() && prefixed.back() == '/') {
        prefixed.pop_back();
    }
    return prefixed + path;
}
