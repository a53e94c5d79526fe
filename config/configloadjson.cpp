#include "config/configloadjson.h"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <utility>

#include "core/controller/corvanesystemlog.h"
#include "utils/fileutils.h"
#include "utils/json/jsonparse.h"

namespace {

using rapidjson::Value;

// The member `key` of `object`, or null when `object` is not an object or has no such member.
const Value* FindMember(const Value* object, const std::string& key) {
    if (object == nullptr || !object->IsObject()) {
        return nullptr;
    }
    Value::ConstMemberIterator member = object->FindMember(key);
    return member == object->MemberEnd() ? nullptr : &member->value;
}

// A non-empty array, or null.
const Value* AsNonEmptyArray(const Value* value) {
    return value != nullptr && value->IsArray() && !value->Empty() ? value : nullptr;
}

// The type tests of the getters. A float must be stored as a double (written with a fraction or
// an exponent) within +/-3.4028234e38, so an integer literal is deliberately not a float.
bool IsIntValue(const Value& value) {
    return value.IsInt();
}
bool IsFloatValue(const Value& value) {
    return value.IsFloat();
}
bool IsStringValue(const Value& value) {
    return value.IsString();
}

// The readings of array elements. Only the first element of an array is type-tested, so the
// others may be anything: what the element's type cannot give reads as 0, 0.0 or empty text.
// Any number within float range reads as a float, so [1.5, 2] gives 1.5 and 2.
int IntReading(const Value& value) {
    return value.IsInt() ? value.GetInt() : 0;
}
bool WithinFloatRange(const Value& value) {
    if (!value.IsNumber()) {
        return false;
    }
    double number = value.GetDouble();
    return number >= -3.4028234e38 && number <= 3.4028234e38;
}
float FloatReading(const Value& value) {
    return WithinFloatRange(value) ? static_cast<float>(value.GetDouble()) : 0.0f;
}
std::string StringReading(const Value& value) {
    return value.IsString() ? std::string(value.GetString(), value.GetStringLength())
                            : std::string();
}

// Appends the reading of every element of `array`; true when something was appended.
template <typename T>
bool AppendReadings(const Value& array, T (*reading)(const Value&), std::vector<T>& out) {
    size_t before = out.size();
    for (const Value& element : array.GetArray()) {
        out.push_back(reading(element));
    }
    return out.size() > before;
}

// The value as the JSON writer prints it: "7", "2.5", "4294967295", "true".
std::string JsonText(const Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return std::string(buffer.GetString(), buffer.GetSize());
}

// Appends the entry a scalar gives to a flattened object; values without one (null, objects,
// arrays, numbers beyond float range) give none.
void AppendScalarEntry(const std::string& name, const Value& value, std::vector<Config>& out) {
    Data data;
    if (value.IsInt()) {
        data.SetInt(value.GetInt(), std::to_string(value.GetInt()));
    } else if (WithinFloatRange(value)) {
        // Integers beyond 32 bits land here too; their exact digits stay in the text.
        data.SetFloat(static_cast<float>(value.GetDouble()), JsonText(value));
    } else if (value.IsBool()) {
        data.SetBool(value.GetBool(), value.GetBool() ? "true" : "false");
    } else if (value.IsString()) {
        out.emplace_back(name, std::string(value.GetString(), value.GetStringLength()));
        return;
    } else {
        return;
    }
    out.emplace_back(name, std::move(data));
}

// Where and why `text` stops being JSON, as a person finds it in an editor: "line L, column C
// (byte offset O): reason". Parsed a second time, only after a failure, with the same rules.
std::string DescribeParseError(const std::string& text) {
    using Sink = rapidjson::BaseReaderHandler<>;
    Sink sink;
    JsonDepthLimiter<Sink> limiter(sink);
    rapidjson::MemoryStream stream(text.data(), text.size());
    rapidjson::Reader reader;
    rapidjson::ParseResult result = reader.Parse<JSON_PARSE_FLAGS>(stream, limiter);
    size_t offset = std::min(result.Offset(), text.size());
    size_t line = 1;
    size_t lineStart = 0;
    for (size_t i = 0; i < offset; ++i) {
        if (text[i] == '\n') {
            ++line;
            lineStart = i + 1;
        }
    }
    std::string reason = result.Code() == rapidjson::kParseErrorTermination
                             ? "nested deeper than " + std::to_string(JSON_MAX_DEPTH) + " levels"
                             : rapidjson::GetParseError_En(result.Code());
    return "line " + std::to_string(line) + ", column " + std::to_string(offset - lineStart + 1) +
           " (byte offset " + std::to_string(offset) + "): " + reason;
}

}  // namespace

