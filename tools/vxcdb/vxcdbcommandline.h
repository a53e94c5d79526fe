// The vxcdb command line:
//   vxcdb [--json] [--timeout SECONDS] [--socket PATH] MODULE --OPTION [ARG...] [--OPTION
//   [ARG...]]... vxcdb --help
//   vxcdb --check [--sysroot DIR] FILE
//   vxcdb [--json] [--timeout SECONDS] [--socket PATH] [--junit FILE] --campaign FILE
// Tool options come before the module name. After it, every word that starts with "--" begins a
// new command (the word without its dashes is the option), the words up to the next one are its
// arguments; a lone "--" makes every following word an argument of the current command.
#pragma once

#include <string>

#include "vxcdbmessage.pb.h"

namespace vxcdb {

struct CommandLine {
    bool showUsage = false;  // "--help" before any module: print the tool's usage locally
    bool json = false;
    double timeoutSeconds = 5.0;
    std::string socketPath;    // empty: the device path (CORVANE_SYSROOT applied on a host)
    VXCDBMessage request;      // one message: module name and type, one command per option
    std::string campaignFile;  // "--campaign FILE": run a fault campaign instead of one request
    std::string junitFile;     // "--junit FILE" (campaigns only): also write a JUnit XML report
    // "--check [--sysroot DIR] FILE": check a configuration file locally instead of a request.
    bool check = false;
    std::string checkFile;
    std::string checkSysroot;  // empty: $CORVANE_SYSROOT, or "/"
};

// Fills `*commandLine` from argv[1..]; false with a one-line reason in `*error` on a mistake.
bool ParseCommandLine(int argc, const char* const* argv, CommandLine* commandLine,
                      std::string* error);

// The tool's own usage text (for "vxcdb --help").
const char* UsageText();

}  // namespace vxcdb
