#include "host/cameraservice/hostbus.h"

#include <dlfcn.h>

namespace {
constexpr const char* kBusLibrary = "vendor/lib64/com.halvern.messagecenter.so";
}

bool HostBus::Open(std::string* error) {
    void* library = dlopen(kBusLibrary, RTLD_NOW | RTLD_GLOBAL);
    if (library == nullptr) {
        *error = dlerror();
        return false;
    }
    m_subscribe =
        reinterpret_cast<MessageCenterSubscribeFunc>(dlsym(library, MESSAGE_CENTER_SUBSCRIBE));
    m_send =
        reinterpret_cast<MessageCenterSendMessageFunc>(dlsym(library, MESSAGE_CENTER_SEND_MESSAGE));
    m_sendAsync = reinterpret_cast<MessageCenterSendMessageAsyncFunc>(
        dlsym(library, MESSAGE_CENTER_SEND_MESSAGE_ASYNC));
    if (m_subscribe == nullptr || m_send == nullptr || m_sendAsync == nullptr) {
        *error = std::string(kBusLibrary) + " lacks an entry point";
        return false;
    }
    return true;
}

bool HostBus::Subscribe(const char* topic, MessageHandler handler) const {
    return m_subscribe != nullptr && m_subscribe(topic, handler) == 0;
}

Message HostBus::Send(const Message& message) const {
    Message reply;
    if (m_send != nullptr) {
        m_send(message, &reply);
    }
    return reply;
}

bool HostBus::SendAsync(const Message& message) const {
    return m_sendAsync != nullptr && m_sendAsync(message) >= 0;
}