ConfigLoadJson* ConfigLoadJson::Create(ConfigLoadCreateData data) {
    ConfigLoadJson* loader = new ConfigLoadJson();
    if (loader->Initialize(data) != CONFIG_LOAD_OK) {
        CORVANE_LOGE("Failed to initialize ConfigLoadJson: %s", data.fileName.c_str());
        if (!loader->m_parseError.empty()) {
            // Without it a missing comma leaves the user searching the whole file.
            CORVANE_LOGE("%s is not valid JSON at %s", data.fileName.c_str(),
                         loader->m_parseError.c_str());
        }
        delete loader;
        return nullptr;
    }
    return loader;
}

ConfigLoadJson::ConfigLoadJson()
    : m_allocator(POOL_CHUNK_CAPACITY), m_document(&m_allocator, PARSE_STACK_CAPACITY) {}

ConfigLoadJson::~ConfigLoadJson() = default;

int ConfigLoadJson::Initialize(ConfigLoadCreateData data) {
    if (data.fileType != CONFIG_FILE_TYPE_JSON) {
        CORVANE_LOGE("Error file type: %d", data.fileType);
        return CONFIG_LOAD_INVALID;
    }
    int result = ReadFile(data.fileName);
    if (result != CONFIG_LOAD_OK) {
        return result;
    }
    // Parse errors are not logged here: Create logs the failure with the file name.
    rapidjson::MemoryStream stream(m_fileContent.data(), m_fileContent.size());
    if (!ParseJson(stream, m_document)) {
        m_parseError = DescribeParseError(m_fileContent);
        return CONFIG_LOAD_INVALID;
    }
    m_parseError.clear();
    return CONFIG_LOAD_OK;
}

int ConfigLoadJson::ReadFile(const std::string& path) {
    // A file that opens but cannot be read (a directory, an I/O error) counts as not opened.
    return ReadWholeFile(path, &m_fileContent) ? CONFIG_LOAD_OK : CONFIG_LOAD_NO_FILE;
}

// ---- Look-ups at the root: no log lines. ----

int ConfigLoadJson::GetInt(const std::string& key, int& out, int defaultValue) {
    const Value* value = key.empty() ? nullptr : FindMember(&m_document, key);
    if (value == nullptr || !IsIntValue(*value)) {
        out = defaultValue;
        return CONFIG_LOAD_INVALID;
    }
    out = value->GetInt();
    return CONFIG_LOAD_OK;
}

int ConfigLoadJson::GetFloat(const std::string& key, float& out, float defaultValue) {
    const Value* value = key.empty() ? nullptr : FindMember(&m_document, key);
    if (value == nullptr || !IsFloatValue(*value)) {
        out = defaultValue;
        return CONFIG_LOAD_INVALID;
    }
    out = static_cast<float>(value->GetDouble());
    return CONFIG_LOAD_OK;
}

int ConfigLoadJson::GetString(const std::string& key, std::string& out, std::string defaultValue) {
    const Value* value = key.empty() ? nullptr : FindMember(&m_document, key);
    if (value == nullptr || !IsStringValue(*value)) {
        out = std::move(defaultValue);
        return CONFIG_LOAD_INVALID;
    }
    out.assign(value->GetString(), value->GetStringLength());
    return CONFIG_LOAD_OK;
}

int ConfigLoadJson::GetIntArray(const std::string& key, std::vector<int>& out) {
    const Value* array = key.empty() ? nullptr : AsNonEmptyArray(FindMember(&m_document, key));
    if (array == nullptr || !IsIntValue((*array)[0])) {
        return CONFIG_LOAD_INVALID;
    }
    return AppendReadings(*array, IntReading, out) ? CONFIG_LOAD_OK : CONFIG_LOAD_INVALID;
}

