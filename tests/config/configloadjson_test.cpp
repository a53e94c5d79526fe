#include "config/configloadjson.h"
#include "config/interface/configloadfactory.h"
#include "utils/json/jsonhelper.h"
#include "utils/json/jsonparse.h"

#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <sstream>

#include "tests/support/testsupport.h"

namespace {

using namespace corvanetest;

// A reader over `json`, written to a file of `dir`.
std::unique_ptr<ConfigLoad> LoaderFor(const TempDir& dir, const std::string& json) {
    WriteTextFile(dir / "config.json", json);
    return std::unique_ptr<ConfigLoad>(
        Configloadfactory::CreateObject({CONFIG_FILE_TYPE_JSON, dir / "config.json"}));
}

TEST(ConfigLoadFactory, OnlyJsonFilesOfReadableValidJsonGiveAReader) {
    TempDir dir;
    WriteTextFile(dir / "good.json", "{}");
    WriteTextFile(dir / "bad.json", "{\"a\": }");
    const std::string failed = "Failed to initialize ConfigLoadJson: ";
    const struct {
        ConfigLoadCreateData data;
        int initialized;   // what Initialize gives on the same data
        std::string logs;  // what Create logs, one "|" per line; empty: a reader is returned
    } cases[] = {
        {{CONFIG_FILE_TYPE_JSON, dir / "good.json"}, CONFIG_LOAD_OK, ""},
        {{1, dir / "good.json"}, CONFIG_LOAD_INVALID, "Error fileType|"},
        {{CONFIG_FILE_TYPE_JSON, dir / "missing.json"},
         CONFIG_LOAD_NO_FILE,
         failed + dir / "missing.json|"},
        {{CONFIG_FILE_TYPE_JSON, dir.path()}, CONFIG_LOAD_NO_FILE, failed + dir.path() + "|"},
        // Where the JSON breaks, as an editor counts.
        {{CONFIG_FILE_TYPE_JSON, dir / "bad.json"},
         CONFIG_LOAD_INVALID,
         failed + dir / "bad.json|" + dir / "bad.json" +
             " is not valid JSON at line 1, column 7 (byte offset 6): Invalid value.|"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.data.fileName + " type " + std::to_string(c.data.fileType));
        LogCapture log;
        std::unique_ptr<ConfigLoad> loader(Configloadfactory::CreateObject(c.data));
        EXPECT_EQ(loader == nullptr, !c.logs.empty());
        std::string logs;
        for (const LogLine& line : log.Lines()) {
            logs += line.message.substr(line.message.find("() ") + 3) + "|";  // no source place
        }
        EXPECT_EQ(logs, c.logs);
        // Initialize logs only a wrong type: parse errors are left to Create to report.
        LogCapture initLog;
        EXPECT_EQ(ConfigLoadJson().Initialize(c.data), c.initialized);
        EXPECT_EQ(initLog.Lines().size(), c.data.fileType == 1 ? 1u : 0u) << initLog.Dump();
    }
}

// Values of every JSON type at the root and again inside "obj".
const char* const kValues = R"({
    "negative": -3, "unsigned": 4294967295, "int64": -4294967296, "intFloat": 2,
    "exponent": 5e-1, "beyondFloat": 1e39, "text": "words", "flag": true, "list": [1],
    "obj": {"int": 7, "unsigned": 4294967295, "float": 2.0, "intFloat": 2, "text": "words",
            "strings": ["x", "y"], "ints": [4, 5], "floats": [0.5], "empty": []},
    "strings": ["x", "y"], "floatThenStrings": [1.5, "y", 3], "intsThenText": [1, "a", 2.5, 8],
    "floatsThenInt": [1.5, 2, "z", 1e39], "intThenFloat": [2, 1.5], "emptyList": []
})";

enum Getter { INT, FLOAT, STRING, INTS, FLOATS, STRINGS, OBJECT };
enum Parent { ROOT, OBJ, LIST, NONE };  // NONE: a null parent pointer

