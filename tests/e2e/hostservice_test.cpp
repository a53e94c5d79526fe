// End to end on a host: the supervised camera service on a temporary sysroot with the sample
// configuration, driven by the real vxcdb binary.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/testsupport.h"

namespace {

using corvanetest::TestSysroot;
using corvanetest::WaitFor;

struct Answer {
    std::string output;
    int exitCode = -1;
};

class HostServiceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string layout = corvanetest::SourceDir() + "/scripts/make-sysroot.sh '" +
                             m_sysroot.path() + "' '" + CORVANE_BUILD_DIR + "' >/dev/null";
        ASSERT_EQ(system(layout.c_str()), 0);
        m_log = m_sysroot / "camera_service.log";
        m_supervisor = fork();
        if (m_supervisor == 0) {
            freopen(m_log.c_str(), "w", stderr);
            std::string supervisor = corvanetest::BinDir() + "/corvane_supervisor";
            std::string service = corvanetest::BinDir() + "/corvane_camera_service";
            execl(supervisor.c_str(), supervisor.c_str(), "--", service.c_str(), "--sysroot",
                  m_sysroot.path().c_str(), "--period-ms", "20", nullptr);
            _exit(127);
        }
        ASSERT_TRUE(WaitReady()) << Log();
    }

    void TearDown() override {
        if (m_supervisor > 0) {
            kill(m_supervisor, SIGINT);
            int status = 0;
            waitpid(m_supervisor, &status, 0);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << Log();
        }
    }

    Answer Vxcdb(const std::string& arguments) {
        Answer answer;
        std::string command = corvanetest::BinDir() + "/vxcdb " + arguments + " 2>&1";
        FILE* pipe = popen(command.c_str(), "r");
        char buffer[1024];
        while (pipe != nullptr && fgets(buffer, sizeof(buffer), pipe) != nullptr) {
            answer.output += buffer;
        }
        int status = pipe == nullptr ? -1 : pclose(pipe);
        answer.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return answer;
    }

    // Waits until a command's answer contains `text`.
    bool Eventually(const std::string& arguments, const std::string& text) {
        return WaitFor([&] { return Vxcdb(arguments).output.find(text) != std::string::npos; });
    }

    bool WaitReady() {
        return WaitFor([&] { return Vxcdb("--timeout 1 corvane --help").exitCode == 0; });
    }

    std::string Log() const { return m_sysroot.ReadFile("camera_service.log"); }

    TestSysroot m_sysroot;
    std::string m_log;
    pid_t m_supervisor = -1;
};

TEST_F(HostServiceTest, InjectsFaultsThatThePipelineHitsAndClearsThem) {
    Answer query = Vxcdb("corvane --inject query");
    EXPECT_EQ(query.exitCode, 0);
    EXPECT_NE(query.output.find("sensor_i2c_fault  i2c_write_eio     sensor_i2c_write_fail"),
              std::string::npos)
        << query.output;

    Answer inject = Vxcdb("corvane --inject sensor_i2c_fault");
    EXPECT_EQ(inject.exitCode, 0);
    EXPECT_NE(inject.output.find("Hook group executed successfully"), std::string::npos);
    EXPECT_TRUE(Eventually("corvane --inject result sensor_i2c_fault", "<executed>"));
    EXPECT_TRUE(WaitFor([&] {
        return Log().find("CameraSensorI2CWrite(0x10, 0x0042) -> -5") != std::string::npos;
    })) << Log();

    Answer unknown = Vxcdb("corvane --inject no_such_group");
    EXPECT_NE(unknown.exitCode, 0);
    EXPECT_NE(unknown.output.find("Hook group not ready: no_such_group"), std::string::npos);

    Answer clear = Vxcdb("corvane --inject clear");
    EXPECT_NE(clear.output.find("<cleared>"), std::string::npos);
    Answer result = Vxcdb("corvane --inject result sensor_i2c_fault");
    EXPECT_NE(result.output.find("<unhook>"), std::string::npos) << result.output;
    EXPECT_TRUE(WaitFor([&] {
        return Log().find("CameraSensorI2CWrite(0x10, 0x0042) -> 0") != std::string::npos;
    })) << Log();
}

TEST_F(HostServiceTest, FirmwareInjectionIsAcknowledgedAndShownInTheStatusTables) {
    Answer firmware = Vxcdb("corvane --inject firmware 0 0 3 3 ecc error");
    EXPECT_EQ(firmware.exitCode, 0);
    EXPECT_NE(firmware.output.find("command executed successfully"), std::string::npos);
    EXPECT_TRUE(Eventually("corvane --inject status 0 3 3", "eeprom_read_corrupt  0"));
    Answer status = Vxcdb("corvane --inject status eeprom_fault");
    EXPECT_NE(status.output.find("eeprom_fault  eeprom_read_corrupt  0          3          3"
                                 "             0x01"),
              std::string::npos)
        << status.output;
    Answer bad = Vxcdb("corvane --inject firmware 0 0 300 3");
    EXPECT_NE(bad.exitCode, 0);
    EXPECT_NE(bad.output.find("Invalid firmware parameters: "), std::string::npos);
}

TEST_F(HostServiceTest, ProbesAndProtectionCallbacksAreRecorded) {
    EXPECT_TRUE(WaitFor([&] {
        return m_sysroot.ReadFile("data/vendor/camera/probe_messages.json").find("imx766_wide_i") !=
               std::string::npos;
    }));
    EXPECT_TRUE(WaitFor([&] {
        return Log().find("probe: sensor type of ov64b_tele5x_ii: \"tele5x\"") != std::string::npos;
    })) << Log();
    // The sample protection scheme guards register 0x0100, which the pipeline writes.
    EXPECT_TRUE(WaitFor([&] {
        return m_sysroot.ReadFile("data/vendor/camera/bigdata_reports.log").find("SENSORI2C") !=
               std::string::npos;
    })) << Log();
    EXPECT_EQ(m_sysroot.ReadFile("sys/module/camera/parameters/cam_cci_io_protect"), "0");
}

TEST_F(HostServiceTest, AReloadSignalRestartsTheServiceWithItsInjectedGroups) {
    ASSERT_EQ(Vxcdb("corvane --inject motion_fault fast").exitCode, 0);
    Vxcdb("corvane --signal 1");  // the service dies before it can answer
    EXPECT_TRUE(WaitFor([&] {
        return Log().find("camera service died by signal 1, restarting") != std::string::npos;
    })) << Log();
    ASSERT_TRUE(WaitReady());
    EXPECT_TRUE(Eventually("corvane --inject result motion_fault", "<Successfully hooked>"));
    EXPECT_TRUE(WaitFor([&] {
        return Log().find("CameraActuatorMove(512) -> -110") != std::string::npos;
    })) << Log();
}

}  // namespace
