// Many requests, sequential and concurrent: every one is answered, the server gives back every
// thread and descriptor it used, and its memory stays flat. Counts only; timings are in
// bench/channel_bench.
#include <unistd.h>

#include <atomic>
#include <thread>

#include "core/server/server.h"
#include "tests/channel/channeltestutil.h"
#include "tests/support/supervisedservice.h"

namespace {

using namespace channeltest;

constexpr int kSequentialRequests = 20000;
constexpr int kConcurrentClients = 8;
constexpr int kRequestsPerClient = 1000;
// Requests before memory is measured, so that the allocator and the stack cache are warm.
constexpr int kWarmUpRequests = 2000;
// What the resident size may vary by afterwards: a record kept per request would be 2.7 MiB
// over the sequential requests.
constexpr long kSlackKiB = 1024;

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
    const int threadsAlone = ThreadCount();
    const int fdsAlone = DescriptorCount();
    ServerPtr server = StartServer(path, controller.get());
    ASSERT_TRUE(WaitConnectable(path));
    ASSERT_TRUE(RoundTrip(path, Frame(Request("corvane", {{"help", {"x"}}}))));
    const VXCDBMessageString request = Frame(Request("corvane", {{"inject", {"clear"}}}));

    auto settled = [](int threads, int fds) -> ::testing::AssertionResult {
        auto counts = [] { return std::make_pair(ThreadCount(), DescriptorCount()); };
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
    long rssKiB = 0;
    for (int i = 0; i < kSequentialRequests; ++i) {
        answered += RoundTrip(path, request);
        if (i == kWarmUpRequests) {
            rssKiB = corvanetest::FiguresOf(getpid()).rssKiB;
        }
    }
    EXPECT_EQ(answered, kSequentialRequests);
    EXPECT_TRUE(settled(threads, fds));
    if (!corvanetest::kUnderSanitizer) {
        EXPECT_LE(corvanetest::FiguresOf(getpid()).rssKiB, rssKiB + kSlackKiB);
    }

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
