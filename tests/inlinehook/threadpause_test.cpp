// Pausing the other threads while a function's entry is rewritten: threads asleep in the kernel
// or blocking SIGURG must not stop a hook, and the application's own SIGURGs still reach the
// handler it installed before the engine.
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "tests/inlinehook/inlinehooktest.h"

namespace {

using corvanetest::ChildSucceeded;
using corvanetest::RunInChild;
using inlinehooktest::Code;
using inlinehooktest::g_unaryOrig;
using inlinehooktest::PlusThousand;
using inlinehooktest::Symbol;
using inlinehooktest::Unary;

TEST(ThreadPauseTest, SleepingThreadsAndThreadsBlockingTheSignalDoNotStopAHook) {
    inlinehooktest::InitShared();
    std::mutex mutex;
    std::condition_variable wake;
    bool done = false;
    std::atomic<int> waiting{0};
    auto sleeper = [&](bool blockSignal) {
        if (blockSignal) {
            sigset_t set;
            sigemptyset(&set);
            sigaddset(&set, SIGURG);
            pthread_sigmask(SIG_BLOCK, &set, nullptr);
        }
        std::unique_lock<std::mutex> lock(mutex);
        ++waiting;
        wake.wait(lock, [&] { return done; });
    };
    std::thread asleep(sleeper, false);
    std::thread deaf(sleeper, true);
    ASSERT_TRUE(corvanetest::WaitFor([&] { return waiting.load() == 2; }));

    // cbrt displaces several instructions, so its entry is written with the others paused.
    void* address = Symbol("libm.so.6", "cbrt");
    Unary function = reinterpret_cast<Unary>(address);
    void* stub = shadowhook_hook_sym_addr(address, Code(PlusThousand), &g_unaryOrig);
    ASSERT_NE(nullptr, stub) << shadowhook_to_errmsg(shadowhook_get_errno());
    EXPECT_EQ(1002.0, function(8.0));
    EXPECT_EQ(0, shadowhook_unhook(stub));
    EXPECT_EQ(2.0, function(8.0));

    {
        std::lock_guard<std::mutex> lock(mutex);
        done = true;
    }
    wake.notify_all();
    asleep.join();
    deaf.join();
}

std::atomic<int> g_applicationSignals{0};
void ApplicationHandler(int) {
    ++g_applicationSignals;
}

TEST(ThreadPauseTest, TheApplicationsOwnSigurgStillReachesItsHandler) {
    SKIP_IF_ENGINE_INITIALISED();
    int status = RunInChild([]() {
        signal(SIGURG, ApplicationHandler);
        CHILD_CHECK(shadowhook_init(SHADOWHOOK_MODE_SHARED, false) == SHADOWHOOK_ERRNO_OK);
        CHILD_CHECK(pthread_kill(pthread_self(), SIGURG) == 0);
        CHILD_CHECK(g_applicationSignals.load() == 1);
        // Pauses keep working with the application's handler chained behind the engine's.
        std::atomic<bool> stop{false};
        std::thread busy([&] {
            while (!stop.load()) {
                reinterpret_cast<Unary>(Symbol("libm.so.6", "erf"))(0.5);
            }
        });
        void* stub =
            shadowhook_hook_sym_addr(Symbol("libm.so.6", "erf"), Code(PlusThousand), &g_unaryOrig);
        stop = true;
        busy.join();
        CHILD_CHECK(stub != nullptr);
        CHILD_CHECK(shadowhook_unhook(stub) == 0);
        CHILD_CHECK(g_applicationSignals.load() == 1);
        return 0;
    });
    EXPECT_TRUE(ChildSucceeded(status));
}

}  // namespace
