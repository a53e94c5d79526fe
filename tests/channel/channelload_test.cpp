// Many requests, sequential and concurrent: every one is answered, and the server gives back
// every thread and descriptor it used. Counts only; timings are in bench/channel_bench.
#include <atomic>
#include <filesystem>
#include <thread>

#include "core/server/server.h"
#include "tests/channel/channeltestutil.h"

namespace {

using namespace channeltest;

constexpr int kSequentialRequests = 20000;
constexpr int kConcurrentClients = 8;
constexpr int kRequestsPerClient = 1000;

// Entries of a /proc directory (threads of /proc/self/task, descriptors of /proc/self/fd).
int CountEntries(const char* directory) {
    auto entries = std::filesystem::directory_iterator(directory);
    int count = static_cast<int>(std::distance(begin(entries), end(entries)));
    return count - (strcmp(directory, "/proc/self/fd") == 0);  // the listing's own descriptor
}

bool RoundTrip(const std::string& path, const VXCDBMessageString& request) {
    ClientSocket client(path);
    VXCDBMessageString reply;
    VXCDBMessage message;
    return client.connected() && client.Send(request) &&
           client.Receive(&reply) == ClientSocket::Received::kFrame &&
           DecodeVXCDBMessage(reply, &message) && message.cmds_size() == 2;
}

TEST(ChannelLoad, EveryRequestIsAnsweredAndNothingAccumulates) {
    corvanetest::TestSysroot sysroot;
    // Nothing is logged: 28,000 requests' worth of lines would only slow the test down.
    sysroot.SetProperty("persist.vendor.camera.cloud.corvanesys.loglevel", "7");
    corvanetest::TempDir dir;
    const std::string path = dir / "s";
    Controller controller;
    // Runtime helper threads (a sanitizer's) start with the first thread: let them start now so
    // that they are part of the baseline.
    std::thread([] {}).join();
    const int threadsAlone = CountEntries("/proc/self/task");
    const int fdsAlone = CountEntries("/proc/self/fd");
    ServerPtr server = StartServer(path, controller.get());
    ASSERT_TRUE(WaitConnectable(path));
    ASSERT_TRUE(RoundTrip(path, Frame(Request("corvane", {{"help", {"x"}}}))));
    const VXCDBMessageString request = Frame(Request("corvane", {{"inject", {"clear"}}}));

    auto settled = [](int threads, int fds) -> ::testing::AssertionResult {
        auto counts = [] {
            return std::make_pair(CountEntries("/proc/self/task"), CountEntries("/proc/self/fd"));
        };
        if (corvanetest::WaitFor([&] { return counts() == std::make_pair(threads, fds); })) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure()
               << "threads " << counts().first << " of " << threads << ", descriptors "
               << counts().second << " of " << fds;
    };
    // At rest the server holds its accepting thread and its listening socket, nothing else; the
    // connections made above end by themselves.
    const int threads = threadsAlone + 1;
    const int fds = fdsAlone + 1;
    ASSERT_TRUE(settled(threads, fds));

    int answered = 0;
    for (int i = 0; i < kSequentialRequests; ++i) {
        answered += RoundTrip(path, request);
    }
    EXPECT_EQ(answered, kSequentialRequests);
    EXPECT_TRUE(settled(threads, fds));

    std::atomic<int> concurrentAnswered{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < kConcurrentClients; ++c) {
        clients.emplace_back([&] {
            for (int i = 0; i < kRequestsPerClient; ++i) {
                concurrentAnswered += RoundTrip(path, request);
            }
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(concurrentAnswered.load(), kConcurrentClients * kRequestsPerClient);
    EXPECT_TRUE(settled(threads, fds));

    server.reset();
    EXPECT_TRUE(settled(threadsAlone, fdsAlone)) << "the accepting thread and listening socket go";
}

}  // namespace
