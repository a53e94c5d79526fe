// A device whose files or libraries are missing or broken when the camera service starts: the
// service comes up all the same, every missing piece leaves its log line, and what does not
// depend on the piece keeps working.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/supervisedservice.h"

namespace {

using corvanetest::ProgramOutput;
using corvanetest::SupervisedService;

constexpr const char* kHookCaseFile = "odm/etc/camera/corvanesystem_hook_case.json";
constexpr const char* kProtectionFile = "odm/etc/camera/protection_config.json";
constexpr const char* kDataDir = "data/vendor/camera";

// A request and what its answer must hold.
struct Probe {
    std::vector<std::string> arguments;
    int exitCode;
    std::string output;
};

struct StartupFault {
    std::string name;
    std::function<void(SupervisedService&)> breakIt;
    // Log lines expected; "@" stands for the sysroot's path.
    std::vector<std::string> logLines;
    std::vector<Probe> probes;
    bool channel = true;  // whether the debug channel comes up
};

void Remove(SupervisedService& service, const std::string& relative) {
    std::filesystem::remove_all(service.Path(relative));
}

std::string WithSysroot(std::string text, const std::string& sysroot) {
    size_t at = text.find('@');
    return at == std::string::npos ? text : text.replace(at, 1, sysroot);
}

const Probe kInjectAnswers{
    {"corvane", "--inject", "sensor_i2c_fault"}, 0, "Hook group executed successfully"};

const StartupFault kFaults[] = {
    {"BusLibraryMissing",
     [](SupervisedService& s) { Remove(s, "vendor/lib64/com.halvern.messagecenter.so"); },
     {"[MESSAGECENTER]", "m_pCorvaneSystemCore is NULL", "m_pMessageCenterSubscribeFuncPtr is NULL",
      "camera service: no message bus"},
     // Firmware commands still answer; only the bus message is lost.
     {kInjectAnswers,
      {{"corvane", "--inject", "firmware", "0", "0", "3", "3", "x"},
       0,
       "command executed successfully"}}},
    {"HookCaseFileMissing",
     [](SupervisedService& s) { Remove(s, kHookCaseFile); },
     {"/odm/etc/camera/corvanesystem_hook_case.json not exists"},
     {{{"corvane", "--inject", "sensor_i2c_fault"}, 1, "Hook operation not initialized"}}},
    // A missing comma: the place is logged, and the guard that is therefore off says so.
    {"HookCaseFileMalformed",
     [](SupervisedService& s) {
         s.sysroot().WriteFile(kHookCaseFile, "{\"HOOK_GROUP\": [\n  {\"group_id\": 1 \"x\": 2}]}");
     },
     {"Failed to initialize ConfigLoadJson: @/odm/etc/camera/corvanesystem_hook_case.json",
      "@/odm/etc/camera/corvanesystem_hook_case.json is not valid JSON at line 2, column 18 (byte "
      "offset 34): Missing a comma or '}' after an object member.",
      "protection scheme: SENSORI2C hook group: sensor_i2c_guard is not in force"},
     {{{"corvane", "--inject", "sensor_i2c_fault"}, 1, "Hook group not ready: sensor_i2c_fault"}}},
    {"ProtectionFileMissing",
     [](SupervisedService& s) { Remove(s, kProtectionFile); },
     {"Failed to open: @/odm/etc/camera/protection_config.json"},
     {kInjectAnswers, {{"corvane", "--inject", "result", "sensor_i2c_guard"}, 0, "<unhook>"}}},
    // Every save of the probe history fails, and the service's own queries over the bus are
    // answered as from an empty history; the type of a sensor comes from its name.
    {"ProbeHistoryPathIsADirectory",
     [](SupervisedService& s) {
         std::filesystem::create_directories(s.Path(kDataDir) + "/probe_messages.json");
     },
     {"Error: could not replace data/vendor/camera/probe_messages.json: Is a directory",
      "Failed to write file: data/vendor/camera/probe_messages.json",
      "Failed to read file: data/vendor/camera/probe_messages.json, reset file",
      "probe: last successful wide sensor: \"\"",
      "probe: most successful wide sensor: \"\" (0 successes)",
      "probe: sensor type of ov64b_tele5x_ii: \"tele5x\""},
     {}},
    // No directory for the socket, the databases and the probe history: the service runs on
    // without a debug channel (no retry), and nothing it stores is kept.
    {"DataDirectoryMissing",
     [](SupervisedService& s) { Remove(s, "data/vendor/camera"); },
     {"Failed to listen on socket, error: ",
      "Database opening failed, path: @/data/vendor/camera/hook.db, error message: unable to "
      "open database file",
      "Failed to write file: data/vendor/camera/probe_messages.json"},
     {{{"corvane", "--help"}, 3, "cannot connect to @/data/vendor/camera/vxcdb_socket"},
      {{"corvane", "--help"},
       3,
       "hint: is the camera service running, with the vxcdb sub-module on? (CORVANE_SYSROOT=@)"}},
     false},
};

class StartupFaults : public ::testing::TestWithParam<StartupFault> {};

TEST_P(StartupFaults, TheServiceComesUpLogsTheFaultAndAnswersWhatItCan) {
    const StartupFault& fault = GetParam();
    SupervisedService service;
    fault.breakIt(service);
    service.Start();
    // Without a channel the service is still ready; the channel's failure is among its lines.
    ASSERT_TRUE(fault.channel ? service.WaitAnswering()
                              : service.WaitForLog("camera service: ready"))
        << service.Log();
    const std::string sysroot = service.sysroot().path();
    for (const Probe& probe : fault.probes) {
        ProgramOutput answer = service.Vxcdb(probe.arguments);
        EXPECT_EQ(answer.exitCode, probe.exitCode) << probe.arguments.back() << answer.output;
        EXPECT_NE(answer.output.find(WithSysroot(probe.output, sysroot)), std::string::npos)
            << answer.output;
    }
    for (const std::string& line : fault.logLines) {
        EXPECT_TRUE(service.WaitForLog(WithSysroot(line, sysroot))) << line << "\n"
                                                                    << service.Log();
    }
    std::error_code error;  // a failed save leaves no temporary file behind
    for (const auto& entry : std::filesystem::directory_iterator(service.Path(kDataDir), error)) {
        EXPECT_NE(entry.path().extension(), ".tmp") << entry.path();
    }
    // Still the first service, alive: nothing made it die, with or without a restart.
    EXPECT_EQ(service.CountInLog("supervisor: camera service started"), 1) << service.Log();
    EXPECT_TRUE(service.Stop()) << service.Log();
}

INSTANTIATE_TEST_SUITE_P(AtStart, StartupFaults, ::testing::ValuesIn(kFaults),
                         [](const ::testing::TestParamInfo<StartupFault>& info) {
                             return info.param.name;
                         });

}  // namespace
