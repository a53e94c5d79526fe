// A counted fault through the whole system: the sample group "sensor_i2c_flaky", injected with
// vxcdb into the supervised service, fails exactly every N-th I2C read of the camera pipeline and
// passes the others on to the sensor library.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "tests/support/supervisedservice.h"

namespace {

using corvanetest::SupervisedService;

// The numbers of the reads the fault failed, in the order it logged them.
std::vector<unsigned long> FailedReads(const std::string& log) {
    static const std::regex line("sample fault: sensor_i2c_read_flaky: read ([0-9]+) fails");
    std::vector<unsigned long> reads;
    for (std::sregex_iterator it(log.begin(), log.end(), line), end; it != end; ++it) {
        reads.push_back(std::stoul((*it)[1].str()));
    }
    return reads;
}

TEST(FlakyFault, FailsExactlyEveryNthReadAndPassesTheOthersOn) {
    constexpr unsigned long kPeriod = 3;
    constexpr unsigned long kFailuresSeen = 4;
    SupervisedService service;
    service.Start();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    corvanetest::ProgramOutput inject =
        service.Vxcdb({"corvane", "--inject", "sensor_i2c_flaky", std::to_string(kPeriod)});
    ASSERT_EQ(0, inject.exitCode) << inject.output;
    ASSERT_TRUE(service.WaitForLog("sensor_i2c_read_flaky: read " +
                                   std::to_string(kPeriod * kFailuresSeen) + " fails"))
        << service.Log();

    std::string log = service.Log();
    std::vector<unsigned long> failed = FailedReads(log);
    ASSERT_GE(failed.size(), kFailuresSeen);
    for (size_t i = 0; i < failed.size(); ++i) {
        EXPECT_EQ(kPeriod * (i + 1), failed[i]) << "failure " << i;
    }
    // The pipeline prints each change of result: every failure is followed by a read that
    // reached the sensor again.
    const std::string read = "pipeline: CameraSensorI2CRead(0x10, 0x0042) -> ";
    EXPECT_GE(service.CountInLog(read + "-5 "), static_cast<int>(kFailuresSeen - 1)) << log;
    EXPECT_GE(service.CountInLog(read + "0"), static_cast<int>(kFailuresSeen - 1)) << log;
    corvanetest::ProgramOutput result =
        service.Vxcdb({"corvane", "--inject", "result", "sensor_i2c_flaky"});
    EXPECT_NE(std::string::npos, result.output.find("<executed>")) << result.output;
    EXPECT_TRUE(service.Stop()) << service.Log();
}

}  // namespace
