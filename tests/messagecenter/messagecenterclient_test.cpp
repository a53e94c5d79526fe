// The client is a process-wide singleton whose state is decided at first use: every scenario
// runs in a child process of its own.
#include "core/messagecenter/messagecenterclient.h"

#include <android/log.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "tests/messagecenter/messagecentertestutil.h"

namespace {

using namespace corvanetest;

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

int Count(const std::vector<std::string>& lines, const std::string& text) {
    return static_cast<int>(std::count(lines.begin(), lines.end(), text));
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

TEST(MessageCenterClientTest, FailedLoadIsRetriedOnlyWhileThePropertyIsFive) {
    const std::pair<const char*, bool> cases[] = {
        {nullptr, false}, {"4", false}, {"5", true}, {"0x5", true}};  // nullptr: unset
    for (const auto& c : cases) {
        const char* property = c.first;
        const bool retries = c.second;
        SCOPED_TRACE(property == nullptr ? "unset" : property);
        ExpectInChild([&] {
            TestSysroot sysroot;
            if (property != nullptr) {
                sysroot.SetProperty(RETRY_PROPERTY, property);
            }
            LogCapture log;
            EXPECT_EQ(UseEveryEntry().topic, "untouched");
            std::vector<std::string> lines = ClientLines(log);
            EXPECT_EQ(Count(lines, NOT_LOADED), retries ? 3 : 1);
            EXPECT_EQ(Count(lines, NO_SUBSCRIBE) + Count(lines, NO_UNSUBSCRIBE), 2);
            EXPECT_EQ(Count(lines, NO_SEND), 1);
            // The library appears: only a retrying client ever notices.
            sysroot.InstallLibrary(BUS_FILE);
            EXPECT_EQ(BusAnswers(), retries);
        });
    }
    // The property is read at every use.
    ExpectInChild([] {
        TestSysroot sysroot;
        LogCapture log;
        for (const char* property : {"0", "5", "1"}) {
            sysroot.SetProperty(RETRY_PROPERTY, property);
            Client()->Subscribe("a", Echo);
        }
        EXPECT_EQ(Count(ClientLines(log), NOT_LOADED), 2);
    });
}

// A library missing only the asynchronous entry is refused whole and without a word; every
// entry then logs its own line, and the library is no longer loaded.
TEST(MessageCenterClientTest, LibraryLackingOneEntryIsRejectedSilently) {
    ExpectInChild([] {
        TestSysroot sysroot;
        std::string installed = BusLibrary::InstalledBus(sysroot);
        std::filesystem::copy_file(NOASYNC_MESSAGECENTER_LIBRARY, installed);
        LogCapture log;
        EXPECT_EQ(UseEveryEntry().topic, "untouched");
        EXPECT_EQ(ClientLines(log),
                  (std::vector<std::string>{NO_SUBSCRIBE, NO_UNSUBSCRIBE, NO_SEND}));
        EXPECT_EQ(dlopen(installed.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
    });
}

// A loaded client passes every call through, silently: values come back as they were sent (the
// bus copies them on the way), and once unsubscribed nobody answers.
TEST(MessageCenterClientTest, LoadedClientPassesEveryCallThrough) {
    ExpectInChild([] {
        TestSysroot sysroot;
        sysroot.InstallLibrary(BUS_FILE);
        LogCapture log;
        Client()->Subscribe("t", Echo);
        std::vector<unsigned char> raw = {0, 1, 0xff, 0}, echoed;
        Message request("t", {{"time", MakeInt64Data(0x100000000ull)}});
        request.data["raw"].Set(raw.data(), raw.size());
        Message reply;
        Client()->SendMessage(request, &reply);
        uint64_t time = 0;
        EXPECT_TRUE(GetInt64Data(reply, "time", &time) && time == 0x100000000ull);
        EXPECT_TRUE(GetBytesData(reply, "raw", &echoed) && echoed == raw);

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
    std::vector<std::string> lines = ClientLines(*g_exitLog);
    bool expected =
        lines == std::vector<std::string>{NO_SUBSCRIBE, NO_SEND} && reply.topic == "untouched";
    if (!expected) {
        fprintf(stderr, "after teardown:\n%s", g_exitLog->Dump().c_str());
    }
    _exit(expected && !::testing::Test::HasFailure() ? 0 : 1);
}

void ExpectDestroyedAtExit(bool loaded) {
    TestSysroot sysroot;
    sysroot.SetProperty(RETRY_PROPERTY, "5");
    if (loaded) {
        sysroot.InstallLibrary(BUS_FILE);
    }
    int status = RunChildWithDeadline(
        [&] {
            atexit(UseClientAfterItsTeardown);
            EXPECT_EQ(BusAnswers(), loaded);
            if (!loaded) {
                sysroot.InstallLibrary(BUS_FILE);
            }
            g_exitLog = new LogCapture();
            exit(2);  // the exit handler decides the status
        },
        std::chrono::seconds(30));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST(MessageCenterClientTest, ClientIsDestroyedAtExit) {
    ExpectDestroyedAtExit(true);
}

// Fails today: the compiler drops the destructor's store of the destroyed state, a store to an
// object whose lifetime is ending, so a client whose load had failed retries after teardown.
TEST(MessageCenterClientTest, DISABLED_ClientWhoseLoadFailedIsDestroyedAtExit) {
    ExpectDestroyedAtExit(false);
}

}  // namespace
