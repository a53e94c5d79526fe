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

TEST(ConfigLoadFactory, OnlyJsonFilesOfReadableValidJsonGiveAReader) {
    TempDir dir;
    WriteTextFile(dir / "good.json", "{}");
    WriteTextFile(dir / "bad.json", "{\"a\": }");
    struct Case {
        ConfigLoadCreateData data;
        const char* expectedLog;  // null: a reader is returned
    } cases[] = {
        {{CONFIG_FILE_TYPE_JSON, dir / "good.json"}, nullptr},
        {{1, dir / "good.json"}, "Error fileType"},
        {{CONFIG_FILE_TYPE_JSON, dir / "missing.json"}, "Failed to initialize ConfigLoadJson: "},
        {{CONFIG_FILE_TYPE_JSON, dir / "bad.json"}, "Failed to initialize ConfigLoadJson: "},
        {{CONFIG_FILE_TYPE_JSON, dir.path()}, "Failed to initialize ConfigLoadJson: "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.data.fileName + " type " + std::to_string(c.data.fileType));
        LogCapture log;
        std::unique_ptr<ConfigLoad> loader(Configloadfactory::CreateObject(c.data));
        if (c.expectedLog == nullptr) {
            EXPECT_NE(loader, nullptr);
            EXPECT_TRUE(log.Lines().empty()) << log.Dump();
            continue;
        }
        EXPECT_EQ(loader, nullptr);
        EXPECT_EQ(log.Count(c.expectedLog), 1) << log.Dump();
        if (c.data.fileType == CONFIG_FILE_TYPE_JSON) {
            EXPECT_TRUE(log.Contains(c.data.fileName)) << log.Dump();
        }
    }
}

TEST(ConfigLoadJson, InitializeReportsWhyTheFileWasRefused) {
    TempDir dir;
    WriteTextFile(dir / "bad.json", "not json");
    ConfigLoadJson loader;
    LogCapture log;
    EXPECT_EQ(loader.Initialize({2, dir / "bad.json"}), CONFIG_LOAD_INVALID);
    EXPECT_TRUE(log.Contains("Error file type: 2")) << log.Dump();
    EXPECT_EQ(loader.Initialize({CONFIG_FILE_TYPE_JSON, dir / "missing.json"}),
              CONFIG_LOAD_NO_FILE);
    EXPECT_EQ(loader.Initialize({CONFIG_FILE_TYPE_JSON, dir / "bad.json"}), CONFIG_LOAD_INVALID);
    EXPECT_EQ(loader.ReadFile(dir.path()), CONFIG_LOAD_NO_FILE);
    // Parse errors are left to Create to report.
    EXPECT_EQ(log.Lines().size(), 1u) << log.Dump();
}

TEST(ConfigLoadJson, RootScalarsAreStrictlyTypedAndSilent) {
    TempDir dir;
    auto loader = LoaderFor(dir, kValues);
    ASSERT_NE(loader, nullptr);
    struct IntCase {
        const char* key;
        int result;
        int value;
    } ints[] = {{"int", 0, 7},      {"negative", 0, -3}, {"unsigned", 4, -1}, {"int64", 4, -1},
                {"float", 4, -1},   {"text", 4, -1},     {"flag", 4, -1},     {"nothing", 4, -1},
                {"missing", 4, -1}, {"", 4, -1}};
    struct FloatCase {
        const char* key;
        int result;
        float value;
    } floats[] = {
        {"float", 0, 2.0f},        {"exponent", 0, 0.5f}, {"intFloat", 4, -1.0f}, {"int", 4, -1.0f},
        {"beyondFloat", 4, -1.0f}, {"text", 4, -1.0f},    {"missing", 4, -1.0f},  {"", 4, -1.0f}};
    struct StringCase {
        const char* key;
        int result;
        const char* value;
    } strings[] = {{"text", 0, "words"},   {"empty", 0, ""},          {"int", 4, "default"},
                   {"list", 4, "default"}, {"missing", 4, "default"}, {"", 4, "default"}};
    LogCapture log;
    for (const IntCase& c : ints) {
        int out = 99;
        EXPECT_EQ(loader->GetInt(c.key, out, -1), c.result) << c.key;
        EXPECT_EQ(out, c.value) << c.key;
    }
    for (const FloatCase& c : floats) {
        float out = 99.0f;
        EXPECT_EQ(loader->GetFloat(c.key, out, -1.0f), c.result) << c.key;
        EXPECT_EQ(out, c.value) << c.key;
    }
    for (const StringCase& c : strings) {
        std::string out = "previous";
        EXPECT_EQ(loader->GetString(c.key, out, "default"), c.result) << c.key;
        EXPECT_EQ(out, c.value) << c.key;
    }
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
    // The convenience forms give the value or zero.
    EXPECT_EQ(loader->GetInt("int"), 7);
    EXPECT_EQ(loader->GetFloat("intFloat"), 0.0f);
    EXPECT_EQ(loader->GetString("int"), "");
}

