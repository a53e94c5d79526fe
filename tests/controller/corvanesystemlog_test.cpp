#include "core/controller/corvanesystemlog.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/testsupport.h"

namespace {

using corvanetest::ChildSucceeded;
using corvanetest::LogCapture;
using corvanetest::RunInChild;
using corvanetest::TestSysroot;

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
    EXPECT_TRUE(ChildSucceeded(RunInChild([] {
        TestSysroot sysroot;
        LogCapture capture;
        CorvaneSystemLog(4, "/src/core/controller/corvanesystem.cpp", 42, "Initialize",
                         "hook config %s", "exists");
        CorvaneSystemLog(6, "plain.cpp", 7, "Run", "no slash");
        using LogFunction = void (*)(int, const char*, int, const char*, const char*, ...);
        LogFunction log = CorvaneSystemLog;  // no format checking: null is the point here
        log(6, "x.cpp", 1, nullptr, "null function");
        log(6, "x.cpp", 1, "F", nullptr);

        auto lines = capture.Lines();
        if (lines.size() != 2) {
            return 1;
        }
        bool shape = lines[0].tag == "[CORVANESYS]" && lines[0].priority == 4 &&
                     lines[0].message == "corvanesystem.cpp:42 Initialize() hook config exists";
        bool whole = lines[1].message == "plain.cpp:7 Run() no slash" && lines[1].priority == 6;
        return shape && whole ? 0 : 2;
    })));
}

TEST(CorvaneSystemLogTest, OverLongLineIsDroppedWhole) {
    EXPECT_TRUE(ChildSucceeded(RunInChild([] {
        TestSysroot sysroot;
        LogCapture capture;
        const std::string prefix = "x.cpp:1 F() ";  // 12 characters
        std::string fits(1023 - prefix.size(), 'a');
        std::string tooLong(1024 - prefix.size(), 'b');
        CorvaneSystemLog(6, "x.cpp", 1, "F", "%s", fits.c_str());
        CorvaneSystemLog(6, "x.cpp", 1, "F", "%s", tooLong.c_str());
        auto lines = capture.Lines();
        return lines.size() == 1 && lines[0].message == prefix + fits ? 0 : 1;
    })));
}

}  // namespace
