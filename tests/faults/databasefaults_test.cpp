// The hook database taken away from the running service: the first statement that fails blocks
// its database object and removes the file, the service keeps answering, and the next start
// rebuilds the file with all its tables (what was stored in it is lost).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/supervisedservice.h"

namespace {

using corvanetest::SqliteShell;
using corvanetest::SupervisedService;
using corvanetest::WaitFor;

constexpr const char* kHookDb = "data/vendor/camera/hook.db";
constexpr const char* kFailedStatement = "SQL statement execution failed, sql: ";

struct DatabaseFault {
    std::string name;
    std::function<void(const std::string& path)> breakIt;
    // SQLite's error text in the failure's log line, one of these.
    std::vector<std::string> errors;
    bool needsPermissions = false;  // only a service that cannot override file permissions
};

void PrintTo(const DatabaseFault& fault, std::ostream* out) {
    *out << fault.name;
}

const DatabaseFault kFaults[] = {
    // The next statement opens a new, empty file; a statement that had the file open when it
    // went finds it moved away, which SQLite reports as read-only.
    {"Deleted",
     [](const std::string& path) { remove(path.c_str()); },
     {"no such table: ", "attempt to write a readonly database"}},
    {"MadeReadOnly",
     [](const std::string& path) { chmod(path.c_str(), 0444); },
     {"attempt to write a readonly database"},
     true},
};

class DatabaseFaults : public ::testing::TestWithParam<DatabaseFault> {};

TEST_P(DatabaseFaults, TheObjectBlocksTheServiceAnswersAndTheNextStartRebuildsTheFile) {
    const DatabaseFault& fault = GetParam();
    SupervisedService service;
    service.Start();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    if (fault.needsPermissions && service.ServiceOverridesFilePermissions()) {
        GTEST_SKIP() << "the service may write any file here (CAP_DAC_OVERRIDE could not be "
                        "dropped), so no file is read-only to it";
    }
    const pid_t firstPid = service.ServicePid();
    const std::string path = service.Path(kHookDb);
    ASSERT_EQ(service.Vxcdb({"corvane", "--inject", "motion_fault", "fast"}).exitCode, 0);
    ASSERT_EQ(service.CountInLog(kFailedStatement), 0) << service.Log();

    fault.breakIt(path);
    // Injecting writes the group's state; the pipeline, hitting the injected hooks, writes
    // their executed marks. The first of these writes fails.
    EXPECT_EQ(service.Vxcdb({"corvane", "--inject", "sensor_i2c_fault"}).exitCode, 0);
    // The error text ends the line: once it is there, the whole line is.
    EXPECT_TRUE(WaitFor([&] {
        return std::any_of(fault.errors.begin(), fault.errors.end(), [&](const std::string& e) {
            return service.LogContains("error message: " + e);
        });
    })) << service.Log();
    EXPECT_TRUE(service.LogContains(kFailedStatement));
    EXPECT_TRUE(WaitFor([&] { return !service.sysroot().Exists(kHookDb); }));

    // Blocked: what goes on needs no file and logs no further failure.
    const int failures = service.CountInLog(kFailedStatement);
    for (const char* group : {"sensor_i2c_fault", "eeprom_fault"}) {
        EXPECT_EQ(service.Vxcdb({"corvane", "--inject", group}).exitCode, 0) << group;
        EXPECT_EQ(service.Vxcdb({"corvane", "--inject", "result", group}).exitCode, 0) << group;
    }
    EXPECT_EQ(service.Vxcdb({"corvane", "--inject", "query"}).exitCode, 0);
    EXPECT_EQ(service.CountInLog(kFailedStatement), failures) << service.Log();
    EXPECT_FALSE(service.sysroot().Exists(kHookDb));

    // The reload signal restarts the service (it dies before it can answer).
    service.Vxcdb({"corvane", "--signal", "1"});
    ASSERT_TRUE(service.WaitForLog("camera service died by signal 1, restarting")) << service.Log();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    EXPECT_NE(service.ServicePid(), firstPid);
    EXPECT_EQ(SqliteShell(path, "select name from sqlite_master where type='table' order by 1;"),
              "fault_inject_ack\nhook\nhook_case\nhook_firmware\nhook_group\n");
    struct stat info = {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_NE(info.st_mode & S_IWUSR, 0u);
    // The groups injected before went with the file.
    EXPECT_NE(
        service.Vxcdb({"corvane", "--inject", "result", "motion_fault"}).output.find("<unhook>"),
        std::string::npos);
    EXPECT_EQ(service.Vxcdb({"corvane", "--inject", "motion_fault", "fast"}).exitCode, 0);
    EXPECT_EQ(service.CountInLog(kFailedStatement), failures) << service.Log();
    EXPECT_TRUE(service.Stop()) << service.Log();
}

INSTANTIATE_TEST_SUITE_P(HookDatabase, DatabaseFaults, ::testing::ValuesIn(kFaults),
                         [](const ::testing::TestParamInfo<DatabaseFault>& info) {
                             return info.param.name;
                         });

}  // namespace
