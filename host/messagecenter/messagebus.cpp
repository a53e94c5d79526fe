#include "host/messagecenter/messagebus.h"

#include <android/log.h>
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>

#include <exception>
#include <utility>

namespace {

constexpr const char* BUS_TAG = "HostMessageCenter";
constexpr const char* WORKER_THREAD_NAME = "msgcenter-async";  // at most 15 characters

void ShutdownAtExit() {
    MessageBus::Instance().Shutdown();
}

}  // namespace

MessageBus& MessageBus::Instance() {
    // Never destroyed: a thread still sending while the process exits must find the bus intact.
    static MessageBus* bus = new MessageBus();
    return *bus;
}

MessageBus::MessageBus() {
    // A forked child (tests fork a lot) must not inherit a held lock or a worker it does not have.
    pthread_atfork([] { Instance().PrepareFork(); }, [] { Instance().AfterForkInParent(); },
                   [] { Instance().AfterForkInChild(); });
}

void MessageBus::PrepareFork() {
    m_topicLock.lock();
    m_queueLock.lock();
}

void MessageBus::AfterForkInParent() {
    m_queueLock.unlock();
    m_topicLock.unlock();
}

void MessageBus::AfterForkInChild() {
    m_queueLock.unlock();
    m_topicLock.unlock();
    // The worker did not follow us. Its std::thread object is kept aside, never joined nor
    // destroyed (destroying a joinable one would terminate). Messages queued for the parent stay
    // the parent's.
    if (m_pWorker != nullptr) {
        m_pWorkerLeftByFork = m_pWorker;
    }
    m_pWorker = nullptr;
    m_workerDone = false;
    m_queue.clear();
}

void MessageBus::Subscribe(const std::string& topic, MessageHandler handler) {
    std::lock_guard<std::mutex> guard(m_topicLock);
    std::shared_ptr<const HandlerList>& slot = m_topics[topic];
    auto list =
        slot == nullptr ? std::make_shared<HandlerList>() : std::make_shared<HandlerList>(*slot);
    for (MessageHandler existing : *list) {
        if (existing == handler) {
            return;
        }
    }
    list->push_back(handler);
    slot = std::move(list);
}

void MessageBus::ModifySubscribe(const std::string& topic, MessageHandler handler) {
    std::lock_guard<std::mutex> guard(m_topicLock);
    m_topics[topic] = std::make_shared<const HandlerList>(1, handler);
}

size_t MessageBus::Unsubscribe(const std::string& topic) {
    std::lock_guard<std::mutex> guard(m_topicLock);
    auto it = m_topics.find(topic);
    if (it == m_topics.end()) {
        return 0;
    }
    size_t removed = it->second->size();
    m_topics.erase(it);
    return removed;
}

std::shared_ptr<const MessageBus::HandlerList> MessageBus::Handlers(const std::string& topic) {
    std::lock_guard<std::mutex> guard(m_topicLock);
    auto it = m_topics.find(topic);
    return it == m_topics.end() ? nullptr : it->second;
}

size_t MessageBus::Send(Message& message, Message* reply) {
    return Deliver(message, reply);
}

// Every handler but the last gets a fresh copy of the message; the last one gets the bus's own,
// which nobody else sees any more. A handler that throws is logged and the others still run.
size_t MessageBus::Deliver(Message& message, Message* reply) {
    std::shared_ptr<const HandlerList> handlers = Handlers(message.topic);
    if (handlers == nullptr) {
        return 0;
    }
    const size_t count = handlers->size();
    for (size_t i = 0; i < count; ++i) {
        try {
            if (i + 1 < count) {
                (*handlers)[i](message, reply);
            } else {
                (*handlers)[i](std::move(message), reply);
            }
        } catch (const std::exception& e) {
            // The topic is not named: the last handler took the message with it.
            __android_log_print(ANDROID_LOG_ERROR, BUS_TAG, "handler %zu of %zu threw: %s", i + 1,
                                count, e.what());
        } catch (...) {
            __android_log_print(ANDROID_LOG_ERROR, BUS_TAG, "handler %zu of %zu threw", i + 1,
                                count);
        }
    }
    return count;
}

int MessageBus::SendAsync(Message&& message) {
    {
        std::lock_guard<std::mutex> guard(m_queueLock);
        if (m_stopping) {
            return -ESHUTDOWN;
        }
        if (!StartWorkerLocked()) {
            return -EAGAIN;
        }
        m_queue.push_back(std::move(message));
    }
    m_queueChanged.notify_all();
    return 0;
}

bool MessageBus::StartWorkerLocked() {
    if (m_pWorker != nullptr) {
        return true;
    }
    try {
        m_pWorker = new std::thread(&MessageBus::WorkerLoop, this);
    } catch (const std::exception& e) {
        __android_log_print(ANDROID_LOG_ERROR, BUS_TAG, "cannot start the async worker: %s",
                            e.what());
        return false;
    }
    pthread_setname_np(m_pWorker->native_handle(), WORKER_THREAD_NAME);
    // Registered after the worker's first subscribers were set up, so it runs before their
    // exit-time destructors: no handler runs against a torn-down subscriber. Registered from this
    // library, it also runs if the library is ever unloaded.
    static bool registered = atexit(ShutdownAtExit) == 0;
    (void)registered;
    return true;
}

void MessageBus::WorkerLoop() {
    std::unique_lock<std::mutex> lock(m_queueLock);
    while (true) {
        m_queueChanged.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
        if (m_stopping) {
            break;
        }
        Message message = std::move(m_queue.front());
        m_queue.pop_front();
        lock.unlock();
        Deliver(message, nullptr);
        message = Message();  // destroyed outside the lock, like every handler's copy
        lock.lock();
    }
    m_workerDone = true;
    m_queueChanged.notify_all();
}

size_t MessageBus::Shutdown() {
    std::deque<Message> dropped;
    std::unique_lock<std::mutex> lock(m_queueLock);
    m_stopping = true;
    dropped.swap(m_queue);
    std::thread* worker = m_pWorker;
    m_pWorker = nullptr;
    m_queueChanged.notify_all();
    if (!dropped.empty()) {
        __android_log_print(ANDROID_LOG_WARN, BUS_TAG,
                            "shutting down: %zu queued message(s) dropped", dropped.size());
    }
    if (worker == nullptr) {
        return dropped.size();
    }
    if (worker->get_id() == std::this_thread::get_id()) {
        // The process is exiting from inside an asynchronous handler: nothing to wait for.
        worker->detach();
    } else if (m_queueChanged.wait_for(lock, SHUTDOWN_GRACE, [this] { return m_workerDone; })) {
        lock.unlock();
        worker->join();
    } else {
        // A handler is stuck; the exit goes on without it. The library is never unmapped (it is
        // linked "nodelete"), so the stuck thread never runs in freed code.
        __android_log_print(ANDROID_LOG_WARN, BUS_TAG,
                            "shutting down: a handler is still running after %llds; left behind",
                            static_cast<long long>(SHUTDOWN_GRACE.count()));
        worker->detach();
    }
    delete worker;
    return dropped.size();
}
