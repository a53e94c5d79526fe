#include "core/controller/corvanesystemlog.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/testsupport.h"

namespace {

using namespace corvanetest;

constexpr const char* kLevelProperty = "persist.vendor.camera.cloud.corvanesys.loglevel";

// The threshold is read once per process, so every scenario runs in a fresh child.
// Returns which of the levels 3, 4 and 6 produced a line, as "346"-style text.
std::string LevelsWrittenWithProperty(const char* value) {
    int status = RunInChild([value] {
        TestSysroot sysroot;
        if (value != nullptr) {
            sysroot.SetProperty(kLevelProperty, value);
        }
        LogCapture capture;
        int written = 0;  // one bit per level, in the order 3, 4, 6
        int bit = 1;
        for (int level : {3, 4, 6}) {
            CorvaneSystemLog(level, "a/b/c.cpp", 1, "F", "level %d", level);
            written |= capture.Contains("level " + std::to_string(level)) ? bit : 0;
            bit <<= 1;
        }
        return written;
    });
    EXPECT_TRUE(WIFEXITED(status));
    std::string levels;
    for (int i = 0; i < 3; ++i) {
        if (WEXITSTATUS(status) & (1 << i)) {
            levels += "346"[i];
        }
    }
    return levels;
}

TEST(CorvaneSystemLogTest, ThresholdComesFromTheProperty) {
    EXPECT_EQ(LevelsWrittenWithProperty(nullptr), "46");
    EXPECT_EQ(LevelsWrittenWithProperty("6"), "6");
    EXPECT_EQ(LevelsWrittenWithProperty("0"), "346");
    EXPECT_EQ(LevelsWrittenWithProperty("junk"), "46");
}

TEST(CorvaneSystemLogTest, ThresholdIsReadOnce) {
    EXPECT_TRUE(ChildSucceeded(RunInChild([] {
        TestSysroot sysroot;
        LogCapture capture;
        CorvaneSystemLog(4, "x.cpp", 1, "F", "first");
        sysroot.SetProperty(kLevelProperty, "6");
        CorvaneSystemLog(4, "x.cpp", 2, "F", "second");
        return capture.Contains("first") && capture.Contains("second") ? 0 : 1;
    })));
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
