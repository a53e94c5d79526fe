// "vxcdb --check": reads a hook-case file or a protection configuration by the rules the
// service reads it with, without a service, and reports every problem at its line and column,
// so that a mistake is found before the restart instead of in the service's log.
#pragma once

#include <stddef.h>

#include <ostream>
#include <string>
#include <vector>

namespace vxcdb {

// Exit codes of "vxcdb --check".
constexpr int kCheckExitClean = 0;
constexpr int kCheckExitProblems = 1;  // problems found, or the file cannot be read

struct CheckProblem {
    size_t offset = 0;  // byte offset in the file
    size_t line = 0;    // 1-based; 0 when the problem is the file as a whole
    size_t column = 0;  // 1-based, in characters
    std::string message;
};

struct CheckResult {
    std::string kind;                    // "hook-case file", "protection configuration" or ""
    std::vector<CheckProblem> problems;  // in file order
    std::vector<std::string> notes;      // what could not be checked, and why
};

// Checks the file at `path`. Libraries named by a hook-case file are opened from the device tree
// `sysroot` ("/" on a device). A protection configuration's group names are checked against the
// hook-case file of `sysroot` when `sysrootGiven`, otherwise against the hook-case file beside it.
CheckResult CheckConfigurationFile(const std::string& path, const std::string& sysroot,
                                   bool sysrootGiven);

// Runs the check and prints one "FILE:LINE:COLUMN: problem" line per problem, the notes and a
// summary to `out`; returns the exit code. An empty `sysroot` means $CORVANE_SYSROOT, or "/".
int RunCheck(const std::string& path, const std::string& sysroot, std::ostream& out);

// The name of `candidates` nearest to `name` (a misspelling, a missing word, another case), or
// empty when none is near enough to be a likely meaning.
std::string NearestName(const std::string& name, const std::vector<std::string>& candidates);

}  // namespace vxcdb
