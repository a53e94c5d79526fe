// The host message center, loaded with dlopen from a sysroot as the system loads it.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "core/messagecenter/message.h"
#include "tests/messagecenter/messagecentertestutil.h"

namespace {

using corvanetest::WaitFor;
using Strings = std::vector<std::string>;

// What the handlers saw, in order. Handlers are plain functions, so the record is global.
std::mutex g_eventsLock;
Strings g_events;

void Record(const std::string& event) {
    std::lock_guard<std::mutex> guard(g_eventsLock);
    g_events.push_back(event);
}

Strings TakeEvents() {
    std::lock_guard<std::mutex> guard(g_eventsLock);
    return std::move(g_events);
}

template <char NAME>
void Named(Message, Message*) {
    Record(std::string(1, NAME));
}

BusLibrary* g_bus = nullptr;

class MessageBusTest : public ::testing::Test {
  protected:
    void SetUp() override {
        TakeEvents();
        ASSERT_TRUE(m_bus.loaded());
        g_bus = &m_bus;
    }
    void TearDown() override { g_bus = nullptr; }
    BusLibrary m_bus;
};

TEST_F(MessageBusTest, SubscriptionRules) {
    enum Op { SUBSCRIBE, MODIFY, UNSUBSCRIBE };
    struct Step {
        Op op;
        MessageHandler handler;
        int expected;
    };
    const struct {
        const char* name;
        std::vector<Step> steps;
        Strings delivered;
    } cases[] = {
        {"handlers run in subscription order",
         {{SUBSCRIBE, Named<'C'>, 0}, {SUBSCRIBE, Named<'A'>, 0}, {SUBSCRIBE, Named<'B'>, 0}},
         {"C", "A", "B"}},
        {"the same handler twice is kept once",
         {{SUBSCRIBE, Named<'A'>, 0}, {SUBSCRIBE, Named<'B'>, 0}, {SUBSCRIBE, Named<'A'>, 0}},
         {"A", "B"}},
        {"modify replaces every handler of the topic",
         {{SUBSCRIBE, Named<'A'>, 0}, {SUBSCRIBE, Named<'B'>, 0}, {MODIFY, Named<'C'>, 0}},
         {"C"}},
        {"modify on a topic without handlers subscribes", {{MODIFY, Named<'B'>, 0}}, {"B"}},
        {"unsubscribe removes every handler and says how many",
         {{SUBSCRIBE, Named<'A'>, 0}, {SUBSCRIBE, Named<'B'>, 0}, {UNSUBSCRIBE, nullptr, 2}},
         {}},
        {"a topic can be subscribed again after unsubscribe",
         {{SUBSCRIBE, Named<'A'>, 0}, {UNSUBSCRIBE, nullptr, 1}, {SUBSCRIBE, Named<'B'>, 0}},
         {"B"}},
        {"unsubscribing an unknown topic is harmless", {{UNSUBSCRIBE, nullptr, 0}}, {}},
    };
    int index = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string topic = "rules-" + std::to_string(index++);
        for (const Step& step : c.steps) {
            int result = step.op == SUBSCRIBE ? m_bus.subscribe(topic.c_str(), step.handler)
                         : step.op == MODIFY  ? m_bus.modifySubscribe(topic.c_str(), step.handler)
                                              : m_bus.unsubscribe(topic.c_str());
            EXPECT_EQ(result, step.expected);
        }
        Message reply("before", {});  // these handlers do not answer: it stays as it was
        reply.data["kept"] = MakeInt64Data(9);
        EXPECT_EQ(m_bus.send(Message(topic, {}), &reply), static_cast<int>(c.delivered.size()));
        EXPECT_EQ(TakeEvents(), c.delivered);
        EXPECT_EQ(reply.topic, "before");
        EXPECT_EQ(reply.data.size(), 1u);
    }
    EXPECT_EQ(m_bus.subscribe(nullptr, Named<'A'>), -EINVAL);
    EXPECT_EQ(m_bus.subscribe("", Named<'A'>), -EINVAL);
    EXPECT_EQ(m_bus.subscribe("t", nullptr), -EINVAL);
    EXPECT_EQ(m_bus.modifySubscribe(nullptr, Named<'A'>), -EINVAL);
    EXPECT_EQ(m_bus.modifySubscribe("t", nullptr), -EINVAL);
    EXPECT_EQ(m_bus.unsubscribe(nullptr), -EINVAL);
    EXPECT_EQ(m_bus.unsubscribe(""), -EINVAL);
    EXPECT_EQ(m_bus.send(Message("t", {}), nullptr), 0);  // nothing was subscribed
}

Message* g_seenReply = nullptr;

// Changes its own copy of the request; the next handler must not see that.
void Mutator(Message request, Message* reply) {
    request.data["key"] = MessageData(std::string("changed by mutator"));
    g_seenReply = reply;
    reply->topic = request.topic;
    reply->data["mutator"] = MakeInt32Data(1);
}

