#include "tools/vxcdb/vxcdbcampaign.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "core/controller/corvanesystemimpl.h"
#include "core/controller/vxcdbprotocol.h"
#include "platform/devicepath.h"
#include "tools/vxcdb/vxcdbcampaignreport.h"
#include "tools/vxcdb/vxcdbreplyprinter.h"

namespace vxcdb {

namespace {

using Clock = std::chrono::steady_clock;

// Reply cells the runner reads; they are the service's own words.
constexpr const char* kExecuted = "<executed>";
constexpr const char* kUnhook = "<unhook>";
constexpr const char* kNotFind = "<not find>";
// Longest wait for one exchange while looking whether the service is back.
constexpr double kProbeTimeoutSeconds = 1.0;
// Interval between two runs of a failing check given "check_within_s".
constexpr int kCheckRetryIntervalMs = 200;

// Same exit codes as the single-request mode.
constexpr int kExitOk = 0;
constexpr int kExitUsage = 2;
constexpr int kExitCannotConnect = 3;
constexpr int kExitTimeout = 4;
constexpr int kExitNoUsableReply = 5;

Clock::time_point After(double seconds) {
    return Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string Seconds(double value) {
    std::ostringstream text;
    text << value << " s";
    return text.str();
}

// Sleeps one poll interval, or less when the deadline is nearer.
void PauseBefore(Clock::time_point deadline) {
    auto slice = std::min<Clock::duration>(std::chrono::milliseconds(kPollIntervalMs),
                                           deadline - Clock::now());
    if (slice > Clock::duration::zero()) {
        std::this_thread::sleep_for(slice);
    }
}

std::string ErrorOf(const std::vector<ReplyItem>& items) {
    for (const ReplyItem& item : items) {
        if (!item.isTable && item.key == VXCDB_KEY_ERROR) {
            return item.values.empty() ? "(no text)" : item.values[0];
        }
    }
    return "";
}

const ReplyItem* LastTable(const std::vector<ReplyItem>& items) {
    for (auto item = items.rbegin(); item != items.rend(); ++item) {
        if (item->isTable) {
            return &*item;
        }
    }
    return nullptr;
}

// Group steps: the result table "group name,result,executed" names the group in its one row.
// Firmware steps: the status table holds one row per acknowledgement, or one "<not find>" row.
std::string Cell(const std::vector<ReplyItem>& items, size_t column) {
    const ReplyItem* table = LastTable(items);
    if (table == nullptr || table->rows.empty() || column >= table->rows[0].size()) {
        return "";
    }
    return table->rows[0][column];
}

bool Acknowledged(const std::vector<ReplyItem>& items) {
    const ReplyItem* table = LastTable(items);
    if (table == nullptr) {
        return false;
    }
    for (const auto& row : table->rows) {
        if (!row.empty() && row.back() != kNotFind) {
            return true;
        }
    }
    return false;
}

bool HasRan(const CampaignStep& step, const std::vector<ReplyItem>& items) {
    return step.isFirmware ? Acknowledged(items) : Cell(items, 2) == kExecuted;
}

bool IsGone(const CampaignStep& step, const std::vector<ReplyItem>& items) {
    if (!ErrorOf(items).empty() || LastTable(items) == nullptr) {
        return false;
    }
    return step.isFirmware ? !Acknowledged(items) : Cell(items, 1) == kUnhook;
}

std::string Tail(const std::string& output) {
    constexpr size_t kShown = 400;  // of a command's output, in a failure line
    std::string text =
        output.size() > kShown ? "..." + output.substr(output.size() - kShown) : output;
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

// The service behind the socket, followed from one exchange to the next by the pid of the
// process that listens on it.
class ServiceChannel {
  public:
    enum class Outcome {
        kAnswered,   // the service that answered before answered again
        kRestarted,  // another process answered (now or after the channel came back)
        kLost,       // no answer, then the same process answered again: it was too slow
        kGone,       // no answer, and the channel did not come back within the bound
    };

    explicit ServiceChannel(const CampaignOptions& options) : m_options(options) {}

    // Learns which process serves the channel; false when none answers.
    bool Start(CampaignStartError* error) {
        VXCDBMessage reply;
        ExchangeResult exchange;
        if (!Send(HelpRequest(), m_options.requestTimeoutSeconds, &reply, &exchange)) {
            error->status = exchange.status;
            error->detail = exchange.detail;
            return false;
        }
        m_pid = exchange.serverPid;
        return true;
    }

    // One request of "--inject" commands. On kAnswered and kRestarted `*items` holds the reply
    // (from the new process for kRestarted); `*detail` says what happened otherwise.
    Outcome Ask(const std::vector<std::vector<std::string>>& commands,
                std::vector<ReplyItem>* items, std::string* detail) {
        items->clear();
        VXCDBMessage reply;
        ExchangeResult exchange;
        if (Send(InjectRequest(commands), m_options.requestTimeoutSeconds, &reply, &exchange)) {
            *items = ReadReply(reply);
            return Follow(exchange.serverPid, detail);
        }
        *detail = exchange.detail;
        pid_t before = m_pid;
        if (!WaitBack()) {
            *detail +=
                "; the debug channel did not come back within " + Seconds(kServiceReturnSeconds);
            return Outcome::kGone;
        }
        if (m_pid > 0 && m_pid == before) {
            return Outcome::kLost;
        }
        *detail += "; the service came back" +
                   (m_pid > 0 ? " as pid " + std::to_string(m_pid) : std::string());
        return Outcome::kRestarted;
    }

    bool gone() const { return m_gone; }

  private:
    static VXCDBMessage HelpRequest() {
        VXCDBMessage request;
        request.set_modulename("corvane");
        request.set_moduletype(VXCDBMessage::CORVANE);
        VXCDBMessage_CDBCmd* command = request.add_cmds();
        command->set_options("help");
        command->add_arguments("help");
        return request;
    }

    // True when a whole, readable reply arrived.
    bool Send(const VXCDBMessage& request, double timeoutSeconds, VXCDBMessage* reply,
              ExchangeResult* exchange) {
        VXCDBMessageString frame;
        memset(&frame, 0, sizeof(frame));
        std::string payload;
        request.SerializeToString(&payload);  // sizes were checked when the file was read
        memcpy(frame.payload, payload.data(), std::min(payload.size(), sizeof(frame.payload)));
        frame.payloadLen = static_cast<int32_t>(payload.size());
        VXCDBMessageString replyFrame;
        *exchange = Exchange(m_options.socketPath, frame, timeoutSeconds, &replyFrame);
        if (exchange->status != ExchangeStatus::kOk) {
            return false;
        }
        if (!DecodeVXCDBMessage(replyFrame, reply) || !reply->has_modulename()) {
            exchange->status = ExchangeStatus::kClosed;
            exchange->detail = "the reply is not a readable message";
            return false;
        }
        return true;
    }

    Outcome Follow(pid_t pid, std::string* detail) {
        if (pid <= 0 || m_pid <= 0 || pid == m_pid) {
            m_pid = pid > 0 ? pid : m_pid;
            return Outcome::kAnswered;
        }
        *detail = "the service now answers as pid " + std::to_string(pid) + " (was " +
                  std::to_string(m_pid) + ")";
        m_pid = pid;
        return Outcome::kRestarted;
    }

    // Waits until some process answers on the channel again, bounded.
    bool WaitBack() {
        const Clock::time_point deadline = After(kServiceReturnSeconds);
        for (;;) {
            VXCDBMessage reply;
            ExchangeResult exchange;
            if (Send(HelpRequest(), kProbeTimeoutSeconds, &reply, &exchange)) {
                m_pid = exchange.serverPid > 0 ? exchange.serverPid : -1;
                return true;
            }
            if (Clock::now() >= deadline) {
                m_gone = true;
                return false;
            }
            PauseBefore(deadline);
        }
    }

    const CampaignOptions& m_options;
    pid_t m_pid = -1;
    bool m_gone = false;
};

using Outcome = ServiceChannel::Outcome;

// One step, phase by phase. A phase whose exchange does not come back answered ends the step:
// its question fails with what happened, and the step only removes its fault, so that the next
// step starts clean (a restarted service re-installs injected groups from its database).
class StepRunner {
  public:
    StepRunner(const CampaignStep& step, ServiceChannel& channel, Environment environment)
        : m_step(step), m_channel(channel), m_environment(std::move(environment)) {
        m_result.name = step.name;
        m_result.isFirmware = step.isFirmware;
    }

    StepResult Run() {
        const Clock::time_point start = Clock::now();
        if (Prepare() && Inject() && Stimulate() && AwaitExecution()) {
            Check();
        }
        if (m_step.clear) {
            Clear();
        } else if (!m_stopped && !m_channel.gone()) {
            // Nothing else asks the service after the check: one look, so that a restart during
            // the check is reported by this step and not the next.
            std::vector<ReplyItem> items;
            Interrupted(m_channel.Ask({ExecutedQueryWords(m_step)}, &items, &m_detail), nullptr);
        }
        m_result.seconds = SecondsSince(start);
        return m_result;
    }

  private:
    // Records an exchange that did not come back answered; true when it did not.
    bool Interrupted(Outcome outcome, Question* question) {
        if (outcome == Outcome::kAnswered) {
            return false;
        }
        if (outcome == Outcome::kRestarted) {
            m_result.restarted = true;
        }
        std::string why = (outcome == Outcome::kRestarted ? "the service restarted: "
                           : outcome == Outcome::kLost    ? "the service did not answer in time: "
                                                          : "the service went away: ") +
                          m_detail;
        if (question != nullptr) {
            question->state = Question::State::kFailed;
            question->unanswered = true;
            question->detail = why;
        } else {
            m_result.notes.push_back(why);
        }
        m_stopped = true;
        return true;
    }

    // A step waits for its own sign of execution. One left from before would answer at once: a
    // firmware acknowledgement at the step's address is removed first; a group that already
    // shows <executed> (a mark left by an acknowledgement, or an injection not cleared) is reset
    // by clearing every injection, the only command that resets the marks.
    bool Prepare() {
        std::vector<ReplyItem> items;
        if (Interrupted(m_channel.Ask({ExecutedQueryWords(m_step)}, &items, &m_detail),
                        &m_result.installed)) {
            return false;
        }
        if (!HasRan(m_step, items)) {
            return true;
        }
        m_result.notes.push_back(
            m_step.isFirmware
                ? "an acknowledgement left from before was removed first"
                : "the group showed <executed> before its injection: every injection was cleared "
                  "first");
        const std::vector<std::string> reset = m_step.isFirmware
                                                   ? InjectWords(m_step, kFirmwareRemove)
                                                   : std::vector<std::string>{"clear"};
        return !Interrupted(m_channel.Ask({reset}, &items, &m_detail), &m_result.installed);
    }

    bool Inject() {
        std::vector<ReplyItem> items;
        if (Interrupted(m_channel.Ask({InjectWords(m_step)}, &items, &m_detail),
                        &m_result.installed)) {
            return false;
        }
        std::string error = ErrorOf(items);
        m_result.installed.Answer(error.empty(), m_step.expectInstalled,
                                  error.empty() ? "the service accepted the injection"
                                                : "the service answered: " + error);
        return !m_result.installed.Failed();
    }

    bool Stimulate() {
        if (!m_step.stimulus.empty()) {
            m_result.stimulus =
                RunShellCommand(m_step.stimulus, m_environment, kCommandTimeoutSeconds);
            if (!m_result.stimulus.Succeeded()) {
                m_result.notes.push_back("stimulus: " + m_result.stimulus.Describe());
            }
        }
        return true;
    }

    bool AwaitExecution() {
        const std::string what =
            m_step.isFirmware ? "an acknowledgement in --inject status" : "<executed>";
        const Clock::time_point deadline = After(m_step.withinSeconds);
        for (;;) {
            std::vector<ReplyItem> items;
            if (Interrupted(m_channel.Ask({ExecutedQueryWords(m_step)}, &items, &m_detail),
                            &m_result.executed)) {
                return false;
            }
            bool ran = HasRan(m_step, items);
            if (ran || Clock::now() >= deadline) {
                m_result.executed.Answer(
                    ran, m_step.expectExecuted,
                    ran ? "showed " + what
                        : "no " + what + " within " + Seconds(m_step.withinSeconds));
                return true;  // the check runs either way: it says how the stack is doing
            }
            PauseBefore(deadline);
        }
    }

    void Check() {
        if (m_step.check.empty()) {
            return;
        }
        const Clock::time_point deadline = After(m_step.checkWithinSeconds);
        for (;;) {
            m_result.checkRun =
                RunShellCommand(m_step.check, m_environment, kCommandTimeoutSeconds);
            if (m_result.checkRun.Succeeded() || Clock::now() >= deadline) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(kCheckRetryIntervalMs));
        }
        std::string output = Tail(m_result.checkRun.output);
        m_result.check.Answer(
            m_result.checkRun.Succeeded(), true,
            m_result.checkRun.Describe() + (output.empty() ? "" : ", output: " + output));
    }

    void Clear() {
        if (m_channel.gone()) {
            return;
        }
        std::vector<ReplyItem> items;
        Outcome outcome = m_channel.Ask(ClearCommands(m_step), &items, &m_detail);
        if (outcome == Outcome::kRestarted) {
            // A restarted service installs the injected groups again from its database: remove
            // them once more from the process that is there now.
            m_result.restarted = true;
            m_result.notes.push_back("the service restarted: " + m_detail);
            outcome = m_channel.Ask(ClearCommands(m_step), &items, &m_detail);
        }
        if (Interrupted(outcome, &m_result.cleared)) {
            return;
        }
        bool gone = IsGone(m_step, items);
        std::string error = ErrorOf(items);
        m_result.cleared.Answer(
            gone, true,
            gone             ? ""
            : !error.empty() ? "the service answered: " + error
            : m_step.isFirmware
                ? "the acknowledgement is still shown after removing the command"
                : "the group does not show " + std::string(kUnhook) + " after the clear");
    }

    const CampaignStep& m_step;
    ServiceChannel& m_channel;
    Environment m_environment;
    StepResult m_result;
    std::string m_detail;
    bool m_stopped = false;  // an exchange did not come back answered
};

std::string Directory(const std::string& path) {
    char* absolute = realpath(path.c_str(), nullptr);
    std::string resolved = absolute != nullptr ? absolute : path;
    free(absolute);
    size_t slash = resolved.find_last_of('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : resolved.substr(0, slash);
}

}  // namespace

void Question::Answer(bool seen, bool expected, std::string why) {
    observed = seen;
    state = seen == expected ? State::kPassed : State::kFailed;
    detail = std::move(why);
}

bool StepResult::Passed() const {
    return !notRun && !restarted && !installed.Failed() && !executed.Failed() && !check.Failed() &&
           !cleared.Failed();
}

std::string StepResult::Verdict() const {
    if (notRun) {
        return "not run";
    }
    if (restarted) {
        return "service restarted";
    }
    for (const Question* question : {&installed, &executed, &check, &cleared}) {
        if (question->unanswered) {
            return "no answer";
        }
    }
    if (installed.Failed()) {
        return installed.observed ? "installed unexpectedly" : "not installed";
    }
    if (executed.Failed()) {
        return executed.observed ? "executed unexpectedly" : "not executed";
    }
    if (check.Failed()) {
        return "check failed";
    }
    if (cleared.Failed()) {
        return "not cleared";
    }
    return "passed";
}

std::string StepResult::FailureText() const {
    std::string text;
    if (notRun) {
        text += "not run: the service was gone\n";
    }
    if (restarted) {
        text += "the service restarted during the step\n";
    }
    const std::pair<const char*, const Question*> questions[] = {{"installed", &installed},
                                                                 {"executed", &executed},
                                                                 {"check", &check},
                                                                 {"cleared", &cleared}};
    for (const auto& question : questions) {
        if (question.second->Failed()) {
            text += std::string(question.first) + ": " + question.second->detail + "\n";
        }
    }
    for (const std::string& note : notes) {
        if (!text.empty()) {
            text += "note: " + note + "\n";
        }
    }
    return text;
}

int CampaignResult::Passed() const {
    int passed = 0;
    for (const StepResult& step : steps) {
        passed += step.Passed() ? 1 : 0;
    }
    return passed;
}

bool RunCampaign(const Campaign& campaign, const CampaignOptions& options, std::ostream& progress,
                 CampaignResult* result, CampaignStartError* startError) {
    const Clock::time_point start = Clock::now();
    result->file = campaign.path;
    result->name = campaign.name;
    ServiceChannel channel(options);
    if (!channel.Start(startError)) {
        return false;
    }
    const std::string directory = Directory(campaign.path);
    const size_t total = campaign.steps.size();
    for (size_t i = 0; i < total; ++i) {
        const CampaignStep& step = campaign.steps[i];
        StepResult stepResult;
        if (channel.gone()) {
            stepResult.name = step.name;
            stepResult.isFirmware = step.isFirmware;
            stepResult.notRun = true;
        } else {
            Environment environment = {{"VXCDB", options.toolPath},
                                       {"VXCDB_STEP", step.name},
                                       {"VXCDB_CAMPAIGN_DIR", directory}};
            stepResult = StepRunner(step, channel, std::move(environment)).Run();
        }
        std::ostringstream seconds;
        seconds.precision(1);
        seconds << std::fixed << stepResult.seconds;
        progress << "[" << i + 1 << "/" << total << "] " << step.name << ": "
                 << stepResult.Verdict() << " (" << seconds.str() << " s)" << std::endl;
        result->steps.push_back(std::move(stepResult));
    }
    result->seconds = SecondsSince(start);
    return true;
}

int RunCampaignCommand(const CommandLine& commandLine, const std::string& toolPath) {
    Campaign campaign;
    std::string error;
    if (!LoadCampaignFile(commandLine.campaignFile, &campaign, &error)) {
        std::cerr << "vxcdb: " << error << "\nNothing was injected.\n";
        return kExitUsage;
    }
    // Opened before the first step: a report that cannot be written is known before anything is
    // injected.
    std::ofstream junit;
    if (!commandLine.junitFile.empty()) {
        junit.open(commandLine.junitFile, std::ios::binary | std::ios::trunc);
        if (!junit) {
            std::cerr << "vxcdb: cannot write the JUnit report " << commandLine.junitFile << ": "
                      << strerror(errno) << "\nNothing was injected.\n";
            return kExitUsage;
        }
    }
    CampaignOptions options;
    options.socketPath = commandLine.socketPath.empty() ? DevicePath(CorvaneSystemImpl::kSocketPath)
                                                        : commandLine.socketPath;
    options.requestTimeoutSeconds = commandLine.timeoutSeconds;
    // The commands find this program as $VXCDB from any working directory.
    char* absolute = realpath("/proc/self/exe", nullptr);
    options.toolPath = absolute != nullptr ? absolute : toolPath;
    free(absolute);

    // With --json the standard output carries the JSON document alone.
    std::ostream& progress = commandLine.json ? std::cerr : std::cout;
    CampaignResult result;
    CampaignStartError startError;
    if (!RunCampaign(campaign, options, progress, &result, &startError)) {
        if (junit.is_open()) {
            junit.close();
            unlink(commandLine.junitFile.c_str());  // an empty report would read as no tests
        }
        std::cerr << "vxcdb: the camera service does not answer: " << startError.detail
                  << "\nNothing was injected.\n";
        switch (startError.status) {
            case ExchangeStatus::kCannotConnect:
                return kExitCannotConnect;
            case ExchangeStatus::kTimeout:
                return kExitTimeout;
            default:
                return kExitNoUsableReply;
        }
    }
    if (commandLine.json) {
        PrintCampaignJson(result, std::cout);
    } else {
        PrintCampaignSummary(result, std::cout);
    }
    bool reportWritten = true;
    if (junit.is_open()) {
        WriteCampaignJUnit(result, junit);
        junit.close();
        reportWritten = !junit.fail();
        if (!reportWritten) {
            std::cerr << "vxcdb: writing the JUnit report " << commandLine.junitFile << " failed\n";
        }
    }
    return result.Failed() == 0 && reportWritten ? kExitOk : kExitCampaignFailed;
}

}  // namespace vxcdb
