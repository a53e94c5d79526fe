// Requests made to harm: arguments written to smuggle SQL into the databases, or to keep the
// service busy for ever, and signals. The database refuses or stops the statement (blocking its
// object and removing the file, as for any failed statement), and the service keeps answering.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <ostream>
#include <string>
#include <vector>

#include "tests/support/supervisedservice.h"

namespace {

using corvanetest::ProgramOutput;
using corvanetest::SqliteShell;
using corvanetest::SupervisedService;

constexpr const char* kHookDb = "data/vendor/camera/hook.db";

struct HostileRequest {
    std::string name;
    std::vector<std::string> arguments;  // as typed, one word each
    std::string answer;                  // what the reply still says
    std::string error;                   // the failed statement's error text in the log
};

void PrintTo(const HostileRequest& hostile, std::ostream* out) {
    *out << hostile.name;
}

const std::string kEndless =
    "'||(with recursive c(x) as (select 1 union all select x + 1 from c) select max(x) from c)||'";

const HostileRequest kHostile[] = {
    // A group's arguments are stored with "... args_array_list = '%s', ...".
    {"GroupArgumentWithASecondStatement",
     {"corvane", "--inject", "motion_fault", "a'; drop table hook; --"},
     "Hook group executed successfully",
     "error message: more than one statement in the request, none was run"},
    // A firmware command first looks its parameter up ("... and param='%s'"), then stores it.
    {"FirmwareParameterWithASecondStatement",
     {"corvane", "--inject", "firmware", "0", "0", "3", "4", "x'; drop table hook_group; --"},
     "command executed successfully",
     "error message: more than one statement in the request, none was run"},
    {"FirmwareParameterThatNeverEnds",
     {"corvane", "--inject", "firmware", "0", "0", "3", "4", kEndless},
     "command executed successfully",
     "error message: interrupted"},
};

class HostileRequests : public ::testing::TestWithParam<HostileRequest> {};

TEST_P(HostileRequests, FailLikeInvalidSqlAndTheServiceAnswersOn) {
    const HostileRequest& hostile = GetParam();
    SupervisedService service;
    service.Start();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    // A second name for the file keeps its tables visible after the failure removes the path.
    const std::string witness = service.Path("witness.db");
    ASSERT_EQ(link(service.Path(kHookDb).c_str(), witness.c_str()), 0);
    const char* kCounts =
        "select (select count(*) from hook_group), (select count(*) from hook), (select "
        "count(*) from hook_firmware);";
    const std::string counts = SqliteShell(witness, kCounts);
    ASSERT_EQ(counts, "6|9|0\n");  // the groups and hooks of the sample configuration

    ProgramOutput answer = service.Vxcdb(hostile.arguments);
    // The command itself still works (the hooks are installed, the firmware hears of it); only
    // the bookkeeping in the database failed.
    EXPECT_EQ(answer.exitCode, 0) << answer.output;
    EXPECT_NE(answer.output.find(hostile.answer), std::string::npos) << answer.output;
    EXPECT_TRUE(service.WaitForLog(hostile.error)) << service.Log();
    EXPECT_TRUE(service.LogContains("SQL statement execution failed, sql: "));
    EXPECT_TRUE(corvanetest::WaitFor([&] { return !service.sysroot().Exists(kHookDb); }));
    EXPECT_EQ(SqliteShell(witness, kCounts), counts);

    EXPECT_EQ(service.Vxcdb({"corvane", "--help"}).exitCode, 0);
    EXPECT_EQ(service.Vxcdb({"corvane", "--inject", "sensor_i2c_fault"}).exitCode, 0);
    EXPECT_EQ(service.CountInLog("supervisor: camera service started"), 1);
    EXPECT_TRUE(service.Stop()) << service.Log();
}

INSTANTIATE_TEST_SUITE_P(Sql, HostileRequests, ::testing::ValuesIn(kHostile),
                         [](const ::testing::TestParamInfo<HostileRequest>& info) {
                             return info.param.name;
                         });

// A peer may restart the service (signals 1 and 6, the reload path), and raise nothing else.
TEST(HostileSignals, OnlyTheReloadSignalsAreRaised) {
    SupervisedService service;
    service.Start();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    const pid_t first = service.ServicePid();
    for (const char* signal : {"9", "15", "2", "11"}) {
        ProgramOutput answer = service.Vxcdb({"corvane", "--signal", signal});
        EXPECT_EQ(answer.exitCode, 0) << signal << answer.output;
        EXPECT_TRUE(service.WaitForLog(std::string("error signal type: ") + signal)) << signal;
    }
    EXPECT_EQ(service.ServicePid(), first);
    EXPECT_EQ(kill(first, 0), 0);

    service.Vxcdb({"corvane", "--signal", "6"});
    EXPECT_TRUE(service.WaitForLog("raise signal: 6"));
    EXPECT_TRUE(service.WaitForLog("camera service died by signal 6, restarting")) << service.Log();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    EXPECT_NE(service.ServicePid(), first);
    EXPECT_TRUE(service.Stop()) << service.Log();
}

}  // namespace
