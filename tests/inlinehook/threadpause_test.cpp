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

using inlinehooktest::Code;
using inlinehooktest::PlusThousand;
using inlinehooktest::Symbol;
using inlinehooktest::Unary;

std::atomic<int> g_applicationSignals{0};
void ApplicationHandler(int) {
    ++g_applicationSignals;
}

TEST(ThreadPauseTest, SleepingBusyAndSignalBlockingThreadsLetAHookThroughAndSigurgStillArrives) {
    SKIP_IF_ENGINE_INITIALISED();
    int status = corvanetest::RunInChild([]() {
        signal(SIGURG, ApplicationHandler);
        CHILD_CHECK(shadowhook_init(SHADOWHOOK_MODE_SHARED, false) == SHADOWHOOK_ERRNO_OK);
        CHILD_CHECK(pthread_kill(pthread_self(), SIGURG) == 0);
        CHILD_CHECK(g_applicationSignals.load() == 1);

        std::mutex mutex;
        std::condition_variable wake;
        bool done = false;
        std::atomic<int> running{0};
        auto sleeper = [&](bool blockSignal) {
            if (blockSignal) {
                sigset_t set;
                sigemptyset(&set);
                sigaddset(&set, SIGURG);
                pthread_sigmask(SIG_BLOCK, &set, nullptr);
            }
            std::unique_lock<std::mutex> lock(mutex);
            ++running;
            wake.wait(lock, [&] { return done; });
        };
        // cbrt displaces several instructions, so its entry is written with the others paused.
        Unary cbrtFunction = reinterpret_cast<Unary>(Symbol("libm.so.6", "cbrt"));
        std::atomic<bool> stop{false};
        std::thread asleep(sleeper, false), deaf(sleeper, true), busy([&] {
            ++running;
            while (!stop.load()) {
                cbrtFunction(0.5);
            }
        });
        CHILD_CHECK(corvanetest::WaitFor([&] { return running.load() == 3; }));
        void* stub = shadowhook_hook_sym_addr(Code(cbrtFunction), Code(PlusThousand), nullptr);
        bool hooked = stub != nullptr && cbrtFunction(8.0) == 1002.0;
        bool unhooked = shadowhook_unhook(stub) == 0 && cbrtFunction(8.0) == 2.0;
        {
            std::lock_guard<std::mutex> lock(mutex);
            done = true;
        }
        stop = true;
        wake.notify_all();
        asleep.join();
        deaf.join();
        busy.join();
        CHILD_CHECK(hooked && unhooked);
        CHILD_CHECK(g_applicationSignals.load() == 1);
        return 0;
    });
    EXPECT_TRUE(corvanetest::ChildSucceeded(status));
}

}  // namespace
