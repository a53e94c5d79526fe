// Mistakes a user makes while writing fault cases: a fault function that crashes the service, a
// hook-case file with typos, a request the tool cannot get an answer to. The service stays
// reachable, and what the user sees says what went wrong and what to do.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/supervisedservice.h"

namespace {

using corvanetest::ProgramOutput;
using corvanetest::SqliteShell;
using corvanetest::SupervisedService;

constexpr const char* kHookCaseFile = "odm/etc/camera/corvanesystem_hook_case.json";
constexpr const char* kHookDb = "data/vendor/camera/hook.db";
constexpr const char* kSensorLibrary = "vendor/lib64/libcorvane_sample_sensor.so";
constexpr const char* kFaultLibrary = "vendor/lib64/libcorvane_sample_fault.so";

// One group of one case of one hook over CameraActuatorMove, the hook named after the group.
std::string GroupJson(int id, const std::string& group) {
    return "{\"group_id\": " + std::to_string(id) + ", \"group_name\": \"" + group +
           "\", \"case\": " + std::to_string(id) + "},";
}
std::string CaseJson(int id, const std::string& hook) {
    return "{\"case_id\": " + std::to_string(id) + ", \"case_name\": \"case_" + hook +
           "\", \"hook_function\": \"" + hook + "\"},";
}
std::string HookJson(const std::string& hook, const std::string& target,
                     const std::string& symbol) {
    return "{\"hook_id\": 1, \"hook_name\": \"" + hook +
           "\", \"hook_type\": 2, \"function_type\": 1, \"source_lib_name\": \"" + kSensorLibrary +
           "\", \"target_lib_name\": \"" + target +
           "\", \"source_function_symbol\": \"CameraActuatorMove\", "
           "\"target_function_symbol\": \"" +
           symbol + "\"},";
}
std::string HookCaseFile(const std::string& groups, const std::string& cases,
                         const std::string& hooks) {
    return "{\"HOOK_GROUP\": [" + groups + "], \"HOOK_CASE\": [" + cases +
           "], \"HOOK_FUNCTION\": [" + hooks + "]}";
}

// A stored group whose fault function crashes at its first call used to crash every later start
// within milliseconds, so that the channel never came up to clear it.
TEST(CrashingFault, IsLeftOutAfterTwoCrashedStartsAndTheChannelAnswers) {
    SupervisedService service;
    std::filesystem::copy_file(CORVANE_CRASHING_FAULT_LIBRARY,
                               service.Path("vendor/lib64/libcorvane_crashing_fault.so"));
    service.sysroot().WriteFile(
        kHookCaseFile,
        HookCaseFile(GroupJson(1, "actuator_crash"), CaseJson(1, "actuator_crash"),
                     HookJson("actuator_crash", "vendor/lib64/libcorvane_crashing_fault.so",
                              "FaultActuatorMoveCrash")));
    // Stored as injected by an earlier run. (Injected now, it would crash the service before
    // the group is stored: the camera pipeline calls the function within milliseconds.)
    service.Start();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    ASSERT_TRUE(service.Stop()) << service.Log();
    SqliteShell(service.Path(kHookDb),
                "update hook_group set available = 1, args_array_list = '0x10';");

    service.Start();
    ASSERT_TRUE(service.WaitForLog("not re-installing: actuator_crash (stored as not available)",
                                   std::chrono::seconds(30)))
        << service.Log();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    // Each of the two starts that installed it again died at once.
    EXPECT_EQ(service.CountInLog("camera service died by signal 6, restarting"), 2);
    EXPECT_EQ(service.CountInLog("hooked CameraActuatorMove"), 2);

    ProgramOutput result = service.Vxcdb({"corvane", "--inject", "result", "actuator_crash"});
    EXPECT_EQ(result.exitCode, 0) << result.output;
    EXPECT_EQ(result.output.find("<Successfully hooked>"), std::string::npos) << result.output;
    // Kept for the user to look at: not available, the arguments as given.
    EXPECT_EQ(
        SqliteShell(service.Path(kHookDb), "select available, args_array_list from hook_group;"),
        "0|0x10\n");
    EXPECT_EQ(service.Vxcdb({"corvane", "--inject", "clear"}).exitCode, 0);
    EXPECT_EQ(service.CountInLog("supervisor: camera service started"), 4) << service.Log();
    EXPECT_TRUE(service.Stop()) << service.Log();
}

// A start that stays up, and a restart asked for, leave nothing counted: only crashes count.
TEST(CrashingFault, ReloadSignalsAreNotCountedAsCrashes) {
    SupervisedService service;
    service.Start();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    ASSERT_EQ(service.Vxcdb({"corvane", "--inject", "motion_fault"}).exitCode, 0);
    for (int restart = 1; restart <= 3; ++restart) {
        ProgramOutput answer = service.Vxcdb({"corvane", "--signal", "1"});
        EXPECT_EQ(answer.exitCode, 0) << answer.output;
        EXPECT_NE(answer.output.find("signal 1 raised: the camera service is restarting"),
                  std::string::npos)
            << answer.output;
        ASSERT_TRUE(corvanetest::WaitFor([&] {
            return service.CountInLog("camera service died by signal 1, restarting") == restart;
        }));
        ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    }
    EXPECT_FALSE(service.LogContains("not re-installing")) << service.Log();
    ProgramOutput result = service.Vxcdb({"corvane", "--inject", "result", "motion_fault"});
    EXPECT_NE(result.output.find("<Successfully hooked>"), std::string::npos) << result.output;
    EXPECT_TRUE(service.Stop()) << service.Log();
}

// What a user sees for each kind of mistake: the answer with its hint, and the log line that
// names the hook, the library and the symbol with the loader's own reason.
TEST(HookCaseMistakes, AnswersHintAndTheLogNamesHookLibraryAndSymbol) {
    SupervisedService service;
    service.sysroot().WriteFile(
        kHookCaseFile,
        HookCaseFile(
            GroupJson(1, "typo") + GroupJson(2, "no_library") + GroupJson(3, "ghost"),
            CaseJson(1, "typo") + CaseJson(2, "no_library") + CaseJson(3, "ghost"),
            HookJson("typo", kFaultLibrary, "FaultActuatorMoveTimeOut") +
                HookJson("no_library", "vendor/lib64/libmy_fault.so", "FaultActuatorMoveTimeout")));
    // Without a service: the hint asks whether it runs, on which sysroot.
    ProgramOutput refused = service.Vxcdb({"corvane", "--inject", "query"});
    EXPECT_EQ(refused.exitCode, 3);
    EXPECT_NE(refused.output.find("hint: is the camera service running, with the vxcdb "
                                  "sub-module on? (CORVANE_SYSROOT=" +
                                  service.sysroot().path() + ")"),
              std::string::npos)
        << refused.output;

    service.Start();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    const struct {
        std::string group, error, hint, logLine;
    } cases[] = {
        {"typo", "Hook failed with code: 1", "hint: the service log names the hook",
         "hook typo: symbol FaultActuatorMoveTimeOut not found in " + std::string(kFaultLibrary) +
             ": "},
        {"no_library", "Hook failed with code: 1", "hint: the service log names the hook",
         "hook no_library: cannot load vendor/lib64/libmy_fault.so (for symbol "
         "FaultActuatorMoveTimeout): vendor/lib64/libmy_fault.so: cannot open shared object "
         "file: No such file or directory"},
        {"ghost", "Hook group not ready: ghost", "hint: the name may match no group",
         "hook case case_ghost names hook ghost, which the hook-case file does not define"},
    };
    for (const auto& mistake : cases) {
        ProgramOutput answer = service.Vxcdb({"corvane", "--inject", mistake.group});
        EXPECT_EQ(answer.exitCode, 1) << answer.output;
        EXPECT_NE(answer.output.find("error: " + mistake.error + "\n" + mistake.hint),
                  std::string::npos)
            << answer.output;
        EXPECT_NE(answer.output.find("'vxcdb --check " + service.Path(kHookCaseFile) + "'"),
                  std::string::npos)
            << answer.output;
        EXPECT_TRUE(service.WaitForLog(mistake.logLine)) << mistake.logLine << service.Log();
    }
    EXPECT_TRUE(service.Stop()) << service.Log();
}

}  // namespace