TEST(ConfigLoadJson, ParentScalarsLogMissingAndMistypedKeys) {
    TempDir dir;
    auto loader = LoaderFor(dir, kValues);
    ASSERT_NE(loader, nullptr);
    const void* obj = loader->GetObject("obj");
    const void* list = loader->GetObject("list");
    ASSERT_NE(obj, nullptr);
    struct Case {
        const void* parent;
        const char* key;
        int result;
        bool logged;
    } cases[] = {
        {obj, "int", 0, false}, {obj, "unsigned", 4, true}, {obj, "missing", 4, true},
        {obj, "", 4, false},    {list, "int", 4, true},     {nullptr, "int", 4, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string("key ") + c.key);
        LogCapture log;
        int out = 99;
        EXPECT_EQ(loader->GetInt(c.parent, c.key, out, -1), c.result);
        EXPECT_EQ(out, c.result == 0 ? 7 : -1);
        EXPECT_EQ(log.Count(std::string("Failed to get key: ") + c.key), c.logged ? 1 : 0)
            << log.Dump();
        EXPECT_EQ(log.Lines().size(), c.logged ? 1u : 0u) << log.Dump();
    }
    float f = 0;
    std::string s;
    EXPECT_EQ(loader->GetFloat(obj, "intFloat", f, -1.0f), 4);
    EXPECT_EQ(loader->GetString(obj, "text", s, "d"), 0);
    EXPECT_EQ(s, "words");
}

TEST(ConfigLoadJson, ArraysAreJudgedByTheirFirstElementOnly) {
    TempDir dir;
    auto loader = LoaderFor(dir, kValues);
    ASSERT_NE(loader, nullptr);
    struct IntCase {
        const char* key;
        int result;
        std::vector<int> values;
    } ints[] = {
        // Elements after the first are not tested: what is not an int reads as 0.
        {"intsThenText", 0, {1, 0, 0, 8}},
        {"intThenFloat", 0, {2, 0}},
        {"floatsThenInt", 4, {}},
        {"strings", 4, {}},
        {"emptyList", 4, {}},
        {"int", 4, {}},
        {"missing", 4, {}},
        {"", 4, {}},
    };
    for (const IntCase& c : ints) {
        std::vector<int> out;
        EXPECT_EQ(loader->GetIntArray(c.key, out), c.result) << c.key;
        EXPECT_EQ(out, c.values) << c.key;
    }
    // Any number reads as a float after the first element; what is not a number, or is
    // beyond float range, reads as 0.
    std::vector<float> floats;
    EXPECT_EQ(loader->GetFloatArray("floatsThenInt", floats), 0);
    EXPECT_EQ(floats, (std::vector<float>{1.5f, 2.0f, 0.0f, 0.0f}));
    EXPECT_EQ(loader->GetFloatArray("intThenFloat"), std::vector<float>());
}

TEST(ConfigLoadJson, StringArraysDifferBetweenRootAndParent) {
    TempDir dir;
    auto loader = LoaderFor(dir, kValues);
    ASSERT_NE(loader, nullptr);
    // At the root the first element must pass the float test, deliberately.
    std::vector<std::string> out;
    EXPECT_EQ(loader->GetStringArray("strings", out), 4);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(loader->GetStringArray("floatThenStrings", out), 0);
    EXPECT_EQ(out, (std::vector<std::string>{"", "y", ""}));

    // Inside a parent the first element must be a string.
    const void* obj = loader->GetObject("obj");
    std::vector<std::string> kept{"kept"};
    LogCapture log;
    EXPECT_EQ(loader->GetStringArray(obj, "strings", kept), 0);
    EXPECT_EQ(kept, (std::vector<std::string>{"kept", "x", "y"}));
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
    for (const char* key : {"missing", "ints", "empty", "text"}) {
        EXPECT_EQ(loader->GetStringArray(obj, key, kept), 4) << key;
        EXPECT_EQ(log.Count(std::string("Failed to get key: ") + key), 1) << log.Dump();
    }
    EXPECT_EQ(kept.size(), 3u);

    std::vector<int> ints;
    EXPECT_EQ(loader->GetIntArray(obj, "ints", ints), 0);
    EXPECT_EQ(ints, (std::vector<int>{4, 5}));
    EXPECT_EQ(loader->GetIntArray(obj, "strings", ints), 4);
    std::vector<float> floats;
    EXPECT_EQ(loader->GetFloatArray(obj, "floats", floats), 0);
    EXPECT_EQ(floats, std::vector<float>{0.5f});
    EXPECT_EQ(loader->GetFloatArray(obj, "ints", floats), 4);
    EXPECT_EQ(log.Count("Failed to get key: strings"), 1) << log.Dump();
    EXPECT_EQ(log.Count("Failed to get key: ints"), 2) << log.Dump();
}

