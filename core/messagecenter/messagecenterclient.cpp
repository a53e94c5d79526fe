#include "core/messagecenter/messagecenterclient.h"

#include <android/log.h>
#include <cutils/properties.h>
#include <dlfcn.h>

#include <mutex>

#include "platform/devicepath.h"

namespace {

constexpr const char* MESSAGE_CENTER_LIBRARY = "/vendor/lib64/com.halvern.messagecenter.so";
constexpr const char* MESSAGE_CENTER_RETRY_PROPERTY =
    "persist.vendor.camera.cloud.corvanesys.xmessage";
// A failed load is retried on each use only while the property holds exactly this value.
constexpr int32_t MESSAGE_CENTER_RETRY_VALUE = 5;

constexpr const char* MESSAGE_CENTER_TAG = "[MESSAGECENTER]";
// Names the wrong object; kept as it stands because log searches in the field look for it.
constexpr const char* LOG_LIBRARY_NOT_LOADED = "m_pCorvaneSystemCore is NULL";
constexpr const char* LOG_NO_SUBSCRIBE = "m_pMessageCenterSubscribeFuncPtr is NULL";
// No "m_p" prefix, unlike its siblings: deliberate, the same log searches depend on it.
constexpr const char* LOG_NO_UNSUBSCRIBE = "MessageCenterUnsubscribeFuncPtr is NULL";
constexpr const char* LOG_NO_SEND = "m_pMessageCenterSendMessageFuncPtr is NULL";

void LogError(const char* text) {
    __android_log_print(ANDROID_LOG_ERROR, MESSAGE_CENTER_TAG, "%s", text);
}

template <typename Func>
Func Resolve(void* handle, const char* name) {
    return reinterpret_cast<Func>(dlsym(handle, name));
}

}  // namespace

MessageCenterClient* MessageCenterClient::GetInstance() {
    static MessageCenterClient instance;
    return &instance;
}

MessageCenterClient::~MessageCenterClient() {
    ClearEntries();
    if (m_pMessageCenterHandle != nullptr) {
        dlclose(m_pMessageCenterHandle);
        m_pMessageCenterHandle = nullptr;
    }
    m_state = STATE_DESTROYED;
}

void MessageCenterClient::ClearEntries() {
    m_pMessageCenterSubscribeFuncPtr = nullptr;
    m_pMessageCenterModifySubscribeFuncPtr = nullptr;
    m_pMessageCenterUnsubscribeFuncPtr = nullptr;
    m_pMessageCenterSendMessageFuncPtr = nullptr;
    m_pMessageCenterSendMessageAsyncFuncPtr = nullptr;
}

void MessageCenterClient::LoadMessageCenter() {
    static std::mutex loadMutex;
    std::lock_guard<std::mutex> guard(loadMutex);

    if (m_state == STATE_LOADED || m_state == STATE_DESTROYED) {
        return;
    }
    if (m_state == STATE_LOAD_FAILED &&
        property_get_int32(MESSAGE_CENTER_RETRY_PROPERTY, 0) != MESSAGE_CENTER_RETRY_VALUE) {
        return;
    }

    if (m_pMessageCenterHandle != nullptr) {
        dlclose(m_pMessageCenterHandle);
        m_pMessageCenterHandle = nullptr;
    }
    void* handle = dlopen(DevicePath(MESSAGE_CENTER_LIBRARY).c_str(), RTLD_NOW | RTLD_GLOBAL);
    if (handle == nullptr) {
        LogError(LOG_LIBRARY_NOT_LOADED);
        m_state = STATE_LOAD_FAILED;
        return;
    }

    auto subscribe = Resolve<MessageCenterSubscribeFunc>(handle, MESSAGE_CENTER_SUBSCRIBE);
    auto modifySubscribe =
        Resolve<MessageCenterModifySubscribeFunc>(handle, MESSAGE_CENTER_MODIFY_SUBSCRIBE);
    auto unsubscribe = Resolve<MessageCenterUnsubscribeFunc>(handle, MESSAGE_CENTER_UNSUBSCRIBE);
    auto send = Resolve<MessageCenterSendMessageFunc>(handle, MESSAGE_CENTER_SEND_MESSAGE);
    auto sendAsync =
        Resolve<MessageCenterSendMessageAsyncFunc>(handle, MESSAGE_CENTER_SEND_MESSAGE_ASYNC);

    // A library missing any entry is rejected as a whole, silently.
    if (subscribe == nullptr || modifySubscribe == nullptr || unsubscribe == nullptr ||
        send == nullptr || sendAsync == nullptr) {
        ClearEntries();
        dlclose(handle);
        m_state = STATE_LOAD_FAILED;
        return;
    }
    m_pMessageCenterHandle = handle;
    m_pMessageCenterSubscribeFuncPtr = subscribe;
    m_pMessageCenterModifySubscribeFuncPtr = modifySubscribe;
    m_pMessageCenterUnsubscribeFuncPtr = unsubscribe;
    m_pMessageCenterSendMessageFuncPtr = send;
    m_pMessageCenterSendMessageAsyncFuncPtr = sendAsync;
    m_state = STATE_LOADED;
}

void MessageCenterClient::SendMessage(Message message, Message* reply) {
    LoadMessageCenter();
    MessageCenterSendMessageFunc send = m_pMessageCenterSendMessageFuncPtr;
    if (send == nullptr) {
        LogError(LOG_NO_SEND);
        return;
    }
    send(message, reply);  // the bus gets its own copy; ours dies with this call
}

void MessageCenterClient::Subscribe(const std::string& topic, MessageHandler handler) {
    LoadMessageCenter();
    MessageCenterSubscribeFunc subscribe = m_pMessageCenterSubscribeFuncPtr;
    if (subscribe == nullptr) {
        LogError(LOG_NO_SUBSCRIBE);
        return;
    }
    subscribe(topic.c_str(), handler);
}

void MessageCenterClient::Unsubscribe(const std::string& topic) {
    LoadMessageCenter();
    MessageCenterUnsubscribeFunc unsubscribe = m_pMessageCenterUnsubscribeFuncPtr;
    if (unsubscribe == nullptr) {
        LogError(LOG_NO_UNSUBSCRIBE);
        return;
    }
    unsubscribe(topic.c_str());
}
