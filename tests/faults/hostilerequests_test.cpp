// Requests made to harm: arguments written to smuggle SQL into the databases, or to keep the
// service busy for ever, and signals. The database refuses or stops the statement (blocking its
// object and removing the file, as for any failed statement), and the service keeps answering.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <ostream>
#include <string>
#include <vector>

#include "tests/support/supervisedservice.h"

namespace {

using corvanetest::SupervisedService;
using corvanetest::VxcdbAnswer;

constexpr const char* kHookDb = "data/vendor/camera/hook.db";

std::string Shell(const std::string& path, const std::string& sql) {
    std::string command = "sqlite3 '" + path + "' '" + sql + "' 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    std::string out;
    char buffer[256];
    while (pipe != nullptr && fgets(buffer, sizeof(buffer), pipe) != nullptr) {
        out += buffer;
    }
    if (pipe != nullptr) {
        pclose(pipe);
    }
    return out;
}

struct HostileParameter {
    std::string name;
    std::string param;  // the firmware command's parameter, as typed
    std::string error;  // the failed statement's error text in the log
};

void PrintTo(const HostileParameter& hostile, std::ostream* out) {
    *out << hostile.name;
}

// The firmware command first looks its parameter up ("... and param='%s'"), then stores it.
const HostileParameter kHostile[] = {
    {"SecondStatement", "x'; drop table hook_group; --",
     "error message: more than one statement in the request, none was run"},
    {"EndlessStatement",
     "'||(with recursive c(x) as (select 1 union all select x + 1 from c) select max(x) from "
     "c)||'",
     "error message: interrupted"},
};

class HostileFirmwareParameter : public ::testing::TestWithParam<HostileParameter> {};

TEST_P(HostileFirmwareParameter, FailsLikeInvalidSqlAndTheServiceAnswersOn) {
    const HostileParameter& hostile = GetParam();
    SupervisedService service;
    service.Start();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    // A second name for the file keeps its tables visible after the failure removes the path.
    const std::string witness = service.Path("witness.db");
    ASSERT_EQ(link(service.Path(kHookDb).c_str(), witness.c_str()), 0);
    const std::string groups = Shell(witness, "select count(*) from hook_group;");
    ASSERT_EQ(groups, "5\n");  // the groups of the sample configuration

    VxcdbAnswer answer =
        service.Vxcdb({"corvane", "--inject", "firmware", "0", "0", "3", "4", hostile.param});
    // The command still reaches the firmware; only its bookkeeping failed.
    EXPECT_EQ(answer.exitCode, 0) << answer.output;
    EXPECT_NE(answer.output.find("command executed successfully"), std::string::npos);
    EXPECT_TRUE(service.WaitForLog(hostile.error)) << service.Log();
    EXPECT_TRUE(service.LogContains("SQL statement execution failed, sql: "));
    EXPECT_TRUE(corvanetest::WaitFor([&] { return !service.sysroot().Exists(kHookDb); }));
    EXPECT_EQ(Shell(witness, "select count(*) from hook_group;"), groups);
    EXPECT_EQ(Shell(witness, "select count(*) from hook_firmware;"), "0\n");

    EXPECT_EQ(service.Vxcdb({"corvane", "--help"}).exitCode, 0);
    EXPECT_EQ(service.Vxcdb({"corvane", "--inject", "sensor_i2c_fault"}).exitCode, 0);
    EXPECT_EQ(service.CountInLog("supervisor: camera service started"), 1);
    EXPECT_TRUE(service.Stop()) << service.Log();
}

INSTANTIATE_TEST_SUITE_P(Sql, HostileFirmwareParameter, ::testing::ValuesIn(kHostile),
                         [](const ::testing::TestParamInfo<HostileParameter>& info) {
                             return info.param.name;
                         });

// A peer may restart the service (signals 1 and 6, the reload path), and raise nothing else.
TEST(HostileSignals, OnlyTheReloadSignalsAreRaised) {
    SupervisedService service;
    service.Start();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    const pid_t first = service.ServicePid();
    for (const char* signal : {"9", "15", "2", "11"}) {
        VxcdbAnswer answer = service.Vxcdb({"corvane", "--signal", signal});
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
