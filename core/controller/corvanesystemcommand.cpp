// The debug command language: decoding a request frame, dispatching every command of it by
// module, option and sub-command, the reply convention and the framing of the reply.
#include <limits.h>
#include <string.h>

#include <map>
#include <stdexcept>

#include "core/controller/corvanesystemimpl.h"
#include "core/controller/corvanesystemlog.h"
#include "core/controller/vxcdbprotocol.h"
#include "core/messagecenter/messagecenterclient.h"
#include "core/model/hook/hookoperation.h"
#include "utils/stringutils.h"

// The usage text, byte for byte as the tool prints it: the alignment blanks, the repeated "些" in
// line 1 and the final line feed belong to it (700 bytes of UTF-8).
// clang-format off
const char CorvaneSystemImpl::kHelpText[] =
    "用法:  vxcdb [模块] [--参数1] [参数2] ...\n"
    "1. vxcdb corvane --inject query                  查询注入能力        [包含哪种类型注入 (group) 、哪些些具体出入case]\n"
    "2. vxcdb corvane --inject [group/case]           注入动作           [类型/具体case]\n"
    "3. vxcdb corvane --inject result                 查询注入结果，查看注入动作是否成功，注入后是否被调用到\n"
    "4. vxcdb corvane --inject status                 查询注入状态，查看注入动作是否成功，注入后是否被调用到及返回状态\n"
    "5. vxcdb corvane --inject clear                  清除所有注入动作\n"
    "6. vxcdb corvane --help                          查询使用指南\n";
// clang-format on

namespace {

// Module and option words of the command language.
constexpr const char* kModuleCorvane = "corvane";
constexpr const char* kModuleDebug = "debug";
constexpr const char* kOptionHelp = "help";
constexpr const char* kOptionInject = "inject";
constexpr const char* kOptionSignal = "signal";
constexpr const char* kDebugDumpCommand = "dumpimagesensormoduledata";

// The image-sensor dump request on the message bus: entry "command" names the request, entry
// "param" (present only when the command had arguments) holds them joined with one blank.
constexpr const char* kDumpTopic = "DUMP_IMAGE_SENSOR_MODULE_DATA";
constexpr const char* kDumpKeyCommand = "command";
constexpr const char* kDumpKeyParam = "param";

// Largest serialised reply that is framed: deliberately one less than the payload field, so a
// reply of exactly 4096 bytes is refused although it would fit. Kept so that the largest reply a
// reader may meet stays what it has always been.
constexpr int kMaxReplyPayload = VXCDB_PAYLOAD_SIZE - 1;

// Signals a debug user may name; RaiseSignal then acts only on 1 and 6.
constexpr int kMinSignal = 1;
constexpr int kMaxSignal = 64;

// The four leading fields of a firmware command are bytes: what converts is 0..255.
constexpr int kMaxFirmwareField = 255;
constexpr size_t kFirmwareFixedArgs = 4;

// Whole-token decimal conversion into `*value`: an optional sign and digits, nothing before or
// after, within [min, max]. Unlike std::stoi it does not accept "12abc" as 12, which would
// silently address the wrong sensor.
bool ParseWholeDecimal(const std::string& text, long long min, long long max, long long* value) {
    if (text.empty()) {
        return false;
    }
    size_t used = 0;
    long long parsed = 0;
    try {
        parsed = std::stoll(text, &used, 10);
    } catch (const std::logic_error&) {
        return false;
    }
    if (used != text.size() || isspace(static_cast<unsigned char>(text[0])) || parsed < min ||
        parsed > max) {
        return false;
    }
    *value = parsed;
    return true;
}

// Group names, group arguments and firmware parameters reach SQL between single quotes and
// unescaped; a quote among them makes the statement invalid, and the database layer then deletes
// hook.db with every stored injection. Such a request is refused before anything is installed or
// stored.
constexpr char kSqlQuote = '\'';
constexpr const char* kSubCommandFirmware = "firmware";

// The refusal naming the first of `arguments` (from `first` on) that holds a quote, or empty.
// `describe` names an argument by its position in `arguments`.
template <typename Describe>
std::string QuotedArgumentRefusal(const std::vector<std::string>& arguments, size_t first,
                                  Describe describe) {
    for (size_t i = first; i < arguments.size(); ++i) {
        if (arguments[i].find(kSqlQuote) != std::string::npos) {
            return "Refused: " + describe(i) +
                   " holds a single quote, which cannot be stored: " + arguments[i];
        }
    }
    return "";
}

// `arguments` are those of "inject": a group (or case) name and the group's arguments.
std::string QuotedHookGroupArgument(const std::vector<std::string>& arguments) {
    return QuotedArgumentRefusal(arguments, 0, [&](size_t i) {
        return i == 0 ? std::string("the group or case name")
                      : "argument " + std::to_string(i) + " of " + arguments[0];
    });
}

// `arguments` are those of "inject": "firmware" and its own arguments.
std::string QuotedFirmwareArgument(const std::vector<std::string>& arguments) {
    return QuotedArgumentRefusal(arguments, 1,
                                 [](size_t i) { return "firmware argument " + std::to_string(i); });
}

}  // namespace

