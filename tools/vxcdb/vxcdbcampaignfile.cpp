#include "tools/vxcdb/vxcdbcampaignfile.h"

#include <math.h>
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <fstream>
#include <set>
#include <sstream>

#include "core/controller/vxcdbmessagestring.h"
#include "utils/json/jsonparse.h"
#include "utils/stringutils.h"

namespace vxcdb {

namespace {

constexpr const char* kModuleCorvane = "corvane";
constexpr const char* kInjectOption = "inject";
constexpr const char* kFirmwareWord = "firmware";
// Words that "--inject" takes as sub-commands: a group so named could never be injected.
constexpr const char* kSubCommands[] = {"query", "result", "status", "clear", "firmware", "kernel"};
constexpr int kMaxFirmwareId = 255;  // ids are bytes on the wire

using Value = rapidjson::Value;

// Where a problem is, for the one-line error: "FILE: step 3 (motion_fault): "within_s": ...".
class Place {
  public:
    explicit Place(std::string path) : m_path(std::move(path)) {}
    void EnterStep(size_t number, const std::string& label) {
        m_step = "step " + std::to_string(number) + (label.empty() ? "" : " (" + label + ")");
    }
    bool Fail(const std::string& key, const std::string& problem, std::string* error) const {
        *error = m_path + ": " + (m_step.empty() ? "" : m_step + ": ") +
                 (key.empty() ? "" : "\"" + key + "\": ") + problem;
        return false;
    }

