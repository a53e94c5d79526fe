// Fault campaigns end to end: the real vxcdb runs campaign files against the supervised host
// camera service, and its JUnit report is read back with a real XML parser (xmllint).
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <stdlib.h>

#include <set>
#include <string>
#include <vector>

#include "tests/support/samplesysroot.h"
#include "tests/support/supervisedservice.h"

namespace {

using corvanetest::ProgramOutput;
using corvanetest::RunProgram;
using corvanetest::SupervisedService;

constexpr int kExitCampaignFailed = 10;  // documented in docs/campaigns.md

class CampaignTest : public ::testing::Test {
  protected:
    // Starts the service; a test that needs its own hook cases writes them first.
    void StartService() {
        // The checks of the sample campaign read the service log from this variable.
        setenv("CORVANE_SERVICE_LOG", m_service.Path("camera_service.log").c_str(), 1);
        m_service.Start();
        ASSERT_TRUE(m_service.WaitAnswering()) << m_service.Log();
    }

    // vxcdb with these options; standard output only when `stdoutOnly` (for --json).
    ProgramOutput Vxcdb(const std::vector<std::string>& options, bool stdoutOnly = false) {
        std::vector<std::string> words = {
            "sh", "-c", std::string("\"$@\"") + (stdoutOnly ? " 2>/dev/null" : ""), "sh",
            corvanetest::BinDir() + "/vxcdb"};
        words.insert(words.end(), options.begin(), options.end());
        return RunProgram(words);
    }

    std::string CampaignFile(const std::string& name, const std::string& text) {
        std::string path = m_service.Path(name);
        corvanetest::WriteTextFile(path, text);
        return path;
    }

    // The value of an XPath expression over the report, as xmllint prints it.
    std::string XPath(const std::string& expression) {
        ProgramOutput result = RunProgram({"xmllint", "--xpath", expression, m_junit});
        EXPECT_EQ(result.exitCode, 0) << expression << ": " << result.output;
        // Some versions end the value with a line feed.
        std::string value = result.output;
        while (!value.empty() && value.back() == '\n') {
            value.pop_back();
        }
        return value;
    }

    std::string GroupResult(const std::string& group) {
        return m_service.Vxcdb({"corvane", "--inject", "result", group}).output;
    }

    SupervisedService m_service;
    std::string m_junit = m_service.Path("report.xml");
};

TEST_F(CampaignTest, TheSampleCampaignPassesWholeAfterAMalformedOneInjectedNothing) {
    StartService();
    // The first step is valid and would stay injected: the mistake in the second stops all.
    std::string malformed = CampaignFile("malformed.json", R"({"steps": [
        {"group": "sensor_i2c_fault", "clear": false},
        {"group": "motion_fault", "within": 3},
    ]})");
    ProgramOutput refused = Vxcdb({"--junit", m_junit, "--campaign", malformed});
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_NE(refused.output.find(malformed + ": step 2 (motion_fault): \"within\": unknown key"),
              std::string::npos)
        << refused.output;
    EXPECT_NE(GroupResult("sensor_i2c_fault").find("<unhook>"), std::string::npos);

    ProgramOutput run = Vxcdb({"--json", "--junit", m_junit, "--campaign",
                               corvanetest::SourceDir() + "/host/samples/campaign.json"},
                              true);
    EXPECT_EQ(run.exitCode, 0) << run.output << m_service.Log();
    rapidjson::Document result;
    ASSERT_FALSE(result.Parse(run.output.c_str()).HasParseError()) << run.output;
    EXPECT_TRUE(result["passed"].GetBool()) << run.output;
    const int steps = result["counts"]["steps"].GetInt();

    // Every group of the sample hook cases has its step, and one step is a firmware command.
    std::set<std::string> stepNames;
    int firmwareSteps = 0;
    for (const auto& step : result["steps"].GetArray()) {
        stepNames.insert(step["name"].GetString());
        firmwareSteps += std::string(step["kind"].GetString()) == "firmware" ? 1 : 0;
    }
    EXPECT_EQ(firmwareSteps, 1);
    std::string query = m_service.Vxcdb({"corvane", "--inject", "query"}).output;
    for (size_t line = query.find("\n", query.find("\n") + 1); line + 1 < query.size();
         line = query.find("\n", line + 1)) {
        std::string group = query.substr(line + 1, query.find(' ', line + 1) - line - 1);
        bool covered = false;
        for (const std::string& name : stepNames) {
            covered = covered || name == group || name.rfind(group + " ", 0) == 0;
        }
        EXPECT_TRUE(covered) << "no step injects " << group;
    }

    EXPECT_EQ(XPath("count(//testcase)"), std::to_string(steps));
    EXPECT_EQ(XPath("count(//testcase/failure)"), "0");
    EXPECT_EQ(XPath("string(/testsuites/testsuite/@tests)"), std::to_string(steps));
}