void CorvaneSystemImpl::SetVXCDBMessageType(std::string type, VXCDBMessage& reply) {
    VXCDBMessage_CDBCmd* entry = reply.add_cmds();
    entry->set_options(VXCDB_KEY_TYPE);
    entry->add_arguments(std::move(type));
}

int CorvaneSystemImpl::AddCommandResponse(VXCDBMessage& reply, const std::string& key,
                                          const std::vector<std::string>& values) {
    VXCDBMessage_CDBCmd* entry = reply.add_cmds();
    entry->set_options(key);
    for (const std::string& value : values) {
        entry->add_arguments(value);
    }
    return 0;
}

void CorvaneSystemImpl::BuildErrorResponse(VXCDBMessage& reply, std::string error) {
    SetVXCDBMessageType(VXCDB_TYPE_STRING, reply);
    AddCommandResponse(reply, VXCDB_KEY_ERROR, {std::move(error), kHelpText});
}

int CorvaneSystemImpl::FormatSocketMsg(VXCDBMessage& message, VXCDBMessageString* frame) {
    std::string bytes;
    message.SerializeToString(&bytes);
    size_t size = message.ByteSizeLong();
    if (size > static_cast<size_t>(kMaxReplyPayload)) {
        CORVANE_LOGE("payload size %d exceeds the max payload size %d", static_cast<int>(size),
                     VXCDB_PAYLOAD_SIZE);
        return kReplyTooLarge;
    }
    frame->payloadLen = static_cast<int32_t>(size);
    memcpy(frame->payload, bytes.data(), std::min(size, bytes.size()));
    return kCommandOk;
}

int CorvaneSystemImpl::ExecuteCommand(VXCDBMessageString* request, VXCDBMessageString* response) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (request == nullptr || response == nullptr) {
        CORVANE_LOGE("Failed to execute command, pRecvMsgString or pFeedbackMsgString is null");
        return kNullFrame;
    }
    // Every unused byte of a reply is zero, also when the reply turns out too large to frame.
    memset(response, 0, sizeof(*response));

    VXCDBMessage message;
    VXCDBMessage reply;
    if (!DecodeVXCDBMessage(*request, &message)) {
        BuildErrorResponse(reply, "command is error");
        return FormatSocketMsg(reply, response);
    }
    CORVANE_LOGI("Receive moduleType %d", static_cast<int>(message.moduletype()));
    CORVANE_LOGI("Receive moduleName %s", message.modulename().c_str());
    CORVANE_LOGI("command size %d", message.cmds_size());
    reply.set_moduletype(message.moduletype());
    reply.set_modulename(message.modulename());

    using ModuleHandler = int (CorvaneSystemImpl::*)(const VXCDBMessage_CDBCmd&, VXCDBMessage&);
    const std::map<std::string, ModuleHandler> modules = {
        {kModuleCorvane, &CorvaneSystemImpl::HandleCorvaneCommand},
        {kModuleDebug, &CorvaneSystemImpl::HandleDebugCommand},
    };
    for (const VXCDBMessage_CDBCmd& command : message.cmds()) {
        auto module = modules.find(message.modulename());
        if (module == modules.end()) {
            // Once per command, so a request of three commands carries three errors.
            BuildErrorResponse(reply, "Unknown module");
            continue;
        }
        (this->*(module->second))(command, reply);
    }
    return FormatSocketMsg(reply, response);
}

