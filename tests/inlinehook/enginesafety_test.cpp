// The engine inside a process that does more than call hooked functions: a profiler's signal
// handler interrupting code the engine rewrites, and prologues beside the shapes a hook would
// break.
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/inlinehook/inlinehooktest.h"

namespace {

using corvanetest::ChildSucceeded;
using corvanetest::RunInChild;
using inlinehooktest::Bytes;
using inlinehooktest::Code;
using inlinehooktest::IntFunction;
using inlinehooktest::SharedModeTest;
using inlinehooktest::TestSymbol;
using inlinehooktest::Twice;

// A hang in a child is a failure too: the alarm's default action ends it.
constexpr unsigned kChildDeadlineSeconds = 90;

// Prologues beside ones the engine refuses (see the relocator's tests): an entry point of its
// own, code without a symbol size that never branches back, and a function behind a landing pad
// (x86-64 endbr64, AArch64 BTI) whose orig entry, called indirectly too, must begin with it.
const std::pair<const char*, int> kHookable[] = {
    {"ih_alias_inner", 10},
    {"ih_unsized", 11},
#if defined(__x86_64__)
    {"ih_endbr", 33},
#endif
};

TEST_F(SharedModeTest, NeighbouringProloguesAreHookedAndRestored) {
    for (const auto& [symbol, original] : kHookable) {
        SCOPED_TRACE(symbol);
        void* address = TestSymbol(symbol);
        ASSERT_NE(nullptr, address);
        auto function = reinterpret_cast<IntFunction>(address);
        const std::vector<uint8_t> before = Bytes(address);
        void* stub = shadowhook_hook_sym_addr(address, Code(Twice), &inlinehooktest::g_intOrig);
        ASSERT_NE(nullptr, stub) << shadowhook_to_errmsg(shadowhook_get_errno());
        EXPECT_EQ(Bytes(before.data(), 4), Bytes(inlinehooktest::g_intOrig, 4)) << "orig entry";
        EXPECT_EQ(2 * original, function(4));
        EXPECT_EQ(0, shadowhook_unhook(stub));
        EXPECT_EQ(original, function(4));
        EXPECT_EQ(before, Bytes(address));
    }
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
    auto spin = reinterpret_cast<IntFunction>(TestSymbol("ih_prologue_spin"));
    ASSERT_NE(nullptr, spin);
    for (bool onAltStack : {false, true}) {
        SCOPED_TRACE(onAltStack ? "on an alternate stack" : "on the thread's stack");
        int status = RunInChild([&] {
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
                void* stub =
                    shadowhook_hook_sym_addr(Code(spin), Code(Twice), &inlinehooktest::g_intOrig);
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
        EXPECT_TRUE(ChildSucceeded(status)) << "wait status " << status;
    }
}
#endif

}  // namespace
