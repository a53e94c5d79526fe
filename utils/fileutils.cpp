#include "utils/fileutils.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <utility>

#include "utils/scopedfd.h"

bool ReadWholeFile(const std::string& path, std::string* content) {
    ScopedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        return false;
    }
    std::string text;
    char buffer[16384];
    for (;;) {
        ssize_t count = read(fd.get(), buffer, sizeof(buffer));
        if (count == 0) {
            break;
        }
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        text.append(buffer, static_cast<size_t>(count));
    }
    *content = std::move(text);
    return true;
}
