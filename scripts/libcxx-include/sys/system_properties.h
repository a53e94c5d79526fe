// Stand-in for bionic's <sys/system_properties.h>, which a glibc host lacks, so that the NDK
// property getters (platform/android/ndk/properties.cpp) compile in the libc++ check build. The
// declaration and sizes are bionic's; nothing here is linked or run.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

int __system_property_get(const char* name, char* value);

#ifdef __cplusplus
}
#endif