void Observer(Message request, Message* reply) {
    std::string value;
    GetStringData(request, "key", &value);
    Record(value);
    Record(reply == g_seenReply ? "same reply" : "other reply");
    reply->data["observer"] = MakeInt32Data(2);
}

TEST_F(MessageBusTest, EachHandlerGetsItsOwnCopyAndTheCallersReply) {
    ASSERT_EQ(m_bus.subscribe("copies", Mutator), 0);
    ASSERT_EQ(m_bus.subscribe("copies", Observer), 0);
    Message request("copies", {{"key", std::string("original")}});
    Message reply;
    EXPECT_EQ(m_bus.send(request, &reply), 2);
    EXPECT_EQ(g_seenReply, &reply);
    EXPECT_EQ(TakeEvents(), (Strings{"original", "same reply"}));
    EXPECT_EQ(reply.topic, "copies");
    EXPECT_EQ(reply.data.size(), 2u);
    std::string value;
    EXPECT_TRUE(GetStringData(request, "key", &value) && value == "original");
}

// Works on the bus from inside a handler: every one of these would deadlock a bus that called
// handlers under its lock.
void Reentrant(Message request, Message* reply) {
    Record("outer:" + std::to_string(request.data.count("again")));
    if (request.data.count("again") != 0) {
        return;
    }
    Record("subscribe:" + std::to_string(g_bus->subscribe("inner", Named<'B'>)));
    Record("send:" + std::to_string(g_bus->send(Message("inner", {}), reply)));
    Record("unsubscribe:" + std::to_string(g_bus->unsubscribe("inner")));
    Record("send:" + std::to_string(g_bus->send(Message("inner", {}), reply)));
    Record("resubscribe self:" + std::to_string(g_bus->subscribe("outer", Reentrant)));
    Record("send self:" + std::to_string(g_bus->send(Message("outer", {{"again", {}}}), reply)));
    Record("async:" + std::to_string(g_bus->sendAsync(Message("later", {}))));
}

TEST_F(MessageBusTest, HandlersMayUseTheBusFromInside) {
    ASSERT_EQ(m_bus.subscribe("outer", Reentrant), 0);
    ASSERT_EQ(m_bus.subscribe("later", Named<'L'>), 0);
    Message reply;
    EXPECT_EQ(m_bus.send(Message("outer", {}), &reply), 1);
    Strings events;
    ASSERT_TRUE(WaitFor([&] {
        Strings more = TakeEvents();
        events.insert(events.end(), more.begin(), more.end());
        return events.size() == 11;
    })) << events.size();
    // The asynchronous "L" may come before or after the handler noted that it queued it.
    auto late = std::find(events.begin(), events.end(), "L");
    ASSERT_NE(late, events.end());
    events.erase(late);
    EXPECT_EQ(events, (Strings{"outer:0", "subscribe:0", "B", "send:1", "unsubscribe:1", "send:0",
                               "resubscribe self:0", "outer:1", "send self:1", "async:0"}));
}

constexpr uint32_t ASYNC_COUNT = 200;
std::mutex g_asyncLock;
std::vector<uint32_t> g_asyncSequence;
std::set<std::thread::id> g_asyncThreads;
int g_asyncNonNullReplies = 0;

void AsyncRecorder(Message request, Message* reply) {
    uint32_t sequence = 0;
    GetInt32Data(request, "sequence", &sequence);
    {
        std::lock_guard<std::mutex> guard(g_asyncLock);
        g_asyncSequence.push_back(sequence);
        g_asyncThreads.insert(std::this_thread::get_id());
        g_asyncNonNullReplies += reply != nullptr ? 1 : 0;
    }
    if (sequence == ASYNC_COUNT - 1) {  // the worker may queue more from inside a handler
        g_bus->sendAsync(Message("async", {{"sequence", MakeInt32Data(ASYNC_COUNT)}}));
    }
}

TEST_F(MessageBusTest, AsyncDeliversInOrderOnOneWorkerWithNullReply) {
    ASSERT_EQ(m_bus.subscribe("async", AsyncRecorder), 0);
    std::vector<uint32_t> expected;
    for (uint32_t i = 0; i < ASYNC_COUNT; ++i) {
        ASSERT_EQ(m_bus.sendAsync(Message("async", {{"sequence", MakeInt32Data(i)}})), 0);
        expected.push_back(i);
    }
    expected.push_back(ASYNC_COUNT);  // queued by the last handler
    ASSERT_TRUE(WaitFor([] {
        std::lock_guard<std::mutex> guard(g_asyncLock);
        return g_asyncSequence.size() == ASYNC_COUNT + 1;
    }));
    std::lock_guard<std::mutex> guard(g_asyncLock);
    EXPECT_EQ(g_asyncSequence, expected);
    EXPECT_EQ(g_asyncThreads.size(), 1u);
    EXPECT_EQ(g_asyncThreads.count(std::this_thread::get_id()), 0u);
    EXPECT_EQ(g_asyncNonNullReplies, 0);
}

