#include "tools/vxcdb/vxcdbhints.h"

#include <signal.h>
#include <stdlib.h>

#include <stdexcept>

#include "core/controller/corvanesystemimpl.h"
#include "platform/devicepath.h"
#include "utils/stringutils.h"

namespace vxcdb {

namespace {

constexpr const char* kHookFailed = "Hook failed with code: ";
constexpr const char* kGroupNotReady = "Hook group not ready: ";
constexpr const char* kSysrootVariable = "CORVANE_SYSROOT";

std::string CheckerAdvice() {
    return "'vxcdb --check " + DevicePath(CorvaneSystemImpl::kHookCasePath) +
           "' checks the hook-case file, 'vxcdb corvane --inject query' lists the groups";
}

}  // namespace

std::string HintForError(const std::string& error) {
    if (StartsWith(error, kHookFailed)) {
        return "the service log names the hook, library and symbol that failed; " + CheckerAdvice();
    }
    if (StartsWith(error, kGroupNotReady)) {
        return "the name may match no group, or a hook of it may not be defined or may install "
               "nothing; " +
               CheckerAdvice();
    }
    return "";
}

std::string HintForConnectionFailure(bool socketGiven) {
    const std::string question = "is the camera service running, with the vxcdb sub-module on?";
    if (socketGiven) {
        return question;
    }
    const char* sysroot = getenv(kSysrootVariable);
    if (sysroot == nullptr || *sysroot == '\0') {
        return question + " On a host, set " + kSysrootVariable +
               " to the service's sysroot (or give --socket PATH).";
    }
    return question + " (" + kSysrootVariable + "=" + sysroot + ")";
}

int RestartSignal(const VXCDBMessage& request) {
    if (request.modulename() != "corvane") {
        return 0;
    }
    for (const VXCDBMessage_CDBCmd& command : request.cmds()) {
        if (command.options() != "signal" || command.arguments_size() != 1) {
            continue;
        }
        int value = 0;
        try {
            value = std::stoi(command.arguments(0));  // as the service converts it
        } catch (const std::logic_error&) {
            continue;
        }
        if (value == SIGHUP || value == SIGABRT) {
            return value;
        }
    }
    return 0;
}

}  // namespace vxcdb
