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
constexpr const char* BUS_DEVICE_DIR = "vendor/lib64";

// The bus library installed in a fresh sysroot and opened directly, its five entries resolved.
// Every sysroot holds its own copy of the file, so every BusLibrary is a bus of its own.
class BusLibrary {
  public:
    BusLibrary() {
        m_sysroot.InstallLibrary(BUS_FILE);
        std::string path = m_sysroot / (std::string(BUS_DEVICE_DIR) + "/" + BUS_FILE);
        m_handle = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
        if (m_handle == nullptr) {
            ADD_FAILURE() << dlerror();
            return;
        }
        subscribe = Resolve<MessageCenterSubscribeFunc>(MESSAGE_CENTER_SUBSCRIBE);
        modifySubscribe =
            Resolve<MessageCenterModifySubscribeFunc>(MESSAGE_CENTER_MODIFY_SUBSCRIBE);
        unsubscribe = Resolve<MessageCenterUnsubscribeFunc>(MESSAGE_CENTER_UNSUBSCRIBE);
        send = Resolve<MessageCenterSendMessageFunc>(MESSAGE_CENTER_SEND_MESSAGE);
        sendAsync = Resolve<MessageCenterSendMessageAsyncFunc>(MESSAGE_CENTER_SEND_MESSAGE_ASYNC);
    }
    ~BusLibrary() {
        if (m_handle != nullptr) {
            dlclose(m_handle);
        }
    }
    BusLibrary(const BusLibrary&) = delete;
    BusLibrary& operator=(const BusLibrary&) = delete;
    bool loaded() const { return sendAsync != nullptr; }

    MessageCenterSubscribeFunc subscribe = nullptr;
    MessageCenterModifySubscribeFunc modifySubscribe = nullptr;
    MessageCenterUnsubscribeFunc unsubscribe = nullptr;
    MessageCenterSendMessageFunc send = nullptr;
    MessageCenterSendMessageAsyncFunc sendAsync = nullptr;

  private:
    template <typename Func>
    Func Resolve(const char* name) {
        Func entry = reinterpret_cast<Func>(dlsym(m_handle, name));
        EXPECT_NE(entry, nullptr) << name;
        return entry;
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
