// The JSON configuration reader: the whole file is read and parsed once (comments and trailing
// commas allowed), then queried by key. Values handed out as `const void*` are RapidJSON values
// inside this reader's document and live as long as the reader.
//
// Type tests are strict (an int must be written as an integer that fits 32 bits, a float must be
// written with a fraction or an exponent), and an array is judged by its first element only.
// Several asymmetries between the root and the parent look-ups are deliberate; the hook-case and
// protection readers were written against them. See docs/configuration-loader.md.
#pragma once

#include <rapidjson/allocators.h>
#include <rapidjson/document.h>

#include <string>
#include <vector>

#include "config/interface/configload.h"

class ConfigLoadJson : public ConfigLoad {
  public:
    // The parser's stack starts at this many bytes and grows as needed.
    static constexpr size_t PARSE_STACK_CAPACITY = 1024;
    // The document's memory pool grows by chunks of this size.
    static constexpr size_t POOL_CHUNK_CAPACITY = 65536;

    // A reader for `data`, or null (logged) when the file cannot be read or parsed.
    static ConfigLoadJson* Create(ConfigLoadCreateData data);

    ConfigLoadJson();
    ~ConfigLoadJson() override;
    ConfigLoadJson(const ConfigLoadJson&) = delete;
    ConfigLoadJson& operator=(const ConfigLoadJson&) = delete;

    // Reads and parses the file: 0, 4 for a wrong file type or malformed JSON, 12 when the file
    // cannot be read. Values obtained before a second call are invalid afterwards.
    int Initialize(ConfigLoadCreateData data) override;
    // Replaces the held text with the whole file: 0, or 12 (text unchanged) when unreadable.
    int ReadFile(const std::string& path);

    int GetInt(const std::string& key, int& out, int defaultValue) override;
    int GetFloat(const std::string& key, float& out, float defaultValue) override;
    int GetString(const std::string& key, std::string& out, std::string defaultValue) override;
    int GetIntArray(const std::string& key, std::vector<int>& out) override;
    int GetFloatArray(const std::string& key, std::vector<float>& out) override;
    int GetStringArray(const std::string& key, std::vector<std::string>& out) override;
    int GetObject(const std::string& key, const void** out) override;

    int GetInt(const void* parent, std::string key, int& out, int defaultValue) override;
    int GetFloat(const void* parent, std::string key, float& out, float defaultValue) override;
    int GetString(const void* parent, std::string key, std::string& out,
                  std::string defaultValue) override;
    int GetIntArray(const void* parent, std::string key, std::vector<int>& out) override;
    int GetFloatArray(const void* parent, std::string key, std::vector<float>& out) override;
    int GetStringArray(const void* parent, std::string key, std::vector<std::string>& out) override;
    int GetObject(const void* parent, const std::string& key, const void** out) override;

    int GetInt(const std::string& key) override;
    float GetFloat(const std::string& key) override;
    std::string GetString(const std::string& key) override;
    std::vector<int> GetIntArray(const std::string& key) override;
    std::vector<float> GetFloatArray(const std::string& key) override;
    std::vector<std::string> GetStringArray(const std::string& key) override;
    const void* GetObject(const std::string& key) override;

    std::vector<std::vector<Config>> GetArrayObject(const std::string& key) override;

  private:
    std::string m_fileContent;
    std::string m_parseError;  // where the last parse failed, for Create's log line
    rapidjson::MemoryPoolAllocator<> m_allocator;  // owns every value of m_document
    rapidjson::Document m_document;
};
