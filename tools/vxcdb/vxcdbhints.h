// What to do next, for the answers and failures where a user would otherwise have to guess: one
// line each, printed under the error it explains.
#pragma once

#include <string>

#include "vxcdbmessage.pb.h"

namespace vxcdb {

// A hint for an error text of the service, or empty when the error explains itself.
std::string HintForError(const std::string& error);

// A hint for a connection that could not be made; `socketGiven` when the user named the socket.
std::string HintForConnectionFailure(bool socketGiven);

// The signal the request raises when it is one the service restarts on (1 or 6), else 0. Such a
// request is never answered: the service dies before it replies.
int RestartSignal(const VXCDBMessage& request);

}  // namespace vxcdb
