#include "core/controller/corvanesystemlog.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/testsupport.h"

namespace {

using namespace corvanetest;

constexpr const char* kLevelProperty = "persist.vendor.camera.cloud.corvanesys.loglevel";

// The threshold is read once per process, at the first line: every scenario runs in a fresh
// child, and a later change of the property is ignored.
TEST(CorvaneSystemLogTest, ThresholdComesFromThePropertyReadOnce) {
    const std::pair<const char*, std::string> cases[] = {
        {nullptr, "46"}, {"6", "6"}, {"0", "346"}, {"junk", "46"}};
    for (const auto& [value, levels] : cases) {
        SCOPED_TRACE(value == nullptr ? "unset" : value);
        ExpectInChild([value = value, levels = levels] {
            TestSysroot sysroot;
            if (value != nullptr) {
                sysroot.SetProperty(kLevelProperty, value);
            }
            LogCapture capture;
            std::string written;
            for (int level : {3, 4, 6}) {
                CorvaneSystemLog(level, "a/b/c.cpp", 1, "F", "level %d", level);
                written +=
                    capture.Contains("level " + std::to_string(level)) ? std::to_string(level) : "";
            }
            EXPECT_EQ(written, levels);
            sysroot.SetProperty(kLevelProperty, "7");
            CorvaneSystemLog(6, "x.cpp", 1, "F", "after the change");
            EXPECT_TRUE(capture.Contains("after the change"));
        });
    }
}

TEST(CorvaneSystemLogTest, LineShapeAndDroppedLines) {
    corvanetest::ExpectInChild([] {
        TestSysroot sysroot;
        LogCapture capture;
        CorvaneSystemLog(4, "/src/core/controller/corvanesystem.cpp", 42, "Initialize",
                         "hook config %s", "exists");
        CorvaneSystemLog(6, "plain.cpp", 7, "Run", "no slash");
        using LogFunction = void (*)(int, const char*, int, const char*, const char*, ...);
        LogFunction log = CorvaneSystemLog;  // no format checking: null is the point here
        log(6, "x.cpp", 1, nullptr, "null function");
        log(6, "x.cpp", 1, "F", nullptr);
        // A line longer than 1023 characters is dropped whole.
        const std::string prefix = "x.cpp:1 F() ";
        const std::string fits(1023 - prefix.size(), 'a');
        CorvaneSystemLog(6, "x.cpp", 1, "F", "%s", fits.c_str());
        CorvaneSystemLog(6, "x.cpp", 1, "F", "%s", (fits + "b").c_str());

        auto lines = capture.Lines();
        ASSERT_EQ(lines.size(), 3u) << capture.Dump();
        EXPECT_EQ(lines[0].tag, "[CORVANESYS]");
        EXPECT_EQ(lines[0].priority, 4);
        EXPECT_EQ(lines[0].message, "corvanesystem.cpp:42 Initialize() hook config exists");
        EXPECT_EQ(lines[1].priority, 6);
        EXPECT_EQ(lines[1].message, "plain.cpp:7 Run() no slash");
        EXPECT_EQ(lines[2].message, prefix + fits);
    });
}

}  // namespace
