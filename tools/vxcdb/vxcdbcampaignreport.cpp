#include "tools/vxcdb/vxcdbcampaignreport.h"

#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/prettywriter.h>
#include <time.h>

#include <sstream>

#include "tools/vxcdb/vxcdbreplyprinter.h"

namespace vxcdb {

namespace {

std::string Fixed(double value, int digits) {
    std::ostringstream text;
    text.precision(digits);
    text << std::fixed << value;
    return text.str();
}

const char* Cell(const Question& question) {
    if (question.state == Question::State::kNotAsked) {
        return "-";
    }
    if (question.unanswered) {
        return "?";
    }
    return question.observed ? "yes" : "no";
}

const char* StateName(Question::State state) {
    switch (state) {
        case Question::State::kPassed:
            return "passed";
        case Question::State::kFailed:
            return "failed";
        case Question::State::kNotAsked:
            break;
    }
    return "not asked";
}

// The questions in the order a step asks them, with the names the reports use.
std::vector<std::pair<const char*, const Question*>> Questions(const StepResult& step) {
    return {{"installed", &step.installed},
            {"executed", &step.executed},
            {"check", &step.check},
            {"cleared", &step.cleared}};
}

// What a CI server shows as the failure's kind: the first question that failed.
std::string FailureType(const StepResult& step) {
    if (step.notRun) {
        return "not run";
    }
    if (step.restarted) {
        return "service restarted";
    }
    for (const auto& question : Questions(step)) {
        if (question.second->Failed()) {
            return question.first;
        }
    }
    return "";
}

std::string CommandsOutput(const StepResult& step) {
    std::string text;
    const std::pair<const char*, const ShellResult*> commands[] = {{"stimulus", &step.stimulus},
                                                                   {"check", &step.checkRun}};
    for (const auto& command : commands) {
        if (command.second->started) {
            text += std::string(command.first) + ": " + command.second->Describe() + "\n" +
                    command.second->output;
            if (!text.empty() && text.back() != '\n') {
                text += '\n';
            }
        }
    }
    return text;
}

using JsonWriter = rapidjson::PrettyWriter<rapidjson::OStreamWrapper>;

void WriteCommand(JsonWriter& writer, const char* key, const ShellResult& command) {
    writer.Key(key);
    if (!command.started) {
        writer.Null();
        return;
    }
    writer.StartObject();
    writer.Key("result");
    writer.String(command.Describe());
    writer.Key("succeeded");
    writer.Bool(command.Succeeded());
    writer.Key("output");
    writer.String(command.output);
    writer.Key("seconds");
    writer.Double(command.seconds);
    writer.EndObject();
}

// Length of the UTF-8 sequence at `at` when it encodes a character XML 1.0 allows, else 0.
size_t XmlCharLength(const std::string& text, size_t at) {
    unsigned char lead = static_cast<unsigned char>(text[at]);
    if (lead < 0x80) {
        return lead >= 0x20 || lead == '\t' || lead == '\n' || lead == '\r' ? 1 : 0;
    }
    size_t length = (lead & 0xE0) == 0xC0   ? 2
                    : (lead & 0xF0) == 0xE0 ? 3
                    : (lead & 0xF8) == 0xF0 ? 4
                                            : 0;
    if (length == 0 || at + length > text.size()) {
        return 0;
    }
    uint32_t code = lead & (0x7F >> length);
    for (size_t k = 1; k < length; ++k) {
        unsigned char next = static_cast<unsigned char>(text[at + k]);
        if ((next & 0xC0) != 0x80) {
            return 0;
        }
        code = (code << 6) | (next & 0x3F);
    }
    const uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};  // shorter forms are not UTF-8
    bool allowed = code >= smallest[length] && code <= 0x10FFFF &&
                   !(code >= 0xD800 && code <= 0xDFFF) && code != 0xFFFE && code != 0xFFFF;
    return allowed ? length : 0;
}

}  // namespace

std::string XmlEscape(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size();) {
        size_t length = XmlCharLength(text, i);
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (length == 0) {
            out += '?';
            ++i;
            continue;
        }
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&apos;";
                break;
            default:
                out.append(text, i, length);
        }
        i += length;
    }
    return out;
}

