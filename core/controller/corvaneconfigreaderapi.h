// The C entry points of the configuration-reader library
// ("vendor/lib64/com.halvern.corvanesystem.config.so"). The library keeps key/value pairs read
// from text configuration files behind an opaque reader handle.
#pragma once

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void* CorvaneConfigReaderHandle;

// A new, empty reader; null when out of memory.
typedef CorvaneConfigReaderHandle (*CreateCorvaneConfigReaderFunc)(void);
typedef void (*DestroyCorvaneConfigReaderFunc)(CorvaneConfigReaderHandle reader);
// Adds the pairs of one file (later keys replace earlier ones); 1 on success, 0 otherwise.
typedef int (*CorvaneConfigLoadConfigFileFunc)(CorvaneConfigReaderHandle reader, const char* path);
// Copies the value text into `buffer` (NUL-terminated, cut to size - 1); 1 when the key exists.
typedef int (*CorvaneConfigGetValueFunc)(CorvaneConfigReaderHandle reader, const char* key,
                                         char* buffer, size_t size);
// The value as an integer (base inferred), or `defaultValue` when absent or not a number.
typedef int (*CorvaneConfigGetIntValueFunc)(CorvaneConfigReaderHandle reader, const char* key,
                                            int defaultValue);
// The value as a boolean (true/false, 1/0, on/off, yes/no), or `defaultValue`.
typedef bool (*CorvaneConfigGetBoolValueFunc)(CorvaneConfigReaderHandle reader, const char* key,
                                              bool defaultValue);
typedef void (*CorvaneConfigClearFunc)(CorvaneConfigReaderHandle reader);
// Loads `count` files in order; 1 when every one loaded.
typedef int (*CorvaneConfigLoadConfigFilesFunc)(CorvaneConfigReaderHandle reader,
                                                const char* const* paths, int count);
typedef bool (*CorvaneConfigHasKeyFunc)(CorvaneConfigReaderHandle reader, const char* key);
typedef int (*CorvaneConfigSizeFunc)(CorvaneConfigReaderHandle reader);
// Writes every pair to the log.
typedef void (*CorvaneConfigPrintConfigFunc)(CorvaneConfigReaderHandle reader);

#ifdef __cplusplus
}
#endif
