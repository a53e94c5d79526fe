// Fault campaigns end to end: the real vxcdb runs campaign files against the supervised host
// camera service, and its JUnit report is read back with a real XML parser (xmllint).
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <stdlib.h>

#include "tests/support/supervisedservice.h"

namespace {

using corvanetest::ProgramOutput;
using corvanetest::RunProgram;

// A malformed campaign injects nothing; the sample campaign passes whole; a campaign whose steps
// fail says which question failed for each and goes on to the next.
TEST(CampaignTest, VerdictsPerStepInTheOutputAndTheJUnitReport) {
    corvanetest::SupervisedService service;
    // The checks of the sample campaign read the service log from this variable.
    setenv("CORVANE_SERVICE_LOG", service.Path("camera_service.log").c_str(), 1);
    service.Start();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    const std::string junit = service.Path("report.xml");
    // Runs a campaign file holding `text`; `options` go before the others (--json: standard output
    // only).
    auto campaign = [&](const std::string& name, const std::string& text,
                        const std::string& options = "") {
        corvanetest::WriteTextFile(service.Path(name), text);
        return RunProgram({"sh", "-c", "\"$0\" " + options + " --junit \"$1\" --campaign \"$2\"",
                           corvanetest::BinDir() + "/vxcdb", junit, service.Path(name)});
    };
    // The value of an XPath expression over the report, as xmllint prints it.
    auto xpath = [&](const std::string& expression) {
        ProgramOutput result = RunProgram({"xmllint", "--xpath", expression, junit});
        EXPECT_EQ(result.exitCode, 0) << expression << ": " << result.output;
        return result.output.substr(0, result.output.find_last_not_of('\n') + 1);
    };
    auto groupResult = [&](const std::string& group) {
        return service.Vxcdb({"corvane", "--inject", "result", group}).output;
    };

    // The first step is valid and would stay injected: the mistake in the second stops all.
    ProgramOutput refused = campaign("malformed.json", R"({"steps": [
        {"group": "sensor_i2c_fault", "clear": false},
        {"group": "motion_fault", "within": 3},
    ]})");
    EXPECT_EQ(refused.exitCode, 2) << refused.output;  // (what it says: tests/campaign)
    EXPECT_NE(groupResult("sensor_i2c_fault").find("<unhook>"), std::string::npos);

    ProgramOutput sample = campaign(
        "sample.json",
        corvanetest::ReadTextFile(corvanetest::SourceDir() + "/host/samples/campaign.json"),
        "--json 2>/dev/null");
    EXPECT_EQ(sample.exitCode, 0) << sample.output << service.Log();
    rapidjson::Document result;
    ASSERT_FALSE(result.Parse(sample.output.c_str()).HasParseError()) << sample.output;
    EXPECT_TRUE(result["passed"].GetBool()) << sample.output;
    EXPECT_EQ(xpath("string(/testsuites/testsuite/@tests)"),
              std::to_string(result["counts"]["steps"].GetInt()));
    EXPECT_EQ(xpath("count(//testcase/failure)"), "0");

    ProgramOutput run = campaign("failing.json", R"({"name": "failing", "steps": [
        {"group": "sensor_i2c_fualt"},  // misspelt: the service refuses it
        {"group": "sensor_i2c_fault", "check": "echo camera stack unhappy; exit 3"},
        {"group": "motion_fault", "args": ["fast"], "stimulus": "\"$VXCDB\" corvane --signal 1"},
        {"group": "eeprom_fault"},
    ]})");
    EXPECT_EQ(run.exitCode, 10) << run.output;  // a step failed (docs/campaigns.md)
    for (const char* line : {"[4/4] eeprom_fault: passed", "4 step(s): 1 passed, 3 failed"}) {
        EXPECT_NE(run.output.find(line), std::string::npos) << line << "\n" << run.output;
    }
    // Each failed step is told as it ends, and in the report as the failure of its test case.
    for (const std::string line :
         {"[1/4] sensor_i2c_fualt: not installed", "[2/4] sensor_i2c_fault: check failed",
          "[3/4] motion_fault fast: service restarted"}) {
        EXPECT_NE(run.output.find(line), std::string::npos) << line << "\n" << run.output;
        const size_t colon = line.find(": ");
        EXPECT_EQ(
            xpath("string(//testcase[@name='" + line.substr(6, colon - 6) + "']/failure/@message)"),
            line.substr(colon + 2));
    }
    EXPECT_TRUE(service.LogContains("camera service died by signal 1, restarting"));
    // The restarted service put the injected group back from its database; the step removed it.
    EXPECT_NE(groupResult("motion_fault").find("<unhook>"), std::string::npos);

    EXPECT_EQ(xpath("string(/testsuites/@tests)"), "4");
    EXPECT_EQ(xpath("string(/testsuites/testsuite/@failures)"), "3");
    EXPECT_NE(xpath("string(//testcase[@name='sensor_i2c_fault']/failure)")
                  .find("check: exit 3, output: camera stack unhappy"),
              std::string::npos);
}

}  // namespace
