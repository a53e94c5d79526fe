// The message center: the client, the host bus loaded with dlopen from a sysroot as the system
// loads it, and the message records they carry. The client is a process-wide singleton whose
// state is decided at first use, so its scenarios run in child processes of their own.
#include "core/messagecenter/message.h"
#include "core/messagecenter/messagecenterclient.h"

#include <android/log.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "core/messagecenter/messagecenterentries.h"
#include "tests/support/testsupport.h"

namespace {

using namespace corvanetest;
using Strings = std::vector<std::string>;

constexpr const char* BUS_FILE = "com.halvern.messagecenter.so";

// The bus library installed in a fresh sysroot and opened directly, its five entries resolved.
// Every sysroot holds its own copy of the file, so every BusLibrary is a bus of its own (never
// closed: the library cannot be unloaded).
struct BusLibrary {
    BusLibrary() {
        sysroot.InstallLibrary(BUS_FILE);
        void* handle = dlopen(InstalledBus(sysroot).c_str(), RTLD_NOW | RTLD_GLOBAL);
        EXPECT_NE(handle, nullptr) << dlerror();
        auto entry = [handle](const char* name) {
            return handle == nullptr ? nullptr : dlsym(handle, name);
        };
        subscribe = reinterpret_cast<MessageCenterSubscribeFunc>(entry(MESSAGE_CENTER_SUBSCRIBE));
        modifySubscribe = reinterpret_cast<MessageCenterModifySubscribeFunc>(
            entry(MESSAGE_CENTER_MODIFY_SUBSCRIBE));
        unsubscribe =
            reinterpret_cast<MessageCenterUnsubscribeFunc>(entry(MESSAGE_CENTER_UNSUBSCRIBE));
        send = reinterpret_cast<MessageCenterSendMessageFunc>(entry(MESSAGE_CENTER_SEND_MESSAGE));
        sendAsync = reinterpret_cast<MessageCenterSendMessageAsyncFunc>(
            entry(MESSAGE_CENTER_SEND_MESSAGE_ASYNC));
    }
    static std::string InstalledBus(const TestSysroot& sysroot) {
        return sysroot / (std::string("vendor/lib64/") + BUS_FILE);
    }
    bool loaded() const { return subscribe && modifySubscribe && unsubscribe && send && sendAsync; }

