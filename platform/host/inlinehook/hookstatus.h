// The outcome of one step of the engine: a ShadowHook error number for the caller and, for the
// debug log, a sentence naming exactly what went wrong.
#pragma once

#include <string>
#include <utility>

#include "shadowhook.h"

namespace corvane::inlinehook {

struct HookStatus {
    int number = SHADOWHOOK_ERRNO_OK;
    std::string detail;

    bool ok() const { return number == SHADOWHOOK_ERRNO_OK; }
    static HookStatus Ok() { return HookStatus(); }
    static HookStatus Error(int number, std::string detail) {
        HookStatus status;
        status.number = number;
        status.detail = std::move(detail);
        return status;
    }
};

// printf-style formatting into a std::string, for status details and log lines.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace corvane::inlinehook
