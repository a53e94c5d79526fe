// The host message center, loaded with dlopen from a sysroot as the system loads it.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

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

// The events once there are `count` of them (fewer when the deadline passes first).
Strings WaitForEvents(size_t count) {
    WaitFor([count] {
        std::lock_guard<std::mutex> guard(g_eventsLock);
        return g_events.size() >= count;
    });
    return TakeEvents();
}

// Records its name and the size of the request it got, then empties its copy and signs the
// caller's reply: each handler must get the request as sent, and all of them the one reply.
template <char NAME>
void Named(Message request, Message* reply) {
    Record(std::string(1, NAME) + std::to_string(request.data.size()));
    request.data.clear();
    reply->data[std::string(1, NAME)] = MessageData();
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
    auto deliveries = [this](const char* topic) {
        Message reply("before", {});  // signed by every handler, otherwise as it was
        int called = m_bus.send(Message(topic, {{"key", {}}}), &reply);
        Strings events = TakeEvents();
        EXPECT_EQ(reply.topic, "before");
        EXPECT_EQ(called, static_cast<int>(events.size()));
        EXPECT_EQ(reply.data.size(), events.size());
        return events;
    };
    // Handlers run in subscription order; the same handler is kept once.
    for (MessageHandler handler : {Named<'C'>, Named<'A'>, Named<'C'>, Named<'B'>}) {
        EXPECT_EQ(m_bus.subscribe("t", handler), 0);
    }
    EXPECT_EQ(deliveries("t"), (Strings{"C1", "A1", "B1"}));
    // Modify replaces every handler of the topic, and subscribes on a topic without any.
    EXPECT_EQ(m_bus.modifySubscribe("t", Named<'D'>), 0);
    EXPECT_EQ(m_bus.modifySubscribe("u", Named<'E'>), 0);
    EXPECT_EQ(deliveries("t"), Strings{"D1"});
    EXPECT_EQ(deliveries("u"), Strings{"E1"});
    // Unsubscribe removes every handler and says how many; the topic can be used again.
    EXPECT_EQ(m_bus.subscribe("t", Named<'A'>), 0);
    EXPECT_EQ(m_bus.unsubscribe("t"), 2);
    EXPECT_EQ(m_bus.unsubscribe("t"), 0);
    EXPECT_EQ(deliveries("t"), Strings{});
    EXPECT_EQ(m_bus.subscribe("t", Named<'B'>), 0);
    EXPECT_EQ(deliveries("t"), Strings{"B1"});

    EXPECT_EQ(m_bus.subscribe(nullptr, Named<'A'>), -EINVAL);
    EXPECT_EQ(m_bus.subscribe("", Named<'A'>), -EINVAL);
    EXPECT_EQ(m_bus.subscribe("t", nullptr), -EINVAL);
    EXPECT_EQ(m_bus.modifySubscribe("", Named<'A'>), -EINVAL);
    EXPECT_EQ(m_bus.modifySubscribe("t", nullptr), -EINVAL);
    EXPECT_EQ(m_bus.unsubscribe(""), -EINVAL);
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
    Record("send self:" + std::to_string(g_bus->send(Message("outer", {{"again", {}}}), reply)));
    Record("async:" + std::to_string(g_bus->sendAsync(Message("later", {}))));
}

TEST_F(MessageBusTest, HandlersMayUseTheBusFromInside) {
    ASSERT_EQ(m_bus.subscribe("outer", Reentrant), 0);
    Message reply;
    EXPECT_EQ(m_bus.send(Message("outer", {}), &reply), 1);
    EXPECT_EQ(TakeEvents(), (Strings{"outer:0", "subscribe:0", "B0", "send:1", "unsubscribe:1",
                                     "outer:1", "send self:1", "async:0"}));
}

// Records the sequence number, the thread and whether a reply came along.
constexpr uint32_t ASYNC_COUNT = 200;
std::set<std::thread::id> g_asyncThreads;

void AsyncRecorder(Message request, Message* reply) {
    uint32_t sequence = 0;
    GetInt32Data(request, "sequence", &sequence);
    Record(std::to_string(sequence) + (reply == nullptr ? "" : " with a reply"));
    g_asyncThreads.insert(std::this_thread::get_id());  // one worker: no lock needed
    if (sequence == ASYNC_COUNT - 1) {  // the worker may queue more from inside a handler
        g_bus->sendAsync(Message("async", {{"sequence", MakeInt32Data(ASYNC_COUNT)}}));
    }
}

TEST_F(MessageBusTest, AsyncDeliversInOrderOnOneWorkerWithNullReply) {
    ASSERT_EQ(m_bus.subscribe("async", AsyncRecorder), 0);
    Strings expected;
    for (uint32_t i = 0; i <= ASYNC_COUNT; ++i) {
        if (i < ASYNC_COUNT) {
            ASSERT_EQ(m_bus.sendAsync(Message("async", {{"sequence", MakeInt32Data(i)}})), 0);
        }
        expected.push_back(std::to_string(i));  // the last one is queued by the handler
    }
    Strings events = WaitForEvents(expected.size());
    EXPECT_EQ(events, expected);
    EXPECT_EQ(g_asyncThreads.size(), 1u);
    EXPECT_EQ(g_asyncThreads.count(std::this_thread::get_id()), 0u);
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

// The handler in flight at exit: finishes once the bus refuses new messages (while the exit is
// under way), never finishes, or ends the process itself.
enum InFlight { FINISHES, STUCK, EXITS };
InFlight g_inFlight = FINISHES;

void InFlightHandler(Message, Message*) {
    Tell(g_staticsAlive ? 'S' : 'L');
    g_handlerStarted = true;
    if (g_inFlight == EXITS) {
        exit(3);
    }
    // A stuck handler waits for an hour, far past the bus's grace period.
    WaitFor([] { return g_inFlight != STUCK && g_bus->sendAsync(Message("p", {})) == -ESHUTDOWN; },
            std::chrono::hours(1));
    Tell('E');
}

TEST_F(MessageBusTest, ExitDropsQueuedMessagesAndNeverHangs) {
    const struct {
        InFlight inFlight;
        int exitCode;
        std::string told;
    } cases[] = {{FINISHES, 0, "SEX"}, {STUCK, 0, "SX"}, {EXITS, 3, "SX"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.inFlight);
        corvanetest::TempDir dir;
        const std::string told = dir / "told";
        g_inFlight = c.inFlight;
        int status = RunChildWithDeadline(
            [&] {
                g_told = open(told.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
                static StaticsWitness witness;  // destroyed at exit, after the bus stopped
                m_bus.subscribe("queued", InFlightHandler);
                for (int i = 0; i < 50; ++i) {
                    m_bus.sendAsync(Message("queued", {}));
                }
                WaitFor([] { return g_handlerStarted.load(); });
                if (c.inFlight == EXITS) {
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
