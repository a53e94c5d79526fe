// One request/reply exchange with the debug server over its local socket, within a deadline.
#pragma once

#include <sys/types.h>

#include <string>

#include "core/controller/vxcdbmessagestring.h"

namespace vxcdb {

enum class ExchangeStatus {
    kOk,             // a whole reply frame arrived
    kCannotConnect,  // no server at the path, or it refused the connection
    kTimeout,        // nothing (or not a whole frame) before the deadline
    kClosed,         // the server closed the connection before a whole reply frame
};

struct ExchangeResult {
    ExchangeStatus status = ExchangeStatus::kOk;
    std::string detail;         // what went wrong, for the user
    bool partialReply = false;  // kClosed: part of a reply frame had arrived
    pid_t serverPid = -1;  // the process that listens on the socket, once connected (-1: unknown)
};

// Connects to `socketPath`, sends `request` and reads the first reply frame into `*reply`.
ExchangeResult Exchange(const std::string& socketPath, const VXCDBMessageString& request,
                        double timeoutSeconds, VXCDBMessageString* reply);

}  // namespace vxcdb
