// Requests made to harm: arguments written to smuggle SQL into the databases, or to keep the
// service busy for ever, and signals. Values reach SQL between single quotes, unescaped, so a
// request whose group name, group argument or firmware argument holds a quote is refused before
// anything runs; the database and the service go on as before.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/supervisedservice.h"

namespace {

using corvanetest::ProgramOutput;
using corvanetest::Sql;
using corvanetest::SupervisedService;

constexpr const char* kHookDb = "data/vendor/camera/hook.db";

const std::string kEndless =
    "'||(with recursive c(x) as (select 1 union all select x + 1 from c) select max(x) from c)||'";

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
        {{"--inject", "firmware", "0", "0", "3", "4", "ok", kEndless}, "firmware argument 6"},
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
    EXPECT_FALSE(service.LogContains("SQL statement execution failed")) << service.Log();
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
    int restarts = 0;
    for (const std::string signal : {"6", "1", "1"}) {
        ProgramOutput answer = service.Vxcdb({"corvane", "--signal", signal});
        EXPECT_EQ(answer.exitCode, 0) << answer.output;
        EXPECT_NE(
            answer.output.find("signal " + signal + " raised: the camera service is restarting"),
            std::string::npos)
            << answer.output;
        const int died = signal == "6" ? 1 : ++restarts;
        ASSERT_TRUE(corvanetest::WaitFor([&] {
            return service.CountInLog("camera service died by signal " + signal + ", restarting") ==
                   died;
        }));
        ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    }
    EXPECT_FALSE(service.LogContains("not re-installing")) << service.Log();
    ProgramOutput result = service.Vxcdb({"corvane", "--inject", "result", "motion_fault"});
    EXPECT_NE(result.output.find("<Successfully hooked>"), std::string::npos) << result.output;
    EXPECT_TRUE(service.WaitForLog("CameraActuatorMove(512) -> -110")) << service.Log();
    EXPECT_EQ(service.CountInLog("supervisor: camera service started"), 4);
    EXPECT_TRUE(service.Stop()) << service.Log();
}

}  // namespace
