// The entry points of the message-center library, as this system resolves them at run time and as
// the host bus exports them. Together with message.h this is the binary contract with the bus.
#pragma once

#include "core/messagecenter/message.h"

// A subscriber's handler: the request by value and the reply the sender waits for. `reply` is
// null when nobody waits (asynchronous delivery); a handler writes a reply only when it is not.
using MessageHandler = void (*)(Message request, Message* reply);

// Every entry returns an int that this system ignores; the host bus documents its values.
using MessageCenterSubscribeFunc = int (*)(const char* topic, MessageHandler handler);
using MessageCenterModifySubscribeFunc = int (*)(const char* topic, MessageHandler handler);
using MessageCenterUnsubscribeFunc = int (*)(const char* topic);
using MessageCenterSendMessageFunc = int (*)(Message message, Message* reply);
using MessageCenterSendMessageAsyncFunc = int (*)(Message message);

// Symbol names of the five entries, in the order they are resolved.
constexpr const char* MESSAGE_CENTER_SUBSCRIBE = "MessageCenterSubscribe";
constexpr const char* MESSAGE_CENTER_MODIFY_SUBSCRIBE = "MessageCenterModifySubscribe";
constexpr const char* MESSAGE_CENTER_UNSUBSCRIBE = "MessageCenterUnsubscribe";
constexpr const char* MESSAGE_CENTER_SEND_MESSAGE = "MessageCenterSendMessage";
constexpr const char* MESSAGE_CENTER_SEND_MESSAGE_ASYNC = "MessageCenterSendMessageAsync";
