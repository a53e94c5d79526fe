// Reference configuration reader for hosts: plain text files of "key = value" lines.
//
//   # a comment line (also ';'); blank lines are ignored
//   vxcdb = on          # text after " #" is a comment
//   hookswitch=true
//
// Keys and values are trimmed; a later line for the same key replaces the earlier one (also
// across files). Booleans read true/false, on/off, yes/no, 1/0 (any case); an integer value is
// read with its base inferred (0x10, 010, 16). A line without '=' or with an empty key is
// reported with its line number and skipped; the rest of the file still loads.
#include <android/log.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <fstream>
#include <map>
#include <mutex>
#include <string>

#include "core/controller/corvaneconfigreaderapi.h"

#define CONFIG_READER_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr const char* kTag = "CorvaneConfigReader";

struct ConfigReader {
    std::mutex mutex;
    std::map<std::string, std::string> values;
};

ConfigReader* AsReader(CorvaneConfigReaderHandle handle) {
    return static_cast<ConfigReader*>(handle);
}

std::string Trim(const std::string& text) {
    const char* blanks = " \t\r\n";
    size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string::npos) {
        return "";
    }
    return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

std::string StripComment(const std::string& line) {
    for (size_t i = 1; i < line.size(); ++i) {
        if (line[i] == '#' && (line[i - 1] == ' ' || line[i - 1] == '\t')) {
            return line.substr(0, i);
        }
    }
    return line;
}

bool Load(ConfigReader* reader, const char* path) {
    std::ifstream file(path);
    if (!file) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "cannot open %s: %s", path, strerror(errno));
        return false;
    }
    std::map<std::string, std::string> loaded;
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        std::string text = Trim(line);
        if (text.empty() || text[0] == '#' || text[0] == ';') {
            continue;
        }
        text = Trim(StripComment(text));
        size_t equals = text.find('=');
        std::string key = equals == std::string::npos ? "" : Trim(text.substr(0, equals));
        if (key.empty()) {
            __android_log_print(ANDROID_LOG_WARN, kTag, "%s:%d: expected 'key = value', skipped",
                                path, number);
            continue;
        }
        loaded[key] = Trim(text.substr(equals + 1));
    }
    std::lock_guard<std::mutex> lock(reader->mutex);
    for (auto& [key, value] : loaded) {
        reader->values[key] = std::move(value);
    }
    return true;
}

bool Find(CorvaneConfigReaderHandle handle, const char* key, std::string* value) {
    if (handle == nullptr || key == nullptr) {
        return false;
    }
    ConfigReader* reader = AsReader(handle);
    std::lock_guard<std::mutex> lock(reader->mutex);
    auto found = reader->values.find(key);
    if (found == reader->values.end()) {
        return false;
    }
    *value = found->second;
    return true;
}

}  // namespace

CONFIG_READER_EXPORT CorvaneConfigReaderHandle CreateCorvaneConfigReader(void) {
    return new (std::nothrow) ConfigReader();
}

CONFIG_READER_EXPORT void DestroyCorvaneConfigReader(CorvaneConfigReaderHandle reader) {
    delete AsReader(reader);
}

CONFIG_READER_EXPORT int CorvaneConfig_LoadConfigFile(CorvaneConfigReaderHandle reader,
                                                      const char* path) {
    return reader != nullptr && path != nullptr && Load(AsReader(reader), path) ? 1 : 0;
}

CONFIG_READER_EXPORT int CorvaneConfig_LoadConfigFiles(CorvaneConfigReaderHandle reader,
                                                       const char* const* paths, int count) {
    if (reader == nullptr || (paths == nullptr && count > 0)) {
        return 0;
    }
    bool all = true;
    for (int i = 0; i < count; ++i) {
        all = paths[i] != nullptr && Load(AsReader(reader), paths[i]) && all;
    }
    return all ? 1 : 0;
}

CONFIG_READER_EXPORT int CorvaneConfig_GetValue(CorvaneConfigReaderHandle reader, const char* key,
                                                char* buffer, size_t size) {
    std::string value;
    if (!Find(reader, key, &value)) {
        return 0;
    }
    if (buffer != nullptr && size > 0) {
        size_t length = value.size() < size - 1 ? value.size() : size - 1;
        memcpy(buffer, value.data(), length);
        buffer[length] = '\0';
    }
    return 1;
}

CONFIG_READER_EXPORT int CorvaneConfig_GetIntValue(CorvaneConfigReaderHandle reader,
                                                   const char* key, int defaultValue) {
    std::string value;
    if (!Find(reader, key, &value) || value.empty()) {
        return defaultValue;
    }
    errno = 0;
    char* end = nullptr;
    long number = strtol(value.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || number < INT32_MIN || number > INT32_MAX) {
        return defaultValue;
    }
    return static_cast<int>(number);
}

CONFIG_READER_EXPORT bool CorvaneConfig_GetBoolValue(CorvaneConfigReaderHandle reader,
                                                     const char* key, bool defaultValue) {
    std::string value;
    if (!Find(reader, key, &value)) {
        return defaultValue;
    }
    for (const char* yes : {"true", "on", "yes", "1"}) {
        if (strcasecmp(value.c_str(), yes) == 0) {
            return true;
        }
    }
    for (const char* no : {"false", "off", "no", "0"}) {
        if (strcasecmp(value.c_str(), no) == 0) {
            return false;
        }
    }
    return defaultValue;
}

CONFIG_READER_EXPORT void CorvaneConfig_Clear(CorvaneConfigReaderHandle reader) {
    if (reader != nullptr) {
        std::lock_guard<std::mutex> lock(AsReader(reader)->mutex);
        AsReader(reader)->values.clear();
    }
}

CONFIG_READER_EXPORT bool CorvaneConfig_HasKey(CorvaneConfigReaderHandle reader, const char* key) {
    std::string ignored;
    return Find(reader, key, &ignored);
}

CONFIG_READER_EXPORT int CorvaneConfig_Size(CorvaneConfigReaderHandle reader) {
    if (reader == nullptr) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(AsReader(reader)->mutex);
    return static_cast<int>(AsReader(reader)->values.size());
}

// Tests build a variant without this entry to check that an incomplete library is rejected.
#ifndef CORVANE_CONFIG_READER_WITHOUT_PRINT
CONFIG_READER_EXPORT void CorvaneConfig_PrintConfig(CorvaneConfigReaderHandle reader) {
    if (reader == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> lock(AsReader(reader)->mutex);
    for (const auto& [key, value] : AsReader(reader)->values) {
        __android_log_print(ANDROID_LOG_INFO, kTag, "%s = %s", key.c_str(), value.c_str());
    }
}
#endif
