// The host message center, loaded with dlopen from a sysroot as the system loads it.
#include <errno.h>
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

// What the handlers saw, in order. Handlers are plain functions, so the record is global.
std::mutex g_eventsLock;
std::vector<std::string> g_events;

void Record(const std::string& event) {
    std::lock_guard<std::mutex> guard(g_eventsLock);
    g_events.push_back(event);
}

std::vector<std::string> Events() {
    std::lock_guard<std::mutex> guard(g_eventsLock);
    return g_events;
}

void ClearEvents() {
    std::lock_guard<std::mutex> guard(g_eventsLock);
    g_events.clear();
}

template <char NAME>
void Named(Message, Message*) {
    Record(std::string(1, NAME));
}

BusLibrary* g_bus = nullptr;

class MessageBusTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ClearEvents();
        m_bus = std::make_unique<BusLibrary>();
        ASSERT_TRUE(m_bus->loaded());
        g_bus = m_bus.get();
    }
    void TearDown() override { g_bus = nullptr; }
    BusLibrary& bus() { return *m_bus; }
    std::unique_ptr<BusLibrary> m_bus;
};

TEST_F(MessageBusTest, SubscriptionRules) {
    enum Op { SUBSCRIBE, MODIFY, UNSUBSCRIBE };
    struct Step {
        Op op;
        MessageHandler handler;
        int expected;
    };
    struct Case {
        const char* name;
        std::vector<Step> steps;
        std::vector<std::string> delivered;
    };
    const Case cases[] = {
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
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string topic = "rules-" + std::to_string(index++);
        for (const Step& step : c.steps) {
            int result = step.op == SUBSCRIBE ? bus().subscribe(topic.c_str(), step.handler)
                         : step.op == MODIFY  ? bus().modifySubscribe(topic.c_str(), step.handler)
                                              : bus().unsubscribe(topic.c_str());
            EXPECT_EQ(result, step.expected);
        }
        ClearEvents();
        Message reply("before", {});  // these handlers do not answer: it stays as it was
        reply.data["kept"] = MakeInt64Data(9);
        EXPECT_EQ(bus().send(Message(topic, {}), &reply), static_cast<int>(c.delivered.size()));
        EXPECT_EQ(Events(), c.delivered);
        EXPECT_EQ(reply.topic, "before");
        EXPECT_EQ(reply.data.size(), 1u);
    }
}

TEST_F(MessageBusTest, RejectsBadArguments) {
    EXPECT_EQ(bus().subscribe(nullptr, Named<'A'>), -EINVAL);
    EXPECT_EQ(bus().subscribe("", Named<'A'>), -EINVAL);
    EXPECT_EQ(bus().subscribe("t", nullptr), -EINVAL);
    EXPECT_EQ(bus().modifySubscribe(nullptr, Named<'A'>), -EINVAL);
    EXPECT_EQ(bus().modifySubscribe("t", nullptr), -EINVAL);
    EXPECT_EQ(bus().unsubscribe(nullptr), -EINVAL);
    EXPECT_EQ(bus().unsubscribe(""), -EINVAL);
    EXPECT_EQ(bus().send(Message("t", {}), nullptr), 0);  // nothing was subscribed
}

Message* g_seenReply = nullptr;

// Changes its own copy of the request; the next handler must not see that.
void Mutator(Message request, Message* reply) {
    request.data["key"] = MessageData(std::string("changed by mutator"));
    request.data["extra"] = MakeInt32Data(1);
    g_seenReply = reply;
    reply->topic = request.topic;
    reply->data["mutator"] = MakeInt32Data(1);
}

void Observer(Message request, Message* reply) {
    std::string value;
    GetStringData(request, "key", &value);
    Record(value + (request.data.count("extra") != 0 ? "+extra" : ""));
    Record(reply == g_seenReply ? "same reply" : "other reply");
    reply->data["observer"] = MakeInt32Data(2);
}

TEST_F(MessageBusTest, EachHandlerGetsItsOwnCopyAndTheCallersReply) {
    ASSERT_EQ(bus().subscribe("copies", Mutator), 0);
    ASSERT_EQ(bus().subscribe("copies", Observer), 0);
    Message request("copies", {});
    request.data["key"] = MessageData(std::string("original"));
    Message reply;
    EXPECT_EQ(bus().send(request, &reply), 2);
    EXPECT_EQ(g_seenReply, &reply);
    EXPECT_EQ(Events(), (std::vector<std::string>{"original", "same reply"}));
    EXPECT_EQ(reply.topic, "copies");
    EXPECT_EQ(reply.data.size(), 2u);
    std::string value;
    EXPECT_TRUE(GetStringData(request, "key", &value));
    EXPECT_EQ(value, "original");
}

// Works on the bus from inside a handler: every one of these would deadlock a bus that called
// handlers under its lock.
void Reentrant(Message request, Message* reply) {
    uint32_t depth = 0;
    GetInt32Data(request, "depth", &depth);
    Record("outer:" + std::to_string(depth));
    if (depth > 0) {
        return;
    }
    Record("subscribe:" + std::to_string(g_bus->subscribe("inner", Named<'B'>)));
    Record("send:" + std::to_string(g_bus->send(Message("inner", {}), reply)));
    Record("unsubscribe:" + std::to_string(g_bus->unsubscribe("inner")));
    Record("send:" + std::to_string(g_bus->send(Message("inner", {}), reply)));
    Record("resubscribe self:" + std::to_string(g_bus->subscribe("outer", Reentrant)));
    Message again("outer", {});
    again.data["depth"] = MakeInt32Data(1);
    Record("send self:" + std::to_string(g_bus->send(again, reply)));
    Record("async:" + std::to_string(g_bus->sendAsync(Message("later", {}))));
}

