// End to end on a host: the supervised camera service on a temporary sysroot with the sample
// configuration, driven by the real vxcdb binary.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/supervisedservice.h"

namespace {

using corvanetest::ProgramOutput;
using corvanetest::SupervisedService;
using corvanetest::WaitFor;

// One service run: what it records by itself, faults injected and hit by the pipeline, firmware
// commands, and a counted fault.
TEST(HostServiceTest, RecordsProbesAndProtectionAndAnswersFaultAndFirmwareRequests) {
    SupervisedService service;
    service.Start();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    // Asks vxcdb corvane until the answer has this exit code and holds `text` (some of what is
    // asked for is stored a moment after the pipeline hits it).
    auto expectAnswer = [&](std::vector<std::string> words, int exitCode, const std::string& text) {
        words.insert(words.begin(), "corvane");
        ProgramOutput answer;
        EXPECT_TRUE(WaitFor([&] {
            answer = service.Vxcdb(words);
            return answer.exitCode == exitCode && answer.output.find(text) != std::string::npos;
        })) << text
            << "\n"
            << answer.output;
    };
    auto waitForFile = [&](const std::string& relative, const std::string& text) {
        return WaitFor(
            [&] { return service.sysroot().ReadFile(relative).find(text) != std::string::npos; });
    };
    EXPECT_TRUE(waitForFile("data/vendor/camera/probe_messages.json", "imx766_wide_i"));
    // The sample protection scheme guards register 0x0100, which the pipeline writes.
    EXPECT_TRUE(waitForFile("data/vendor/camera/bigdata_reports.log", "SENSORI2C"))
        << service.Log();
    EXPECT_EQ(service.sysroot().ReadFile("sys/module/camera/parameters/cam_cci_io_protect"), "0");

    expectAnswer({"--inject", "query"}, 0,
                 "sensor_i2c_fault  i2c_write_eio     sensor_i2c_write_fail");
    expectAnswer({"--inject", "sensor_i2c_fault"}, 0, "Hook group executed successfully");
    EXPECT_TRUE(service.WaitForLog("CameraSensorI2CWrite(0x10, 0x0042) -> -5")) << service.Log();
    expectAnswer({"--inject", "result", "sensor_i2c_fault"}, 0, "<executed>");
    expectAnswer({"--inject", "clear"}, 0, "<cleared>");
    expectAnswer({"--inject", "result", "sensor_i2c_fault"}, 0, "<unhook>");
    EXPECT_TRUE(service.WaitForLog("CameraSensorI2CWrite(0x10, 0x0042) -> 0")) << service.Log();

    expectAnswer({"--inject", "firmware", "0", "0", "3", "3", "ecc", "error"}, 0,
                 "command executed successfully");
    expectAnswer({"--inject", "status", "0", "3", "3"}, 0, "eeprom_read_corrupt  0");
    expectAnswer({"--inject", "status", "eeprom_fault"}, 0,
                 "eeprom_fault  eeprom_read_corrupt  0          3          3             0x01");

    // The sample group "sensor_i2c_flaky" fails every N-th I2C read of the pipeline (the tenth
    // without an argument: only the argument gives read 12) and passes the others on.
    expectAnswer({"--inject", "sensor_i2c_flaky", "3"}, 0, "");
    ASSERT_TRUE(service.WaitForLog("sensor_i2c_read_flaky: read 12 fails")) << service.Log();
    // The pipeline prints each change of result: failures alternate with reads that reach the
    // sensor library again.
    EXPECT_GE(service.CountInLog("pipeline: CameraSensorI2CRead(0x10, 0x0042) -> 0"), 3)
        << service.Log();
    EXPECT_TRUE(service.Stop()) << service.Log();
}

}  // namespace
