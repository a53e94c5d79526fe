// The host's in-process message bus: topics with ordered handler lists, synchronous delivery on
// the sender's thread and asynchronous delivery on one worker thread.
//
// Guarantees:
// - Handlers are called without any bus lock held, each with its own copy of the message, so a
//   handler may subscribe, unsubscribe and send (also to its own topic) from inside.
// - A synchronous send reaches every handler subscribed before it started, in subscription
//   order; one unsubscribed while it runs may still be called once by it.
// - Asynchronous messages are delivered one at a time, in the order they were queued.
// - Shutdown (at process exit, or when the library is unloaded) lets the handler in flight finish
//   and drops whatever is still queued: by then the subscribers' own libraries may already be
//   tearing down, so nothing new is started. It never waits longer than a grace period.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "core/messagecenter/message.h"
#include "core/messagecenter/messagecenterentries.h"

class MessageBus {
  public:
    // The bus of this library, created on first use and never destroyed (a sender racing the
    // process exit must never find it gone); Shutdown stops its worker.
    static MessageBus& Instance();

    // Adds `handler` at the end of the topic's list; a handler already there is kept once.
    void Subscribe(const std::string& topic, MessageHandler handler);
    // Makes `handler` the topic's only handler (subscribing it if the topic had none).
    void ModifySubscribe(const std::string& topic, MessageHandler handler);
    // Removes every handler of the topic; returns how many there were.
    size_t Unsubscribe(const std::string& topic);
    // Calls every handler of the message's topic on this thread; returns how many ran. A topic
    // without handlers leaves `reply` untouched.
    size_t Send(Message& message, Message* reply);
    // Queues the message for the worker, which delivers it with a null reply. Returns 0, or
    // -ESHUTDOWN once shutdown has begun, -EAGAIN when no worker thread can be started (the
    // message is dropped in both cases).
    int SendAsync(Message&& message);
    // Stops the worker: the handler in flight finishes, queued messages are dropped. Returns how
    // many were dropped. Idempotent; later SendAsync calls are refused.
    size_t Shutdown();

    // How long Shutdown waits for a handler in flight before leaving the worker to the exit.
    static constexpr std::chrono::seconds SHUTDOWN_GRACE{2};

  private:
    using HandlerList = std::vector<MessageHandler>;

    MessageBus();
    std::shared_ptr<const HandlerList> Handlers(const std::string& topic);
    size_t Deliver(Message& message, Message* reply);
    bool StartWorkerLocked();
    void WorkerLoop();
    void PrepareFork();
    void AfterForkInParent();
    void AfterForkInChild();

    // Topic table. Lists are immutable once published, so a sender copies a pointer under the
    // lock and calls the handlers after releasing it.
    std::mutex m_topicLock;
    std::unordered_map<std::string, std::shared_ptr<const HandlerList>> m_topics;

    // Asynchronous queue and its worker.
    std::mutex m_queueLock;
    std::condition_variable m_queueChanged;
    std::deque<Message> m_queue;
    std::thread* m_pWorker = nullptr;  // a pointer so that a forked child can set it aside
    std::thread* m_pWorkerLeftByFork = nullptr;
    bool m_stopping = false;
    bool m_workerDone = false;
};
