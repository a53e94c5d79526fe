// vxcdb: sends one request to the camera service's debug channel and prints the reply.
#include <stdio.h>
#include <string.h>

#include <iostream>
#include <string>

#include "core/controller/corvanesystemimpl.h"
#include "core/controller/vxcdbprotocol.h"
#include "platform/devicepath.h"
#include "tools/vxcdb/vxcdbcampaign.h"
#include "tools/vxcdb/vxcdbcheck.h"
#include "tools/vxcdb/vxcdbcommandline.h"
#include "tools/vxcdb/vxcdbconnection.h"
#include "tools/vxcdb/vxcdbhints.h"
#include "tools/vxcdb/vxcdbreplyprinter.h"

namespace {

// Exit codes: scripts tell the failures apart by them.
constexpr int kExitOk = 0;
constexpr int kExitReplyError = 1;  // the reply carries an error, or the module is not served
constexpr int kExitUsage = 2;
constexpr int kExitCannotConnect = 3;
constexpr int kExitTimeout = 4;
constexpr int kExitNoUsableReply = 5;

int Fail(int code, const std::string& message) {
    std::cerr << "vxcdb: " << message << '\n';
    return code;
}

// The service raises signals 1 and 6 in itself before it replies, and its supervisor (init on a
// device) starts it again: the connection closing without a reply is that restart, not a fault.
int ReportRestart(const vxcdb::CommandLine& commandLine, int signal) {
    VXCDBMessage reply;
    reply.set_modulename(commandLine.request.modulename());
    reply.set_moduletype(commandLine.request.moduletype());
    VXCDBMessage_CDBCmd* type = reply.add_cmds();
    type->set_options(VXCDB_KEY_TYPE);
    type->add_arguments(VXCDB_TYPE_STRING);
    VXCDBMessage_CDBCmd* message = reply.add_cmds();
    message->set_options(VXCDB_KEY_MESSAGE);
    message->add_arguments("signal " + std::to_string(signal) +
                           " raised: the camera service is restarting (it closed the connection "
                           "without a reply, as expected)");
    if (commandLine.json) {
        vxcdb::PrintReplyJson(reply, std::cout);
    } else {
        vxcdb::PrintReplyText(reply, std::cout, std::cerr);
    }
    return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    vxcdb::CommandLine commandLine;
    std::string error;
    if (!vxcdb::ParseCommandLine(argc, argv, &commandLine, &error)) {
        std::cerr << "vxcdb: " << error << "\nTry 'vxcdb --help'.\n";
        return kExitUsage;
    }
    if (commandLine.showUsage) {
        std::cout << vxcdb::UsageText();
        return kExitOk;
    }
    if (commandLine.check) {
        return vxcdb::RunCheck(commandLine.checkFile, commandLine.checkSysroot, std::cout);
    }
    if (!commandLine.campaignFile.empty()) {
        return vxcdb::RunCampaignCommand(commandLine, argv[0]);
    }

    VXCDBMessageString request;
    memset(&request, 0, sizeof(request));
    std::string payload;
    commandLine.request.SerializeToString(&payload);
    if (payload.size() > sizeof(request.payload)) {
        return Fail(kExitUsage, "the request is too large: " + std::to_string(payload.size()) +
                                    " bytes, at most " + std::to_string(sizeof(request.payload)));
    }
    memcpy(request.payload, payload.data(), payload.size());
    request.payloadLen = static_cast<int32_t>(payload.size());

    std::string socketPath = commandLine.socketPath.empty()
                                 ? DevicePath(CorvaneSystemImpl::kSocketPath)
                                 : commandLine.socketPath;
    VXCDBMessageString replyFrame;
    vxcdb::ExchangeResult exchange =
        vxcdb::Exchange(socketPath, request, commandLine.timeoutSeconds, &replyFrame);
    switch (exchange.status) {
        case vxcdb::ExchangeStatus::kOk:
            break;
        case vxcdb::ExchangeStatus::kCannotConnect:
            Fail(kExitCannotConnect, exchange.detail);
            std::cerr << "hint: "
                      << vxcdb::HintForConnectionFailure(!commandLine.socketPath.empty()) << '\n';
            return kExitCannotConnect;
        case vxcdb::ExchangeStatus::kTimeout:
            return Fail(kExitTimeout, exchange.detail);
        case vxcdb::ExchangeStatus::kClosed:
            if (int signal = vxcdb::RestartSignal(commandLine.request);
                signal != 0 && !exchange.partialReply) {
                return ReportRestart(commandLine, signal);
            }
            return Fail(kExitNoUsableReply, exchange.detail);
    }

    // A module the server does not serve is answered with the request itself.
    if (memcmp(&replyFrame, &request, sizeof(request)) == 0) {
        return Fail(kExitReplyError, "the server does not handle module '" +
                                         commandLine.request.modulename() +
                                         "' (it sent the request back)");
    }
    VXCDBMessage reply;
    if (!DecodeVXCDBMessage(replyFrame, &reply)) {
        return Fail(kExitNoUsableReply, "the reply is not a readable message");
    }
    // Every answer names its module; an all-zero frame is what the server sends when its answer
    // did not fit in one frame.
    if (!reply.has_modulename()) {
        return Fail(kExitNoUsableReply,
                    "the server sent an empty reply (the answer may be too large for one frame)");
    }
    if (commandLine.json) {
        vxcdb::PrintReplyJson(reply, std::cout);
    } else {
        vxcdb::PrintReplyText(reply, std::cout, std::cerr);
    }
    std::cout.flush();
    return vxcdb::ReplyHasError(reply) ? kExitReplyError : kExitOk;
}
