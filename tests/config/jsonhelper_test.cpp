#include "utils/json/jsonhelper.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <limits>

#include "tests/support/testsupport.h"
#include "utils/json/jsonparse.h"

namespace {

using namespace corvanetest;

// A valid JSON document of exactly `size` bytes: one string.
std::string JsonOfSize(size_t size) {
    return "\"" + std::string(size - 2, 'x') + "\"";
}

std::string Nested(size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

TEST(JsonHelper, ReadsWithinTheSizeAndDepthLimitsAndReportsEveryFailureAsOne) {
    TempDir dir;
    struct Case {
        const char* name;
        std::string content;  // written unless the name is "missing.json" or ""
        int result;
        const char* log;  // null: not checked
    } cases[] = {
        {"relaxed.json", "// note\n{\"a\": [1, 2,],}", 0, "File size: "},
        {"limit.json", JsonOfSize(5242880), 0, "File size: 5242880"},
        {"over.json", JsonOfSize(5242881), JSON_FILE_TOO_LARGE, "File size: 5242881 exceeds limit"},
        {"deepest.json", Nested(JSON_MAX_DEPTH), 0, nullptr},
        {"deeper.json", Nested(JSON_MAX_DEPTH + 1), 1, nullptr},
        {"hostile.json", Nested(2000000), 1, nullptr},  // overflows an 8 MiB stack unbounded
        {"missing.json", "", 1, "Could not get file properties "},
        {"bad.json", "{\"a\": [1, 2}", 1, "Error parsing JSON file"},
        {"", "", 1, "Error parsing JSON file"},  // the directory itself
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string path = dir / c.name;
        if (*c.name != '\0' && std::string(c.name) != "missing.json") {
            WriteTextFile(path, c.content);
        }
        LogCapture log;
        rapidjson::Document doc;
        EXPECT_EQ(ReadJsonFile(path, doc), c.result);
        EXPECT_EQ(doc.IsNull(), c.result != 0);  // a refused file leaves nothing behind
        if (c.log != nullptr) {
            EXPECT_TRUE(log.Contains(c.log)) << log.Dump();
        }
    }
    if (geteuid() != 0) {  // root reads any file
        WriteTextFile(dir / "locked.json", "{}");
        chmod((dir / "locked.json").c_str(), 0);
        LogCapture log;
        rapidjson::Document doc;
        EXPECT_EQ(ReadJsonFile(dir / "locked.json", doc), 1);
        EXPECT_TRUE(log.Contains("Could not open file for reading")) << log.Dump();
    }
}

TEST(JsonHelper, WritesCompactlyAndReadsBack) {
    TempDir dir;
    std::string path = dir / "out.json";
    WriteTextFile(path, std::string(100, ' '));  // a longer old file is replaced, not overlaid
    rapidjson::Document doc;
    doc.Parse(R"([ {"name": "imx", "time": 1700000000123, "ok": true, "ratio": 0.1} ])");
    ASSERT_FALSE(doc.HasParseError());
    EXPECT_EQ(WriteJsonFile(path, doc), 0);
    EXPECT_EQ(ReadTextFile(path), R"([{"name":"imx","time":1700000000123,"ok":true,"ratio":0.1}])");
    rapidjson::Document back;
    EXPECT_EQ(ReadJsonFile(path, back), 0);
    EXPECT_TRUE(back == doc);
}

TEST(JsonHelper, WriteFailuresAreReportedAsOne) {
    TempDir dir;
    rapidjson::Document doc;
    doc.SetObject();
    LogCapture log;
    EXPECT_EQ(WriteJsonFile(dir / "no/such/dir.json", doc), 1);
    EXPECT_TRUE(log.Contains("Could not open file for writing")) << log.Dump();

    // A full disk only shows when the buffered text is flushed.
    EXPECT_EQ(WriteJsonFile("/dev/full", doc), 1);
    EXPECT_TRUE(log.Contains("Error: could not write /dev/full")) << log.Dump();

    rapidjson::Document notJson;
    notJson.SetDouble(std::numeric_limits<double>::quiet_NaN());
    EXPECT_EQ(WriteJsonFile(dir / "nan.json", notJson), 1);
    EXPECT_EQ(log.Count("Error: "), 2) << log.Dump();
}

}  // namespace