void PrintCampaignSummary(const CampaignResult& result, std::ostream& out) {
    ReplyItem table;
    table.isTable = true;
    table.columns = {"step", "installed", "executed", "check", "cleared", "verdict", "time"};
    for (const StepResult& step : result.steps) {
        table.rows.push_back({step.name, Cell(step.installed), Cell(step.executed),
                              Cell(step.check), Cell(step.cleared), step.Verdict(),
                              Fixed(step.seconds, 1) + " s"});
    }
    out << '\n';
    PrintTable(table, out);
    out << '\n'
        << result.steps.size() << " step(s): " << result.Passed() << " passed, " << result.Failed()
        << " failed (" << Fixed(result.seconds, 1) << " s)\n";
    for (size_t i = 0; i < result.steps.size(); ++i) {
        const StepResult& step = result.steps[i];
        if (step.Passed()) {
            continue;
        }
        out << "\nstep " << i + 1 << " (" << step.name << "): " << step.Verdict() << '\n';
        std::istringstream lines(step.FailureText());
        for (std::string line; std::getline(lines, line);) {
            out << "  " << line << '\n';
        }
    }
}

void PrintCampaignJson(const CampaignResult& result, std::ostream& out) {
    rapidjson::OStreamWrapper stream(out);
    JsonWriter writer(stream);
    writer.SetIndent(' ', 2);
    writer.StartObject();
    writer.Key("campaign");
    writer.String(result.name);
    writer.Key("file");
    writer.String(result.file);
    writer.Key("passed");
    writer.Bool(result.Failed() == 0);
    writer.Key("counts");
    writer.StartObject();
    writer.Key("steps");
    writer.Int(static_cast<int>(result.steps.size()));
    writer.Key("passed");
    writer.Int(result.Passed());
    writer.Key("failed");
    writer.Int(result.Failed());
    writer.EndObject();
    writer.Key("seconds");
    writer.Double(result.seconds);
    writer.Key("steps");
    writer.StartArray();
    for (const StepResult& step : result.steps) {
        writer.StartObject();
        writer.Key("name");
        writer.String(step.name);
        writer.Key("kind");
        writer.String(step.isFirmware ? "firmware" : "group");
        writer.Key("verdict");
        writer.String(step.Verdict());
        writer.Key("passed");
        writer.Bool(step.Passed());
        writer.Key("restarted");
        writer.Bool(step.restarted);
        for (const auto& question : Questions(step)) {
            writer.Key(question.first);
            writer.StartObject();
            writer.Key("state");
            writer.String(StateName(question.second->state));
            writer.Key("observed");
            if (question.second->state == Question::State::kNotAsked ||
                question.second->unanswered) {
                writer.Null();
            } else {
                writer.Bool(question.second->observed);
            }
            writer.Key("detail");
            writer.String(question.second->detail);
            writer.EndObject();
        }
        WriteCommand(writer, "stimulus", step.stimulus);
        WriteCommand(writer, "checkCommand", step.checkRun);
        writer.Key("notes");
        writer.StartArray();
        for (const std::string& note : step.notes) {
            writer.String(note);
        }
        writer.EndArray();
        writer.Key("seconds");
        writer.Double(step.seconds);
        writer.EndObject();
    }
    writer.EndArray();
    writer.EndObject();
    stream.Flush();
    out << '\n';
}

void WriteCampaignJUnit(const CampaignResult& result, std::ostream& out) {
    char timestamp[32] = {};
    time_t now = time(nullptr);
    tm utc = {};
    gmtime_r(&now, &utc);
    strftime(timestamp, sizeof(timestamp), "%Y-%m-%dT%H:%M:%S", &utc);

    const std::string name = XmlEscape(result.name);
    const std::string counts = "tests=\"" + std::to_string(result.steps.size()) + "\" failures=\"" +
                               std::to_string(result.Failed()) + "\" errors=\"0\"";
    const std::string seconds = Fixed(result.seconds, 3);
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        << "<testsuites name=\"" << name << "\" " << counts << " time=\"" << seconds << "\">\n"
        << "  <testsuite name=\"" << name << "\" " << counts << " skipped=\"0\" time=\"" << seconds
        << "\" timestamp=\"" << timestamp << "\" file=\"" << XmlEscape(result.file) << "\">\n";
    for (const StepResult& step : result.steps) {
        out << "    <testcase name=\"" << XmlEscape(step.name) << "\" classname=\"" << name
            << "\" time=\"" << Fixed(step.seconds, 3) << "\">\n";
        if (!step.Passed()) {
            out << "      <failure message=\"" << XmlEscape(step.Verdict()) << "\" type=\""
                << XmlEscape(FailureType(step)) << "\">" << XmlEscape(step.FailureText())
                << "</failure>\n";
        }
        std::string output = CommandsOutput(step);
        if (!output.empty()) {
            out << "      <system-out>" << XmlEscape(output) << "</system-out>\n";
        }
        out << "    </testcase>\n";
    }
    out << "  </testsuite>\n</testsuites>\n";
}

}  // namespace vxcdb
