// Shared pieces of the debug channel's tests: frames, a controller with an optional stand-in hook
// engine, and real client sockets with deadlines.
#pragma once

#include <linux/sockios.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/controller/corvanesystemimpl.h"
#include "core/controller/vxcdbprotocol.h"
#include "core/model/hook/hookoperationimpl.h"
#include "core/server/server.h"
#include "tests/support/supervisedservice.h"
#include "tests/support/testsupport.h"
#include "utils/scopedfd.h"

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

// A stand-in hook engine: an in-memory model of what the commands read (relationships, group
// state, firmware acknowledgements) that records what they asked of it. Every other operation is
// the real engine's, with no hook cases and no database.
class FakeHookOperation : public HookOperationImpl {
  public:
    FakeHookOperation() : HookOperationImpl({}) {}

    std::vector<HookRelationship> relations;
    std::set<std::string> readyGroups, executedGroups;
    int doHookGroupResult = 0;
    std::map<std::string, std::pair<unsigned long, unsigned long>> hookIds;  // case and hook id
    // Rows of hook, camera module, subdevice, interface, status.
    std::vector<std::vector<std::string>> acks;
    // What was asked.
    std::vector<std::pair<std::string, std::vector<std::string>>> injected;
    std::vector<HookFw> processed;
    int unhookAllCalls = 0;

    std::vector<HookRelationship> GetHookRelationshipList() override { return relations; }
    bool IsHookGroupReady(const std::string& name) override { return readyGroups.count(name) > 0; }
    bool IsHookGroupExecuted(const std::string& name) override {
        return executedGroups.count(name) > 0;
    }
    int DoHookGroup(const std::string& name, const std::vector<std::string>& args) override {
        injected.push_back({name, args});
        return doHookGroupResult;
    }
    void UnhookAllCase() override { ++unhookAllCalls; }
    std::string GetHookName(unsigned long caseId, unsigned long hookId) override {
        auto named = std::find_if(hookIds.begin(), hookIds.end(), [&](const auto& hook) {
            return hook.second == std::make_pair(caseId, hookId);
        });
        return named == hookIds.end() ? "" : named->first;
    }
    std::pair<unsigned long, unsigned long> GetCaseAndHookId(const std::string& hook) override {
        auto ids = hookIds.find(hook);
        return ids == hookIds.end() ? std::make_pair(HOOK_ID_NONE, HOOK_ID_NONE) : ids->second;
    }
    int ProcessCmds(const HookFw& fw) override {
        processed.push_back(fw);
        return 0;
    }
    // As the database answers: the header row, then the matches (a negative camera module
    // matches all); one empty row for none.
    int GetFaultInjectAckItem(const std::string& hookName, int camModuleId, unsigned char subdevId,
                              unsigned char interfaceId,
                              std::vector<std::vector<std::string>>& result) override {
        result = {{"hook_name", "cam_module_id", "subdev_id", "interface_id", "status"}};
        for (const std::vector<std::string>& ack : acks) {
            if (ack[0] == hookName && (camModuleId < 0 || ack[1] == std::to_string(camModuleId)) &&
                ack[2] == std::to_string(subdevId) && ack[3] == std::to_string(interfaceId)) {
                result.push_back(ack);
            }
        }
        if (result.size() == 1) {
            result = {{}};
        }
        return 0;
    }
};

using Entries = std::vector<std::pair<std::string, std::vector<std::string>>>;

inline VXCDBMessage Request(const std::string& module, const Entries& commands,
                            VXCDBMessage::CDBModuleType type = VXCDBMessage::CORVANE) {
    VXCDBMessage message;
    message.set_modulename(module);
    message.set_moduletype(type);
    for (const auto& [option, arguments] : commands) {
        VXCDBMessage_CDBCmd* cmd = message.add_cmds();
        cmd->set_options(option);
        cmd->mutable_arguments()->Add(arguments.begin(), arguments.end());
    }
    return message;
}

