// libcutils' property getters over the NDK's system-property API, converting exactly as
// libcutils does: strtoimax with the base inferred, trailing text ignored, the default when
// unset, empty, not a number at its start, or out of range.
#include <cutils/properties.h>
#include <errno.h>
#include <inttypes.h>
#include <stdlib.h>
#include <string.h>

namespace {

intmax_t GetBounded(const char* key, intmax_t lower, intmax_t upper, intmax_t defaultValue) {
    char buffer[PROP_VALUE_MAX] = {};
    if (key == nullptr || __system_property_get(key, buffer) <= 0) {
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
    int length = __system_property_get(key, value);
    if (length > 0) {
        return length;
    }
    if (default_value == nullptr) {
        value[0] = '\0';
        return 0;
    }
    size_t copied = strnlen(default_value, PROPERTY_VALUE_MAX - 1);
    memcpy(value, default_value, copied);
    value[copied] = '\0';
    return static_cast<int>(copied);
}

extern "C" int32_t property_get_int32(const char* key, int32_t default_value) {
    return static_cast<int32_t>(GetBounded(key, INT32_MIN, INT32_MAX, default_value));
}

extern "C" int64_t property_get_int64(const char* key, int64_t default_value) {
    return static_cast<int64_t>(GetBounded(key, INT64_MIN, INT64_MAX, default_value));
}
