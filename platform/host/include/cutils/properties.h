// Host stand-in for the device's property API. Properties live in a text file named by the
// environment variable CORVANE_PROP_FILE ("name=value" lines, '#' comments, blank lines ignored);
// the file is read afresh on every call, so properties are live as on a device.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

// Copies the value of `key` into `value` (at most PROPERTY_VALUE_MAX - 1 characters plus NUL),
// or `default_value` when the property is unset. Returns the length of the copied value.
int property_get(const char* key, char* value, const char* default_value);

// Converts as the device does: strtoimax with the base inferred from the text ("0x103E8" works),
// trailing text ignored; `default_value` when unset, empty, not a number at its start, or out of
// the 32-bit (64-bit) range.
int32_t property_get_int32(const char* key, int32_t default_value);
int64_t property_get_int64(const char* key, int64_t default_value);

#ifdef __cplusplus
}
#endif