TEST_F(MessageBusTest, HandlersMayUseTheBusFromInside) {
    ASSERT_EQ(bus().subscribe("outer", Reentrant), 0);
    ASSERT_EQ(bus().subscribe("later", Named<'L'>), 0);
    Message reply;
    EXPECT_EQ(bus().send(Message("outer", {}), &reply), 1);
    ASSERT_TRUE(WaitFor([] { return Events().size() == 11; })) << Events().size();
    // The asynchronous "L" may come before or after the handler noted that it queued it.
    std::vector<std::string> events = Events();
    auto late = std::find(events.begin(), events.end(), "L");
    ASSERT_NE(late, events.end());
    events.erase(late);
    EXPECT_EQ(events, (std::vector<std::string>{"outer:0", "subscribe:0", "B", "send:1",
                                                "unsubscribe:1", "send:0", "resubscribe self:0",
                                                "outer:1", "send self:1", "async:0"}));
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
        Message next("async", {});
        next.data["sequence"] = MakeInt32Data(1000);
        g_bus->sendAsync(next);
    }
}

TEST_F(MessageBusTest, AsyncDeliversInOrderOnOneWorkerWithNullReply) {
    ASSERT_EQ(bus().subscribe("async", AsyncRecorder), 0);
    constexpr uint32_t COUNT = ASYNC_COUNT;
    for (uint32_t i = 0; i < COUNT; ++i) {
        Message message("async", {});
        message.data["sequence"] = MakeInt32Data(i);
        ASSERT_EQ(bus().sendAsync(message), 0);
    }
    ASSERT_TRUE(WaitFor([] {
        std::lock_guard<std::mutex> guard(g_asyncLock);
        return g_asyncSequence.size() == COUNT + 1;
    }));
    std::lock_guard<std::mutex> guard(g_asyncLock);
    std::vector<uint32_t> expected;
    for (uint32_t i = 0; i < COUNT; ++i) {
        expected.push_back(i);
    }
    expected.push_back(1000);  // queued by the last handler
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
    ASSERT_EQ(bus().subscribe("steady", Steady), 0);
    constexpr int SENDERS = 4;
    constexpr int SENDS = 3000;
    std::atomic<bool> sendersDone{false};
    std::atomic<int> lostReplies{0};
    std::vector<std::thread> churners;
    const MessageHandler churnHandlers[] = {Churn<0>, Churn<1>, Churn<2>, Churn<3>};
    for (int c = 0; c < 3; ++c) {
        churners.emplace_back([&, c] {
            std::string own = "churn-" + std::to_string(c);
            for (int i = 0; !sendersDone; ++i) {
                MessageHandler handler = churnHandlers[i % 4];
                bus().subscribe("steady", handler);
                bus().subscribe(own.c_str(), handler);
                if (i % 3 == 0) {
                    bus().modifySubscribe(own.c_str(), churnHandlers[(i + 1) % 4]);
                }
                bus().unsubscribe(own.c_str());
            }
        });
    }
    std::vector<std::thread> senders;
    for (int s = 0; s < SENDERS; ++s) {
        senders.emplace_back([&, s] {
            for (int i = 0; i < SENDS; ++i) {
                Message request("steady", {});
                request.data["sender"] = MakeInt32Data(s);
                Message reply;
                bus().send(request, &reply);
                uint32_t answered = 0;
                if (!GetInt32Data(reply, "answered", &answered)) {
                    lostReplies.fetch_add(1);
                }
                bus().send(Message("churn-" + std::to_string(i % 3), {}), &reply);
                bus().sendAsync(Message("churn-" + std::to_string(i % 3), {}));
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
    EXPECT_EQ(lostReplies.load(), 0);
}

// Exit while asynchronous messages are queued. The pipe tells the parent what happened, in
// order: S/E = a handler started/ended, L = a handler ran after the test program's own statics
// were destroyed, X = those statics were destroyed.
int g_pipe = -1;
std::atomic<bool> g_staticsAlive{false};

void Tell(char what) {
    ssize_t written = write(g_pipe, &what, 1);
    (void)written;
}

struct StaticsWitness {
    StaticsWitness() { g_staticsAlive = true; }
    ~StaticsWitness() {
        g_staticsAlive = false;
        Tell('X');
    }
};

std::atomic<bool> g_handlerStarted{false};

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
    struct Case {
        const char* name;
        MessageHandler handler;
        int exitCode;
        std::string told;
    };
    const Case cases[] = {
        {"the handler in flight finishes, the rest is dropped", FinishesDuringShutdown, 0, "SEX"},
        {"a stuck handler is left behind after the grace period", NeverFinishes, 0, "SX"},
        {"exit called from inside an async handler", ExitsFromHandler, 3, "SX"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        int status = RunChildWithDeadline(
            [&] {
                close(fds[0]);
                g_pipe = fds[1];
                static StaticsWitness witness;  // destroyed at exit, after the bus stopped
                bus().subscribe("queued", c.handler);
                for (int i = 0; i < 50; ++i) {
                    bus().sendAsync(Message("queued", {}));
                }
                WaitFor([] { return g_handlerStarted.load(); });
                if (c.handler == ExitsFromHandler) {
                    pause();  // the handler ends the process
                }
                exit(0);
            },
            std::chrono::seconds(30));
        close(fds[1]);
        std::string told;
        char buffer[64];
        ssize_t got;
        while ((got = read(fds[0], buffer, sizeof(buffer))) > 0) {
            told.append(buffer, got);
        }
        close(fds[0]);
        ASSERT_NE(status, -1) << "the child hung at exit";
        EXPECT_TRUE(WIFEXITED(status)) << status;
        EXPECT_EQ(WEXITSTATUS(status), c.exitCode);
        EXPECT_EQ(told, c.told);
    }
}

}  // namespace
