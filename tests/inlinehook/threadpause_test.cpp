// Pausing the other threads while a function's entry is rewritten (busy callers meet it in the
// concurrency tests): threads asleep in the kernel, blocking SIGURG or holding a lock that a
// hooked libc function waits for must not stop a hook, and the application's own SIGURGs still
// reach the handler it installed before the engine.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "tests/inlinehook/inlinehooktest.h"

namespace {

using inlinehooktest::Code;
using inlinehooktest::PlusThousand;
using inlinehooktest::Symbol;
using inlinehooktest::Unary;

// A hang in the child is a failure too: the alarm's default action ends it.
constexpr unsigned kChildDeadlineSeconds = 90;

std::atomic<int> g_applicationSignals{0};
void ApplicationHandler(int) {
    ++g_applicationSignals;
}

std::mutex g_openLock;
void* g_openOrig = nullptr;
std::atomic<int> g_lockedOpens{0};
// A fault injected into open: it serialises callers on a lock of the application's. It pops its
// frame, so that it runs on every call of every thread, the engine's own included.
int LockingOpen(const char* path, int flags, ...) {
    SHADOWHOOK_STACK_SCOPE();
    va_list arguments;
    va_start(arguments, flags);
    mode_t mode = static_cast<mode_t>(va_arg(arguments, int));
    va_end(arguments);
    std::lock_guard<std::mutex> lock(g_openLock);
    ++g_lockedOpens;
    using Open = int (*)(const char*, int, ...);
    return inlinehooktest::Orig<Open>(&g_openOrig)(path, flags, mode);
}

// cbrt displaces several instructions, so its entry is written and restored with the others
// paused: one asleep in the kernel holding the lock the hooked open waits for (the engine must
// not enter open, nor any library function, while they are paused), one asleep blocking SIGURG.
TEST(ThreadPauseTest, SleepingDeafAndLockHoldingThreadsLetAHookThroughAndSigurgStillArrives) {
    SKIP_IF_ENGINE_INITIALISED();
    int status = corvanetest::RunInChild([]() {
        alarm(kChildDeadlineSeconds);
        signal(SIGURG, ApplicationHandler);
        CHILD_CHECK(shadowhook_init(SHADOWHOOK_MODE_SHARED, false) == SHADOWHOOK_ERRNO_OK);
        CHILD_CHECK(pthread_kill(pthread_self(), SIGURG) == 0);
        CHILD_CHECK(g_applicationSignals.load() == 1);
        void* openStub =
            shadowhook_hook_sym_addr(dlsym(RTLD_DEFAULT, "open"), Code(LockingOpen), &g_openOrig);
        CHILD_CHECK(openStub != nullptr);
        // A first hook builds the trampoline (reading the memory map) while nothing is locked.
        Unary cbrtFunction = reinterpret_cast<Unary>(Symbol("libm.so.6", "cbrt"));
        void* stub = shadowhook_hook_sym_addr(Code(cbrtFunction), Code(PlusThousand), nullptr);
        CHILD_CHECK(stub != nullptr && shadowhook_unhook(stub) == 0);

        int wake[2];
        CHILD_CHECK(pipe(wake) == 0);
        std::atomic<int> running{0};
        auto sleeper = [&](bool deaf) {
            std::unique_lock<std::mutex> lock(g_openLock, std::defer_lock);
            sigset_t set;
            sigemptyset(&set);
            sigaddset(&set, SIGURG);
            if (deaf) {
                pthread_sigmask(SIG_BLOCK, &set, nullptr);
            } else {
                lock.lock();
            }
            ++running;
            char byte;
            (void)!read(wake[0], &byte, 1);
        };
        std::thread holder(sleeper, false), deaf(sleeper, true);
        CHILD_CHECK(corvanetest::WaitFor([&] { return running.load() == 2; }));
        stub = shadowhook_hook_sym_addr(Code(cbrtFunction), Code(PlusThousand), nullptr);
        bool hooked = stub != nullptr && cbrtFunction(8.0) == 1002.0;
        bool unhooked = shadowhook_unhook(stub) == 0 && cbrtFunction(8.0) == 2.0;
        CHILD_CHECK(write(wake[1], "xx", 2) == 2);
        holder.join();
        deaf.join();
        CHILD_CHECK(hooked && unhooked);
        int fd = open("/dev/null", O_RDONLY);
        CHILD_CHECK(fd >= 0 && g_lockedOpens.load() > 0);
        close(fd);
        CHILD_CHECK(shadowhook_unhook(openStub) == 0);
        CHILD_CHECK(g_applicationSignals.load() == 1);
        return 0;
    });
    EXPECT_TRUE(corvanetest::ChildSucceeded(status)) << "wait status " << status;
}

}  // namespace