  private:
    std::string m_path;
    std::string m_step;
};

std::string TypeName(const Value& value) {
    switch (value.GetType()) {
        case rapidjson::kNullType:
            return "null";
        case rapidjson::kFalseType:
        case rapidjson::kTrueType:
            return "a boolean";
        case rapidjson::kObjectType:
            return "an object";
        case rapidjson::kArrayType:
            return "a list";
        case rapidjson::kStringType:
            return "a string";
        case rapidjson::kNumberType:
            return "a number";
    }
    return "a value";
}

// Refuses keys outside `known` and keys given twice (the reader would silently keep the first).
bool CheckKeys(const Value& object, std::initializer_list<const char*> known, const Place& place,
               const std::string& prefix, std::string* error) {
    std::set<std::string> seen;
    for (auto member = object.MemberBegin(); member != object.MemberEnd(); ++member) {
        std::string key = member->name.GetString();
        bool isKnown = false;
        for (const char* name : known) {
            isKnown = isKnown || key == name;
        }
        if (!isKnown) {
            std::string names;
            for (const char* name : known) {
                names += (names.empty() ? "" : ", ") + std::string(name);
            }
            return place.Fail(prefix + key, "unknown key (known: " + names + ")", error);
        }
        if (!seen.insert(key).second) {
            return place.Fail(prefix + key, "given twice", error);
        }
    }
    return true;
}

bool ReadText(const Value& value, const std::string& key, bool allowEmpty, const Place& place,
              std::string* out, std::string* error) {
    if (!value.IsString()) {
        return place.Fail(key, "must be a string, got " + TypeName(value), error);
    }
    out->assign(value.GetString(), value.GetStringLength());
    if (!allowEmpty && out->find_first_not_of(" \t\n") == std::string::npos) {
        return place.Fail(key, "must not be empty", error);
    }
    return true;
}

bool ReadBool(const Value& value, const std::string& key, const Place& place, bool* out,
              std::string* error) {
    if (!value.IsBool()) {
        return place.Fail(key, "must be true or false, got " + TypeName(value), error);
    }
    *out = value.GetBool();
    return true;
}

bool ReadSeconds(const Value& value, const std::string& key, bool allowZero, const Place& place,
                 double* out, std::string* error) {
    double seconds = value.IsNumber() ? value.GetDouble() : NAN;
    if (!isfinite(seconds) || seconds < 0 || (seconds == 0 && !allowZero) ||
        seconds > kMaxStepSeconds) {
        std::ostringstream bound;
        bound << kMaxStepSeconds;
        return place.Fail(key,
                          std::string("must be a number of seconds ") +
                              (allowZero ? "from 0" : "greater than 0") + " to " + bound.str() +
                              ", got " +
                              (value.IsNumber() ? std::to_string(seconds) : TypeName(value)),
                          error);
    }
    *out = seconds;
    return true;
}

bool ReadFirmware(const Value& value, const Place& place, FirmwareAddress* out,
                  std::string* error) {
    if (!value.IsObject()) {
        return place.Fail(kFirmwareWord,
                          "must be an object such as {\"camera\": 0, \"sensor\": 3, "
                          "\"interface\": 3, \"param\": \"text\"}, got " +
                              TypeName(value),
                          error);
    }
    if (!CheckKeys(value, {"camera", "sensor", "interface", "param"}, place, "firmware.", error)) {
        return false;
    }
    const std::pair<const char*, int*> ids[] = {
        {"camera", &out->camera}, {"sensor", &out->sensor}, {"interface", &out->interface}};
    for (const auto& id : ids) {
        std::string key = std::string("firmware.") + id.first;
        auto member = value.FindMember(id.first);
        if (member == value.MemberEnd()) {
            return place.Fail(key, "missing (a number from 0 to 255)", error);
        }
        if (!member->value.IsInt() || member->value.GetInt() < 0 ||
            member->value.GetInt() > kMaxFirmwareId) {
            return place.Fail(key, "must be a whole number from 0 to 255", error);
        }
        *id.second = member->value.GetInt();
    }
    auto param = value.FindMember("param");
    return param == value.MemberEnd() ||
           ReadText(param->value, "firmware.param", true, place, &out->param, error);
}

bool ReadStep(const Value& value, const Place& place, CampaignStep* step, std::string* error) {
    if (!value.IsObject()) {
        return place.Fail("", "must be an object, got " + TypeName(value), error);
    }
    if (!CheckKeys(value,
                   {"name", "group", "args", "firmware", "stimulus", "expect_installed",
                    "expect_executed", "within_s", "check", "check_within_s", "clear"},
                   place, "", error)) {
        return false;
    }
    bool hasGroup = value.HasMember("group");
    bool hasFirmware = value.HasMember(kFirmwareWord);
    if (hasGroup == hasFirmware) {
        return place.Fail("",
                          hasGroup ? "names both \"group\" and \"firmware\"; a step injects one"
                                   : "names neither \"group\" nor \"firmware\"",
                          error);
    }
    for (auto member = value.MemberBegin(); member != value.MemberEnd(); ++member) {
        const std::string key = member->name.GetString();
        const Value& item = member->value;
        bool ok = true;
        if (key == "name") {
            ok = ReadText(item, key, false, place, &step->name, error);
        } else if (key == "group") {
            ok = ReadText(item, key, false, place, &step->group, error);
            for (const char* word : kSubCommands) {
                if (ok && step->group == word) {
                    return place.Fail(
                        key, "'" + step->group + "' is a sub-command of --inject, not a hook group",
                        error);
                }
            }
        } else if (key == "args") {
            if (!item.IsArray()) {
                return place.Fail(key, "must be a list of strings, got " + TypeName(item), error);
            }
            for (const Value& argument : item.GetArray()) {
                if (!argument.IsString()) {
                    return place.Fail(key, "must be a list of strings, holds " + TypeName(argument),
                                      error);
                }
                step->args.emplace_back(argument.GetString(), argument.GetStringLength());
            }
        } else if (key == kFirmwareWord) {
            step->isFirmware = true;
            ok = ReadFirmware(item, place, &step->firmware, error);
        } else if (key == "stimulus") {
            ok = ReadText(item, key, false, place, &step->stimulus, error);
        } else if (key == "check") {
            ok = ReadText(item, key, false, place, &step->check, error);
        } else if (key == "expect_installed") {
            ok = ReadBool(item, key, place, &step->expectInstalled, error);
        } else if (key == "expect_executed") {
            ok = ReadBool(item, key, place, &step->expectExecuted, error);
        } else if (key == "clear") {
            ok = ReadBool(item, key, place, &step->clear, error);
        } else if (key == "within_s") {
            ok = ReadSeconds(item, key, false, place, &step->withinSeconds, error);
        } else if (key == "check_within_s") {
            ok = ReadSeconds(item, key, true, place, &step->checkWithinSeconds, error);
        }
        if (!ok) {
            return false;
        }
    }
    if (step->isFirmware && value.HasMember("args")) {
        return place.Fail("args", "belongs to hook-group steps; a firmware step has \"param\"",
                          error);
    }
    if (step->checkWithinSeconds > 0 && step->check.empty()) {
        return place.Fail("check_within_s", "given without a \"check\"", error);
    }
    if (step->name.empty()) {
        step->name = StringJoin(InjectWords(*step), " ");
    }
    // Every request of the step must fit one frame, or the step would fail half-way.
    const std::vector<std::vector<std::string>> requests[] = {
        {InjectWords(*step)}, {ExecutedQueryWords(*step)}, ClearCommands(*step)};
    for (const auto& commands : requests) {
        size_t size = InjectRequest(commands).ByteSizeLong();
        if (size > static_cast<size_t>(VXCDB_PAYLOAD_SIZE)) {
            return place.Fail(hasGroup ? "args" : "firmware.param",
                              "makes a request of " + std::to_string(size) +
                                  " bytes, more than the " + std::to_string(VXCDB_PAYLOAD_SIZE) +
                                  " one frame holds",
                              error);
        }
    }
    return true;
}

std::string BaseName(const std::string& path) {
    std::string name = path.substr(path.find_last_of('/') + 1);
    if (name.size() > 5 && name.compare(name.size() - 5, 5, ".json") == 0) {
        name.resize(name.size() - 5);
    }
    return name;
}

std::string LineAndColumn(const std::string& text, size_t offset) {
    size_t line = 1, column = 1;
    for (size_t i = 0; i < offset && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            column = 1;
        } else {
            ++column;
        }
    }
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

}  // namespace

std::vector<std::string> InjectWords(const CampaignStep& step, int firmwareCommand) {
    if (!step.isFirmware) {
        std::vector<std::string> words = {step.group};
        words.insert(words.end(), step.args.begin(), step.args.end());
        return words;
    }
    std::vector<std::string> words = {
        kFirmwareWord, std::to_string(firmwareCommand), std::to_string(step.firmware.camera),
        std::to_string(step.firmware.sensor), std::to_string(step.firmware.interface)};
    if (!step.firmware.param.empty()) {
        words.push_back(step.firmware.param);  // the service joins the rest with blanks anyway
    }
    return words;
}

std::vector<std::string> ExecutedQueryWords(const CampaignStep& step) {
    if (!step.isFirmware) {
        return {"result", step.group};
    }
    return {"status", std::to_string(step.firmware.camera), std::to_string(step.firmware.sensor),
            std::to_string(step.firmware.interface)};
}

std::vector<std::vector<std::string>> ClearCommands(const CampaignStep& step) {
    if (!step.isFirmware) {
        return {{"clear"}, ExecutedQueryWords(step)};
    }
    return {InjectWords(step, kFirmwareRemove), ExecutedQueryWords(step)};
}

VXCDBMessage InjectRequest(const std::vector<std::vector<std::string>>& commands) {
    VXCDBMessage request;
    request.set_modulename(kModuleCorvane);
    request.set_moduletype(VXCDBMessage::CORVANE);
    for (const std::vector<std::string>& words : commands) {
        VXCDBMessage_CDBCmd* command = request.add_cmds();
        command->set_options(kInjectOption);
        for (const std::string& word : words) {
            command->add_arguments(word);
        }
    }
    return request;
}

bool ParseCampaign(const std::string& text, const std::string& path, Campaign* campaign,
                   std::string* error) {
    Place place(path);
    rapidjson::Document document;
    rapidjson::ParseResult parsed;
    rapidjson::StringStream stream(text.c_str());
    auto generator = [&stream, &parsed](rapidjson::Document& handler) {
        JsonDepthLimiter<rapidjson::Document> limiter(handler);
        rapidjson::Reader reader;
        parsed = reader.Parse<JSON_PARSE_FLAGS>(stream, limiter);
        return !parsed.IsError();
    };
    document.Populate(generator);
    if (parsed.IsError()) {
        return place.Fail("",
                          std::string("not valid JSON at ") + LineAndColumn(text, parsed.Offset()) +
                              ": " + rapidjson::GetParseError_En(parsed.Code()),
                          error);
    }
    if (!document.IsObject()) {
        return place.Fail(
            "", "must hold an object with a \"steps\" list, not " + TypeName(document), error);
    }
    if (!CheckKeys(document, {"name", "steps"}, place, "", error)) {
        return false;
    }
    campaign->path = path;
    campaign->name = BaseName(path);
    auto name = document.FindMember("name");
    if (name != document.MemberEnd() &&
        !ReadText(name->value, "name", false, place, &campaign->name, error)) {
        return false;
    }
    auto steps = document.FindMember("steps");
    if (steps == document.MemberEnd() || !steps->value.IsArray()) {
        return place.Fail("steps", "must be a list of steps", error);
    }
    if (steps->value.Empty()) {
        return place.Fail("steps", "is empty: nothing to run", error);
    }
    campaign->steps.clear();
    size_t number = 0;
    for (const Value& item : steps->value.GetArray()) {
        auto group = item.IsObject() ? item.FindMember("group") : item.MemberEnd();
        place.EnterStep(++number, group != item.MemberEnd() && group->value.IsString()
                                      ? group->value.GetString()
                                      : "");
        CampaignStep step;
        if (!ReadStep(item, place, &step, error)) {
            return false;
        }
        campaign->steps.push_back(std::move(step));
    }
    return true;
}

bool LoadCampaignFile(const std::string& path, Campaign* campaign, std::string* error) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        *error = path + ": cannot be read";
        return false;
    }
    std::string text;
    char buffer[65536];
    while (file.read(buffer, sizeof(buffer)) || file.gcount() > 0) {
        text.append(buffer, static_cast<size_t>(file.gcount()));
        if (text.size() > static_cast<size_t>(kMaxCampaignFileBytes)) {
            *error = path + ": larger than " + std::to_string(kMaxCampaignFileBytes) +
                     " bytes; not a campaign file";
            return false;
        }
    }
    if (file.bad()) {
        *error = path + ": cannot be read";
        return false;
    }
    if (text.find('\0') != std::string::npos) {
        *error = path + ": holds a NUL byte; not a campaign file";
        return false;
    }
    return ParseCampaign(text, path, campaign, error);
}

}  // namespace vxcdb
