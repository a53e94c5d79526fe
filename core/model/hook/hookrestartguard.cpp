#include "core/model/hook/hookrestartguard.h"

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <utility>

#include "core/controller/corvanesystemlog.h"
#include "utils/scopedfd.h"

namespace {

// "COUNT PID\n" fits many times over; anything longer is not a state file of ours.
constexpr size_t kMaxStateBytes = 64;

struct RestartState {
    int crashedStarts = 0;
    pid_t pid = 0;
};

// A missing, unreadable or garbled file reads as no crashed start: the guard must never be the
// reason groups are left out.
RestartState ReadState(const std::string& path) {
    RestartState state;
    ScopedFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        return state;
    }
    char text[kMaxStateBytes + 1] = {};
    ssize_t length = read(fd.get(), text, kMaxStateBytes);
    int count = 0;
    long pid = 0;
    if (length > 0 && sscanf(text, "%d %ld", &count, &pid) == 2 && count > 0) {
        state.crashedStarts = count;
        state.pid = static_cast<pid_t>(pid);
    }
    return state;
}

void WriteState(const std::string& path, const RestartState& state) {
    ScopedFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (fd.get() < 0) {
        CORVANE_LOGE("cannot write %s: the start is not counted", path.c_str());
        return;
    }
    char text[kMaxStateBytes];
    int length =
        snprintf(text, sizeof(text), "%d %ld\n", state.crashedStarts, static_cast<long>(state.pid));
    if (write(fd.get(), text, static_cast<size_t>(length)) != length) {
        CORVANE_LOGE("cannot write %s: the start is not counted", path.c_str());
    }
}

}  // namespace

HookRestartGuard::HookRestartGuard(std::string statePath, std::chrono::milliseconds window)
    : m_statePath(std::move(statePath)), m_window(window) {}

HookRestartGuard::~HookRestartGuard() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_stopped.notify_all();
    if (m_watcher.joinable()) {
        m_watcher.join();
        ConfirmGoodStart();
    }
}

bool HookRestartGuard::BeginReinstall() {
    std::lock_guard<std::mutex> lock(m_mutex);
    RestartState state = ReadState(m_statePath);
    if (std::exchange(m_asked, true) || state.pid == getpid()) {
        return true;  // this process has been counted already
    }
    if (state.crashedStarts >= kCrashedStartsBeforeWithholding) {
        Forget(m_statePath);
        return false;
    }
    WriteState(m_statePath, {state.crashedStarts + 1, getpid()});
    m_watcher = std::thread(&HookRestartGuard::Watch, this);
    return true;
}

void HookRestartGuard::Forget(const std::string& statePath) {
    unlink(statePath.c_str());
}

void HookRestartGuard::Watch() {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_stopped.wait_for(lock, m_window, [this] { return m_stop; })) {
        ConfirmGoodStart();
    }
}

void HookRestartGuard::ConfirmGoodStart() {
    if (ReadState(m_statePath).pid == getpid()) {
        Forget(m_statePath);
    }
}