int CorvaneSystemImpl::HandleCorvaneCommand(const VXCDBMessage_CDBCmd& command,
                                            VXCDBMessage& reply) {
    // Every option needs an argument, "help" included; the tool supplies one for it.
    if (command.arguments_size() == 0) {
        BuildErrorResponse(reply, "Missing command arguments");
        return kCommandRejected;
    }
    using CommandHandler = int (CorvaneSystemImpl::*)(std::vector<std::string>, VXCDBMessage&);
    const std::map<std::string, CommandHandler> commands = {
        {kOptionHelp, &CorvaneSystemImpl::HandleHelpCommand},
        {kOptionInject, &CorvaneSystemImpl::HandleInjectCommand},
        {kOptionSignal, &CorvaneSystemImpl::HandleSignalCommand},
    };
    auto handler = commands.find(command.options());
    if (handler == commands.end()) {
        BuildErrorResponse(reply, "Unknown command: " + command.options());
        return kCommandRejected;
    }
    std::vector<std::string> arguments(command.arguments().begin(), command.arguments().end());
    return (this->*(handler->second))(std::move(arguments), reply);
}

int CorvaneSystemImpl::HandleHelpCommand(std::vector<std::string>, VXCDBMessage& reply) {
    SetVXCDBMessageType(VXCDB_TYPE_STRING, reply);
    AddCommandResponse(reply, VXCDB_KEY_HELP, {kHelpText});
    return 0;
}

int CorvaneSystemImpl::HandleSignalCommand(std::vector<std::string> arguments,
                                           VXCDBMessage& reply) {
    if (arguments.size() != 1) {
        BuildErrorResponse(reply, "Signal command requires exactly one argument");
        return kCommandRejected;
    }
    int value = 0;
    try {
        value = std::stoi(arguments[0]);
    } catch (const std::invalid_argument&) {
        BuildErrorResponse(reply, "Invalid signal parameter: not a number");
        return kCommandRejected;
    } catch (const std::out_of_range&) {
        BuildErrorResponse(reply, "Signal parameter is out of integer range");
        return kCommandRejected;
    }
    if (value < kMinSignal || value > kMaxSignal) {
        BuildErrorResponse(reply, "Signal value is out of valid range (1-64)");
        return kCommandRejected;
    }
    // Deliberately wider than what RaiseSignal acts on (1 and 6): other valid signal numbers are
    // accepted here and only logged there.
    RaiseSignal(value);
    return 0;
}

