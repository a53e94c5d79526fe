// The campaign file: what it accepts, what each step defaults to, and that every mistake is
// refused whole, with the file, the step and the key named, before anything could be injected.
#include <gtest/gtest.h>

#include "tests/support/testsupport.h"
#include "tools/vxcdb/vxcdbcampaignfile.h"

namespace {

using vxcdb::Campaign;
using vxcdb::CampaignStep;

std::string Refusal(const std::string& text) {
    Campaign campaign;
    std::string error;
    EXPECT_FALSE(vxcdb::ParseCampaign(text, "c.json", &campaign, &error)) << text;
    return error;
}

TEST(CampaignFile, ReadsStepsWithTheLoaderRulesAndTheirDefaults) {
    Campaign campaign;
    std::string error;
    ASSERT_TRUE(vxcdb::ParseCampaign(R"(
        // comments and trailing commas, as in every file of the system
        {"steps": [
            {"group": "motion_fault", "args": ["fast", "2"],},
            /* a firmware command, all keys given */
            {"name": "ecc", "firmware": {"camera": 0, "sensor": 255, "interface": 3,
             "param": "ecc error"}, "stimulus": "true", "check": "true", "check_within_s": 0.5,
             "expect_installed": false, "expect_executed": false, "within_s": 0.25,
             "clear": false},
            {"firmware": {"camera": 1, "sensor": 2, "interface": 3}},
        ],})",
                                     "dir/sample.json", &campaign, &error))
        << error;
    EXPECT_EQ(campaign.name, "sample");  // the file's base name when the file gives none
    ASSERT_EQ(campaign.steps.size(), 3u);

    const CampaignStep& group = campaign.steps[0];
    EXPECT_EQ(group.name, "motion_fault fast 2");
    EXPECT_FALSE(group.isFirmware);
    EXPECT_EQ(group.args, (std::vector<std::string>{"fast", "2"}));
    EXPECT_TRUE(group.expectInstalled);
    EXPECT_TRUE(group.expectExecuted);
    EXPECT_EQ(group.withinSeconds, 5.0);
    EXPECT_EQ(group.checkWithinSeconds, 0.0);
    EXPECT_TRUE(group.clear);

    const CampaignStep& firmware = campaign.steps[1];
    EXPECT_EQ(firmware.name, "ecc");
    EXPECT_TRUE(firmware.isFirmware);
    EXPECT_EQ(firmware.firmware.sensor, 255);
    EXPECT_FALSE(firmware.expectInstalled);
    EXPECT_FALSE(firmware.expectExecuted);
    EXPECT_EQ(firmware.withinSeconds, 0.25);
    EXPECT_FALSE(firmware.clear);
    // The words sent: the param travels as one argument, which the service joins all the same.
    EXPECT_EQ(vxcdb::InjectWords(firmware, 1),
              (std::vector<std::string>{"firmware", "1", "0", "255", "3", "ecc error"}));
    EXPECT_EQ(campaign.steps[2].name, "firmware 0 1 2 3");
}

