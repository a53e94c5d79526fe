// The device's property API for an NDK build, where libcutils is not available: the same
// declarations as libcutils, implemented over <sys/system_properties.h> (ndk/properties.cpp).
// A vendor build uses libcutils and its own header instead.
#pragma once

#include <stdint.h>
#include <sys/system_properties.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PROPERTY_KEY_MAX PROP_NAME_MAX
#define PROPERTY_VALUE_MAX PROP_VALUE_MAX

int property_get(const char* key, char* value, const char* default_value);
int32_t property_get_int32(const char* key, int32_t default_value);
int64_t property_get_int64(const char* key, int64_t default_value);

#ifdef __cplusplus
}
#endif