int CorvaneSystemImpl::HandleInjectCommand(std::vector<std::string> arguments,
                                           VXCDBMessage& reply) {
    CORVANE_LOGI("subArgs size is %llu", static_cast<unsigned long long>(arguments.size()));
    if (arguments.empty()) {
        BuildErrorResponse(reply, "Missing inject subcommand");
        return kCommandRejected;
    }
    using SubCommand = int (*)(CorvaneSystemImpl*, const std::vector<std::string>&, VXCDBMessage&);
    static const std::map<std::string, SubCommand> subCommands = {
        {"query",
         [](CorvaneSystemImpl* self, const std::vector<std::string>&, VXCDBMessage& reply) {
             self->SetQueryVXCDBMessage(reply);
             return 0;
         }},
        {"result",
         [](CorvaneSystemImpl* self, const std::vector<std::string>& args, VXCDBMessage& reply) {
             if (args.empty()) {
                 self->SetResultVXCDBMessage(reply);
             } else {
                 self->SetResultVXCDBMessage(args[0], reply);  // further words are ignored
             }
             return 0;
         }},
        {"status", [](CorvaneSystemImpl* self, const std::vector<std::string>& args,
                      VXCDBMessage& reply) { return self->HandleStatusCommand(args, reply); }},
        {"clear",
         [](CorvaneSystemImpl* self, const std::vector<std::string>&, VXCDBMessage& reply) {
             if (self->m_pHookOperation != nullptr) {
                 self->m_pHookOperation->UnhookAllCase();
             }
             self->ClearVXCDBMessage(reply);
             return 0;
         }},
        {"firmware", [](CorvaneSystemImpl* self, const std::vector<std::string>& args,
                        VXCDBMessage& reply) { return self->HandleFirmwareCommand(args, reply); }},
        {"kernel", [](CorvaneSystemImpl* self, const std::vector<std::string>& args,
                      VXCDBMessage& reply) { return self->HandleKernelCommand(args, reply); }},
    };
    std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
    auto subCommand = subCommands.find(arguments[0]);
    std::string refusal = subCommand == subCommands.end()       ? QuotedHookGroupArgument(arguments)
                          : arguments[0] == kSubCommandFirmware ? QuotedFirmwareArgument(arguments)
                                                                : "";
    if (!refusal.empty()) {
        CORVANE_LOGE("%s", refusal.c_str());
        BuildErrorResponse(reply, refusal);
        return kCommandRejected;
    }
    if (subCommand == subCommands.end()) {
        // Any other word names a hook group (or case) to inject.
        return HandleHookGroupCommand(arguments[0], rest, reply);
    }
    return subCommand->second(this, rest, reply);
}

// The group is injected first and judged afterwards: a non-zero result of the injection is
// reported with its code; a zero result with the group still not ready (for instance a name that
// matches no group, which the engine answers with 0 and leaves untouched) is "not ready";
// otherwise the success text and the group's result table.
int CorvaneSystemImpl::HandleHookGroupCommand(const std::string& name,
                                              const std::vector<std::string>& arguments,
                                              VXCDBMessage& reply) {
    if (m_pHookOperation == nullptr) {
        BuildErrorResponse(reply, "Hook operation not initialized");
        return kCommandRejected;
    }
    int result = m_pHookOperation->DoHookGroup(name, arguments);
    if (result != 0) {
        BuildErrorResponse(reply, "Hook failed with code: " + std::to_string(result));
        return kCommandRejected;
    }
    if (!m_pHookOperation->IsHookGroupReady(name)) {
        BuildErrorResponse(reply, "Hook group not ready: " + name);
        return kCommandRejected;
    }
    SetVXCDBMessageType(VXCDB_TYPE_STRING, reply);
    AddCommandResponse(reply, VXCDB_KEY_MESSAGE, {"Hook group executed successfully"});
    SetResultVXCDBMessage(name, reply);
    return 0;
}

// One word selects a hook group by name; two or three numbers select firmware acknowledgements:
// (sensor id, interface id) for every camera module, or (camera module id, sensor id,
// interface id). Sensor and interface ids are cut to 8 bits without a range check, on purpose
// (257 addresses interface 1): that is how the firmware side numbers them.
int CorvaneSystemImpl::HandleStatusCommand(std::vector<std::string> arguments,
                                           VXCDBMessage& reply) {
    if (arguments.empty()) {
        BuildErrorResponse(reply, "Missing status parameters");
        return kCommandRejected;
    }
    if (arguments.size() == 1) {
        SetStatusVXCDBMessage(arguments[0], reply);
        return 0;
    }
    if (arguments.size() > 3) {
        BuildErrorResponse(reply, "Invalid status parameters format");
        return kCommandRejected;
    }
    std::vector<int> numbers;
    for (const std::string& argument : arguments) {
        long long value = 0;
        if (!ParseWholeDecimal(argument, INT_MIN, INT_MAX, &value)) {
            BuildErrorResponse(reply, "Invalid numeric parameter: " + argument);
            return kCommandRejected;
        }
        numbers.push_back(static_cast<int>(value));
    }
    if (numbers.size() == 2) {
        numbers.insert(numbers.begin(), -1);  // any camera module
    }
    SetStatusVXCDBMessage(numbers[0], static_cast<unsigned char>(numbers[1]),
                          static_cast<unsigned char>(numbers[2]), reply);
    return 0;
}

