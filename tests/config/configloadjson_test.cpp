#include "config/configloadjson.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>

#include "config/interface/configloadfactory.h"
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
    struct Case {
        ConfigLoadCreateData data;
        const char* expectedLog;           // null: a reader is returned
        int initialized;                   // what Initialize returns on the same data
        const char* parseError = nullptr;  // Create's second line: where the JSON breaks
    } cases[] = {
        {{CONFIG_FILE_TYPE_JSON, dir / "good.json"}, nullptr, CONFIG_LOAD_OK},
        {{1, dir / "good.json"}, "Error fileType", CONFIG_LOAD_INVALID},
        {{CONFIG_FILE_TYPE_JSON, dir / "missing.json"},
         "Failed to initialize ConfigLoadJson: ",
         CONFIG_LOAD_NO_FILE},
        {{CONFIG_FILE_TYPE_JSON, dir / "bad.json"},
         "Failed to initialize ConfigLoadJson: ",
         CONFIG_LOAD_INVALID,
         "bad.json is not valid JSON at line 1, column 7 (byte offset 6): Invalid value."},
        {{CONFIG_FILE_TYPE_JSON, dir.path()},
         "Failed to initialize ConfigLoadJson: ",
         CONFIG_LOAD_NO_FILE},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.data.fileName + " type " + std::to_string(c.data.fileType));
        LogCapture log;
        std::unique_ptr<ConfigLoad> loader(Configloadfactory::CreateObject(c.data));
        EXPECT_EQ(loader == nullptr, c.expectedLog != nullptr);
        EXPECT_EQ(log.Lines().size(), c.expectedLog ? (c.parseError ? 2u : 1u) : 0u) << log.Dump();
        EXPECT_EQ(log.Count(c.parseError ? c.parseError : "is not valid JSON"),
                  c.parseError ? 1 : 0);
        if (c.expectedLog != nullptr) {
            EXPECT_EQ(log.Count(c.expectedLog), 1) << log.Dump();
            EXPECT_EQ(log.Contains(c.data.fileName), c.data.fileType == CONFIG_FILE_TYPE_JSON);
        }
        // Initialize logs only a wrong type: parse errors are left to Create to report.
        LogCapture initLog;
        EXPECT_EQ(ConfigLoadJson().Initialize(c.data), c.initialized);
        EXPECT_EQ(initLog.Lines().size(), c.data.fileType == 1 ? 1u : 0u) << initLog.Dump();
        EXPECT_EQ(initLog.Count("Error file type: 1"), c.data.fileType == 1 ? 1 : 0);
    }
}

// Values of every JSON type at the root and again inside "obj".
const char* const kValues = R"({
    "int": 7, "negative": -3, "unsigned": 4294967295, "int64": -4294967296,
    "float": 2.0, "intFloat": 2, "exponent": 5e-1, "beyondFloat": 1e39,
    "text": "words", "empty": "", "flag": true, "nothing": null, "list": [1],
    "obj": {"int": 7, "unsigned": 4294967295, "float": 2.0, "intFloat": 2, "text": "words",
            "flag": true, "strings": ["x", "y"], "ints": [4, 5], "floats": [0.5], "empty": []},
    "strings": ["x", "y"], "floatThenStrings": [1.5, "y", 3], "intsThenText": [1, "a", 2.5, 8],
    "floatsThenInt": [1.5, 2, "z", 1e39], "intThenFloat": [2, 1.5], "emptyList": [],
    "nested": [[1]]
})";

enum Getter { INT, FLOAT, STRING, INTS, FLOATS, STRINGS, OBJECT };
enum Parent { ROOT, OBJ, LIST, NONE };  // NONE: a null parent pointer

template <typename T>
std::string Joined(const std::vector<T>& values) {
    std::ostringstream out;
    for (size_t i = 0; i < values.size(); ++i) {
        out << (i == 0 ? "" : ",") << values[i];
    }
    return out.str();
}