template <typename T>
std::string Text(const T& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

template <typename T>
std::string Text(const std::vector<T>& values) {
    std::string text;
    for (size_t i = 0; i < values.size(); ++i) {
        text += (i == 0 ? "" : ",") + Text(values[i]);
    }
    return text;
}

// Runs one look-up; gives its status and, as text, what its output holds afterwards. Scalars
// start as 99 / "previous" with -1 / "default" as the default; GetObject's output starts as a
// sentinel ("unchanged").
std::pair<int, std::string> LookUp(ConfigLoad& loader, Getter getter, Parent where,
                                   const std::string& key) {
    const void* parent = where == OBJ    ? loader.GetObject("obj")
                         : where == LIST ? loader.GetObject("list")
                                         : nullptr;
    const bool root = where == ROOT;
    int status = -99;
    std::string text;
    if (getter == INT) {
        int out = 99;
        status = root ? loader.GetInt(key, out, -1) : loader.GetInt(parent, key, out, -1);
        text = Text(out);
    } else if (getter == FLOAT) {
        float out = 99.0f;
        status = root ? loader.GetFloat(key, out, -1.0f) : loader.GetFloat(parent, key, out, -1.0f);
        text = Text(out);
    } else if (getter == STRING) {
        text = "previous";
        status = root ? loader.GetString(key, text, "default")
                      : loader.GetString(parent, key, text, "default");
    } else if (getter == INTS) {
        std::vector<int> out;
        status = root ? loader.GetIntArray(key, out) : loader.GetIntArray(parent, key, out);
        text = Text(out);
    } else if (getter == FLOATS) {
        std::vector<float> out;
        status = root ? loader.GetFloatArray(key, out) : loader.GetFloatArray(parent, key, out);
        text = Text(out);
    } else if (getter == STRINGS) {
        std::vector<std::string> out;
        status = root ? loader.GetStringArray(key, out) : loader.GetStringArray(parent, key, out);
        text = Text(out);
    } else {
        const void* sentinel = &sentinel;
        const void* out = sentinel;
        status = root ? loader.GetObject(key, &out) : loader.GetObject(parent, key, &out);
        text = out == sentinel ? "unchanged" : out == nullptr ? "null" : "set";
    }
    return {status, text};
}

constexpr const char* kKeyLog = "Failed to get key: ";  // the key is appended

// Each getter's deliberate strictness and quirks. Look-ups at the root are silent; inside a
// parent a missing or mistyped key is logged.
TEST(ConfigLoadJson, GettersByParentKeyAndStoredType) {
    TempDir dir;
    auto loader = LoaderFor(dir, kValues);
    ASSERT_NE(loader, nullptr);
    struct Case {
        Getter getter;
        Parent parent;
        std::vector<std::string> keys;  // each gives the same answer
        int status;
        const char* value;
        const char* log;  // null: nothing logged; kKeyLog: "Failed to get key: <key>"
    } cases[] = {
        // Integers: only values that fit an int.
        {INT, ROOT, {"negative"}, 0, "-3", nullptr},
        {INT, ROOT, {"unsigned", "int64", "exponent", "text", "missing", ""}, 4, "-1", nullptr},
        {INT, OBJ, {"int"}, 0, "7", nullptr},
        {INT, OBJ, {"unsigned", "missing"}, 4, "-1", kKeyLog},
        {INT, OBJ, {""}, 4, "-1", nullptr},
        {INT, LIST, {"int"}, 4, "-1", kKeyLog},
        {INT, NONE, {"int"}, 4, "-1", kKeyLog},
        // Floats: written with a fraction or an exponent, within float range.
        {FLOAT, ROOT, {"exponent"}, 0, "0.5", nullptr},
        {FLOAT, ROOT, {"intFloat", "beyondFloat", "text", "missing", ""}, 4, "-1", nullptr},
        {FLOAT, OBJ, {"float"}, 0, "2", nullptr},
        {FLOAT, OBJ, {"intFloat"}, 4, "-1", kKeyLog},
        {STRING, ROOT, {"text"}, 0, "words", nullptr},
        {STRING, ROOT, {"negative", "list", "missing", ""}, 4, "default", nullptr},
        {STRING, OBJ, {"text"}, 0, "words", nullptr},
        {STRING, OBJ, {"int"}, 4, "default", kKeyLog},
        // Arrays are judged by their first element only; later elements that the type cannot
        // give read as 0 or empty text, and any number within float range reads as a float.
        {INTS, ROOT, {"intsThenText"}, 0, "1,0,0,8", nullptr},
        {INTS, ROOT, {"floatsThenInt", "strings", "emptyList", "negative", ""}, 4, "", nullptr},
        {INTS, OBJ, {"ints"}, 0, "4,5", nullptr},
        {INTS, OBJ, {"strings"}, 4, "", kKeyLog},
        {FLOATS, ROOT, {"floatsThenInt"}, 0, "1.5,2,0,0", nullptr},
        {FLOATS, ROOT, {"intThenFloat"}, 4, "", nullptr},
        {FLOATS, OBJ, {"floats"}, 0, "0.5", nullptr},
        {FLOATS, OBJ, {"ints"}, 4, "", kKeyLog},
        // At the root the first string must pass the float test, deliberately; inside a parent
        // it must be a string.
        {STRINGS, ROOT, {"strings"}, 4, "", nullptr},
        {STRINGS, ROOT, {"floatThenStrings"}, 0, ",y,", nullptr},
        {STRINGS, OBJ, {"strings"}, 0, "x,y", nullptr},
        {STRINGS, OBJ, {"missing", "ints", "empty", "text"}, 4, "", kKeyLog},
        // Any type is an "object"; inside a parent a missing key succeeds and leaves the output
        // as it was, deliberately.
        {OBJECT, ROOT, {"missing"}, CONFIG_LOAD_NO_FILE, "null", "key is not found: missing"},
        {OBJECT, ROOT, {""}, 4, "unchanged", "key is empty"},
        {OBJECT, ROOT, {"negative"}, 0, "set", nullptr},
        {OBJECT, OBJ, {"missing"}, 0, "unchanged", nullptr},
        {OBJECT, OBJ, {"strings"}, 0, "set", nullptr},
        {OBJECT, OBJ, {""}, 4, "unchanged", kKeyLog},
        {OBJECT, LIST, {"x"}, 4, "unchanged", nullptr}};
    for (const Case& c : cases) {
        for (const std::string& key : c.keys) {
            SCOPED_TRACE("getter " + std::to_string(c.getter) + " parent " +
                         std::to_string(c.parent) + " key \"" + key + "\"");
            LogCapture log;
            EXPECT_EQ(LookUp(*loader, c.getter, c.parent, key),
                      std::make_pair(c.status, std::string(c.value)));
            EXPECT_EQ(log.Lines().size(), c.log ? 1u : 0u) << log.Dump();
            if (c.log != nullptr) {
                EXPECT_EQ(log.Count(c.log == kKeyLog ? kKeyLog + key : c.log), 1);
            }
        }
    }
    // Arrays are appended to, and a failure leaves what was there.
    std::vector<std::string> kept{"kept"};
    EXPECT_EQ(loader->GetStringArray(loader->GetObject("obj"), "strings", kept), 0);
    EXPECT_EQ(loader->GetStringArray(loader->GetObject("obj"), "ints", kept), 4);
    EXPECT_EQ(kept, (std::vector<std::string>{"kept", "x", "y"}));
    // The convenience forms give the value or zero.
    EXPECT_EQ(loader->GetInt("negative"), -3);
    EXPECT_EQ(loader->GetFloat("intFloat"), 0.0f);
    EXPECT_EQ(loader->GetString("negative"), "");
    EXPECT_EQ(loader->GetFloatArray("intThenFloat"), std::vector<float>());
}

// "name=printed:type ..." per flattened object (types: 0 bool, 1 int, 2 float, 3 string).
std::vector<std::string> Flattened(ConfigLoad& loader, const std::string& key) {
    std::vector<std::string> lists;
    for (const std::vector<Config>& entries : loader.GetArrayObject(key)) {
        std::string text;
        for (const Config& entry : entries) {
            text += (text.empty() ? "" : " ") + entry.name + "=" + Text(entry.data) + ":" +
                    std::to_string(entry.data.GetType());
        }
        lists.push_back(text);
    }
    return lists;
}

TEST(ConfigLoadJson, ArrayObjectFlattensScalarsAndArrayMembersInDocumentOrder) {
    TempDir dir;
    auto loader = LoaderFor(dir, R"({"HOOK_GROUP": [
        {"group_id": 1, "group_name": "g", "case": [3, 1, 3]},
        {"i": -2, "f": 2.5, "b": false, "s": "t", "big": 4294967295, "huge": 1e39,
         "nil": null, "obj": {"x": 1}, "none": [], "mixed": [true, null, [1], {"y": 2}, "u"]},
        7, "text", [], {}, {"nil": null}
    ], "notList": {"a": 1}, "emptyList": []})");
    ASSERT_NE(loader, nullptr);
    // Elements that are not objects and empty objects give no list; an object whose members
    // all give nothing gives an empty one.
    EXPECT_EQ(Flattened(*loader, "HOOK_GROUP"),
              (std::vector<std::string>{
                  "group_id=1:1 group_name=g:3 case=3:1 case=1:1 case=3:1",
                  "i=-2:1 f=2.5:2 b=0:0 s=t:3 big=4.29497e+09:2 mixed=1:0 mixed=u:3", ""}));
    // Integers beyond 32 bits keep their digits in the text; typed getters answer their type.
    Data big = loader->GetArrayObject("HOOK_GROUP")[1][4].data;
    EXPECT_EQ(big.GetText(), "4294967295");
    EXPECT_EQ(big.GetInt(), 0);
    for (const char* key : {"notList", "emptyList", "missing"}) {
        EXPECT_TRUE(loader->GetArrayObject(key).empty()) << key;
    }
    // A root that is not an object has no keys.
    auto list = LoaderFor(dir, "[{\"a\": 1}]");
    EXPECT_EQ(list->GetObject("0"), nullptr);
    EXPECT_TRUE(list->GetArrayObject("0").empty());
    EXPECT_EQ(Config("n", static_cast<const char*>(nullptr)).data.GetText(), "");
}

