// Placeholder until the debug command channel lands: requests are not understood yet.
#include <string.h>

#include "core/controller/corvanesystemimpl.h"
#include "core/controller/corvanesystemlog.h"

int CorvaneSystemImpl::ExecuteCommand(VXCDBMessageString* request, VXCDBMessageString* response) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (request == nullptr || response == nullptr) {
        CORVANE_LOGE("Failed to execute command, pRecvMsgString or pFeedbackMsgString is null");
        return 5;
    }
    memset(response, 0, sizeof(*response));
    return 0;
}
