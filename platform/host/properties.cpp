#include <cutils/properties.h>

#include <errno.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <string>

namespace {

constexpr const char* kPropFileVariable = "CORVANE_PROP_FILE";

std::string Trim(const std::string& text) {
    const char* blanks = " \t\r\n";
    size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string::npos) {
        return "";
    }
    size_t end = text.find_last_not_of(blanks);
    return text.substr(begin, end - begin + 1);
}

// Looks `key` up in the property file; the last line naming it wins, as a later setprop would.
bool LookUp(const char* key, std::string* value) {
    const char* path = getenv(kPropFileVariable);
    if (key == nullptr || path == nullptr || path[0] == '\0') {
        return false;
    }
    std::ifstream file(path);
    if (!file) {
        return false;
    }
    bool found = false;
    std::string line;
    while (std::getline(file, line)) {
        std::string trimmed = Trim(line);
        if (trimmed.empty() || trimmed[0] == '#') {
            continue;
        }
        size_t equals = trimmed.find('=');
        if (equals == std::string::npos) {
            continue;
        }
        if (Trim(trimmed.substr(0, equals)) == key) {
            *value = Trim(trimmed.substr(equals + 1)).substr(0, PROPERTY_VALUE_MAX - 1);
            found = true;
        }
    }
    return found;
}

intmax_t GetBounded(const char* key, intmax_t lower, intmax_t upper, intmax_t defaultValue) {
    char buffer[PROPERTY_VALUE_MAX] = {};
    if (property_get(key, buffer, "") <= 0) {
        return defaultValue;
    }
    int savedErrno = errno;
    errno = 0;
    char* end = nullptr;
    intmax_t result = strtoimax(buffer, &end, 0);
    bool overflow = (result == INTMAX_MIN || result == INTMAX_MAX) && errno == ERANGE;
    if (overflow || result < lower || result > upper || end == buffer) {
        result = defaultValue;
    }
    errno = savedErrno;
    return result;
}

}  // namespace

extern "C" int property_get(const char* key, char* value, const char* default_value) {
    std::string found;
    if (!LookUp(key, &found)) {
        if (default_value == nullptr) {
            value[0] = '\0';
            return 0;
        }
        found = std::string(default_value).substr(0, PROPERTY_VALUE_MAX - 1);
    }
    memcpy(value, found.c_str(), found.size() + 1);
    return static_cast<int>(found.size());
}

extern "C" int32_t property_get_int32(const char* key, int32_t default_value) {
    return static_cast<int32_t>(GetBounded(key, INT32_MIN, INT32_MAX, default_value));
}

extern "C" int64_t property_get_int64(const char* key, int64_t default_value) {
    return static_cast<int64_t>(GetBounded(key, INT64_MIN, INT64_MAX, default_value));
}
