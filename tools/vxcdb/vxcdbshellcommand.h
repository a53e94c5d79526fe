// Runs a campaign's stimulus and check commands: `sh -c COMMAND` (the system's shell) with standard
// input from /dev/null, its output collected, and a deadline after which its whole process group is
// killed, so that a hanging check cannot stall an unattended campaign.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace vxcdb {

// The most output kept of one command (its last bytes): enough for the lines that explain a
// failure, and bounded whatever the command prints.
constexpr size_t kMaxCommandOutputBytes = 8192;

struct ShellResult {
    bool started = false;  // false when no process could be started (detail in `output`)
    bool timedOut = false;
    int exitCode = -1;   // when it exited
    int termSignal = 0;  // when a signal ended it
    std::string output;  // standard output and error together, at most kMaxCommandOutputBytes
    double seconds = 0;

    bool Succeeded() const { return started && !timedOut && termSignal == 0 && exitCode == 0; }
    // "exit 0", "exit 3", "killed by signal 9", "timed out after 60 s", "not started"
    std::string Describe() const;
};

using Environment = std::vector<std::pair<std::string, std::string>>;

// Runs `command` with the caller's environment plus `extra`. Returns when the shell has ended, or
// at the deadline (the process group is then killed). Background processes the command leaves
// behind are not waited for.
ShellResult RunShellCommand(const std::string& command, const Environment& extra,
                            double timeoutSeconds);

}  // namespace vxcdb