int ConfigLoadJson::GetFloatArray(const std::string& key, std::vector<float>& out) {
    const Value* array = key.empty() ? nullptr : AsNonEmptyArray(FindMember(&m_document, key));
    if (array == nullptr || !IsFloatValue((*array)[0])) {
        return CONFIG_LOAD_INVALID;
    }
    return AppendReadings(*array, FloatReading, out) ? CONFIG_LOAD_OK : CONFIG_LOAD_INVALID;
}

int ConfigLoadJson::GetStringArray(const std::string& key, std::vector<std::string>& out) {
    const Value* array = key.empty() ? nullptr : AsNonEmptyArray(FindMember(&m_document, key));
    // Deliberately the float test, not a string test: an array of strings at the root yields 4
    // and nothing. Readers of string arrays go through GetObject and the parent form, which
    // tests for a string.
    if (array == nullptr || !IsFloatValue((*array)[0])) {
        return CONFIG_LOAD_INVALID;
    }
    return AppendReadings(*array, StringReading, out) ? CONFIG_LOAD_OK : CONFIG_LOAD_INVALID;
}

int ConfigLoadJson::GetObject(const std::string& key, const void** out) {
    if (key.empty()) {
        CORVANE_LOGE("key is empty");
        return CONFIG_LOAD_INVALID;
    }
    if (out == nullptr) {
        return CONFIG_LOAD_INVALID;
    }
    const Value* value = FindMember(&m_document, key);
    *out = value;
    if (value == nullptr) {
        CORVANE_LOGE("key is not found: %s", key.c_str());
        return CONFIG_LOAD_NO_FILE;
    }
    return CONFIG_LOAD_OK;
}

// ---- Look-ups inside a parent: a missing key or a wrong type is logged. A parent that is null
// or not an object has no members, so every key is missing from it. ----

int ConfigLoadJson::GetInt(const void* parent, std::string key, int& out, int defaultValue) {
    if (key.empty()) {
        out = defaultValue;
        return CONFIG_LOAD_INVALID;
    }
    const Value* value = FindMember(static_cast<const Value*>(parent), key);
    if (value == nullptr || !IsIntValue(*value)) {
        out = defaultValue;
        CORVANE_LOGE("Failed to get key: %s", key.c_str());
        return CONFIG_LOAD_INVALID;
    }
    out = value->GetInt();
    return CONFIG_LOAD_OK;
}

int ConfigLoadJson::GetFloat(const void* parent, std::string key, float& out, float defaultValue) {
    if (key.empty()) {
        out = defaultValue;
        return CONFIG_LOAD_INVALID;
    }
    const Value* value = FindMember(static_cast<const Value*>(parent), key);
    if (value == nullptr || !IsFloatValue(*value)) {
        out = defaultValue;
        CORVANE_LOGE("Failed to get key: %s", key.c_str());
        return CONFIG_LOAD_INVALID;
    }
    out = static_cast<float>(value->GetDouble());
    return CONFIG_LOAD_OK;
}

int ConfigLoadJson::GetString(const void* parent, std::string key, std::string& out,
                              std::string defaultValue) {
    if (key.empty()) {
        out = std::move(defaultValue);
        return CONFIG_LOAD_INVALID;
    }
    const Value* value = FindMember(static_cast<const Value*>(parent), key);
    if (value == nullptr || !IsStringValue(*value)) {
        out = std::move(defaultValue);
        CORVANE_LOGE("Failed to get key: %s", key.c_str());
        return CONFIG_LOAD_INVALID;
    }
    out.assign(value->GetString(), value->GetStringLength());
    return CONFIG_LOAD_OK;
}

int ConfigLoadJson::GetIntArray(const void* parent, std::string key, std::vector<int>& out) {
    const Value* array =
        key.empty() ? nullptr : AsNonEmptyArray(FindMember(static_cast<const Value*>(parent), key));
    if (array == nullptr || !IsIntValue((*array)[0]) || !AppendReadings(*array, IntReading, out)) {
        CORVANE_LOGE("Failed to get key: %s", key.c_str());
        return CONFIG_LOAD_INVALID;
    }
    return CONFIG_LOAD_OK;
}

