// Shared by the message-center tests: the real bus loaded straight from a sysroot, and child
// processes for scenarios that are fixed once per process or that end the process.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>

#include "core/messagecenter/messagecenterentries.h"
#include "tests/support/testsupport.h"

constexpr const char* BUS_FILE = "com.halvern.messagecenter.so";

// The bus library installed in a fresh sysroot and opened directly, its five entries resolved.
// Every sysroot holds its own copy of the file, so every BusLibrary is a bus of its own.
class BusLibrary {
  public:
    BusLibrary() {
        m_sysroot.InstallLibrary(BUS_FILE);
        m_handle = dlopen(InstalledBus(m_sysroot).c_str(), RTLD_NOW | RTLD_GLOBAL);
        EXPECT_NE(m_handle, nullptr) << dlerror();
        Resolve(&subscribe, MESSAGE_CENTER_SUBSCRIBE);
        Resolve(&modifySubscribe, MESSAGE_CENTER_MODIFY_SUBSCRIBE);
        Resolve(&unsubscribe, MESSAGE_CENTER_UNSUBSCRIBE);
        Resolve(&send, MESSAGE_CENTER_SEND_MESSAGE);
        Resolve(&sendAsync, MESSAGE_CENTER_SEND_MESSAGE_ASYNC);
    }
    ~BusLibrary() {
        if (m_handle != nullptr) {
            dlclose(m_handle);
        }
    }
    static std::string InstalledBus(const corvanetest::TestSysroot& sysroot) {
        return sysroot / (std::string("vendor/lib64/") + BUS_FILE);
    }
    bool loaded() const { return sendAsync != nullptr; }

    MessageCenterSubscribeFunc subscribe = nullptr;
    MessageCenterModifySubscribeFunc modifySubscribe = nullptr;
    MessageCenterUnsubscribeFunc unsubscribe = nullptr;
    MessageCenterSendMessageFunc send = nullptr;
    MessageCenterSendMessageAsyncFunc sendAsync = nullptr;

  private:
    template <typename Func>
    void Resolve(Func* entry, const char* name) {
        *entry = m_handle == nullptr ? nullptr : reinterpret_cast<Func>(dlsym(m_handle, name));
        EXPECT_NE(*entry, nullptr) << name;
    }
    corvanetest::TestSysroot m_sysroot;
    void* m_handle = nullptr;
};

// Forks `body`, which is expected to end the process itself; returns its wait status, or -1 when
// it is still running after `deadline` (it is then killed).
inline int RunChildWithDeadline(const std::function<void()>& body,
                                std::chrono::milliseconds deadline) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        body();
        _exit(100);  // the body was supposed to end the process
    }
    int status = 0;
    bool ended =
        corvanetest::WaitFor([&] { return waitpid(pid, &status, WNOHANG) == pid; }, deadline);
    if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return -1;
    }
    return status;
}