// Runs one look-up; gives its status and, as text, what its output holds afterwards. Scalars
// start as 99 / 99.0 / "previous" with -1 / -1.0 / "default" as the default; GetObject's output
// starts as a sentinel ("unchanged").
std::pair<int, std::string> LookUp(ConfigLoad& loader, Getter getter, Parent where,
                                   const std::string& key) {
    const void* parent = where == OBJ    ? loader.GetObject("obj")
                         : where == LIST ? loader.GetObject("list")
                                         : nullptr;
    const bool root = where == ROOT;
    std::ostringstream text;
    int status = -99;
    if (getter == INT) {
        int out = 99;
        status = root ? loader.GetInt(key, out, -1) : loader.GetInt(parent, key, out, -1);
        text << out;
    } else if (getter == FLOAT) {
        float out = 99.0f;
        status = root ? loader.GetFloat(key, out, -1.0f) : loader.GetFloat(parent, key, out, -1.0f);
        text << out;
    } else if (getter == STRING) {
        std::string out = "previous";
        status = root ? loader.GetString(key, out, "default")
                      : loader.GetString(parent, key, out, "default");
        text << out;
    } else if (getter == INTS) {
        std::vector<int> out;
        status = root ? loader.GetIntArray(key, out) : loader.GetIntArray(parent, key, out);
        text << Joined(out);
    } else if (getter == FLOATS) {
        std::vector<float> out;
        status = root ? loader.GetFloatArray(key, out) : loader.GetFloatArray(parent, key, out);
        text << Joined(out);
    } else if (getter == STRINGS) {
        std::vector<std::string> out;
        status = root ? loader.GetStringArray(key, out) : loader.GetStringArray(parent, key, out);
        text << Joined(out);
    } else {
        const void* sentinel = &sentinel;
        const void* out = sentinel;
        status = root ? loader.GetObject(key, &out) : loader.GetObject(parent, key, &out);
        text << (out == sentinel ? "unchanged" : out == nullptr ? "null" : "set");
    }
    return {status, text.str()};
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
        {INT, ROOT, {"int"}, 0, "7", nullptr},
        {INT, ROOT, {"negative"}, 0, "-3", nullptr},
        {INT,
         ROOT,
         {"unsigned", "int64", "float", "text", "flag", "nothing", "missing", ""},
         4,
         "-1",
         nullptr},
        {INT, OBJ, {"int"}, 0, "7", nullptr},
        {INT, OBJ, {"unsigned", "missing"}, 4, "-1", kKeyLog},
        {INT, OBJ, {""}, 4, "-1", nullptr},
        {INT, LIST, {"int"}, 4, "-1", kKeyLog},
        {INT, NONE, {"int"}, 4, "-1", kKeyLog},
        // Floats: written with a fraction or an exponent, within float range; an integer
        // literal is deliberately not a float.
        {FLOAT, ROOT, {"float"}, 0, "2", nullptr},
        {FLOAT, ROOT, {"exponent"}, 0, "0.5", nullptr},
        {FLOAT, ROOT, {"intFloat", "int", "beyondFloat", "text", "missing", ""}, 4, "-1", nullptr},
        {FLOAT, OBJ, {"intFloat"}, 4, "-1", kKeyLog},
        {STRING, ROOT, {"text"}, 0, "words", nullptr},
        {STRING, ROOT, {"empty"}, 0, "", nullptr},
        {STRING, ROOT, {"int", "list", "missing", ""}, 4, "default", nullptr},
        {STRING, OBJ, {"text"}, 0, "words", nullptr},
        // Arrays are judged by their first element only; later elements that the type cannot
        // give read as 0 or empty text, and any number within float range reads as a float.
        {INTS, ROOT, {"intsThenText"}, 0, "1,0,0,8", nullptr},
        {INTS, ROOT, {"intThenFloat"}, 0, "2,0", nullptr},
        {INTS,
         ROOT,
         {"floatsThenInt", "strings", "emptyList", "int", "missing", ""},
         4,
         "",
         nullptr},
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
        {OBJECT, ROOT, {"int"}, 0, "set", nullptr},
        {OBJECT, OBJ, {"missing"}, 0, "unchanged", nullptr},
        {OBJECT, OBJ, {"strings"}, 0, "set", nullptr},
        {OBJECT, OBJ, {""}, 4, "unchanged", kKeyLog},
        {OBJECT, LIST, {"x"}, 4, "unchanged", nullptr},
        {OBJECT, NONE, {"x"}, 4, "unchanged", nullptr}};
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
    EXPECT_EQ(loader->GetInt("int"), 7);
    EXPECT_EQ(loader->GetFloat("intFloat"), 0.0f);
    EXPECT_EQ(loader->GetString("int"), "");
    EXPECT_EQ(loader->GetFloatArray("intThenFloat"), std::vector<float>());
}

