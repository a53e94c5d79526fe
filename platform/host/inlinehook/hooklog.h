// Debug output of the engine. Lines go to the Android log under "corvane_inlinehook", and only
// while the debuggable switch (shadowhook_init / shadowhook_set_debuggable) is on, so a quiet
// engine costs one relaxed load per call.
#pragma once

#include <android/log.h>

namespace corvane::inlinehook {

constexpr const char* kLogTag = "corvane_inlinehook";

bool IsDebuggable();
void SetDebuggable(bool debuggable);

void HookLog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The arguments are evaluated only when the switch is on.
#define INLINEHOOK_LOG(priority, ...)                              \
    do {                                                           \
        if (::corvane::inlinehook::IsDebuggable()) {               \
            ::corvane::inlinehook::HookLog(priority, __VA_ARGS__); \
        }                                                          \
    } while (0)
#define INLINEHOOK_LOGD(...) INLINEHOOK_LOG(ANDROID_LOG_DEBUG, __VA_ARGS__)
#define INLINEHOOK_LOGI(...) INLINEHOOK_LOG(ANDROID_LOG_INFO, __VA_ARGS__)
#define INLINEHOOK_LOGW(...) INLINEHOOK_LOG(ANDROID_LOG_WARN, __VA_ARGS__)

}  // namespace corvane::inlinehook
