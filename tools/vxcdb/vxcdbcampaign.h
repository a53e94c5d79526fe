// Runs a fault campaign against the camera service, as a client of its debug channel only.
// Each step answers four questions: was the fault installed, did the faulty code really run, did
// the camera stack cope (the step's own check), and was everything removed afterwards. A service
// that dies during a step (and is restarted by its supervisor) is a finding of that step, not an
// error of the runner: the runner waits for the channel to come back and goes on.
#pragma once

#include <sys/types.h>

#include <ostream>
#include <string>
#include <vector>

#include "tools/vxcdb/vxcdbcampaignfile.h"
#include "tools/vxcdb/vxcdbcommandline.h"
#include "tools/vxcdb/vxcdbconnection.h"
#include "tools/vxcdb/vxcdbshellcommand.h"

namespace vxcdb {

// Longest wait for the debug channel after the service went away: a supervised service is back
// within a second or two; one that is not back by then is not coming back by itself.
constexpr double kServiceReturnSeconds = 30.0;
// Interval of the "did it run" and "is it back" polls: each is one connection to the service.
constexpr int kPollIntervalMs = 100;
// Longest run of one stimulus or check command.
constexpr double kCommandTimeoutSeconds = 60.0;

// The answer to one of the four questions.
struct Question {
    enum class State { kNotAsked, kPassed, kFailed };
    State state = State::kNotAsked;
    bool observed = false;    // what was seen: installed, executed, check succeeded, cleared
    bool unanswered = false;  // failed because the service went away while it was asked
    std::string detail;       // why it failed, or what was seen when that is worth knowing

    void Answer(bool seen, bool expected, std::string why);
    bool Failed() const { return state == State::kFailed; }
};

struct StepResult {
    std::string name;
    bool isFirmware = false;
    Question installed, executed, check, cleared;
    bool restarted = false;  // the service that answered at the end was not the one at the start
    bool notRun = false;     // the service was gone for good before this step
    ShellResult stimulus, checkRun;  // `started` false when the step had none or did not get there
    std::vector<std::string> notes;  // things done or seen beside the four answers
    double seconds = 0;

    bool Passed() const;
    // "passed", "not installed", "installed unexpectedly", "not executed", "executed
    // unexpectedly", "check failed", "not cleared", "service restarted", "no answer", "not run"
    std::string Verdict() const;
    // The questions that failed, one line each ("executed: ..."); empty when the step passed.
    std::string FailureText() const;
};

struct CampaignResult {
    std::string file;
    std::string name;
    std::vector<StepResult> steps;
    double seconds = 0;

    int Passed() const;
    int Failed() const { return static_cast<int>(steps.size()) - Passed(); }
};

struct CampaignOptions {
    std::string socketPath;
    double requestTimeoutSeconds = 5.0;  // of each exchange with the service
    std::string toolPath;                // this program, for the commands ($VXCDB)
};

// Why a campaign could not start: the service does not answer (nothing was injected).
struct CampaignStartError {
    ExchangeStatus status = ExchangeStatus::kOk;
    std::string detail;
};

// Runs every step in order, printing one progress line per step to `progress`. False (with
// `*startError`) when the service did not answer before the first step.
bool RunCampaign(const Campaign& campaign, const CampaignOptions& options, std::ostream& progress,
                 CampaignResult* result, CampaignStartError* startError);

// Exit status of `vxcdb --campaign` when the campaign ran and a step did not pass. The codes of
// the single-request mode keep their meaning: 2 a bad command line or campaign file, 3, 4 and 5
// the service could not be reached before the first step (nothing was injected).
constexpr int kExitCampaignFailed = 10;

// `vxcdb --campaign FILE [--json] [--junit FILE]`: loads the file, runs it, prints the summary
// (or the JSON result), writes the JUnit report; returns the exit status.
int RunCampaignCommand(const CommandLine& commandLine, const std::string& toolPath);

}  // namespace vxcdb