    TestSysroot sysroot;
    MessageCenterSubscribeFunc subscribe;
    MessageCenterModifySubscribeFunc modifySubscribe;
    MessageCenterUnsubscribeFunc unsubscribe;
    MessageCenterSendMessageFunc send;
    MessageCenterSendMessageAsyncFunc sendAsync;
};

// Scenarios that end their child with exit(): a child that hangs there is ended by its alarm,
// which fails the test as any other status does.
constexpr unsigned kChildDeadlineSeconds = 30;

constexpr const char* TAG = "[MESSAGECENTER]";
constexpr const char* NOT_LOADED = "m_pCorvaneSystemCore is NULL";
constexpr const char* NO_SUBSCRIBE = "m_pMessageCenterSubscribeFuncPtr is NULL";
constexpr const char* NO_UNSUBSCRIBE = "MessageCenterUnsubscribeFuncPtr is NULL";
constexpr const char* NO_SEND = "m_pMessageCenterSendMessageFuncPtr is NULL";
constexpr const char* RETRY_PROPERTY = "persist.vendor.camera.cloud.corvanesys.xmessage";

// Lines of the client, exactly as written: tag, error priority and text.
std::vector<std::string> ClientLines(const LogCapture& log) {
    std::vector<std::string> lines;
    for (const LogLine& line : log.Lines()) {
        if (line.tag == TAG) {
            EXPECT_EQ(line.priority, ANDROID_LOG_ERROR) << line.message;
            lines.push_back(line.message);
        }
    }
    return lines;
}

void Echo(Message request, Message* reply) {
    if (reply != nullptr) {
        *reply = request;
    }
}

MessageCenterClient* Client() {
    return MessageCenterClient::GetInstance();
}

// True when a subscribe and a send through the client reach the bus.
bool BusAnswers() {
    Client()->Subscribe("echo", Echo);
    Message reply;
    Client()->SendMessage(Message("echo", {}), &reply);
    return reply.topic == "echo";
}

// Goes through every entry once; the reply of the send, which nobody answers.
Message UseEveryEntry() {
    Client()->Subscribe("a", Echo);
    Client()->Unsubscribe("a");
    Message reply("untouched", {});
    Client()->SendMessage(Message("a", {}), &reply);
    return reply;
}

// Every entry of a client without the library logs its own line. The property is read at every
// use: `later` is its value when the library appears. A library missing only the asynchronous
// entry is refused whole and without a word, and is no longer loaded.
TEST(MessageCenterClientTest, FailedLoadIsRetriedOnlyWhileThePropertyIsFive) {
    const struct {
        const char* property;  // nullptr: unset
        const char* later;
        long notLoaded;  // "not loaded" lines
        bool answers, incomplete = false;
    } cases[] = {{nullptr, nullptr, 1, false}, {"4", "4", 1, false},
                 {"5", "5", 3, true},          {"0x5", "0x5", 3, true},
                 {"6", "6", 1, false},         {"5", "0", 3, false},
                 {"0", "5", 1, true},          {nullptr, nullptr, 0, false, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.property == nullptr ? "unset" : c.property) +
                     (c.incomplete ? " incomplete" : ""));
        ExpectInChild([&] {
            TestSysroot sysroot;
            if (c.property != nullptr) {
                sysroot.SetProperty(RETRY_PROPERTY, c.property);
            }
            const std::string installed = BusLibrary::InstalledBus(sysroot);
            if (c.incomplete) {
                std::filesystem::copy_file(NOASYNC_MESSAGECENTER_LIBRARY, installed);
            }
            LogCapture log;
            EXPECT_EQ(UseEveryEntry().topic, "untouched");
            Strings lines = ClientLines(log);
            EXPECT_EQ(std::count(lines.begin(), lines.end(), NOT_LOADED), c.notLoaded);
            lines.erase(std::remove(lines.begin(), lines.end(), NOT_LOADED), lines.end());
            EXPECT_EQ(lines, (Strings{NO_SUBSCRIBE, NO_UNSUBSCRIBE, NO_SEND}));
            EXPECT_EQ(dlopen(installed.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
            if (c.later != nullptr) {
                sysroot.SetProperty(RETRY_PROPERTY, c.later);
            }
            sysroot.InstallLibrary(BUS_FILE);
            EXPECT_EQ(BusAnswers(), c.answers);
        });
    }
}

// A loaded client passes every call through, silently, and once unsubscribed nobody answers. Its
// first use comes from several threads at once (for ThreadSanitizer too): every one of them must
// reach the bus.
TEST(MessageCenterClientTest, LoadedClientPassesEveryCallThrough) {
    ExpectInChild([] {
        TestSysroot sysroot;
        sysroot.InstallLibrary(BUS_FILE);
        LogCapture log;
        std::atomic<int> failures{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                for (int i = 0; i < 500; ++i) {
                    failures += BusAnswers() ? 0 : 1;
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(failures.load(), 0);
        Client()->Subscribe("t", Echo);
        Message request("t", {}), reply;
        Client()->SendMessage(request, &reply);
        EXPECT_EQ(reply.topic, "t");
        Client()->Unsubscribe("t");
        Message unanswered("untouched", {});
        Client()->SendMessage(request, &unanswered);
        EXPECT_EQ(unanswered.topic, "untouched");
        EXPECT_TRUE(ClientLines(log).empty()) << log.Dump();
    });
}

// At exit the client is torn down before anything registered for exit before it was created;
// such late users get the null-pointer lines, and neither a client that had loaded the library
// nor one whose load had failed (a retry is allowed, and the library is there now) opens it again.
LogCapture* g_exitLog = nullptr;

void UseClientAfterItsTeardown() {
    Client()->Subscribe("late", Echo);
    Message reply("untouched", {});
    Client()->SendMessage(Message("late", {}), &reply);
    EXPECT_EQ(ClientLines(*g_exitLog), (std::vector<std::string>{NO_SUBSCRIBE, NO_SEND}));
    EXPECT_EQ(reply.topic, "untouched");
    _exit(::testing::Test::HasFailure() ? 1 : 0);
}

TEST(MessageCenterClientTest, ClientIsDestroyedAtExit) {
    for (bool loaded : {true, false}) {
        SCOPED_TRACE(loaded);
        TestSysroot sysroot;
        sysroot.SetProperty(RETRY_PROPERTY, "5");
        if (loaded) {
            sysroot.InstallLibrary(BUS_FILE);
        }
        EXPECT_TRUE(ChildSucceeded(RunInChild([&]() -> int {
            alarm(kChildDeadlineSeconds);
            atexit(UseClientAfterItsTeardown);
            EXPECT_EQ(BusAnswers(), loaded);
            if (!loaded) {
                sysroot.InstallLibrary(BUS_FILE);
            }
            g_exitLog = new LogCapture();
            exit(2);  // the exit handler decides the status
        })));
    }
}

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
    WaitFor([&] {
        std::lock_guard<std::mutex> guard(g_eventsLock);
        return g_events.size() >= expected.size();
    });
    EXPECT_EQ(TakeEvents(), expected);
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
        int status = RunInChild([&]() -> int {
            alarm(kChildDeadlineSeconds);
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
        });
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == c.exitCode) << status;
        EXPECT_EQ(corvanetest::ReadTextFile(told), c.told);
    }
}

using Buffer = std::vector<unsigned char>;

Buffer Bytes(const MessageData& data) {
    std::lock_guard<std::recursive_mutex> guard(data.lock);
    return data.bytes == nullptr ? Buffer() : Buffer(data.bytes, data.bytes + data.size);
}

MessageData BufferData(Buffer content) {
    MessageData data;
    data.Set(content.data(), content.size());
    return data;
}

TEST(MessageDataTest, CopiesHaveTheirOwnBufferAndAStringOverABufferKeepsIt) {
    MessageData source = BufferData({1, 2, 3, 4, 5});
    source.intValue = 0xfffffffeu;
    source.longValue = 0x1234567890abcdefull;
    source.floatValue = 2.5f;
    source.stringValue = "sensor";
    MessageData constructed(source);
    MessageData assigned = BufferData({9, 9});
    assigned = source;
    source.bytes[0] = 42;
    for (const MessageData* copy : {&constructed, &assigned}) {
        EXPECT_EQ(copy->type, MESSAGE_DATA_TYPE_BYTES);
        EXPECT_EQ(Bytes(*copy), (Buffer{1, 2, 3, 4, 5}));
        EXPECT_EQ(copy->stringValue, "sensor");
        EXPECT_EQ(copy->intValue, 0xfffffffeu);
        EXPECT_EQ(copy->longValue, 0x1234567890abcdefull);
        EXPECT_EQ(copy->floatValue, 2.5f);
    }
    MessageData& alias = assigned;
    assigned = alias;
    EXPECT_EQ(Bytes(assigned), (Buffer{1, 2, 3, 4, 5}));

    // A string assigned over a buffer keeps the buffer (and frees it later, which the leak
    // checkers of the sanitizer and valgrind runs verify) but takes the source's size: readers go
    // by type. Null or empty buffers and a record's own string change nothing.
    source.Set(std::string("xyz"));
    source.Set(nullptr, 3);
    source.Set(source.stringValue);
    unsigned char one = 1;
    source.Set(&one, 0);
    Buffer eight{10, 20, 30, 40, 50, 60, 70, 80};
    constructed.Set(eight.data(), eight.size());
    unsigned char* oldBuffer = constructed.bytes;
    constructed = source;
    EXPECT_EQ(constructed.type, MESSAGE_DATA_TYPE_STRING);
    EXPECT_EQ(constructed.stringValue, "xyz");
    EXPECT_EQ(constructed.size, 5u);
    ASSERT_EQ(constructed.bytes, oldBuffer);
    EXPECT_EQ(constructed.bytes[7], 80);  // still owned and intact
    MessageData fresh(source);            // a fresh copy has no buffer, whatever its size says
    EXPECT_EQ(fresh.bytes, nullptr);
    EXPECT_EQ(fresh.size, 5u);
}

// A record copied while another thread keeps replacing its buffer (for ThreadSanitizer too):
// every copy holds one of the buffers whole, never a freed or half-replaced one.
TEST(MessageDataTest, CopyWhileAnotherThreadSetsTheBuffer) {
    Buffer a(64, 0xaa), b(256, 0xbb);
    MessageData shared = BufferData(a);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; !stop; ++i) {
            Buffer& next = i % 2 == 0 ? b : a;
            shared.Set(next.data(), next.size());
        }
    });
    for (int i = 0; i < 20000; ++i) {
        Buffer content = Bytes(MessageData(shared));
        ASSERT_TRUE(content == a || content == b) << "iteration " << i;
    }
    stop = true;
    writer.join();
}

