#include "core/controller/corvanesystemlog.h"

#include <android/log.h>
#include <cutils/properties.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

namespace {

constexpr const char* kLogLevelProperty = "persist.vendor.camera.cloud.corvanesys.loglevel";
constexpr int kDefaultLogLevel = CORVANE_LOG_INFO;
constexpr const char* kLogTag = "[CORVANESYS]";
constexpr size_t kLogBufferSize = 1024;

// Read once: changing the property takes effect at the next start of the process.
int Threshold() {
    static const int threshold = property_get_int32(kLogLevelProperty, kDefaultLogLevel);
    return threshold;
}

const char* BaseName(const char* path) {
    const char* slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

}  // namespace

void CorvaneSystemLog(int level, const char* file, int line, const char* function,
                      const char* format, ...) {
    if (Threshold() > level) {
        return;
    }
    char prefix[kLogBufferSize] = {};
    char message[kLogBufferSize] = {};
    if (function == nullptr || format == nullptr) {
        return;
    }
    snprintf(prefix, sizeof(prefix), "%s:%d %s() ", BaseName(file == nullptr ? "" : file), line,
             function);
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof(message), format, args);
    va_end(args);
    if (strlen(prefix) + strlen(message) > kLogBufferSize - 1) {
        return;
    }
    __android_log_print(level, kLogTag, "%s%s", prefix, message);
}
