// The configuration reader the rest of the system uses: typed look-ups by key at the root of a
// file or inside an object obtained from it, each answered with a status code and a default.
// Nothing here throws. Readers are obtained from Configloadfactory::CreateObject, owned by the
// caller and deleted through this interface.
#pragma once

#include <string>
#include <vector>

#include "config/interface/config.h"

// Kinds of configuration file.
constexpr int CONFIG_FILE_TYPE_JSON = 0;  // the only kind that exists

// Status codes of the readers.
constexpr int CONFIG_LOAD_OK = 0;
constexpr int CONFIG_LOAD_INVALID = 4;   // bad argument, missing key or wrong type
constexpr int CONFIG_LOAD_NO_FILE = 12;  // file not opened; also a missing key of GetObject(key)

struct ConfigLoadCreateData {
    int fileType = CONFIG_FILE_TYPE_JSON;
    std::string fileName;
};

// The order of the virtual operations is part of the interface: keep it.
class ConfigLoad {
  public:
    virtual ~ConfigLoad() = default;

    virtual int Initialize(ConfigLoadCreateData data) = 0;

    // Look-ups at the root. Scalars always write `out` (the value, or the default on failure);
    // arrays append to `out`.
    virtual int GetInt(const std::string& key, int& out, int defaultValue) = 0;
    virtual int GetFloat(const std::string& key, float& out, float defaultValue) = 0;
    virtual int GetString(const std::string& key, std::string& out, std::string defaultValue) = 0;
    virtual int GetIntArray(const std::string& key, std::vector<int>& out) = 0;
    virtual int GetFloatArray(const std::string& key, std::vector<float>& out) = 0;
    virtual int GetStringArray(const std::string& key, std::vector<std::string>& out) = 0;
    // `*out` points into the reader's own document and lives as long as the reader.
    virtual int GetObject(const std::string& key, const void** out) = 0;

    // Look-ups inside `parent`, a value obtained from GetObject or from an array element.
    virtual int GetInt(const void* parent, std::string key, int& out, int defaultValue) = 0;
    virtual int GetFloat(const void* parent, std::string key, float& out, float defaultValue) = 0;
    virtual int GetString(const void* parent, std::string key, std::string& out,
                          std::string defaultValue) = 0;
    virtual int GetIntArray(const void* parent, std::string key, std::vector<int>& out) = 0;
    virtual int GetFloatArray(const void* parent, std::string key, std::vector<float>& out) = 0;
    virtual int GetStringArray(const void* parent, std::string key,
                               std::vector<std::string>& out) = 0;
    virtual int GetObject(const void* parent, const std::string& key, const void** out) = 0;

    // Convenience forms: the value, or 0, 0.0, empty or null; the status is dropped.
    virtual int GetInt(const std::string& key) = 0;
    virtual float GetFloat(const std::string& key) = 0;
    virtual std::string GetString(const std::string& key) = 0;
    virtual std::vector<int> GetIntArray(const std::string& key) = 0;
    virtual std::vector<float> GetFloatArray(const std::string& key) = 0;
    virtual std::vector<std::string> GetStringArray(const std::string& key) = 0;
    virtual const void* GetObject(const std::string& key) = 0;

    // The array of objects at `key`, one list of named values per object, an array-valued
    // member contributing one entry per element.
    virtual std::vector<std::vector<Config>> GetArrayObject(const std::string& key) = 0;
};