TEST(CampaignFile, RefusesMistakesNamingFileStepAndKey) {
    const std::string bigArgument(5000, 'x');
    const struct {
        std::string text;
        std::string error;
    } cases[] = {
        {"{\"steps\": [\n{\"group\": \"g\"}\n", "c.json: not valid JSON at line 3, column 1"},
        {"[{\"group\": \"g\"}]", "c.json: must hold an object with a \"steps\" list, not a list"},
        {R"({"step": []})", "c.json: \"step\": unknown key (known: name, steps)"},
        {R"({"steps": []})", "c.json: \"steps\": is empty: nothing to run"},
        {R"({"steps": {"group": "g"}})", "c.json: \"steps\": must be a list of steps"},
        {R"({"steps": [{"group": "a"}, "b"]})", "c.json: step 2: must be an object, got a string"},
        {R"({"steps": [{"group": "g"}, {"group": "m", "whithin_s": 3}]})",
         "c.json: step 2 (m): \"whithin_s\": unknown key (known: name, group, args, firmware,"},
        {R"({"steps": [{"group": "g", "check": "a", "check": "b"}]})",
         "c.json: step 1 (g): \"check\": given twice"},
        {R"({"steps": [{"check": "true"}]})",
         "c.json: step 1: names neither \"group\" nor \"firmware\""},
        {R"({"steps": [{"group": "g", "firmware": {}}]})",
         "step 1 (g): names both \"group\" and \"firmware\""},
        {R"({"steps": [{"group": "clear"}]})",
         "\"group\": 'clear' is a sub-command of --inject, not a hook group"},
        {R"({"steps": [{"group": " "}]})", "step 1 ( ): \"group\": must not be empty"},
        {R"({"steps": [{"group": "g", "args": ["a", 1]}]})",
         "\"args\": must be a list of strings, holds a number"},
        {R"({"steps": [{"group": "g", "within_s": 0}]})",
         "\"within_s\": must be a number of seconds greater than 0 to 3600, got 0"},
        {R"({"steps": [{"group": "g", "within_s": "5"}]})", "\"within_s\": must be a number"},
        {R"({"steps": [{"group": "g", "within_s": 3601}]})", "\"within_s\": must be a number"},
        {R"({"steps": [{"group": "g", "check": "true", "check_within_s": -1}]})",
         "\"check_within_s\": must be a number of seconds from 0 to 3600"},
        {R"({"steps": [{"group": "g", "check_within_s": 2}]})",
         "\"check_within_s\": given without a \"check\""},
        {R"({"steps": [{"group": "g", "expect_executed": "no"}]})",
         "\"expect_executed\": must be true or false, got a string"},
        {R"({"steps": [{"group": "g", "stimulus": ""}]})", "\"stimulus\": must not be empty"},
        {R"({"steps": [{"firmware": {"camera": 0, "sensor": 256, "interface": 3}}]})",
         "step 1: \"firmware.sensor\": must be a whole number from 0 to 255"},
        {R"({"steps": [{"firmware": {"camera": 0, "sensor": 1}}]})",
         "\"firmware.interface\": missing"},
        {R"({"steps": [{"firmware": {"camera": 0, "sensor": 1, "interface": 1, "cmd": 0}}]})",
         "\"firmware.cmd\": unknown key"},
        {R"({"steps": [{"firmware": [0, 3, 3]}]})", "\"firmware\": must be an object"},
        {R"({"steps": [{"firmware": {"camera": 0, "sensor": 1, "interface": 1}, "args": []}]})",
         "\"args\": belongs to hook-group steps"},
        {R"({"steps": [{"group": "g", "args": [")" + bigArgument + R"("]}]})",
         "\"args\": makes a request of "},
    };
    for (const auto& each : cases) {
        std::string error = Refusal(each.text);
        EXPECT_NE(error.find(each.error), std::string::npos)
            << "file: " << each.text << "\nerror: " << error;
    }
}

TEST(CampaignFile, RefusesFilesThatAreNotCampaigns) {
    corvanetest::TempDir dir;
    corvanetest::WriteTextFile(dir / "big.json",
                               std::string(vxcdb::kMaxCampaignFileBytes + 1, ' '));
    corvanetest::WriteTextFile(dir / "nul.json",
                               std::string("{\"steps\": [{\"group\": \"g\"}]}\0", 29));
    const struct {
        std::string path;
        std::string error;
    } cases[] = {
        {dir / "missing.json", "missing.json: cannot be read"},
        {dir.path(), ": cannot be read"},
        {dir / "big.json", "big.json: larger than 1048576 bytes"},
        {dir / "nul.json", "nul.json: holds a NUL byte"},
    };
    for (const auto& each : cases) {
        Campaign campaign;
        std::string error;
        EXPECT_FALSE(vxcdb::LoadCampaignFile(each.path, &campaign, &error)) << each.path;
        EXPECT_NE(error.find(each.error), std::string::npos) << error;
    }
}

}  // namespace
