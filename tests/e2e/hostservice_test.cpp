// End to end on a host: the supervised camera service on a temporary sysroot with the sample
// configuration, driven by the real vxcdb binary.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "tests/support/supervisedservice.h"

namespace {

using corvanetest::ProgramOutput;
using corvanetest::SupervisedService;
using corvanetest::WaitFor;

class HostServiceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        m_service.Start();
        ASSERT_TRUE(m_service.WaitAnswering()) << m_service.Log();
    }
    void TearDown() override { EXPECT_TRUE(m_service.Stop()) << m_service.Log(); }

    // Asks vxcdb corvane until the answer has this exit code and holds `text` (some of what is
    // asked for is stored a moment after the pipeline hits it).
    void ExpectAnswer(const std::vector<std::string>& arguments, int exitCode,
                      const std::string& text) {
        std::vector<std::string> words = {"corvane"};
        words.insert(words.end(), arguments.begin(), arguments.end());
        ProgramOutput answer;
        EXPECT_TRUE(WaitFor([&] {
            answer = m_service.Vxcdb(words);
            return answer.exitCode == exitCode && answer.output.find(text) != std::string::npos;
        })) << text
            << "\n"
            << answer.output;
    }
    // Waits until `relative` under the sysroot holds `text`.
    bool WaitForFile(const std::string& relative, const std::string& text) {
        return WaitFor(
            [&] { return m_service.sysroot().ReadFile(relative).find(text) != std::string::npos; });
    }

    SupervisedService m_service;
};

TEST_F(HostServiceTest, RecordsProbesAndProtectionAndInjectsFaultsThatThePipelineHits) {
    EXPECT_TRUE(WaitForFile("data/vendor/camera/probe_messages.json", "imx766_wide_i"));
    // The sample protection scheme guards register 0x0100, which the pipeline writes.
    EXPECT_TRUE(WaitForFile("data/vendor/camera/bigdata_reports.log", "SENSORI2C"))
        << m_service.Log();
    EXPECT_EQ(m_service.sysroot().ReadFile("sys/module/camera/parameters/cam_cci_io_protect"), "0");

    ExpectAnswer({"--inject", "query"}, 0,
                 "sensor_i2c_fault  i2c_write_eio     sensor_i2c_write_fail");
    ExpectAnswer({"--inject", "sensor_i2c_fault"}, 0, "Hook group executed successfully");
    EXPECT_TRUE(m_service.WaitForLog("CameraSensorI2CWrite(0x10, 0x0042) -> -5"))
        << m_service.Log();
    ExpectAnswer({"--inject", "result", "sensor_i2c_fault"}, 0, "<executed>");
    ExpectAnswer({"--inject", "no_such_group"}, 1, "Hook group not ready: no_such_group");
    ExpectAnswer({"--inject", "clear"}, 0, "<cleared>");
    ExpectAnswer({"--inject", "result", "sensor_i2c_fault"}, 0, "<unhook>");
    EXPECT_TRUE(m_service.WaitForLog("CameraSensorI2CWrite(0x10, 0x0042) -> 0")) << m_service.Log();
}

TEST_F(HostServiceTest, FirmwareInjectionIsAcknowledgedAndShownInTheStatusTables) {
    ExpectAnswer({"--inject", "firmware", "0", "0", "3", "3", "ecc", "error"}, 0,
                 "command executed successfully");
    ExpectAnswer({"--inject", "status", "0", "3", "3"}, 0, "eeprom_read_corrupt  0");
    ExpectAnswer({"--inject", "status", "eeprom_fault"}, 0,
                 "eeprom_fault  eeprom_read_corrupt  0          3          3             0x01");
    ExpectAnswer({"--inject", "firmware", "0", "0", "300", "3"}, 1,
                 "Invalid firmware parameters: ");
}

// The sample group "sensor_i2c_flaky" fails exactly every N-th I2C read of the pipeline and
// passes the others on to the sensor library.
TEST_F(HostServiceTest, ACountedFaultFailsExactlyEveryNthReadAndPassesTheOthersOn) {
    constexpr unsigned long kPeriod = 3;
    constexpr unsigned long kFailuresSeen = 4;
    ExpectAnswer({"--inject", "sensor_i2c_flaky", std::to_string(kPeriod)}, 0, "");
    ASSERT_TRUE(m_service.WaitForLog("sensor_i2c_read_flaky: read " +
                                     std::to_string(kPeriod * kFailuresSeen) + " fails"))
        << m_service.Log();
    const std::string log = m_service.Log();
    const std::regex line("sample fault: sensor_i2c_read_flaky: read ([0-9]+) fails");
    unsigned long failures = 0;
    for (std::sregex_iterator it(log.begin(), log.end(), line), end; it != end; ++it) {
        EXPECT_EQ(std::stoul((*it)[1].str()), kPeriod * ++failures);
    }
    // The pipeline prints each change of result: every failure is followed by a read that
    // reached the sensor again.
    const std::string read = "pipeline: CameraSensorI2CRead(0x10, 0x0042) -> ";
    EXPECT_GE(m_service.CountInLog(read + "-5 "), static_cast<int>(kFailuresSeen - 1)) << log;
    EXPECT_GE(m_service.CountInLog(read + "0"), static_cast<int>(kFailuresSeen - 1)) << log;
    ExpectAnswer({"--inject", "result", "sensor_i2c_flaky"}, 0, "<executed>");
}

}  // namespace
