// Many requests from concurrent clients, more than the service load test can send on a busy
// machine: every one is answered, the server gives back every thread and descriptor it used, and
// its memory stays flat. Counts only; timings are in bench/channel_bench.
#include <atomic>
#include <thread>

#include "tests/channel/channeltestutil.h"

namespace {

using namespace channeltest;

constexpr int kClients = 8;
// Requests per client in the warm-up, after which the allocator's arenas and the stack cache are
// filled, and in the measured run.
constexpr int kWarmUpRequests = 250;
constexpr int kRequests = 2500;
// What the resident size may vary by afterwards: a record kept per request would be 3.6 MiB
// over the measured run.
constexpr long kSlackKiB = 1024;

TEST(ChannelLoad, EveryRequestIsAnsweredAndNothingAccumulates) {
    corvanetest::TestSysroot sysroot;
    // Nothing is logged: 22,000 requests' worth of lines would only slow the test down.
    sysroot.SetProperty("persist.vendor.camera.cloud.corvanesys.loglevel", "7");
    corvanetest::TempDir dir;
    const std::string path = dir / "s";
    Controller controller;
    // Runtime helper threads (a sanitizer's) start with the first thread: let them start now so
    // that they are part of the baseline.
    std::thread([] {}).join();
    const std::pair<int, int> alone = ThreadsAndDescriptors();
    ServerPtr server = StartServer(path, controller.get());
    ASSERT_TRUE(WaitConnectable(path));
    // At rest the server holds its accepting thread and its listening socket, nothing else.
    const std::pair<int, int> atRest = {alone.first + 1, alone.second + 1};
    auto settled = [](std::pair<int, int> expected) {
        return corvanetest::WaitFor([&] { return ThreadsAndDescriptors() == expected; });
    };
    const VXCDBMessageString request = Frame(Request("corvane", {{"inject", {"clear"}}}));
    auto run = [&](int requests) {
        std::atomic<int> answered{0};
        std::vector<std::thread> clients;
        for (int c = 0; c < kClients; ++c) {
            clients.emplace_back([&] {
                for (int i = 0; i < requests; ++i) {
                    ClientSocket client(path);
                    VXCDBMessageString reply;
                    VXCDBMessage message;
                    answered += client.Send(request) && client.Receive(&reply) &&
                                DecodeVXCDBMessage(reply, &message) && message.cmds_size() == 2;
                }
            });
        }
        for (std::thread& client : clients) {
            client.join();
        }
        return answered.load();
    };
    EXPECT_EQ(run(kWarmUpRequests), kClients * kWarmUpRequests);
    ASSERT_TRUE(settled(atRest)) << ::testing::PrintToString(ThreadsAndDescriptors());
    const long rssKiB = corvanetest::FiguresOf(getpid()).rssKiB;

    EXPECT_EQ(run(kRequests), kClients * kRequests);
    EXPECT_TRUE(settled(atRest)) << ::testing::PrintToString(ThreadsAndDescriptors());
    if (!corvanetest::kUnderSanitizer) {
        EXPECT_LE(corvanetest::FiguresOf(getpid()).rssKiB, rssKiB + kSlackKiB);
    }
    server.reset();
    EXPECT_TRUE(settled(alone)) << "the accepting thread and listening socket go";
}

}  // namespace
