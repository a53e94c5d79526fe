// The stimulus and check commands: their status and output as a campaign reports them, and the
// bounds that keep a misbehaving command from stalling an unattended run.
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>

#include "tests/support/testsupport.h"
#include "tools/vxcdb/vxcdbshellcommand.h"

namespace {

using vxcdb::RunShellCommand;

// Gone, or dead and waiting for a parent to reap it (an orphan whose reaper may be slow to).
bool Ended(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) {
        return true;
    }
    size_t name = line.rfind(')');
    return name != std::string::npos && line.compare(name + 1, 3, " Z ") == 0;
}

TEST(ShellCommand, ReportsStatusOutputAndTheStepsEnvironment) {
    vxcdb::ShellResult ok = RunShellCommand("echo \"$VXCDB_STEP\"; echo oops >&2; read x; exit 3",
                                            {{"VXCDB_STEP", "eeprom_fault"}}, 20);
    EXPECT_TRUE(ok.started);
    EXPECT_EQ(ok.exitCode, 3);
    EXPECT_FALSE(ok.Succeeded());
    // Both streams, and standard input at end of file (the read does not wait).
    EXPECT_EQ(ok.output, "eeprom_fault\noops\n");
    EXPECT_EQ(ok.Describe(), "exit 3");

    vxcdb::ShellResult killed = RunShellCommand("kill -9 $$", {}, 20);
    EXPECT_EQ(killed.termSignal, SIGKILL);
    EXPECT_EQ(killed.Describe(), "killed by signal 9");

    // Only the last bytes of a long output are kept.
    vxcdb::ShellResult loud = RunShellCommand("yes | head -c 100000; printf END", {}, 20);
    EXPECT_TRUE(loud.Succeeded());
    EXPECT_EQ(loud.output.size(), vxcdb::kMaxCommandOutputBytes);
    EXPECT_EQ(loud.output.substr(loud.output.size() - 3), "END");
}

TEST(ShellCommand, ADeadlineEndsTheWholeProcessGroup) {
    // A child in the background keeps the output pipe open: the command still ends with the
    // shell, not when the pipe closes.
    vxcdb::ShellResult background = RunShellCommand("sleep 30 & echo $!", {}, 20);
    EXPECT_TRUE(background.Succeeded());
    EXPECT_FALSE(background.timedOut);
    pid_t sleeper = atoi(background.output.c_str());
    ASSERT_GT(sleeper, 0);
    kill(sleeper, SIGKILL);

    // Past the deadline the shell and what it started are killed.
    vxcdb::ShellResult hung = RunShellCommand("sleep 30 & echo $!; wait", {}, 0.3);
    EXPECT_TRUE(hung.timedOut);
    EXPECT_FALSE(hung.Succeeded());
    pid_t descendant = atoi(hung.output.c_str());
    ASSERT_GT(descendant, 0);
    EXPECT_TRUE(corvanetest::WaitFor([&] { return Ended(descendant); }));
}

}  // namespace
