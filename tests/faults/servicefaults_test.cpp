// Faults met while the camera service runs: its hook database taken away, hostile requests, and
// the mistakes of a user writing fault cases.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/supervisedservice.h"

namespace {

using corvanetest::ProgramOutput;
using corvanetest::Sql;
using corvanetest::SupervisedService;
using corvanetest::WaitFor;

constexpr const char* kHookDb = "data/vendor/camera/hook.db";
constexpr const char* kFailedStatement = "SQL statement execution failed, sql: ";
constexpr const char* kHookCaseFile = "odm/etc/camera/corvanesystem_hook_case.json";
constexpr const char* kFaultLibrary = "vendor/lib64/libcorvane_sample_fault.so";

// The hook database taken away from the running service (deleted, then made read-only): the
// first statement that fails blocks its database object and removes the file, the service keeps
// answering, and the next start rebuilds the file with all its tables (what was stored in it is
// lost). One service run goes through the faults in turn, each started from a rebuilt file.
TEST(DatabaseFaults, TheObjectBlocksTheServiceAnswersAndTheNextStartRebuildsTheFile) {
    SupervisedService service;
    service.Start();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    const std::string path = service.Path(kHookDb);
    ASSERT_EQ(service.Vxcdb({"corvane", "--inject", "motion_fault", "fast"}).exitCode, 0);
    ASSERT_EQ(service.CountInLog(kFailedStatement), 0) << service.Log();
    int rounds = 0;  // each fault logs one failure and restarts the service once
    for (bool readOnly : {false, true}) {
        SCOPED_TRACE(readOnly);
        if (readOnly && service.ServiceOverridesFilePermissions()) {
            continue;  // CAP_DAC_OVERRIDE could not be dropped: no file is read-only to it
        }
        const pid_t pid = service.ServicePid();
        readOnly ? chmod(path.c_str(), 0444) : remove(path.c_str());
        // Injecting writes the group's state; the pipeline, hitting the injected hooks, writes
        // their executed marks. The first of these writes fails.
        EXPECT_EQ(service.Vxcdb({"corvane", "--inject", "sensor_i2c_fault"}).exitCode, 0);
        // The error text ends the line: once it is there, the whole line is. After a deletion
        // the next statement opens a new, empty file; one that had the file open when it went
        // finds it moved away, which SQLite reports as read-only.
        EXPECT_TRUE(WaitFor([&] {
            return service.LogContains("error message: attempt to write a readonly database") ||
                   (!readOnly && service.LogContains("error message: no such table: "));
        })) << service.Log();
        EXPECT_TRUE(WaitFor([&] { return !service.sysroot().Exists(kHookDb); }));

        // Blocked: what goes on needs no file and logs no further failure.
        EXPECT_EQ(service.Vxcdb({"corvane", "--inject", "eeprom_fault"}).exitCode, 0);
        EXPECT_EQ(service.Vxcdb({"corvane", "--inject", "result", "eeprom_fault"}).exitCode, 0);
        EXPECT_EQ(service.Vxcdb({"corvane", "--inject", "query"}).exitCode, 0);
        EXPECT_EQ(service.CountInLog(kFailedStatement), ++rounds) << service.Log();
        EXPECT_FALSE(service.sysroot().Exists(kHookDb));

        // The reload signal rounds the service (it dies before it can answer).
        service.Vxcdb({"corvane", "--signal", "1"});
        ASSERT_TRUE(WaitFor([&] {
            return service.CountInLog("camera service died by signal 1, restarting") == rounds;
        })) << service.Log();
        ASSERT_TRUE(service.WaitAnswering()) << service.Log();
        EXPECT_NE(service.ServicePid(), pid);
        EXPECT_EQ(Sql(path, "select name from sqlite_master where type='table' order by 1;"),
                  "fault_inject_ack\nhook\nhook_case\nhook_firmware\nhook_group\n");
        // The groups injected before went with the file.
        EXPECT_NE(service.Vxcdb({"corvane", "--inject", "result", "motion_fault"})
                      .output.find("<unhook>"),
                  std::string::npos);
        EXPECT_EQ(service.Vxcdb({"corvane", "--inject", "motion_fault", "fast"}).exitCode, 0);
        EXPECT_EQ(service.CountInLog(kFailedStatement), rounds) << service.Log();
    }
    EXPECT_TRUE(service.Stop()) << service.Log();
}

// Requests made to harm: arguments written to smuggle SQL into the databases, and signals.
// Values reach SQL between single quotes, unescaped, so a request whose group name, group argument
// or firmware argument holds a quote is refused before anything runs; the database and the
// service go on as before.
TEST(HostileRequests, QuotesAreRefusedAndOnlyTheReloadSignalsAreRaised) {
    const struct {
        std::vector<std::string> arguments;  // as typed, one word each
        std::string error;                   // the refusal, naming the argument
    } kHostile[] = {
        // A group's arguments are stored with "... args_array_list = '%s', ...".
        {{"--inject", "sensor_i2c_guard", "0x0100", "slave's reg"},
         "Refused: argument 2 of sensor_i2c_guard holds a single quote, which cannot be stored: "
         "slave's reg"},
        {{"--inject", "motion'fault"}, "the group or case name holds a single quote"},
        // A firmware command looks its parameter up ("... and param='%s'"), then stores it.
        {{"--inject", "firmware", "0", "0", "3", "4", "x'; drop table hook_group; --"},
         "firmware argument 5 holds a single quote"},
        {{"--inject", "firmware", "0", "0'", "3", "4"}, "firmware argument 2"},
    };
    SupervisedService service;
    service.Start();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    const char* kState =
        "select (select count(*) from hook_group), (select count(*) from hook), (select "
        "count(*) from hook_firmware), (select count(*) from hook_group where available = 1), "
        "(select count(*) from hook where hook_state = 1);";
    const std::string state = Sql(service.Path(kHookDb), kState);
    ASSERT_EQ(state.substr(0, 6), "6|9|0|");  // the groups and hooks of the sample configuration

    for (const auto& hostile : kHostile) {
        std::vector<std::string> arguments = {"corvane"};
        arguments.insert(arguments.end(), hostile.arguments.begin(), hostile.arguments.end());
        ProgramOutput answer = service.Vxcdb(arguments);
        EXPECT_EQ(answer.exitCode, 1) << answer.output;
        EXPECT_NE(answer.output.find(hostile.error), std::string::npos) << answer.output;
        EXPECT_EQ(Sql(service.Path(kHookDb), kState), state);
    }
    EXPECT_FALSE(service.LogContains("firmware: command")) << service.Log();
    ASSERT_EQ(service.Vxcdb({"corvane", "--inject", "motion_fault"}).exitCode, 0);

    // A peer may restart the service (signals 1 and 6, the reload path), and raise nothing else.
    const pid_t first = service.ServicePid();
    for (const char* signal : {"9", "15", "2", "11"}) {
        ProgramOutput answer = service.Vxcdb({"corvane", "--signal", signal});
        EXPECT_EQ(answer.exitCode, 0) << signal << answer.output;
        EXPECT_TRUE(service.WaitForLog(std::string("error signal type: ") + signal)) << signal;
    }
    EXPECT_EQ(service.ServicePid(), first);
    EXPECT_EQ(kill(first, 0), 0);
    // The closed connection is the restart the signal asks for, and the tool says so. Restarts
    // asked for are not counted as crashes, and bring the injected group back in force.
    for (const std::string signal : {"6", "1"}) {
        ProgramOutput answer = service.Vxcdb({"corvane", "--signal", signal});
        EXPECT_EQ(answer.exitCode, 0) << answer.output;
        EXPECT_NE(
            answer.output.find("signal " + signal + " raised: the camera service is restarting"),
            std::string::npos)
            << answer.output;
        ASSERT_TRUE(service.WaitForLog("camera service died by signal " + signal + ", restarting"));
        ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    }
    EXPECT_FALSE(service.LogContains("not re-installing")) << service.Log();
    ProgramOutput result = service.Vxcdb({"corvane", "--inject", "result", "motion_fault"});
    EXPECT_NE(result.output.find("<Successfully hooked>"), std::string::npos) << result.output;
    EXPECT_TRUE(service.WaitForLog("CameraActuatorMove(512) -> -110")) << service.Log();
    EXPECT_EQ(service.CountInLog("supervisor: camera service started"), 3);
    EXPECT_TRUE(service.Stop()) << service.Log();
}

// Mistakes a user makes while writing fault cases: a fault function that crashes the service, a
// hook-case file with typos. The service stays reachable, and what the user sees says what went
// wrong and what to do.

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
        "update hook_group set available = (group_name = 'actuator_crash'), "
        "args_array_list = '0x10';");
    service.Start();
    ASSERT_TRUE(service.WaitForLog("not re-installing: actuator_crash (stored as not available)",
                                   std::chrono::seconds(30)))
        << service.Log();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    // Each of the two starts that installed it again died at once.
    EXPECT_EQ(service.CountInLog("camera service died by signal 6, restarting"), 2);
    EXPECT_EQ(service.CountInLog("hooked CameraActuatorMove"), 2);
    // Kept for the user to look at: not available, the arguments as given.
    EXPECT_EQ(Sql(service.Path(kHookDb),
                  "select available, args_array_list from hook_group where group_name = "
                  "'actuator_crash';"),
              "0|0x10\n");
    EXPECT_EQ(service.CountInLog("supervisor: camera service started"), 4) << service.Log();
    EXPECT_TRUE(service.Stop()) << service.Log();
}

}  // namespace