inline VXCDBMessageString Frame(const VXCDBMessage& message, int32_t msgType = 0) {
    VXCDBMessageString frame = {};
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

inline Entries MessageEntries(const std::string& message) {
    return {{"type", {"string"}}, {"message", {message}}};
}

// A server on `path` serving `system`, destroyed when it goes away (before the controller, when
// declared after it).
using ServerPtr = std::unique_ptr<Server, decltype(&Server::Destroy)>;
inline ServerPtr StartServer(const std::string& path, CorvaneSystem* system) {
    return ServerPtr(Server::Create({10, system, path}), &Server::Destroy);
}

inline sockaddr_un AddressOf(const std::string& path) {
    sockaddr_un address = {AF_UNIX, {}};
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    return address;
}

// A client socket whose reads give up after ten seconds, closed when it goes away.
class ClientSocket {
  public:
    ClientSocket() : m_fd(socket(AF_UNIX, SOCK_STREAM, 0)) {
        timeval deadline = {10, 0};
        setsockopt(m_fd.get(), SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof(deadline));
    }
    // Connected at once.
    explicit ClientSocket(const std::string& path) : ClientSocket() { Connect(path); }
    bool Connect(const std::string& path) {
        sockaddr_un address = AddressOf(path);
        return connect(m_fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    }
    // Sends the first `size` bytes of the frame, in pieces cut at the offsets `cuts` (ascending);
    // each piece is sent only once the server has read the one before, so that the server sees
    // them apart.
    bool Send(const VXCDBMessageString& frame, const std::vector<size_t>& cuts = {},
              size_t size = sizeof(VXCDBMessageString)) {
        const char* bytes = reinterpret_cast<const char*>(&frame);
        size_t from = 0;
        for (size_t to : cuts) {
            if (!SendBytes(bytes + from, to - from) || !corvanetest::WaitFor([&] {
                    int unread = -1;
                    return ioctl(m_fd.get(), SIOCOUTQ, &unread) == 0 && unread == 0;
                })) {
                return false;
            }
            from = to;
        }
        return SendBytes(bytes + from, size - from);
    }
    // Reads one whole frame; false at the end of the connection or at the deadline.
    bool Receive(VXCDBMessageString* frame) {
        return recv(m_fd.get(), frame, sizeof(*frame), MSG_WAITALL) ==
               static_cast<ssize_t>(sizeof(*frame));
    }
    // What a look at the socket right now finds: 0 when the server has closed its end and
    // nothing is left to read, -1 when nothing is waiting.
    ssize_t Peek() {
        char byte;
        return recv(m_fd.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    }

  private:
    bool SendBytes(const void* bytes, size_t size) {
        return send(m_fd.get(), bytes, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
    }

    ScopedFd m_fd;
};

inline bool WaitConnectable(const std::string& path) {
    return corvanetest::WaitFor([&] { return ClientSocket().Connect(path); });
}

// What every channel test starts from: a device tree, a controller as the process would create
// it (every property unset: every sub-module off) and a stand-in engine to put in its place, and
// the log from then on.
class ChannelTest : public ::testing::Test {
  protected:
    ~ChannelTest() override {
        CorvaneSystemImplTestPeer::SetHookOperation(m_system, nullptr);  // not ours to destroy
        CorvaneSystem::Destroy(m_system);
    }
    // Runs one request frame through ExecuteCommand.
    VXCDBMessage Execute(VXCDBMessageString request) {
        VXCDBMessageString response;
        memset(&response, 0x5A, sizeof(response));  // garbage: the reply must be zeroed first
        EXPECT_EQ(m_system->ExecuteCommand(&request, &response), 0);
        VXCDBMessage reply;
        EXPECT_TRUE(DecodeVXCDBMessage(response, &reply));
        EXPECT_TRUE(std::all_of(response.payload + response.payloadLen,
                                response.payload + sizeof(response.payload),
                                [](char c) { return c == 0; }))
            << "unused payload bytes of a reply are zero";
        return reply;
    }
    Entries Run(const Entries& commands, const std::string& module = "corvane") {
        return EntriesOf(Execute(Frame(Request(module, commands))));
    }

    corvanetest::TestSysroot m_sysroot;
    FakeHookOperation m_engine;
    CorvaneSystemImpl* m_system = static_cast<CorvaneSystemImpl*>(CorvaneSystem::Create());
    corvanetest::LogCapture m_log;
};

}  // namespace channeltest
