// Mistakes a user makes while writing fault cases: a fault function that crashes the service, a
// hook-case file with typos, a request the tool cannot get an answer to. The service stays
// reachable, and what the user sees says what went wrong and what to do.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/supervisedservice.h"

namespace {

using corvanetest::ProgramOutput;
using corvanetest::Sql;
using corvanetest::SupervisedService;

constexpr const char* kHookCaseFile = "odm/etc/camera/corvanesystem_hook_case.json";
constexpr const char* kHookDb = "data/vendor/camera/hook.db";
constexpr const char* kFaultLibrary = "vendor/lib64/libcorvane_sample_fault.so";

// For each {name, fault library, fault symbol}: a group of one case of one hook, all three
// named after it, over CameraActuatorMove. Without a library the case names an undefined hook.
std::string HookCaseFile(const std::vector<std::array<std::string, 3>>& hooks) {
    std::string groups, cases, functions;
    int id = 0;
    for (const auto& [name, library, symbol] : hooks) {
        const std::string n = std::to_string(++id);
        groups +=
            "{\"group_id\": " + n + ", \"group_name\": \"" + name + "\", \"case\": " + n + "},";
        cases += "{\"case_id\": " + n + ", \"case_name\": \"case_" + name +
                 "\", \"hook_function\": \"" + name + "\"},";
        if (!library.empty()) {
            functions += "{\"hook_id\": " + n + ", \"hook_name\": \"" + name +
                         "\", \"hook_type\": 2, \"function_type\": 1, \"source_lib_name\": "
                         "\"vendor/lib64/libcorvane_sample_sensor.so\", \"target_lib_name\": \"" +
                         library +
                         "\", \"source_function_symbol\": \"CameraActuatorMove\", "
                         "\"target_function_symbol\": \"" +
                         symbol + "\"},";
        }
    }
    return "{\"HOOK_GROUP\": [" + groups + "], \"HOOK_CASE\": [" + cases +
           "], \"HOOK_FUNCTION\": [" + functions + "]}";
}

// What a user sees for each kind of mistake: the answer with its hint, and the log line that
// names the hook, the library and the symbol with the loader's own reason. Then a stored group
// whose fault function crashes at its first call, which used to crash every later start within
// milliseconds, so that the channel never came up to clear it.
TEST(UserFaults, MistakesAreExplainedAndACrashingFaultIsLeftOutAfterTwoCrashedStarts) {
    SupervisedService service;
    std::filesystem::copy_file(CORVANE_CRASHING_FAULT_LIBRARY,
                               service.Path("vendor/lib64/libcorvane_crashing_fault.so"));
    service.sysroot().WriteFile(
        kHookCaseFile,
        HookCaseFile({{"typo", kFaultLibrary, "FaultActuatorMoveTimeOut"},
                      {"no_library", "vendor/lib64/libmy_fault.so", "FaultActuatorMoveTimeout"},
                      {"ghost", "", ""},
                      {"actuator_crash", "vendor/lib64/libcorvane_crashing_fault.so",
                       "FaultActuatorMoveCrash"}}));
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
    const std::string kLogNames = "Hook failed with code: 1\nhint: the service log names the hook";
    const struct {
        std::string group, answer, logLine;
    } cases[] = {
        {"typo", kLogNames,
         "hook typo: symbol FaultActuatorMoveTimeOut not found in " + std::string(kFaultLibrary) +
             ": "},
        {"no_library", kLogNames,
         "hook no_library: cannot load vendor/lib64/libmy_fault.so (for symbol "
         "FaultActuatorMoveTimeout): vendor/lib64/libmy_fault.so: cannot open shared object "
         "file: No such file or directory"},
        {"ghost", "Hook group not ready: ghost\nhint: the name may match no group",
         "hook case case_ghost names hook ghost, which the hook-case file does not define"},
    };
    for (const auto& mistake : cases) {
        ProgramOutput answer = service.Vxcdb({"corvane", "--inject", mistake.group});
        EXPECT_EQ(answer.exitCode, 1) << answer.output;
        EXPECT_NE(answer.output.find("error: " + mistake.answer), std::string::npos)
            << answer.output;
        EXPECT_NE(answer.output.find("'vxcdb --check " + service.Path(kHookCaseFile) + "'"),
                  std::string::npos)
            << answer.output;
        EXPECT_TRUE(service.WaitForLog(mistake.logLine)) << mistake.logLine << service.Log();
    }

    // The crashing group alone stored as injected by an earlier run. (Injected now, it would crash
    // the service before the group is stored: the camera pipeline calls the function at once.)
    ASSERT_TRUE(service.Stop()) << service.Log();
    Sql(service.Path(kHookDb),
        "update hook_group set available = (group_name = "
        "'actuator_crash'), args_array_list = '0x10';");
    const std::string kCrashGroup = " where group_name = 'actuator_crash';";
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
    EXPECT_EQ(Sql(service.Path(kHookDb),
                  "select available, args_array_list from hook_group" + kCrashGroup),
              "0|0x10\n");
    EXPECT_EQ(service.CountInLog("supervisor: camera service started"), 4) << service.Log();
    EXPECT_TRUE(service.Stop()) << service.Log();
}

}  // namespace