TEST(ConfigLoadJson, ARootThatIsNotAnObjectHasNoKeys) {
    TempDir dir;
    auto loader = LoaderFor(dir, "[1, 2]");
    ASSERT_NE(loader, nullptr);
    int out = 0;
    EXPECT_EQ(loader->GetInt("0", out, 5), 4);
    EXPECT_EQ(out, 5);
    EXPECT_EQ(loader->GetObject("0"), nullptr);
    EXPECT_TRUE(loader->GetArrayObject("0").empty());
}

// "name=text:type ..." per flattened object (types: 0 bool, 1 int, 2 float, 3 string).
std::vector<std::string> Flattened(ConfigLoad& loader, const std::string& key) {
    std::vector<std::string> lists;
    for (const std::vector<Config>& entries : loader.GetArrayObject(key)) {
        std::ostringstream text;
        for (const Config& entry : entries) {
            text << (text.tellp() == 0 ? "" : " ") << entry.name << "=" << entry.data.GetText()
                 << ":" << entry.data.GetType();
        }
        lists.push_back(text.str());
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
    // all give nothing gives an empty one. Integers beyond 32 bits keep their digits as text.
    EXPECT_EQ(Flattened(*loader, "HOOK_GROUP"),
              (std::vector<std::string>{
                  "group_id=1:1 group_name=g:3 case=3:1 case=1:1 case=3:1",
                  "i=-2:1 f=2.5:2 b=false:0 s=t:3 big=4294967295:2 mixed=true:0 mixed=u:3", ""}));
    auto lists = loader->GetArrayObject("HOOK_GROUP");
    EXPECT_EQ(lists[0][4].data.GetInt(), 3);
    EXPECT_EQ(lists[1][1].data.GetFloat(), 2.5f);
    EXPECT_EQ(lists[1][4].data.GetFloat(), 4294967295.0f);
    EXPECT_TRUE(lists[1][5].data.GetBool());
    for (const char* key : {"notList", "emptyList", "missing"}) {
        EXPECT_TRUE(loader->GetArrayObject(key).empty()) << key;
    }
}

TEST(ConfigData, PrintsByType) {
    Data empty;
    Data flag;
    flag.SetBool(true, "true");
    Data number;
    number.SetInt(-4, "-4");
    Data fraction;
    fraction.SetFloat(0.25f, "0.25");
    std::ostringstream out;
    out << empty << "|" << flag << "|" << number << "|" << fraction << "|" << Data("text");
    EXPECT_EQ(out.str(), "|1|-4|0.25|text");
    // The typed getters answer only for their own type.
    EXPECT_EQ(number.GetFloat(), 0.0f);
    EXPECT_EQ(Data("7").GetInt(), 0);
    EXPECT_EQ(Config("n", static_cast<const char*>(nullptr)).data.GetText(), "");
    EXPECT_EQ(Config("n", "v").data.GetType(), Data::TYPE_STRING);
}

}  // namespace
