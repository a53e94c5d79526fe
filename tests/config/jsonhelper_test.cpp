#include "utils/json/jsonhelper.h"

#include <gtest/gtest.h>

#include <limits>

#include "tests/support/testsupport.h"
#include "utils/json/jsonparse.h"

namespace {

using namespace corvanetest;

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
