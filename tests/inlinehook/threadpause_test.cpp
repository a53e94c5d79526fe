// Pausing the other threads while a function's entry is rewritten (busy callers meet it in the
// concurrency tests): threads asleep in the kernel, blocking SIGURG or holding a lock that a
// hooked libc function waits for must not stop a hook, and the application's own SIGURGs still
// reach the handler it installed before the engine; a thread paused inside a profiler's signal
// handler that interrupted the displaced instructions is moved out of them.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "tests/inlinehook/inlinehooktest.h"

namespace {

using inlinehooktest::Code;
using inlinehooktest::PlusThousand;
using inlinehooktest::SharedModeTest;
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

#if defined(__x86_64__)
std::atomic<uint64_t> g_profiles{0};

// A sampling profiler's handler: about 100 µs of work on the interrupted thread.
void Profile(int) {
    constexpr long kWorkNanos = 100 * 1000;
    timespec start;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &start);
    do {
        clock_gettime(CLOCK_MONOTONIC, &now);
    } while ((now.tv_sec - start.tv_sec) * 1000000000L + (now.tv_nsec - start.tv_nsec) <
             kWorkNanos);
    g_profiles.fetch_add(1, std::memory_order_release);
}

// Zeroes the stack the next signal frames will be built on. The profiler's handler is installed
// without SA_SIGINFO, so the kernel leaves the siginfo part of its frames as the stack held it:
// cleared, it never holds an older frame's siginfo by chance, which would hide a frame test that
// relies on it.
__attribute__((noinline)) void ClearStackBelow() {
    constexpr size_t kFrameBytes = 16 * 1024;  // a signal frame with the largest FPU state
    char below[kFrameBytes];
    memset(below, 0, sizeof(below));
    __asm__ volatile("" : : "r"(below) : "memory");
}

// The worker spends nearly all its time in the profiler's handler, which nearly always
// interrupted it between the displaced instructions of ih_prologue_spin. When a hook pauses it
// there, the place it returns to sits in the handler's signal frame, not the pause's; the handler
// runs on the thread's stack, or on an alternate signal stack as many profilers' do.
TEST_F(SharedModeTest, AThreadInsideAnotherSignalHandlerIsMovedOutOfTheDisplacedBytes) {
    constexpr int kCycles = 60;
    constexpr int kSpinIterations = 1 << 12;
    constexpr size_t kAltStackBytes = 64 * 1024;
    auto spin = reinterpret_cast<inlinehooktest::IntFunction>(
        inlinehooktest::TestSymbol("ih_prologue_spin"));
    ASSERT_NE(nullptr, spin);
    for (bool onAltStack : {false, true}) {
        SCOPED_TRACE(onAltStack ? "on an alternate stack" : "on the thread's stack");
        int status = corvanetest::RunInChild([&] {
            alarm(kChildDeadlineSeconds);
            struct sigaction action {};
            action.sa_handler = Profile;
            action.sa_flags = SA_RESTART | (onAltStack ? SA_ONSTACK : 0);
            sigemptyset(&action.sa_mask);
            CHILD_CHECK(sigaction(SIGPROF, &action, nullptr) == 0);
            std::atomic<bool> stop{false};
            std::atomic<bool> wrong{false};
            std::atomic<pid_t> workerTid{0};
            std::vector<char> altStack(kAltStackBytes);
            std::thread worker([&] {
                // The thread's own alternate stack (a sanitizer may have set one up, and unmaps
                // whatever is in place when the thread ends) is put back before it ends.
                stack_t own{};
                if (onAltStack) {
                    stack_t stack{altStack.data(), 0, altStack.size()};
                    sigaltstack(&stack, &own);
                }
                workerTid.store(static_cast<pid_t>(syscall(SYS_gettid)));
                while (!stop.load()) {
                    ClearStackBelow();
                    memset(altStack.data(), 0, altStack.size());
                    int result = spin(kSpinIterations);
                    if (result != 5 && result != 10) {
                        wrong = true;
                    }
                }
                if (onAltStack) {
                    sigaltstack(&own, nullptr);
                }
            });
            CHILD_CHECK(corvanetest::WaitFor([&] { return workerTid.load() != 0; }));
            std::thread profiler([&] {
                while (!stop.load()) {
                    uint64_t seen = g_profiles.load(std::memory_order_acquire);
                    syscall(SYS_tgkill, getpid(), workerTid.load(), SIGPROF);
                    while (!stop.load() && g_profiles.load(std::memory_order_acquire) == seen) {
                        std::this_thread::yield();
                    }
                }
            });
            auto awaitTwoProfiles = [] {
                const uint64_t start = g_profiles.load(std::memory_order_acquire);
                while (g_profiles.load(std::memory_order_acquire) < start + 2) {
                    std::this_thread::yield();
                }
            };
            for (int i = 0; i < kCycles; ++i) {
                void* stub = shadowhook_hook_sym_addr(Code(spin), Code(inlinehooktest::Twice),
                                                      &inlinehooktest::g_intOrig);
                CHILD_CHECK(stub != nullptr);
                // The entry stays patched until the handler the hook interrupted has returned, and
                // unpatched as long, so that calls begin in the function as often as in the
                // trampoline.
                awaitTwoProfiles();
                CHILD_CHECK(shadowhook_unhook(stub) == 0);
                awaitTwoProfiles();
            }
            stop = true;
            profiler.join();
            worker.join();
            CHILD_CHECK(!wrong.load());
            return 0;
        });
        EXPECT_TRUE(corvanetest::ChildSucceeded(status)) << "wait status " << status;
    }
}
#endif

}  // namespace
