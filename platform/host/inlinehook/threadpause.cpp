#include "threadpause.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/futex.h>
#include <signal.h>
#include <string.h>
#include <sys/single_threaded.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <ucontext.h>

#include <algorithm>
#include <atomic>
#include <type_traits>

#include "rawsyscall.h"

namespace corvane::inlinehook {

static_assert(ThreadPause::kSignal == SIGURG, "the pause signal is SIGURG");

namespace {

// High half of si_value in our SIGURGs; the low half is the pause generation.
constexpr uint64_t kMagic = 0xc0a7e5e1ULL;
constexpr int64_t kNanosPerMilli = 1000 * 1000;
// How long a round of waiting sleeps before looking again, when to re-examine threads that have
// not answered (gone? blocking SIGURG? signal lost to a merge with someone else's SIGURG?), and
// when to give up.
constexpr int64_t kPollNanos = 2 * kNanosPerMilli;
constexpr int64_t kRecheckNanos = 10 * kNanosPerMilli;
constexpr int64_t kDeadlineNanos = 2000 * kNanosPerMilli;

// State shared with the signal handler: statics only, touched with atomics.
struct Shared {
    std::atomic<uint32_t> active{0};    // generation being paused, 0 when none
    std::atomic<uint32_t> released{0};  // futex word: last generation released
    std::atomic<uint32_t> answers{0};   // futex word: bumped by every paused thread
    std::atomic<size_t> threadCount{0};
    std::atomic<pid_t> tids[ThreadPause::kMaxThreads];
    std::atomic<uint32_t> answeredGeneration[ThreadPause::kMaxThreads];
    std::atomic<size_t> redirectCount{0};
    PauseRedirect redirects[ThreadPause::kMaxRedirects];
};
Shared g_shared;

// What the pausing thread knows of each listed thread. Pauses are serialised by the engine's
// mutex, so this needs no synchronisation.
enum class ThreadState : uint8_t { Waiting, Paused, Gone, Skipped };
ThreadState g_states[ThreadPause::kMaxThreads];
uint32_t g_lastGeneration = 0;

struct sigaction g_previousAction;
std::atomic<bool> g_handlerInstalled{false};

// The pause signal's siginfo, filled in before any thread is paused.
siginfo_t g_pauseInfo;

// Everything below that runs while threads are paused (and the handler itself) enters the kernel
// through raw system calls and calls no library function: see rawsyscall.h.
long Futex(std::atomic<uint32_t>* word, int op, uint32_t value, const timespec* timeout) {
    return Sys(SYS_futex, reinterpret_cast<uint32_t*>(word), op, value, timeout, nullptr, 0);
}

int64_t NowNanos() {
    timespec now{};
    Sys(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 * kNanosPerMilli + now.tv_nsec;
}

pid_t CurrentTid() {
    return static_cast<pid_t>(Sys(SYS_gettid));
}

pid_t CurrentPid() {
    return static_cast<pid_t>(Sys(SYS_getpid));
}

// Moves a program counter found exactly between displaced instructions to the matching place in
// the trampoline.
template <typename Register>
void Redirect(Register* pc, const PauseRedirect* redirects, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (static_cast<uintptr_t>(*pc) == redirects[i].from) {
            *pc = static_cast<Register>(redirects[i].to);
            return;
        }
    }
}

#if defined(__x86_64__)
// A thread may be paused while it runs another signal handler (a profiler's SIGPROF) that
// interrupted it between two displaced instructions: its own signal frame shows the handler's
// program counter, and the place it returns to is saved in the outer handler's frame, further up
// the stack. Such frames are found by their shape. The kernel builds each as: the handler's
// return address (the sa_restorer, the same for every handler the C library installs, so ours
// names it), its ucontext (304 bytes; uc_flags the same as in every frame it builds, uc_link
// null), the siginfo (128 bytes), and just above, 64-byte aligned, the FPU state that the frame's
// own fpstate pointer names. The frame starts 8 bytes below a 16-byte boundary. The siginfo is
// written only for a handler installed with SA_SIGINFO; for any other it holds whatever the stack
// held before, so nothing in it can tell whether a frame is one.
constexpr uintptr_t kFrameFpstateMin = 8 + 304 + 128;
constexpr uintptr_t kFrameFpstateMax = kFrameFpstateMin + 64 + 16;  // both alignments' slack
// How far above the interrupted stack pointer outer frames are looked for: the stack an outer
// handler may use below its own frame. Deeper nesting than this is not seen (docs/inlinehook.md).
constexpr uintptr_t kOuterFrameSearchBytes = 64 * 1024;
constexpr uintptr_t kPageBytes = 4096;

// Whether the page at `page` can be read, asked of the kernel so that a guard page or the end of
// a stack ends the search instead of faulting.
bool PageReadable(pid_t pid, uintptr_t page) {
    uint64_t word = 0;
    iovec local{&word, sizeof(word)};
    iovec remote{reinterpret_cast<void*>(page), sizeof(word)};
    return Sys(SYS_process_vm_readv, pid, &local, 1, &remote, 1, 0) ==
           static_cast<long>(sizeof(word));
}

// It reads whatever lies on the thread's stack, redzones of other frames included, on purpose:
// AddressSanitizer must not take that for an overflow.
__attribute__((no_sanitize("address"))) void RedirectOuterFrames(const ucontext_t* own,
                                                                 const PauseRedirect* redirects,
                                                                 size_t count, pid_t pid) {
    const uintptr_t restorer = reinterpret_cast<const uintptr_t*>(own)[-1];
    const uintptr_t sp = static_cast<uintptr_t>(own->uc_mcontext.gregs[REG_RSP]);
    uintptr_t end = sp + std::min(kOuterFrameSearchBytes, UINTPTR_MAX - sp);
    // On the alternate signal stack, frames further out are on it too: it bounds the search.
    const uintptr_t altStart = reinterpret_cast<uintptr_t>(own->uc_stack.ss_sp);
    const uintptr_t altEnd = altStart + own->uc_stack.ss_size;
    if (sp >= altStart && sp < altEnd) {
        end = std::min(end, altEnd);
    } else {
        // A thread the C library started has its stack right below its thread control block,
        // which the x86-64 ABI makes the first word of that block name: nothing above it is a
        // frame. (The main thread's block lies elsewhere, below its stack.)
        uintptr_t threadPointer;
        __asm__("movq %%fs:0, %0" : "=r"(threadPointer));
        if (threadPointer > sp) {
            end = std::min(end, threadPointer);
        }
    }
    // From 8 bytes below the stack pointer: a handler that has returned into the restorer has
    // popped its frame's first word, but the kernel restores the context from the frame still.
    uintptr_t frame = ((sp + 15) & ~uintptr_t{15}) - 8;
    uintptr_t readableEnd = frame & ~(kPageBytes - 1);
    for (; frame + kFrameFpstateMin <= end; frame += 16) {
        while (readableEnd < frame + kFrameFpstateMin) {
            if (!PageReadable(pid, readableEnd)) {
                return;
            }
            readableEnd += kPageBytes;
        }
        if (*reinterpret_cast<const uintptr_t*>(frame) != restorer) {
            continue;
        }
        auto* outer = reinterpret_cast<ucontext_t*>(frame + 8);
        const uintptr_t fpstate = reinterpret_cast<uintptr_t>(outer->uc_mcontext.fpregs);
        if (outer->uc_flags != own->uc_flags || outer->uc_link != nullptr || fpstate % 64 != 0 ||
            fpstate < frame + kFrameFpstateMin || fpstate >= frame + kFrameFpstateMax) {
            continue;
        }
        Redirect(&outer->uc_mcontext.gregs[REG_RIP], redirects, count);
    }
}
#endif

void ForwardToPrevious(int signal, siginfo_t* info, void* context) {
    if ((g_previousAction.sa_flags & SA_SIGINFO) != 0) {
        if (g_previousAction.sa_sigaction != nullptr) {
            g_previousAction.sa_sigaction(signal, info, context);
        }
    } else if (g_previousAction.sa_handler != SIG_DFL && g_previousAction.sa_handler != SIG_IGN) {
        g_previousAction.sa_handler(signal);
    }
}

// Async-signal-safe: atomics and raw system calls only, so errno is never touched.
void OnPauseSignal(int signal, siginfo_t* info, void* context) {
    uint64_t value = reinterpret_cast<uintptr_t>(info->si_value.sival_ptr);
    const pid_t pid = CurrentPid();
    if (info->si_code != SI_QUEUE || info->si_pid != pid || (value >> 32) != kMagic) {
        ForwardToPrevious(signal, info, context);
        return;
    }
    uint32_t generation = static_cast<uint32_t>(value);
    if (g_shared.active.load(std::memory_order_acquire) == generation) {
        auto* ucontext = static_cast<ucontext_t*>(context);
        // A copy: once this thread has answered, the next pause may reuse the shared array.
        PauseRedirect redirects[ThreadPause::kMaxRedirects];
        size_t redirectCount = g_shared.redirectCount.load(std::memory_order_acquire);
        for (size_t i = 0; i < redirectCount; ++i) {
            redirects[i] = g_shared.redirects[i];
        }
#if defined(__x86_64__)
        Redirect(&ucontext->uc_mcontext.gregs[REG_RIP], redirects, redirectCount);
#elif defined(__aarch64__)
        Redirect(&ucontext->uc_mcontext.pc, redirects, redirectCount);
#endif
        pid_t self = CurrentTid();
        size_t count = g_shared.threadCount.load(std::memory_order_acquire);
        for (size_t i = 0; i < count; ++i) {
            if (g_shared.tids[i].load(std::memory_order_relaxed) == self) {
                g_shared.answeredGeneration[i].store(generation, std::memory_order_release);
                break;
            }
        }
        g_shared.answers.fetch_add(1, std::memory_order_release);
        Futex(&g_shared.answers, FUTEX_WAKE_PRIVATE, 1, nullptr);
#if defined(__x86_64__)
        // Outer frames are returned to only after this handler returns, so they are searched
        // while the entry is written rather than before answering.
        if (redirectCount > 0) {
            RedirectOuterFrames(ucontext, redirects, redirectCount, pid);
        }
#endif
        for (;;) {
            uint32_t released = g_shared.released.load(std::memory_order_acquire);
            if (static_cast<int32_t>(released - generation) >= 0) {
                break;
            }
            Futex(&g_shared.released, FUTEX_WAIT_PRIVATE, released, nullptr);
        }
    }
}

void PreparePauseSignal(pid_t pid, uint32_t generation) {
    memset(&g_pauseInfo, 0, sizeof(g_pauseInfo));
    g_pauseInfo.si_signo = ThreadPause::kSignal;
    g_pauseInfo.si_code = SI_QUEUE;
    g_pauseInfo.si_pid = pid;
    g_pauseInfo.si_uid = static_cast<uid_t>(Sys(SYS_getuid));
    g_pauseInfo.si_value.sival_ptr = reinterpret_cast<void*>((kMagic << 32) | generation);
}

bool SendPauseSignal(pid_t pid, pid_t tid) {
    // The kernel copies the siginfo, so the one prepared before the pause serves every thread.
    return Sys(SYS_rt_tgsigqueueinfo, pid, tid, ThreadPause::kSignal, &g_pauseInfo) == 0;
}

bool ThreadExists(pid_t pid, pid_t tid) {
    return Sys(SYS_tgkill, pid, tid, 0) != -ESRCH;
}

// Writes "/proc/self/task/<tid>/status" into `path` without allocating.
void StatusPath(pid_t tid, char* path, size_t size) {
    static const char kPrefix[] = "/proc/self/task/";
    static const char kSuffix[] = "/status";
    char digits[16];
    size_t count = 0;
    for (unsigned value = static_cast<unsigned>(tid); value != 0 || count == 0; value /= 10) {
        digits[count++] = static_cast<char>('0' + value % 10);
    }
    size_t length = 0;
    for (const char* c = kPrefix; *c != '\0' && length + 1 < size; ++c) {
        path[length++] = *c;
    }
    while (count > 0 && length + 1 < size) {
        path[length++] = digits[--count];
    }
    for (const char* c = kSuffix; *c != '\0' && length + 1 < size; ++c) {
        path[length++] = *c;
    }
    path[length] = '\0';
}

// The signal mask after `name` ("\nSigBlk:") in a /proc status text; 0 when absent.
uint64_t StatusMask(const char* text, const char* name) {
    const char* field = nullptr;
    size_t nameLength = 0;
    for (const char* c = text; *c != '\0' && field == nullptr; ++c) {
        size_t matched = 0;
        while (name[matched] != '\0' && c[matched] == name[matched]) {
            ++matched;
        }
        field = name[matched] == '\0' ? c : nullptr;
        nameLength = matched;
    }
    if (field == nullptr) {
        return 0;
    }
    uint64_t mask = 0;
    for (const char* c = field + nameLength; *c != '\0' && *c != '\n'; ++c) {
        int digit = (*c >= '0' && *c <= '9')   ? *c - '0'
                    : (*c >= 'a' && *c <= 'f') ? *c - 'a' + 10
                                               : -1;
        if (digit >= 0) {
            mask = (mask << 4) | static_cast<uint64_t>(digit);
        }
    }
    return mask;
}

// Where a thread that has not answered stands with SIGURG, read from its /proc status without
// allocating.
enum class PauseSignalState {
    Deliverable,     // not blocked: ours is on its way, or was lost to a merge with another SIGURG
    BlockedPending,  // blocked with ours pending: the thread cannot be paused
    // Blocked with nothing pending: it has taken ours and runs the pause handler (which blocks
    // everything) right now, so it will answer.
    Taken,
};

PauseSignalState ReadPauseSignalState(pid_t tid) {
    char path[64];
    StatusPath(tid, path, sizeof(path));
    int fd = static_cast<int>(Sys(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC));
    if (fd < 0) {
        return PauseSignalState::Deliverable;
    }
    char text[8192];
    long length = 0;
    for (long got; length < static_cast<long>(sizeof(text)) - 1 &&
                   (got = Sys(SYS_read, fd, text + length, sizeof(text) - 1 - length)) > 0;) {
        length += got;
    }
    Sys(SYS_close, fd);
    text[length > 0 ? length : 0] = '\0';
    const uint64_t bit = 1ULL << (ThreadPause::kSignal - 1);
    if ((StatusMask(text, "\nSigBlk:") & bit) == 0) {
        return PauseSignalState::Deliverable;
    }
    return (StatusMask(text, "\nSigPnd:") & bit) != 0 ? PauseSignalState::BlockedPending
                                                      : PauseSignalState::Taken;
}

struct LinuxDirent64 {
    uint64_t inode;
    int64_t offset;
    unsigned short recordLength;
    unsigned char type;
    char name[1];
};

// Calls visit(tid) for every thread of the process, without allocating. Returns 0, or the errno
// of the failed system call.
template <typename Visit>
int ForEachThread(Visit visit) {
    int fd = static_cast<int>(
        Sys(SYS_openat, AT_FDCWD, "/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd < 0) {
        return static_cast<int>(-fd);
    }
    alignas(8) char buffer[4096];
    for (;;) {
        long count = Sys(SYS_getdents64, fd, buffer, sizeof(buffer));
        if (count <= 0) {
            break;
        }
        for (long position = 0; position < count;) {
            const auto* entry = reinterpret_cast<const LinuxDirent64*>(buffer + position);
            position += entry->recordLength;
            pid_t tid = 0;
            const char* c = entry->name;
            for (; *c >= '0' && *c <= '9'; ++c) {
                tid = tid * 10 + (*c - '0');
            }
            if (*c == '\0' && tid > 0) {
                visit(tid);
            }
        }
    }
    Sys(SYS_close, fd);
    return 0;
}

}  // namespace

HookStatus ThreadPause::InstallHandler() {
    if (g_handlerInstalled.load(std::memory_order_acquire)) {
        return HookStatus::Ok();
    }
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_sigaction = OnPauseSignal;
    // Nothing may interrupt a paused thread's handler: another handler nested inside it could
    // run the code being rewritten.
    sigfillset(&action.sa_mask);
    action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
    if (sigaction(kSignal, &action, &g_previousAction) != 0) {
        return HookStatus::Error(SHADOWHOOK_ERRNO_INIT_ERRNO,
                                 Format("sigaction(SIGURG) failed: %s", strerror(errno)));
    }
    g_handlerInstalled.store(true, std::memory_order_release);
    return HookStatus::Ok();
}

HookStatus ThreadPause::Pause(const PauseRedirect* redirects, size_t count) {
    if (__libc_single_threaded) {
        return HookStatus::Ok();  // no thread was ever started: there is nobody to pause
    }
    struct sigaction current;
    if (count > kMaxRedirects || sigaction(kSignal, nullptr, &current) != 0 ||
        (current.sa_flags & SA_SIGINFO) == 0 || current.sa_sigaction != OnPauseSignal) {
        return HookStatus::Error(SHADOWHOOK_ERRNO_HOOK_ENTER,
                                 "the SIGURG handler the engine pauses threads with has been "
                                 "replaced by someone else");
    }
    uint32_t generation = ++g_lastGeneration;
    if (generation == 0) {
        generation = ++g_lastGeneration;
    }
    for (size_t i = 0; i < count; ++i) {
        g_shared.redirects[i] = redirects[i];
    }
    g_shared.redirectCount.store(count, std::memory_order_release);
    const pid_t pid = CurrentPid();
    PreparePauseSignal(pid, generation);
    g_shared.threadCount.store(0, std::memory_order_release);
    g_shared.active.store(generation, std::memory_order_release);
    m_generation = generation;
    m_active = true;
    m_paused = 0;
    m_skipped = 0;

    // From here until Resume() nothing may allocate or call a library function: a paused thread
    // may hold malloc's lock, or the lock of a replacement hooked on any libc function.
    enum class Failure { None, CannotList, TooManyThreads, NoAnswer };
    Failure failure = Failure::None;
    pid_t silent = 0;
    int listErrno = 0;
    const pid_t self = CurrentTid();
    // The clock is read only once a thread has to be waited for: without the vDSO it costs a
    // system call, and most pauses need no wait at all or a single one.
    int64_t deadline = 0;
    size_t known = 0;
    // List the threads and signal the new ones, wait until every one has answered, and list
    // again until no new thread shows up: one created meanwhile would otherwise run unpaused.
    while (failure == Failure::None) {
        size_t before = known;
        int listError = ForEachThread([&](pid_t tid) {
            if (tid == self) {
                return;
            }
            for (size_t i = 0; i < known; ++i) {
                if (g_shared.tids[i].load(std::memory_order_relaxed) == tid) {
                    return;
                }
            }
            if (known == kMaxThreads) {
                failure = Failure::TooManyThreads;
                return;
            }
            g_shared.tids[known].store(tid, std::memory_order_relaxed);
            g_shared.answeredGeneration[known].store(0, std::memory_order_relaxed);
            g_states[known] = ThreadState::Waiting;
            g_shared.threadCount.store(++known, std::memory_order_release);
            if (!SendPauseSignal(pid, tid)) {
                g_states[known - 1] = ThreadState::Gone;
            }
        });
        if (listError != 0) {
            failure = Failure::CannotList;
            listErrno = listError;
        }
        if (failure != Failure::None || known == before) {
            break;
        }
        int64_t lastCheck = 0;
        for (;;) {
            uint32_t seen = g_shared.answers.load(std::memory_order_acquire);
            bool waiting = false;
            for (size_t i = 0; i < known; ++i) {
                if (g_states[i] == ThreadState::Waiting) {
                    if (g_shared.answeredGeneration[i].load(std::memory_order_acquire) ==
                        generation) {
                        g_states[i] = ThreadState::Paused;
                    } else {
                        waiting = true;
                    }
                }
            }
            if (!waiting) {
                break;
            }
            int64_t now = NowNanos();
            deadline = deadline != 0 ? deadline : now + kDeadlineNanos;
            lastCheck = lastCheck != 0 ? lastCheck : now;
            if (now >= deadline) {
                for (size_t i = 0; i < known && silent == 0; ++i) {
                    if (g_states[i] == ThreadState::Waiting) {
                        silent = g_shared.tids[i].load(std::memory_order_relaxed);
                    }
                }
                failure = Failure::NoAnswer;
                break;
            }
            if (now - lastCheck >= kRecheckNanos) {
                lastCheck = now;
                for (size_t i = 0; i < known; ++i) {
                    if (g_states[i] != ThreadState::Waiting) {
                        continue;
                    }
                    pid_t tid = g_shared.tids[i].load(std::memory_order_relaxed);
                    if (!ThreadExists(pid, tid)) {
                        g_states[i] = ThreadState::Gone;
                        continue;
                    }
                    // A thread that has taken the signal is not sent another: the copy would wait
                    // behind the handler's mask, and the next look would skip the thread as one
                    // that blocks SIGURG, while its handler, delayed before it could redirect,
                    // still has to.
                    switch (ReadPauseSignalState(tid)) {
                        case PauseSignalState::Deliverable:
                            SendPauseSignal(pid, tid);
                            break;
                        case PauseSignalState::BlockedPending:
                            g_states[i] = ThreadState::Skipped;
                            break;
                        case PauseSignalState::Taken:
                            break;
                    }
                }
            }
            timespec timeout{0, kPollNanos};
            Futex(&g_shared.answers, FUTEX_WAIT_PRIVATE, seen, &timeout);
        }
    }
    for (size_t i = 0; i < known; ++i) {
        m_paused += g_states[i] == ThreadState::Paused ? 1 : 0;
        m_skipped += g_states[i] == ThreadState::Skipped ? 1 : 0;
    }
    if (failure == Failure::None) {
        return HookStatus::Ok();
    }
    Resume();
    switch (failure) {
        case Failure::CannotList:
            return HookStatus::Error(
                SHADOWHOOK_ERRNO_HOOK_ENTER,
                Format("cannot list the threads in /proc/self/task: %s", strerror(listErrno)));
        case Failure::TooManyThreads:
            return HookStatus::Error(
                SHADOWHOOK_ERRNO_HOOK_ENTER,
                Format("the process has more than %zu threads to pause", kMaxThreads));
        default:
            return HookStatus::Error(
                SHADOWHOOK_ERRNO_HOOK_ENTER,
                Format("thread %d did not answer SIGURG within %lld ms (stopped, or stuck in the "
                       "kernel?)",
                       static_cast<int>(silent),
                       static_cast<long long>(kDeadlineNanos / kNanosPerMilli)));
    }
}

void ThreadPause::Resume() {
    if (!m_active) {
        return;
    }
    m_active = false;
    g_shared.released.store(m_generation, std::memory_order_release);
    Futex(&g_shared.released, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr);
    g_shared.active.store(0, std::memory_order_release);
    g_shared.redirectCount.store(0, std::memory_order_release);
}

}  // namespace corvane::inlinehook
