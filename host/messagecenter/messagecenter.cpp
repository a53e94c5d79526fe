// The five entry points of the host message center, with C linkage, the only symbols the library
// exports. Return values (ignored by the camera system, useful to host programs and tests):
//   MessageCenterSubscribe(topic, handler)        0, or -EINVAL for a null/empty topic or null
//                                                 handler, -ENOMEM
//   MessageCenterModifySubscribe(topic, handler)  the same
//   MessageCenterUnsubscribe(topic)               handlers removed (0 when none), or -EINVAL
//   MessageCenterSendMessage(message, reply)      handlers called (0 when none: reply untouched)
//   MessageCenterSendMessageAsync(message)        0 when queued, -ESHUTDOWN once the process is
//                                                 exiting, -EAGAIN when no worker can start
#include <errno.h>

#include <new>
#include <utility>

#include "core/messagecenter/message.h"
#include "core/messagecenter/messagecenterentries.h"
#include "host/messagecenter/messagebus.h"

#define MESSAGE_CENTER_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

bool ValidTopic(const char* topic) {
    return topic != nullptr && topic[0] != '\0';
}

}  // namespace

MESSAGE_CENTER_EXPORT int MessageCenterSubscribe(const char* topic, MessageHandler handler) {
    if (!ValidTopic(topic) || handler == nullptr) {
        return -EINVAL;
    }
    try {
        MessageBus::Instance().Subscribe(topic, handler);
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    }
    return 0;
}

MESSAGE_CENTER_EXPORT int MessageCenterModifySubscribe(const char* topic, MessageHandler handler) {
    if (!ValidTopic(topic) || handler == nullptr) {
        return -EINVAL;
    }
    try {
        MessageBus::Instance().ModifySubscribe(topic, handler);
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    }
    return 0;
}

MESSAGE_CENTER_EXPORT int MessageCenterUnsubscribe(const char* topic) {
    if (!ValidTopic(topic)) {
        return -EINVAL;
    }
    try {
        return static_cast<int>(MessageBus::Instance().Unsubscribe(topic));
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    }
}

MESSAGE_CENTER_EXPORT int MessageCenterSendMessage(Message message, Message* reply) {
    return static_cast<int>(MessageBus::Instance().Send(message, reply));
}

// The test suite builds a variant without this entry to check that such a library is rejected.
#ifndef CORVANE_MESSAGECENTER_WITHOUT_ASYNC
MESSAGE_CENTER_EXPORT int MessageCenterSendMessageAsync(Message message) {
    try {
        return MessageBus::Instance().SendAsync(std::move(message));
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    }
}
#endif
