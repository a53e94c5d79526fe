// Shared pieces of the debug channel's tests: building and reading frames, a controller with an
// optional stand-in hook engine, and real client sockets with deadlines.
#pragma once

#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/controller/corvanesystemimpl.h"
#include "core/controller/vxcdbprotocol.h"
#include "core/server/server.h"
#include "tests/channel/fakehookoperation.h"
#include "tests/support/testsupport.h"

// Reaches into the controller to put a stand-in hook engine in place (declared a friend there).
class CorvaneSystemImplTestPeer {
  public:
    static void SetHookOperation(CorvaneSystemImpl* system, HookOperation* engine) {
        system->m_pHookOperation = engine;
    }
};

namespace channeltest {

// The usage text as users know it, kept here independently of the library's copy.
// clang-format off
inline const std::string kExpectedHelp =
    "用法:  vxcdb [模块] [--参数1] [参数2] ...\n"
    "1. vxcdb corvane --inject query                  查询注入能力        [包含哪种类型注入 (group) 、哪些些具体出入case]\n"
    "2. vxcdb corvane --inject [group/case]           注入动作           [类型/具体case]\n"
    "3. vxcdb corvane --inject result                 查询注入结果，查看注入动作是否成功，注入后是否被调用到\n"
    "4. vxcdb corvane --inject status                 查询注入状态，查看注入动作是否成功，注入后是否被调用到及返回状态\n"
    "5. vxcdb corvane --inject clear                  清除所有注入动作\n"
    "6. vxcdb corvane --help                          查询使用指南\n";
// clang-format on

using Command = std::pair<std::string, std::vector<std::string>>;
using Entries = std::vector<Command>;

inline VXCDBMessage Request(
    const std::string& module, const std::vector<Command>& commands,
    std::optional<VXCDBMessage::CDBModuleType> type = VXCDBMessage::CORVANE) {
    VXCDBMessage message;
    message.set_modulename(module);
    if (type) {
        message.set_moduletype(*type);
    }
    for (const Command& command : commands) {
        VXCDBMessage_CDBCmd* cmd = message.add_cmds();
        cmd->set_options(command.first);
        for (const std::string& argument : command.second) {
            cmd->add_arguments(argument);
        }
    }
    return message;
}

inline VXCDBMessageString Frame(const VXCDBMessage& message, int32_t msgType = 0) {
    VXCDBMessageString frame;
    memset(&frame, 0, sizeof(frame));
    std::string bytes = message.SerializeAsString();
    frame.msgType = msgType;
    frame.payloadLen = static_cast<int32_t>(bytes.size());
    memcpy(frame.payload, bytes.data(), bytes.size());
    return frame;
}

inline Entries EntriesOf(const VXCDBMessage& reply) {
    Entries entries;
    for (const VXCDBMessage_CDBCmd& cmd : reply.cmds()) {
        entries.push_back({cmd.options(), {cmd.arguments().begin(), cmd.arguments().end()}});
    }
    return entries;
}

inline Entries ErrorEntries(const std::string& error) {
    return {{"type", {"string"}}, {"error", {error, kExpectedHelp}}};
}

inline Entries TableEntries(const std::string& header, const std::vector<std::string>& rows) {
    return {{"type", {"list"}}, {header, rows}};
}

// A controller as the process would create it (every property unset: every sub-module off),
// optionally with a stand-in hook engine.
class Controller {
  public:
    explicit Controller(HookOperation* engine = nullptr)
        : m_system(static_cast<CorvaneSystemImpl*>(CorvaneSystem::Create())) {
        CorvaneSystemImplTestPeer::SetHookOperation(m_system, engine);
    }
    ~Controller() {
        CorvaneSystemImplTestPeer::SetHookOperation(m_system, nullptr);  // not ours to destroy
        CorvaneSystem::Destroy(m_system);
    }
    CorvaneSystemImpl* get() const { return m_system; }

    // Runs one request frame through ExecuteCommand; the reply and the result code.
    VXCDBMessage Execute(const VXCDBMessageString& request, int* result = nullptr) {
        VXCDBMessageString response;
        memset(&response, 0x5A, sizeof(response));  // garbage: the reply must be zeroed first
        int code = m_system->ExecuteCommand(const_cast<VXCDBMessageString*>(&request), &response);
        if (result != nullptr) {
            *result = code;
        }
        VXCDBMessage reply;
        EXPECT_TRUE(DecodeVXCDBMessage(response, &reply));
        EXPECT_TRUE(std::all_of(response.payload + response.payloadLen,
                                response.payload + sizeof(response.payload),
                                [](char c) { return c == 0; }))
            << "unused payload bytes of a reply are zero";
        return reply;
    }
    Entries Run(const std::vector<Command>& commands, const std::string& module = "corvane") {
        return EntriesOf(Execute(Frame(Request(module, commands))));
    }

  private:
    CorvaneSystemImpl* m_system;
};

// A server on `path` serving `system`, destroyed when it goes away (before the controller, when
// declared after it).
using ServerPtr = std::unique_ptr<Server, decltype(&Server::Destroy)>;
inline ServerPtr StartServer(const std::string& path, CorvaneSystem* system) {
    return ServerPtr(Server::Create({10, system, path}), &Server::Destroy);
}

// A connected client socket, closed when it goes away.
class ClientSocket {
  public:
    explicit ClientSocket(const std::string& path) : m_fd(socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        m_connected = connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    }
    ~ClientSocket() { Close(); }
    ClientSocket(const ClientSocket&) = delete;
    ClientSocket& operator=(const ClientSocket&) = delete;
    bool connected() const { return m_connected; }
    int fd() const { return m_fd; }
    void Close() {
        if (m_fd >= 0) {
            close(m_fd);
            m_fd = -1;
        }
    }
    bool Send(const VXCDBMessageString& frame) {
        return send(m_fd, &frame, sizeof(frame), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(sizeof(frame));
    }
    enum class Received { kFrame, kClosed, kTimeout };
    // Reads one whole frame, or reports the end of the connection or the deadline.
    Received Receive(VXCDBMessageString* frame,
                     std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        char* in = reinterpret_cast<char*>(frame);
        size_t received = 0;
        while (received < sizeof(*frame)) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd waiting = {m_fd, POLLIN, 0};
            if (poll(&waiting, 1, std::max<int>(0, static_cast<int>(left.count()))) <= 0) {
                return Received::kTimeout;
            }
            ssize_t n = recv(m_fd, in + received, sizeof(*frame) - received, 0);
            if (n <= 0) {
                return Received::kClosed;
            }
            received += static_cast<size_t>(n);
        }
        return Received::kFrame;
    }
    // True when nothing is waiting to be read right now.
    bool NothingPending() {
        pollfd waiting = {m_fd, POLLIN, 0};
        return poll(&waiting, 1, 0) == 0;
    }

  private:
    int m_fd;
    bool m_connected = false;
};

inline bool WaitConnectable(const std::string& path) {
    return corvanetest::WaitFor([&] { return ClientSocket(path).connected(); });
}

}  // namespace channeltest
