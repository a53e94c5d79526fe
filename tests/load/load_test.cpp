// Many vxcdb clients at once against the supervised host camera service, for a bounded time,
// while faults are injected and cleared: every request is answered as it should be, the service
// does not restart, it gives back every descriptor and thread it used, and once warmed up its
// memory stays flat however many requests it serves.
//
// CORVANE_LOAD_SECONDS sets the loaded phase's length (default 20, at most 600).
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

#include "tests/support/supervisedservice.h"

namespace {

using corvanetest::FiguresOf;
using corvanetest::ProcessFigures;
using Clock = std::chrono::steady_clock;

constexpr int kClients = 16;  // above the listen backlog of 10
constexpr std::chrono::seconds kWarmUp(3);
constexpr int kDefaultSeconds = 20;
constexpr int kMaxSeconds = 600;
constexpr double kRequestTimeoutSeconds = 30;
// What the resident size may vary by after warm-up: the allocator's arenas and the cache of
// thread stacks are filled by then, so this is noise, not growth.
constexpr long kSlackKiB = 1024;

struct Request {
    std::vector<std::string> arguments;
    int exitCode;
    std::string output;  // a text the answer holds whatever state the databases are in
};

// Faults injected (hook groups, a firmware command) and cleared, the tables that show them, and
// requests answered with errors, in one rotation that each client starts at its own place.
const std::vector<Request> kMix = {
    {{"corvane", "--help"}, 0, "vxcdb corvane --inject query"},
    {{"corvane", "--inject", "sensor_i2c_fault"}, 0, "Hook group executed successfully"},
    {{"corvane", "--inject", "query"}, 0, "sensor_i2c_fault  i2c_write_eio"},
    {{"corvane", "--inject", "motion_fault", "fast"}, 0, "Hook group executed successfully"},
    {{"corvane", "--inject", "firmware", "0", "0", "3", "3", "load"}, 0, "executed successfully"},
    {{"corvane", "--inject", "status", "0", "3", "3"}, 0, "eeprom_read_corrupt"},
    {{"corvane", "--inject", "clear"}, 0, "<cleared>"},
    {{"corvane", "--inject", "result"}, 0, "hook name"},
    {{"corvane", "--inject", "no_such_group"}, 1, "Hook group not ready: no_such_group"},
    {{"corvane", "--signal", "5"}, 0, ""},  // accepted, only logged
    {{"corvane", "--signal", "0"}, 1, "Signal value is out of valid range (1-64)"},
    {{"debug", "--dumpimagesensormoduledata", "x"}, 0, "image sensor module data dump requested"},
};

// Runs kClients clients until `until`; every answer must be the one its request should have.
// Returns how many requests were sent.
long RunClients(const corvanetest::SupervisedService& service, Clock::time_point until) {
    std::atomic<long> sent{0}, failed{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.emplace_back([&, c] {
            for (size_t i = static_cast<size_t>(c) % kMix.size(); Clock::now() < until;
                 i = (i + 1) % kMix.size()) {
                auto answer = service.Vxcdb(kMix[i].arguments, kRequestTimeoutSeconds);
                ++sent;
                if ((answer.exitCode != kMix[i].exitCode ||
                     answer.output.find(kMix[i].output) == std::string::npos) &&
                    failed++ == 0) {
                    ADD_FAILURE() << "request " << i << " -> exit " << answer.exitCode << ": "
                                  << answer.output;
                }
            }
        });
    }
    for (std::thread& client : clients) {
        client.join();
    }
    EXPECT_EQ(failed.load(), 0);
    return sent.load();
}

TEST(Load, ManyClientsWhileFaultsAreInjectedAndCleared) {
    corvanetest::SupervisedService service;
    // Errors only: a line per request is plenty (the request line is logged as an error).
    service.AddProperty("persist.vendor.camera.cloud.corvanesys.loglevel", "6");
    service.Start();
    ASSERT_TRUE(service.WaitAnswering()) << service.Log();
    const pid_t pid = service.ServicePid();
    ASSERT_GT(pid, 0);

    // The allocator's per-thread arenas and the cache of thread stacks fill up under the same
    // load first, so that what is measured afterwards is growth, not first use. At rest, two
    // samples in a row agree on descriptors and threads.
    RunClients(service, Clock::now() + kWarmUp);
    ProcessFigures before = FiguresOf(pid);
    corvanetest::WaitFor([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ProcessFigures last = std::exchange(before, FiguresOf(pid));
        return before.descriptors == last.descriptors && before.threads == last.threads;
    });
    const int dbFailuresBefore = service.CountInLog("SQL statement execution failed");

    const char* text = getenv("CORVANE_LOAD_SECONDS");
    int seconds = text == nullptr ? kDefaultSeconds : atoi(text);
    seconds = seconds < 1 || seconds > kMaxSeconds ? kDefaultSeconds : seconds;
    const long sent = RunClients(service, Clock::now() + std::chrono::seconds(seconds));
    EXPECT_GT(sent, kClients);

    // At rest again, the service holds no more descriptors or threads than before.
    ProcessFigures after = FiguresOf(pid);
    EXPECT_TRUE(corvanetest::WaitFor([&] {
        after = FiguresOf(pid);
        return after.descriptors <= before.descriptors && after.threads <= before.threads;
    }));
    printf(
        "load: %d clients, %ld requests in %d s; descriptors %d -> %d, threads %d -> %d, "
        "VmRSS %ld -> %ld KiB\n",
        kClients, sent, seconds, before.descriptors, after.descriptors, before.threads,
        after.threads, before.rssKiB, after.rssKiB);
    EXPECT_EQ(service.CountInLog("SQL statement execution failed"), dbFailuresBefore);
    // Under a sanitizer freed memory waits in a quarantine before it is reused, so the resident
    // size measures the quarantine; that build checks for leaks when the service exits instead.
    if (!corvanetest::kUnderSanitizer) {
        EXPECT_LE(after.rssKiB, before.rssKiB + kSlackKiB);
    }
    // The same service all along: nothing made it die.
    EXPECT_EQ(service.ServicePid(), pid);
    EXPECT_TRUE(service.Stop()) << service.Log().substr(0, 4000);
}

}  // namespace
