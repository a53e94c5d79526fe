// The host big-data reporter: one readable, parseable line per report in the sysroot.
#include "platform/corvanesystembigdata.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <string>

#include "tests/protection/bigdatareports.h"
#include "tests/support/testsupport.h"

namespace {

using namespace corvanetest;

int Send(const std::string& name, uint32_t value, const std::string& kind) {
    return CorvaneSystemBigData::SendMessage(BDPropertyType::PROTECTION, name, BDDeviceType::CAMERA,
                                             value, kind, CVBDMessageType::EVENT, 1,
                                             BDErrorType::I2C);
}

TEST(BigDataTest, ReportsAreAppendedAsEscapedLinesAndAnUnwritableFileIsLoggedAndReturned) {
    TestSysroot sysroot;
    ExpectInChild([&] {
        ASSERT_EQ(Send("a\tb\nc\\d\re", 4294967295u, "e"), 0);
        ASSERT_EQ(Send("x", 1, "p\t"), 0);
        std::regex shape("time=\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}\tpid=" +
                         std::to_string(getpid()) +
                         "\tproperty=5\tname=a\\\\tb\\\\nc\\\\\\\\d\\\\re\tdevice=6\t"
                         "value=4294967295\tkind=e\tmessage=2\tcount=1\terror=2\n"
                         "time=[^\n]*\tname=x\tdevice=6\tvalue=1\tkind=p\\\\t\t[^\n]*\n");
        std::string text = sysroot.ReadFile(kBigDataReportFile);
        EXPECT_TRUE(std::regex_match(text, shape)) << text;

        std::filesystem::remove_all(sysroot / "data");
        LogCapture capture;
        EXPECT_EQ(Send("x", 1, "p"), -ENOENT);
        EXPECT_TRUE(
            capture.Contains("big data report not written to " + (sysroot / kBigDataReportFile)));
    });
}

}  // namespace