// Arguments: cmd id (0 inject, 1 remove, 2 clear all), camera module id, subdevice id, interface
// id, then the free-text param (the remaining words joined with one blank, or empty). Each of the
// four fields must convert to its type, an unsigned byte: a larger value would silently address
// another module. A cmd id the engine does not know is still handed to it; it ignores it.
int CorvaneSystemImpl::HandleFirmwareCommand(std::vector<std::string> arguments,
                                             VXCDBMessage& reply) {
    if (arguments.size() < kFirmwareFixedArgs) {
        BuildErrorResponse(reply, "Firmware command requires at least 4 parameters");
        return kCommandRejected;
    }
    if (m_pHookOperation == nullptr) {
        BuildErrorResponse(reply, "Hook operation not initialized");
        return kCommandRejected;
    }
    const char* const fieldNames[kFirmwareFixedArgs] = {"cmd id", "camera module id",
                                                        "subdevice id", "interface id"};
    uint8_t ids[kFirmwareFixedArgs] = {};
    for (size_t i = 0; i < kFirmwareFixedArgs; ++i) {
        long long value = 0;
        if (!ParseWholeDecimal(arguments[i], 0, kMaxFirmwareField, &value)) {
            BuildErrorResponse(reply, std::string("Invalid firmware parameters: ") + fieldNames[i] +
                                          " must be a number from 0 to 255, got '" + arguments[i] +
                                          "'");
            return kCommandRejected;
        }
        ids[i] = static_cast<uint8_t>(value);
    }
    HookFw command;
    command.cmd_id = ids[0];
    command.cam_module_id = ids[1];
    command.subdev_id = ids[2];
    command.interface_id = ids[3];
    command.param = StringJoin(
        std::vector<std::string>(arguments.begin() + kFirmwareFixedArgs, arguments.end()), " ");
    int result = m_pHookOperation->ProcessCmds(command);
    if (result != 0) {
        // The command still went out on the bus; only its local bookkeeping failed.
        CORVANE_LOGE("firmware command %u stored with result %d", command.cmd_id, result);
    }
    SetVXCDBMessageType(VXCDB_TYPE_STRING, reply);
    AddCommandResponse(reply, VXCDB_KEY_MESSAGE, {"command executed successfully"});
    return 0;
}

int CorvaneSystemImpl::HandleKernelCommand(std::vector<std::string>, VXCDBMessage&) {
    return 0;  // reserved: kernel-side injection has no command yet
}

int CorvaneSystemImpl::HandleDebugCommand(const VXCDBMessage_CDBCmd& command, VXCDBMessage& reply) {
    if (command.options() != kDebugDumpCommand) {
        BuildErrorResponse(reply, "Unknown command: " + command.options());
        return kCommandRejected;
    }
    CORVANE_LOGI("command is dump");
    RequestImageSensorModuleDump(
        std::vector<std::string>(command.arguments().begin(), command.arguments().end()));
    SetVXCDBMessageType(VXCDB_TYPE_STRING, reply);
    AddCommandResponse(reply, VXCDB_KEY_MESSAGE, {"image sensor module data dump requested"});
    return 0;
}

// The camera stack listens for this request on the bus; the answer, if any, is not shown.
void CorvaneSystemImpl::RequestImageSensorModuleDump(const std::vector<std::string>& arguments) {
    Message request(kDumpTopic);
    request.data[kDumpKeyCommand] = MessageData(std::string(kDebugDumpCommand));
    if (!arguments.empty()) {
        request.data[kDumpKeyParam] = MessageData(StringJoin(arguments, " "));
    }
    Message reply;
    MessageCenterClient::GetInstance()->SendMessage(request, &reply);
}