TEST(ConfigLoadJson, GetObjectMissingKeyAtRootAndInParent) {
    TempDir dir;
    auto loader = LoaderFor(dir, kValues);
    ASSERT_NE(loader, nullptr);
    LogCapture log;
    const void* out = &out;
    EXPECT_EQ(loader->GetObject("missing", &out), CONFIG_LOAD_NO_FILE);
    EXPECT_EQ(out, nullptr);
    EXPECT_TRUE(log.Contains("key is not found: missing")) << log.Dump();
    out = &out;
    EXPECT_EQ(loader->GetObject("", &out), CONFIG_LOAD_INVALID);
    EXPECT_EQ(out, &out);
    EXPECT_TRUE(log.Contains("key is empty")) << log.Dump();
    EXPECT_EQ(loader->GetObject("int", &out), 0);  // any type is an "object" here
    EXPECT_NE(out, nullptr);

    const void* obj = loader->GetObject("obj");
    const void* sentinel = &sentinel;
    out = sentinel;
    EXPECT_EQ(loader->GetObject(obj, "missing", &out), 0);
    EXPECT_EQ(out, sentinel);  // deliberately unchanged
    EXPECT_EQ(loader->GetObject(obj, "strings", &out), 0);
    EXPECT_EQ(loader->GetObject(loader->GetObject("list"), "x", &out), 4);
    EXPECT_EQ(loader->GetObject(nullptr, "x", &out), 4);
    EXPECT_EQ(loader->GetObject(obj, "", &out), 4);
    EXPECT_EQ(log.Count("Failed to get key: "), 1) << log.Dump();
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

TEST(ConfigLoadJson, ArrayObjectFlattensArrayMembersInDocumentOrder) {
    TempDir dir;
    auto loader = LoaderFor(dir, R"({"HOOK_GROUP": [
        {"group_id": 1, "group_name": "g", "case": [3, 1, 3]},
        {"group_id": 2, "case": 5}
    ]})");
    ASSERT_NE(loader, nullptr);
    auto groups = loader->GetArrayObject("HOOK_GROUP");
    ASSERT_EQ(groups.size(), 2u);
    std::vector<std::string> names;
    std::ostringstream printed;
    for (const Config& entry : groups[0]) {
        names.push_back(entry.name);
        printed << entry.data << ";";
    }
    EXPECT_EQ(names, (std::vector<std::string>{"group_id", "group_name", "case", "case", "case"}));
    EXPECT_EQ(printed.str(), "1;g;3;1;3;");
    EXPECT_EQ(groups[0][0].data.GetType(), Data::TYPE_INT);
    EXPECT_EQ(groups[0][1].data.GetType(), Data::TYPE_STRING);
    EXPECT_EQ(groups[0][4].data.GetInt(), 3);
    ASSERT_EQ(groups[1].size(), 2u);
    EXPECT_EQ(groups[1][1].name, "case");
    EXPECT_EQ(groups[1][1].data.GetInt(), 5);
}

TEST(ConfigLoadJson, ArrayObjectTypesEveryScalarAndSkipsTheRest) {
    TempDir dir;
    auto loader = LoaderFor(dir, R"({"list": [
        {"i": -2, "f": 2.5, "b": false, "s": "t", "big": 4294967295, "huge": 1e39,
         "nil": null, "obj": {"x": 1}, "none": [], "mixed": [true, null, [1], {"y": 2}, "u"]},
        7, "text", [], {}, {"nil": null}
    ], "notList": {"a": 1}, "emptyList": []})");
    ASSERT_NE(loader, nullptr);
    auto lists = loader->GetArrayObject("list");
    // Elements that are not objects and empty objects give no list; an object whose members
    // all give nothing gives an empty one.
    ASSERT_EQ(lists.size(), 2u);
    EXPECT_TRUE(lists[1].empty());
    struct Expected {
        const char* name;
        int type;
        const char* text;
    } expected[] = {
        {"i", Data::TYPE_INT, "-2"},
        {"f", Data::TYPE_FLOAT, "2.5"},
        {"b", Data::TYPE_BOOL, "false"},
        {"s", Data::TYPE_STRING, "t"},
        {"big", Data::TYPE_FLOAT, "4294967295"},
        {"mixed", Data::TYPE_BOOL, "true"},
        {"mixed", Data::TYPE_STRING, "u"},
    };
    ASSERT_EQ(lists[0].size(), std::size(expected));
    for (size_t i = 0; i < std::size(expected); ++i) {
        EXPECT_EQ(lists[0][i].name, expected[i].name) << i;
        EXPECT_EQ(lists[0][i].data.GetType(), expected[i].type) << i;
        EXPECT_EQ(lists[0][i].data.GetText(), expected[i].text) << i;
    }
    EXPECT_EQ(lists[0][1].data.GetFloat(), 2.5f);
    EXPECT_EQ(lists[0][4].data.GetFloat(), 4294967295.0f);
    EXPECT_TRUE(lists[0][5].data.GetBool());
    EXPECT_TRUE(loader->GetArrayObject("notList").empty());
    EXPECT_TRUE(loader->GetArrayObject("emptyList").empty());
    EXPECT_TRUE(loader->GetArrayObject("missing").empty());
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
