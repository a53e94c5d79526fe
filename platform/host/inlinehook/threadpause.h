// Stops every other thread of the process while the engine rewrites a function's entry.
//
// A 5-byte jump usually covers several instructions. A thread that has run the first of them and
// not yet the rest would, once the bytes change, execute the middle of the jump: no atomic store
// can prevent that. So before such a write every other thread is sent SIGURG; its handler moves a
// thread found between the displaced instructions to the matching place in the trampoline, reports
// in, and waits until the write is done. Waiting uses futexes only, and the pausing thread does
// nothing but mprotect, stores and membarrier until Resume(): a paused thread may hold any lock
// (malloc's, the loader's, the log's) without deadlocking the pause.
//
// SIGURG is used because its default action is to ignore it: a stray one is harmless. The engine
// installs its handler at initialisation and passes every SIGURG that is not its own to the
// handler that was installed before. Threads that block SIGURG cannot be paused; they are skipped
// (and logged in debuggable mode).
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "hookstatus.h"

namespace corvane::inlinehook {

// A thread stopped exactly at `from` continues at `to`.
struct PauseRedirect {
    uintptr_t from;
    uintptr_t to;
};

class ThreadPause {
  public:
    static constexpr int kSignal = 23;  // SIGURG
    static constexpr size_t kMaxRedirects = 16;
    static constexpr size_t kMaxThreads = 8192;

    // Installs the SIGURG handler, keeping the previous one for signals that are not ours.
    static HookStatus InstallHandler();

    ThreadPause() = default;
    ~ThreadPause() { Resume(); }
    ThreadPause(const ThreadPause&) = delete;
    ThreadPause& operator=(const ThreadPause&) = delete;

    // Stops the other threads, applying `redirects`. Fails (with every thread running again)
    // when a thread does not answer within the deadline or there are too many threads.
    HookStatus Pause(const PauseRedirect* redirects, size_t count);
    void Resume();

    size_t pausedThreads() const { return m_paused; }
    size_t skippedThreads() const { return m_skipped; }

  private:
    uint32_t m_generation = 0;
    bool m_active = false;
    size_t m_paused = 0;
    size_t m_skipped = 0;
};

}  // namespace corvane::inlinehook
