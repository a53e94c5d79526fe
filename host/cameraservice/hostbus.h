// The camera service's own handle on the message bus: the same vendor library the core library
// loads (one instance per process), opened from the sysroot.
#pragma once

#include <string>

#include "core/messagecenter/messagecenterentries.h"

class HostBus {
  public:
    // Opens "vendor/lib64/com.halvern.messagecenter.so" relative to the working directory.
    bool Open(std::string* error);
    bool Subscribe(const char* topic, MessageHandler handler) const;
    // Synchronous: returns the reply (untouched, empty topic, when nobody answered).
    Message Send(const Message& message) const;
    bool SendAsync(const Message& message) const;

  private:
    MessageCenterSubscribeFunc m_subscribe = nullptr;
    MessageCenterSendMessageFunc m_send = nullptr;
    MessageCenterSendMessageAsyncFunc m_sendAsync = nullptr;
};
