// The JSON configuration loader on a file of fuzzer bytes, through the factory as every reader of
// configuration obtains it, then every getter on every key the file holds: root look-ups, their
// convenience forms, GetArrayObject, and the parent look-ups inside every object and array element
// reached through GetObject, a few levels down. Besides the sanitizers' checks, the loader's own
// promises are checked: only its three status codes, the default written on every failed scalar
// look-up, arrays untouched by a failed look-up, convenience forms that agree with the full ones.
#include <math.h>
#include <rapidjson/document.h>
#include <rapidjson/memorystream.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "config/interface/configloadfactory.h"
#include "fuzz/fuzzsupport.h"
#include "utils/json/jsonparse.h"

namespace {

using rapidjson::Value;

// Enough to reach everything a seed holds; keeps a wide mutant from taking seconds.
constexpr size_t kMaxKeysPerLevel = 24;
constexpr int kMaxDepth = 3;

std::string g_path;

bool IsStatus(int status) {
    return status == CONFIG_LOAD_OK || status == CONFIG_LOAD_INVALID ||
           status == CONFIG_LOAD_NO_FILE;
}

// The member names of `value` (none when it is not an object), in file order.
std::vector<std::string> KeysOf(const Value& value) {
    std::vector<std::string> keys;
    if (!value.IsObject()) {
        return keys;
    }
    for (const auto& member : value.GetObject()) {
        if (keys.size() == kMaxKeysPerLevel) {
            break;
        }
        keys.emplace_back(member.name.GetString(), member.name.GetStringLength());
    }
    // Names no file holds: the empty key and one that is never there.
    keys.emplace_back();
    keys.emplace_back("\x01no such key");
    return keys;
}

template <typename T>
void CheckArrayLookup(int status, const std::vector<T>& out, size_t before) {
    FUZZ_CHECK(IsStatus(status));
    FUZZ_CHECK(status == CONFIG_LOAD_OK ? out.size() > before : out.size() == before);
}

void CheckRootLookups(ConfigLoad& loader, const std::string& key) {
    int intValue = 0;
    int status = loader.GetInt(key, intValue, 17);
    FUZZ_CHECK(IsStatus(status));
    FUZZ_CHECK(status == CONFIG_LOAD_OK || intValue == 17);
    FUZZ_CHECK(loader.GetInt(key) == (status == CONFIG_LOAD_OK ? intValue : 0));

    float floatValue = 0.0f;
    status = loader.GetFloat(key, floatValue, 2.5f);
    FUZZ_CHECK(IsStatus(status));
    FUZZ_CHECK(status == CONFIG_LOAD_OK ? isfinite(floatValue) : floatValue == 2.5f);
    float convenient = loader.GetFloat(key);
    FUZZ_CHECK(status == CONFIG_LOAD_OK ? convenient == floatValue : convenient == 0.0f);

    std::string text = "unchanged";
    status = loader.GetString(key, text, "default");
    FUZZ_CHECK(IsStatus(status));
    FUZZ_CHECK(status == CONFIG_LOAD_OK || text == "default");
    FUZZ_CHECK(loader.GetString(key) == (status == CONFIG_LOAD_OK ? text : std::string()));

    std::vector<int> ints = {1};
    CheckArrayLookup(loader.GetIntArray(key, ints), ints, 1);
    ints.erase(ints.begin());
    FUZZ_CHECK(loader.GetIntArray(key) == ints);

    std::vector<float> floats = {1.0f};
    CheckArrayLookup(loader.GetFloatArray(key, floats), floats, 1);
    floats.erase(floats.begin());
    FUZZ_CHECK(loader.GetFloatArray(key).size() == floats.size());

    std::vector<std::string> strings = {"first"};
    CheckArrayLookup(loader.GetStringArray(key, strings), strings, 1);
    strings.erase(strings.begin());
    FUZZ_CHECK(loader.GetStringArray(key) == strings);

    for (const std::vector<Config>& entries : loader.GetArrayObject(key)) {
        for (const Config& entry : entries) {
            int type = entry.data.GetType();
            FUZZ_CHECK(type >= Data::TYPE_BOOL && type <= Data::TYPE_STRING);
        }
    }
}

void CheckParentLookups(ConfigLoad& loader, const void* parent, int depth);

void CheckParentLookupsOfKey(ConfigLoad& loader, const void* parent, const std::string& key,
                             int depth) {
    int intValue = 0;
    int status = loader.GetInt(parent, key, intValue, -3);
    FUZZ_CHECK(IsStatus(status));
    FUZZ_CHECK(status == CONFIG_LOAD_OK || intValue == -3);

    float floatValue = 0.0f;
    status = loader.GetFloat(parent, key, floatValue, -1.5f);
    FUZZ_CHECK(IsStatus(status));
    FUZZ_CHECK(status == CONFIG_LOAD_OK ? isfinite(floatValue) : floatValue == -1.5f);

    std::string text;
    status = loader.GetString(parent, key, text, "fallback");
    FUZZ_CHECK(IsStatus(status));
    FUZZ_CHECK(status == CONFIG_LOAD_OK || text == "fallback");

    std::vector<int> ints = {7};
    CheckArrayLookup(loader.GetIntArray(parent, key, ints), ints, 1);
    std::vector<float> floats;
    CheckArrayLookup(loader.GetFloatArray(parent, key, floats), floats, 0);
    std::vector<std::string> strings = {"kept"};
    CheckArrayLookup(loader.GetStringArray(parent, key, strings), strings, 1);

    const void* marker = &loader;  // a missing key leaves the caller's value in place
    const void* child = marker;
    status = loader.GetObject(parent, key, &child);
    FUZZ_CHECK(IsStatus(status));
    if (status == CONFIG_LOAD_OK && child != marker) {
        CheckParentLookups(loader, child, depth + 1);
    }
}

// Every parent look-up on every key of `parent`, then the same inside array elements.
void CheckParentLookups(ConfigLoad& loader, const void* parent, int depth) {
    if (depth > kMaxDepth) {
        return;
    }
    const Value& value = *static_cast<const Value*>(parent);
    for (const std::string& key : KeysOf(value)) {
        CheckParentLookupsOfKey(loader, parent, key, depth);
    }
    if (value.IsArray()) {
        size_t visited = 0;
        for (const Value& element : value.GetArray()) {
            if (visited++ == kMaxKeysPerLevel) {
                break;
            }
            CheckParentLookups(loader, &element, depth + 1);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_path = corvanefuzz::SetUpSysroot() + "/odm/etc/camera/fuzz_config.json";
    corvanefuzz::SilenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    corvanefuzz::WriteWholeFile(g_path, data, size);
    ConfigLoadCreateData createData;
    createData.fileName = g_path;
    std::unique_ptr<ConfigLoad> loader(Configloadfactory::CreateObject(createData));
    // The keys to ask for come from the same parse the loader does; the loader refuses exactly
    // the files that parse fails on.
    rapidjson::Document document;
    rapidjson::MemoryStream stream(reinterpret_cast<const char*>(data), size);
    bool parsed = ParseJson(stream, document);
    FUZZ_CHECK(parsed == (loader != nullptr));
    if (loader == nullptr) {
        return 0;
    }
    for (const std::string& key : KeysOf(document)) {
        CheckRootLookups(*loader, key);
        const void* object = nullptr;
        int status = loader->GetObject(key, &object);
        FUZZ_CHECK(IsStatus(status));
        FUZZ_CHECK((status == CONFIG_LOAD_OK) == (object != nullptr));
        FUZZ_CHECK(loader->GetObject(key) == object);
        if (object != nullptr) {
            CheckParentLookups(*loader, object, 1);
        }
    }
    // A null parent has no members.
    CheckParentLookupsOfKey(*loader, nullptr, "key", kMaxDepth);
    return 0;
}
