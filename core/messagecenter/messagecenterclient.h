// The one door of this system to the in-process message bus. The bus is a separate library that
// is loaded at run time, on the first subscribe or send; every part of the system reaches it
// through GetInstance(). When the library is missing or incomplete every call is skipped with a
// log line and the caller carries on: the bus is never required for start-up.
#pragma once

#include <stdint.h>

#include <atomic>
#include <string>

#include "core/messagecenter/message.h"
#include "core/messagecenter/messagecenterentries.h"

class MessageCenterClient {
  public:
    // The process-wide client, created on first call (state 0, nothing loaded); its destructor
    // runs at process exit and leaves the client destroyed (state 4) for any later caller.
    static MessageCenterClient* GetInstance();

    // Loads the library when the state allows it: once at first use, again only after a failed
    // load while "persist.vendor.camera.cloud.corvanesys.xmessage" is 5. Every wrapper below
    // calls it first, so users need not.
    void LoadMessageCenter();

    // Sends a copy of `message` synchronously; the bus fills `reply` when a handler answers. An
    // untouched reply means no answer.
    void SendMessage(Message message, Message* reply);
    void Subscribe(const std::string& topic, MessageHandler handler);
    void Unsubscribe(const std::string& topic);

    ~MessageCenterClient();
    MessageCenterClient(const MessageCenterClient&) = delete;
    MessageCenterClient& operator=(const MessageCenterClient&) = delete;

  private:
    enum State : int32_t {
        STATE_NOT_LOADED = 0,
        STATE_LOADED = 1,
        STATE_LOAD_FAILED = 2,
        STATE_DESTROYED = 4,
    };

    MessageCenterClient() = default;
    void ClearEntries();

    // Written under LoadMessageCenter's mutex. Atomic so that the destructor's store of
    // STATE_DESTROYED is kept: callers at process exit read it after teardown, and an optimiser may
    // drop a plain store to an object whose lifetime is ending.
    std::atomic<int32_t> m_state{STATE_NOT_LOADED};
    void* m_pMessageCenterHandle = nullptr;
    // Read without a lock once loaded; atomic so that a retried load racing a reader is benign.
    std::atomic<MessageCenterSubscribeFunc> m_pMessageCenterSubscribeFuncPtr{nullptr};
    std::atomic<MessageCenterModifySubscribeFunc> m_pMessageCenterModifySubscribeFuncPtr{nullptr};
    std::atomic<MessageCenterUnsubscribeFunc> m_pMessageCenterUnsubscribeFuncPtr{nullptr};
    std::atomic<MessageCenterSendMessageFunc> m_pMessageCenterSendMessageFuncPtr{nullptr};
    std::atomic<MessageCenterSendMessageAsyncFunc> m_pMessageCenterSendMessageAsyncFuncPtr{nullptr};
};
