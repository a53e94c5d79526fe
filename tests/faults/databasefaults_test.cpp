// The hook database taken away from the running service: the first statement that fails blocks
// its database object and removes the file, the service keeps answering, and the next start
// rebuilds the file with all its tables (what was stored in it is lost).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/supervisedservice.h"

namespace {

using corvanetest::Sql;
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

// One service run goes through the faults in turn, each started from a rebuilt file.
TEST(DatabaseFaults, TheObjectBlocksTheServiceAnswersAndTheNextStartRebuildsTheFile) {
    SupervisedService service;
    service.Start();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    const std::string path = service.Path(kHookDb);
    ASSERT_EQ(service.Vxcdb({"corvane", "--inject", "motion_fault", "fast"}).exitCode, 0);
    ASSERT_EQ(service.CountInLog(kFailedStatement), 0) << service.Log();
    int rounds = 0;  // each fault logs one failure and restarts the service once
    for (const DatabaseFault& fault : kFaults) {
        SCOPED_TRACE(fault.name);
        if (fault.needsPermissions && service.ServiceOverridesFilePermissions()) {
            continue;  // CAP_DAC_OVERRIDE could not be dropped: no file is read-only to it
        }
        const pid_t pid = service.ServicePid();
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
        EXPECT_EQ(service.CountInLog(kFailedStatement), rounds + 1);
        EXPECT_TRUE(WaitFor([&] { return !service.sysroot().Exists(kHookDb); }));

        // Blocked: what goes on needs no file and logs no further failure.
        for (const char* group : {"sensor_i2c_fault", "eeprom_fault"}) {
            EXPECT_EQ(service.Vxcdb({"corvane", "--inject", group}).exitCode, 0) << group;
            EXPECT_EQ(service.Vxcdb({"corvane", "--inject", "result", group}).exitCode, 0) << group;
        }
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
        struct stat info = {};
        ASSERT_EQ(stat(path.c_str(), &info), 0);
        EXPECT_NE(info.st_mode & S_IWUSR, 0u);
        // The groups injected before went with the file.
        EXPECT_NE(service.Vxcdb({"corvane", "--inject", "result", "motion_fault"})
                      .output.find("<unhook>"),
                  std::string::npos);
        EXPECT_EQ(service.Vxcdb({"corvane", "--inject", "motion_fault", "fast"}).exitCode, 0);
        EXPECT_EQ(service.CountInLog(kFailedStatement), rounds) << service.Log();
    }
    EXPECT_TRUE(service.Stop()) << service.Log();
}

}  // namespace