TEST(MessageTest, TypedHelpersReadOnlyTheKindStored) {
    Message message("t", {});
    message.data["i32"] = MakeInt32Data(0xffffffffu);
    message.data["i64"] = MakeInt64Data(1ull << 40);
    message.data["str"] = MessageData(std::string("s"));
    message.data["buf"] = BufferData({8});
    message.data["none"] = MessageData();
    uint32_t i32 = 7;
    uint64_t i64 = 7;
    std::string str = "untouched";
    Buffer buf;
    EXPECT_TRUE(GetInt32Data(message, "i32", &i32) && i32 == 0xffffffffu);
    EXPECT_TRUE(GetInt64Data(message, "i64", &i64) && i64 == 1ull << 40);
    EXPECT_TRUE(GetStringData(message, "str", &str) && str == "s");
    EXPECT_TRUE(GetBytesData(message, "buf", &buf) && buf == Buffer{8});
    for (const char* key : {"i64", "str", "buf", "none", "missing"}) {
        EXPECT_FALSE(GetInt32Data(message, key, &i32)) << key;  // the output is left as it was
    }
    EXPECT_FALSE(GetInt64Data(message, "i32", &i64) || GetStringData(message, "none", &str) ||
                 GetBytesData(message, "str", &buf));
    EXPECT_EQ(std::to_string(i32) + str, "4294967295s");
}

}  // namespace