std::string Nested(size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

TEST(JsonHelper, ReadsWithinTheSizeAndDepthLimitsAndReportsEveryFailure) {
    TempDir dir;
    const struct {
        const char* name;  // "missing.json" is not written, "" is the directory itself
        std::string content;
        int result;
        const char* log;
    } cases[] = {
        {"relaxed.json", "// note\n{\"a\": [1, 2,],}", 0, "File size: "},
        {"limit.json", '"' + std::string(5242878, 'x') + '"', 0, "File size: 5242880"},
        {"over.json", '"' + std::string(5242879, 'x') + '"', JSON_FILE_TOO_LARGE, "exceeds limit"},
        {"deepest.json", Nested(JSON_MAX_DEPTH), 0, "File size: "},
        {"deeper.json", Nested(JSON_MAX_DEPTH + 1), 1, "Error parsing JSON file"},
        {"missing.json", "", 1, "Could not get file properties "},
        {"", "", 1, "Error parsing JSON file"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (*c.name != '\0' && std::string(c.name) != "missing.json") {
            WriteTextFile(dir / c.name, c.content);
        }
        LogCapture log;
        rapidjson::Document doc;
        EXPECT_EQ(ReadJsonFile(dir / c.name, doc), c.result);
        EXPECT_EQ(doc.IsNull(), c.result != 0);  // a refused file leaves nothing behind
        EXPECT_TRUE(log.Contains(c.log)) << log.Dump();
    }
}

TEST(JsonHelper, WritesCompactlyAndReportsEveryWriteFailure) {
    TempDir dir;
    std::string path = dir / "out.json";
    WriteTextFile(path, std::string(100, ' '));  // a longer old file is replaced, not overlaid
    rapidjson::Document doc;
    doc.Parse(R"([ {"name": "imx", "time": 1700000000123, "ok": true, "ratio": 0.1} ])");
    EXPECT_EQ(WriteJsonFile(path, doc), 0);
    EXPECT_EQ(ReadTextFile(path), R"([{"name":"imx","time":1700000000123,"ok":true,"ratio":0.1}])");

    LogCapture log;
    EXPECT_EQ(WriteJsonFile(dir / "no/such/dir.json", doc), 1);
    EXPECT_TRUE(log.Contains("Could not open file for writing")) << log.Dump();
    // A full disk only shows when the buffered text is flushed.
    EXPECT_EQ(WriteJsonFile("/dev/full", doc), 1);
    EXPECT_TRUE(log.Contains("Error: could not write /dev/full")) << log.Dump();
    rapidjson::Document nan;
    nan.SetDouble(std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(WriteJsonFile(dir / "nan.json", nan), 1);
    EXPECT_EQ(log.Count("Error: "), 2) << log.Dump();
}

}  // namespace
