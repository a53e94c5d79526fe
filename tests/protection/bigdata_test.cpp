// The host big-data reporter: one readable, parseable line per report in the sysroot.
#include "platform/corvanesystembigdata.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/protection/bigdatareports.h"
#include "tests/support/testsupport.h"

namespace {

using namespace corvanetest;

int Send(const std::string& name, uint32_t value, const std::string& kind) {
    return CorvaneSystemBigData::SendMessage(BDPropertyType::PROTECTION, name, BDDeviceType::CAMERA,
                                             value, kind, CVBDMessageType::EVENT, 1,
                                             BDErrorType::I2C);
}

TEST(BigDataTest, EachReportIsOneLineOfKeyValueFieldsEvenFromManyThreads) {
    TestSysroot sysroot;
    ExpectInChild([&] {
        ASSERT_EQ(Send("a\tb\nc\\d\re", 4294967295u, "e"), 0);
        std::vector<std::thread> threads;
        for (char name : {'w', 'x', 'y', 'z'}) {
            threads.emplace_back([name] {
                for (int i = 0; i < 200; ++i) {
                    Send(std::string(100, name), i, "p");
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        std::string text = sysroot.ReadFile(kBigDataReportFile);
        std::regex shape(
            "time=\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}\tpid=\\d+\t"
            "property=5\tname=a\\\\tb\\\\nc\\\\\\\\d\\\\re\tdevice=6\tvalue=4294967295\t"
            "kind=e\tmessage=2\tcount=1\terror=2");
        std::string first = text.substr(0, text.find('\n'));
        EXPECT_TRUE(std::regex_match(first, shape)) << first;
        auto reports = ReadReports(sysroot / kBigDataReportFile);
        ASSERT_EQ(reports.size(), 801u);
        EXPECT_EQ(reports[0]["pid"], std::to_string(getpid()));
        for (auto& report : reports) {
            ASSERT_EQ(report.size(), 10u);  // no line was cut into or merged with another
        }
    });
}

TEST(BigDataTest, AnUnwritableReportFileIsLoggedAndReturned) {
    TestSysroot sysroot;
    std::filesystem::remove_all(sysroot / "data");
    ExpectInChild([&] {
        LogCapture capture;
        EXPECT_EQ(Send("x", 1, "p"), -ENOENT);
        EXPECT_TRUE(
            capture.Contains("big data report not written to " + (sysroot / kBigDataReportFile)));
    });
}

}  // namespace