// Several threads send synchronously to a topic whose handler stays subscribed, while others
// keep adding handlers to it and subscribing and unsubscribing other topics the senders also
// hit. Every synchronous send must reach the steady handler exactly once.
std::atomic<int> g_steadyCalls{0};

void Steady(Message request, Message* reply) {
    g_steadyCalls.fetch_add(1, std::memory_order_relaxed);
    *reply = request;
    SetInt32Data(reply->data["answered"], 1);
}

template <int N>
void Churn(Message, Message*) {}

TEST_F(MessageBusTest, ConcurrentSendSubscribeAndUnsubscribeLoseNoDelivery) {
    ASSERT_EQ(m_bus.subscribe("steady", Steady), 0);
    constexpr int SENDERS = 4;
    constexpr int SENDS = 3000;
    const MessageHandler churnHandlers[] = {Churn<0>, Churn<1>, Churn<2>, Churn<3>};
    std::atomic<bool> sendersDone{false};
    std::atomic<int> answered{0};
    std::vector<std::thread> churners, senders;
    for (int c = 0; c < 3; ++c) {
        churners.emplace_back([&, c] {
            std::string own = "churn-" + std::to_string(c);
            for (int i = 0; !sendersDone; ++i) {
                m_bus.subscribe("steady", churnHandlers[i % 4]);
                m_bus.subscribe(own.c_str(), churnHandlers[i % 4]);
                if (i % 3 == 0) {
                    m_bus.modifySubscribe(own.c_str(), churnHandlers[(i + 1) % 4]);
                }
                m_bus.unsubscribe(own.c_str());
            }
        });
    }
    for (int s = 0; s < SENDERS; ++s) {
        senders.emplace_back([&] {
            for (int i = 0; i < SENDS; ++i) {
                Message reply;
                m_bus.send(Message("steady", {}), &reply);
                answered += reply.data.count("answered");
                m_bus.send(Message("churn-" + std::to_string(i % 3), {}), &reply);
                m_bus.sendAsync(Message("churn-" + std::to_string(i % 3), {}));
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    sendersDone = true;
    for (std::thread& churner : churners) {
        churner.join();
    }
    EXPECT_EQ(g_steadyCalls.load(), SENDERS * SENDS);
    EXPECT_EQ(answered.load(), SENDERS * SENDS);
}

// Exit while asynchronous messages are queued. The child notes what happened in a file, in
// order: S/E = a handler started/ended, L = a handler ran after the test program's own statics
// were destroyed, X = those statics were destroyed.
int g_told = -1;
std::atomic<bool> g_staticsAlive{false};
std::atomic<bool> g_handlerStarted{false};

void Tell(char what) {
    ssize_t written = write(g_told, &what, 1);
    (void)written;
}

struct StaticsWitness {
    StaticsWitness() { g_staticsAlive = true; }
    ~StaticsWitness() {
        g_staticsAlive = false;
        Tell('X');
    }
};

void StartHandler() {
    Tell(g_staticsAlive ? 'S' : 'L');
    g_handlerStarted = true;
}

// Finishes only once the bus refuses new messages, i.e. while the exit is under way.
void FinishesDuringShutdown(Message, Message*) {
    StartHandler();
    WaitFor([] { return g_bus->sendAsync(Message("probe", {})) == -ESHUTDOWN; });
    Tell('E');
}

void NeverFinishes(Message, Message*) {
    StartHandler();
    while (true) {
        std::this_thread::sleep_for(std::chrono::hours(1));
    }
}

void ExitsFromHandler(Message, Message*) {
    StartHandler();
    exit(3);
}

TEST_F(MessageBusTest, ExitDropsQueuedMessagesAndNeverHangs) {
    const struct {
        const char* name;
        MessageHandler handler;
        int exitCode;
        std::string told;
    } cases[] = {
        {"the handler in flight finishes, the rest is dropped", FinishesDuringShutdown, 0, "SEX"},
        {"a stuck handler is left behind after the grace period", NeverFinishes, 0, "SX"},
        {"exit called from inside an async handler", ExitsFromHandler, 3, "SX"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        corvanetest::TempDir dir;
        const std::string told = dir / "told";
        int status = RunChildWithDeadline(
            [&] {
                g_told = open(told.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
                static StaticsWitness witness;  // destroyed at exit, after the bus stopped
                m_bus.subscribe("queued", c.handler);
                for (int i = 0; i < 50; ++i) {
                    m_bus.sendAsync(Message("queued", {}));
                }
                WaitFor([] { return g_handlerStarted.load(); });
                if (c.handler == ExitsFromHandler) {
                    pause();  // the handler ends the process
                }
                exit(0);
            },
            std::chrono::seconds(30));
        ASSERT_NE(status, -1) << "the child hung at exit";
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == c.exitCode) << status;
        EXPECT_EQ(corvanetest::ReadTextFile(told), c.told);
    }
}

}  // namespace
