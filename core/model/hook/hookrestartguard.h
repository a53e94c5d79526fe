// Keeps a fault that crashes the camera service from locking the camera out. Stored hook groups
// are installed again at every start; a fault function that crashes at its first call would then
// crash every start, and the debug channel would never stay up long enough to clear it. So each
// start that re-installs stored groups is counted in a small file beside the hook database until
// it has stayed up for a while; when the count shows that the previous starts died early, the
// next start leaves the stored groups out.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

class HookRestartGuard {
  public:
    // Starts in a row that re-installed stored groups and died within the window; the start
    // after them leaves the groups out. Two, so that one unrelated crash costs nothing.
    static constexpr int kCrashedStartsBeforeWithholding = 2;
    // A start that stays up this long counts as good: long enough for the camera pipeline's
    // first calls into the hooked functions, short enough that a user who waits it out can
    // reach the debug channel and clear.
    static constexpr std::chrono::seconds kStayUpWindow{30};
    // The count of crashed starts and the pid of the start that wrote it; beside hook.db.
    static constexpr const char* kStatePath = "/data/vendor/camera/hook_restart_count";

    explicit HookRestartGuard(std::string statePath,
                              std::chrono::milliseconds window = kStayUpWindow);
    // Stops the watch; a start that shuts down cleanly is a good start.
    ~HookRestartGuard();
    HookRestartGuard(const HookRestartGuard&) = delete;
    HookRestartGuard& operator=(const HookRestartGuard&) = delete;

    // Asked before start-up re-installs stored groups. True: go ahead; the start is counted
    // until it has stayed up for the window. False: the previous starts died early, the caller
    // leaves the groups out (the count starts again from zero). Calls after the first of a
    // process go ahead without counting again.
    bool BeginReinstall();

    // Forgets the count: for deliberate restarts (a raised reload signal is not a crash).
    static void Forget(const std::string& statePath);

  private:
    void Watch();
    // Removes the state file when it was written by this process.
    void ConfirmGoodStart();

    const std::string m_statePath;
    const std::chrono::milliseconds m_window;
    std::mutex m_mutex;
    std::condition_variable m_stopped;
    bool m_stop = false;
    bool m_asked = false;  // BeginReinstall has run in this object
    std::thread m_watcher;
};