TEST_F(CampaignTest, FailedStepsSayWhichQuestionFailedAndTheCampaignGoesOn) {
    // A group whose victim the pipeline never calls: its fault cannot run.
    std::string hookCases = corvanetest::ReadTextFile(
        corvanetest::SourceDir() + "/host/samples/etc/corvanesystem_hook_case.json");
    const std::pair<std::string, std::string> additions[] = {
        {"\"HOOK_GROUP\": [", R"({"group_id": 90, "group_name": "idle_fault", "case": [90]},)"},
        {"\"HOOK_CASE\": [",
         R"({"case_id": 90, "case_name": "idle", "hook_function": ["actuator_position_fail"]},)"},
        {"\"HOOK_FUNCTION\": [",
         R"({"hook_id": 90, "hook_name": "actuator_position_fail", "hook_type": 2,
             "function_type": 1, "source_lib_name": "vendor/lib64/libcorvane_sample_sensor.so",
             "target_lib_name": "vendor/lib64/libcorvane_sample_fault.so",
             "source_function_symbol": "CameraActuatorPosition",
             "target_function_symbol": "FaultActuatorMoveTimeout"},)"},
    };
    for (const auto& addition : additions) {
        size_t at = hookCases.find(addition.first);
        ASSERT_NE(at, std::string::npos) << addition.first;
        hookCases.insert(at + addition.first.size(), addition.second);
    }
    m_service.sysroot().WriteFile(corvanetest::kHookCaseFile, hookCases);
    StartService();

    std::string campaign = CampaignFile("failing.json", R"({"name": "failing", "steps": [
        {"group": "idle_fault", "within_s": 0.5},
        {"group": "sensor_i2c_fault", "check": "echo camera stack unhappy; exit 3"},
        {"group": "motion_fault", "args": ["fast"], "stimulus": "\"$VXCDB\" corvane --signal 1"},
        {"group": "eeprom_fault"},
    ]})");
    ProgramOutput run = Vxcdb({"--junit", m_junit, "--campaign", campaign});
    EXPECT_EQ(run.exitCode, kExitCampaignFailed) << run.output;
    for (const char* line :
         {"[1/4] idle_fault: not executed", "[2/4] sensor_i2c_fault: check failed",
          "[3/4] motion_fault fast: service restarted", "[4/4] eeprom_fault: passed",
          "4 step(s): 1 passed, 3 failed"}) {
        EXPECT_NE(run.output.find(line), std::string::npos) << line << "\n" << run.output;
    }
    EXPECT_TRUE(m_service.LogContains("camera service died by signal 1, restarting"));
    // The restarted service put the injected group back from its database; the step removed it.
    EXPECT_NE(GroupResult("motion_fault").find("<unhook>"), std::string::npos);

    EXPECT_EQ(XPath("string(/testsuites/@tests)"), "4");
    EXPECT_EQ(XPath("string(/testsuites/testsuite/@failures)"), "3");
    EXPECT_EQ(XPath("count(//testcase/failure)"), "3");
    const std::pair<const char*, const char*> failures[] = {
        {"idle_fault", "not executed"},
        {"sensor_i2c_fault", "check failed"},
        {"motion_fault fast", "service restarted"},
    };
    for (const auto& failure : failures) {
        std::string testcase = std::string("//testcase[@name='") + failure.first + "']/failure";
        EXPECT_EQ(XPath("string(" + testcase + "/@message)"), failure.second);
    }
    EXPECT_NE(XPath("string(//testcase[@name='idle_fault']/failure)")
                  .find("executed: no <executed> within 0.5 s"),
              std::string::npos);
    EXPECT_NE(XPath("string(//testcase[@name='sensor_i2c_fault']/failure)")
                  .find("check: exit 3, output: camera stack unhappy"),
              std::string::npos);
}

}  // namespace