int ConfigLoadJson::GetFloatArray(const void* parent, std::string key, std::vector<float>& out) {
    const Value* array =
        key.empty() ? nullptr : AsNonEmptyArray(FindMember(static_cast<const Value*>(parent), key));
    if (array == nullptr || !IsFloatValue((*array)[0]) ||
        !AppendReadings(*array, FloatReading, out)) {
        CORVANE_LOGE("Failed to get key: %s", key.c_str());
        return CONFIG_LOAD_INVALID;
    }
    return CONFIG_LOAD_OK;
}

int ConfigLoadJson::GetStringArray(const void* parent, std::string key,
                                   std::vector<std::string>& out) {
    const Value* value = key.empty() ? nullptr : FindMember(static_cast<const Value*>(parent), key);
    if (value == nullptr) {
        CORVANE_LOGE("Failed to get key: %s", key.c_str());
        return CONFIG_LOAD_INVALID;
    }
    // Unlike the root form, the first element is tested for a string here.
    const Value* array = AsNonEmptyArray(value);
    if (array == nullptr || !IsStringValue((*array)[0]) ||
        !AppendReadings(*array, StringReading, out)) {
        CORVANE_LOGE("Failed to get key: %s", key.c_str());
        return CONFIG_LOAD_INVALID;
    }
    return CONFIG_LOAD_OK;
}

int ConfigLoadJson::GetObject(const void* parent, const std::string& key, const void** out) {
    if (key.empty()) {
        CORVANE_LOGE("Failed to get key: %s", key.c_str());
        return CONFIG_LOAD_INVALID;
    }
    const Value* object = static_cast<const Value*>(parent);
    if (object == nullptr || !object->IsObject() || out == nullptr) {
        return CONFIG_LOAD_INVALID;
    }
    // A missing key succeeds and leaves *out as it was, deliberately: callers pass in the value
    // they want to keep when the key is absent.
    const Value* value = FindMember(object, key);
    if (value != nullptr) {
        *out = value;
    }
    return CONFIG_LOAD_OK;
}

// ---- Convenience forms: through the virtual table, status dropped. ----

int ConfigLoadJson::GetInt(const std::string& key) {
    int out = 0;
    GetInt(key, out, 0);
    return out;
}

float ConfigLoadJson::GetFloat(const std::string& key) {
    float out = 0.0f;
    GetFloat(key, out, 0.0f);
    return out;
}

std::string ConfigLoadJson::GetString(const std::string& key) {
    std::string out;
    GetString(key, out, std::string());
    return out;
}

std::vector<int> ConfigLoadJson::GetIntArray(const std::string& key) {
    std::vector<int> out;
    GetIntArray(key, out);
    return out;
}

std::vector<float> ConfigLoadJson::GetFloatArray(const std::string& key) {
    std::vector<float> out;
    GetFloatArray(key, out);
    return out;
}

std::vector<std::string> ConfigLoadJson::GetStringArray(const std::string& key) {
    std::vector<std::string> out;
    GetStringArray(key, out);
    return out;
}

const void* ConfigLoadJson::GetObject(const std::string& key) {
    const void* out = nullptr;
    GetObject(key, &out);
    return out;
}

std::vector<std::vector<Config>> ConfigLoadJson::GetArrayObject(const std::string& key) {
    std::vector<std::vector<Config>> result;
    const Value* array = key.empty() ? nullptr : AsNonEmptyArray(FindMember(&m_document, key));
    if (array == nullptr) {
        return result;
    }
    for (const Value& element : array->GetArray()) {
        // Elements that are not objects, and empty objects, give no list.
        if (!element.IsObject() || element.ObjectEmpty()) {
            continue;
        }
        std::vector<Config> entries;
        for (const auto& member : element.GetObject()) {
            std::string name(member.name.GetString(), member.name.GetStringLength());
            if (member.value.IsArray()) {
                // "case": [1, 2] reads exactly like two members named "case". Nested arrays,
                // objects and nulls among the elements give nothing.
                for (const Value& item : member.value.GetArray()) {
                    AppendScalarEntry(name, item, entries);
                }
            } else {
                AppendScalarEntry(name, member.value, entries);
            }
        }
        result.push_back(std::move(entries));
    }
    return result;
}
