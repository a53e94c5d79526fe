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

TEST(JsonHelper, SizeLimitIsExactlyFiveMebibytes) {
    TempDir dir;
    WriteTextFile(dir / "limit.json", JsonOfSize(5242880));
    WriteTextFile(dir / "over.json", JsonOfSize(5242881));
    LogCapture log;
    rapidjson::Document doc;
    EXPECT_EQ(ReadJsonFile(dir / "limit.json", doc), 0);
    EXPECT_EQ(doc.GetStringLength(), 5242878u);
    EXPECT_TRUE(log.Contains("File size: 5242880")) << log.Dump();

    rapidjson::Document over;
    EXPECT_EQ(ReadJsonFile(dir / "over.json", over), JSON_FILE_TOO_LARGE);
    EXPECT_TRUE(log.Contains("File size: 5242881 exceeds limit")) << log.Dump();
    EXPECT_TRUE(over.IsNull());
}

TEST(JsonHelper, ReadFailuresAreReportedAsOne) {
    TempDir dir;
    WriteTextFile(dir / "bad.json", "{\"a\": [1, 2}");
    WriteTextFile(dir / "relaxed.json", "// note\n{\"a\": [1, 2,],}");
    struct Case {
        std::string path;
        int result;
        const char* log;
    } cases[] = {
        {dir / "relaxed.json", 0, "File size: "},
        {dir / "missing.json", 1, "Could not get file properties "},
        {dir / "bad.json", 1, "Error parsing JSON file"},
        {dir.path(), 1, "Error parsing JSON file"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        LogCapture log;
        rapidjson::Document doc;
        EXPECT_EQ(ReadJsonFile(c.path, doc), c.result);
        EXPECT_TRUE(log.Contains(c.log)) << log.Dump();
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

TEST(JsonHelper, NestingIsBoundedInsteadOfOverflowingTheStack) {
    TempDir dir;
    auto nested = [](size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
    WriteTextFile(dir / "limit.json", nested(JSON_MAX_DEPTH));
    WriteTextFile(dir / "deeper.json", nested(JSON_MAX_DEPTH + 1));
    WriteTextFile(dir / "hostile.json", nested(2000000));  // overflows an 8 MiB stack unbounded
    rapidjson::Document doc;
    EXPECT_EQ(ReadJsonFile(dir / "limit.json", doc), 0);
    EXPECT_TRUE(doc.IsArray());
    for (const char* name : {"deeper.json", "hostile.json"}) {
        rapidjson::Document refused;
        EXPECT_EQ(ReadJsonFile(dir / name, refused), 1) << name;
        EXPECT_TRUE(refused.IsNull()) << name;
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
