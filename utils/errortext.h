// The text of an error number, safe to call from any thread.
#pragma once

#include <string.h>

#include <string>

namespace errortext_detail {
// strerror_r comes in two shapes (GNU returns the text, XSI fills the buffer); both are handled.
[[maybe_unused]] inline const char* Text(int, const char* buffer) {
    return buffer;
}
[[maybe_unused]] inline const char* Text(const char* text, const char*) {
    return text;
}
}  // namespace errortext_detail

inline std::string ErrorText(int error) {
    char buffer[128] = {};
    return errortext_detail::Text(strerror_r(error, buffer, sizeof(buffer)), buffer);
}
