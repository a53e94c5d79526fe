#include "hooklog.h"

#include <stdarg.h>
#include <stdio.h>

#include <atomic>
#include <string>

#include "hookstatus.h"

namespace corvane::inlinehook {

namespace {
std::atomic<bool> g_debuggable{false};
}  // namespace

bool IsDebuggable() {
    return g_debuggable.load(std::memory_order_relaxed);
}

void SetDebuggable(bool debuggable) {
    g_debuggable.store(debuggable, std::memory_order_relaxed);
}

void HookLog(int priority, const char* format, ...) {
    if (!IsDebuggable()) {
        return;
    }
    char line[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    __android_log_print(priority, kLogTag, "%s", line);
}

std::string Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    int length = vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) {
        vsnprintf(text.data(), text.size() + 1, format, args);
    }
    va_end(args);
    return text;
}

}  // namespace corvane::inlinehook
