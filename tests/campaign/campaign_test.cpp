// The campaign runner's parts that need no service. The campaign file: what it accepts, what each
// step defaults to, and that every mistake is refused whole, with the file, the step and the key
// named, before anything could be injected. The stimulus and check commands: their status and
// output, and the bounds that keep a misbehaving command from stalling an unattended run. The
// JUnit report's text, which must stay well-formed XML whatever commands print.
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <tuple>

#include "tests/support/testsupport.h"
#include "tools/vxcdb/vxcdbcampaignfile.h"
#include "tools/vxcdb/vxcdbcampaignreport.h"
#include "tools/vxcdb/vxcdbshellcommand.h"

namespace {

using Strings = std::vector<std::string>;

TEST(CampaignFile, ReadsStepsWithTheLoaderRulesAndTheirDefaults) {
    vxcdb::Campaign campaign;
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
    auto fields = [](const vxcdb::CampaignStep& step) {
        return std::make_tuple(step.name, step.isFirmware, step.args, step.expectInstalled,
                               step.expectExecuted, step.withinSeconds, step.checkWithinSeconds,
                               step.clear);
    };
    EXPECT_EQ(fields(campaign.steps[0]),
              std::make_tuple("motion_fault fast 2", false, Strings{"fast", "2"}, true, true, 5.0,
                              0.0, true));
    EXPECT_EQ(fields(campaign.steps[1]),
              std::make_tuple("ecc", true, Strings{}, false, false, 0.25, 0.5, false));
    // The words sent: the param travels as one argument, which the service joins all the same.
    EXPECT_EQ(vxcdb::InjectWords(campaign.steps[1], 1),
              (Strings{"firmware", "1", "0", "255", "3", "ecc error"}));
    EXPECT_EQ(campaign.steps[2].name, "firmware 0 1 2 3");
}

// A file that is no campaign at all, and every mistake in one: refused with the file, the step and
// the key named.
TEST(CampaignFile, RefusesMistakesNamingFileStepAndKey) {
    const std::string bigArgument(5000, 'x');
    const struct {
        std::string text;
        std::string error;
        std::string file = "c.json";  // what is read; the text is written to c.json
    } cases[] = {
        {"", "missing.json: cannot be read", "missing.json"},
        {"", ": cannot be read", "."},
        {std::string(vxcdb::kMaxCampaignFileBytes + 1, ' '), "c.json: larger than 1048576 bytes"},
        {std::string("{\"steps\": [{\"group\": \"g\"}]}\0", 29), "c.json: holds a NUL byte"},
        {"{\"steps\": [\n{\"group\": \"g\"}\n", "c.json: not valid JSON at line 3, column 1"},
        {"[{\"group\": \"g\"}]", "c.json: must hold an object with a \"steps\" list, not a list"},
        {R"({"steps": []})", "c.json: \"steps\": is empty: nothing to run"},
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
        {R"({"steps": [{"group": "g", "check": "true", "check_within_s": -1}]})",
         "\"check_within_s\": must be a number of seconds from 0 to 3600"},
        {R"({"steps": [{"group": "g", "check_within_s": 2}]})",
         "\"check_within_s\": given without a \"check\""},
        {R"({"steps": [{"group": "g", "expect_executed": "no"}]})",
         "\"expect_executed\": must be true or false, got a string"},
        {R"({"steps": [{"firmware": {"camera": 0, "sensor": 256, "interface": 3}}]})",
         "step 1: \"firmware.sensor\": must be a whole number from 0 to 255"},
        {R"({"steps": [{"firmware": {"camera": 0, "sensor": 1}}]})",
         "\"firmware.interface\": missing"},
        {R"({"steps": [{"firmware": {"camera": 0, "sensor": 1, "interface": 1}, "args": []}]})",
         "\"args\": belongs to hook-group steps"},
        {R"({"steps": [{"group": "g", "args": [")" + bigArgument + R"("]}]})",
         "\"args\": makes a request of "},
    };
    corvanetest::TempDir dir;
    for (const auto& each : cases) {
        corvanetest::WriteTextFile(dir / "c.json", each.text);
        vxcdb::Campaign campaign;
        std::string error;
        EXPECT_FALSE(vxcdb::LoadCampaignFile(dir / each.file, &campaign, &error)) << each.text;
        EXPECT_NE(error.find(each.error), std::string::npos) << each.text << "\n" << error;
    }
}

// Gone, or dead and waiting for a parent to reap it (an orphan whose reaper may be slow to).
bool Ended(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    return !std::getline(stat, line) || line.find(") Z ") != std::string::npos;
}

// The status, the output and the step's environment; a deadline ends the whole process group.
TEST(ShellCommand, ReportsStatusOutputAndEndsWithinItsDeadline) {
    vxcdb::ShellResult ok =
        vxcdb::RunShellCommand("echo \"$VXCDB_STEP\"; echo oops >&2; read x; exit 3",
                               {{"VXCDB_STEP", "eeprom_fault"}}, 20);
    EXPECT_TRUE(ok.started);
    EXPECT_FALSE(ok.Succeeded());
    // Both streams, and standard input at end of file (the read does not wait).
    EXPECT_EQ(ok.output, "eeprom_fault\noops\n");
    EXPECT_EQ(ok.Describe(), "exit 3");

    vxcdb::ShellResult killed = vxcdb::RunShellCommand("kill -9 $$", {}, 20);
    EXPECT_EQ(killed.termSignal, SIGKILL);
    EXPECT_EQ(killed.Describe(), "killed by signal 9");

    // Only the last bytes of a long output are kept.
    vxcdb::ShellResult loud = vxcdb::RunShellCommand("yes | head -c 100000; printf END", {}, 20);
    EXPECT_TRUE(loud.Succeeded());
    EXPECT_EQ(loud.output.size(), vxcdb::kMaxCommandOutputBytes);
    EXPECT_EQ(loud.output.substr(loud.output.size() - 3), "END");

    // A child in the background keeps the output pipe open: the command still ends with the
    // shell, not when the pipe closes.
    vxcdb::ShellResult background = vxcdb::RunShellCommand("sleep 30 & echo $!", {}, 20);
    EXPECT_TRUE(background.Succeeded());
    pid_t sleeper = atoi(background.output.c_str());
    ASSERT_GT(sleeper, 0);
    kill(sleeper, SIGKILL);

    // Past the deadline the shell and what it started are killed.
    vxcdb::ShellResult hung = vxcdb::RunShellCommand("sleep 30 & echo $!; wait", {}, 0.3);
    EXPECT_TRUE(hung.timedOut);
    EXPECT_FALSE(hung.Succeeded());
    pid_t descendant = atoi(hung.output.c_str());
    ASSERT_GT(descendant, 0);
    EXPECT_TRUE(corvanetest::WaitFor([&] { return Ended(descendant); }));
}

TEST(CampaignReport, XmlTextKeepsCharactersXmlAllowsAndReplacesTheRest) {
    const std::pair<std::string, std::string> cases[] = {
        {"a<b>&\"c'", "a&lt;b&gt;&amp;&quot;c&apos;"},
        {"tab\tline\nreturn\r", "tab\tline\nreturn\r"},
        {std::string("nul\0bell\a", 9), "nul?bell?"},
        {"相机 ✓ 😀", "相机 ✓ 😀"},                // wide characters, four-byte sequences
        {"\xff\xfe cut \xe7\x9b", "?? cut ??"},  // not UTF-8; a sequence cut short
        {"\xc0\xaf \xed\xa0\x80 \xef\xbf\xbf", "?? ??? ???"},  // overlong, surrogate, U+FFFF
    };
    for (const auto& [text, xml] : cases) {
        EXPECT_EQ(vxcdb::XmlEscape(text), xml) << text;
    }
}

}  // namespace
