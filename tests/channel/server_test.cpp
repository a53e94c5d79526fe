// The socket server with real client sockets: set-up, one request and one reply per connection,
// the module types, and tear-down with connections open.
#include <sys/stat.h>

#include <fstream>

#include "core/server/server.h"
#include "tests/channel/channeltestutil.h"

namespace {

using namespace channeltest;
using Received = ClientSocket::Received;

class SocketServer : public ::testing::Test {
  protected:
    void Serve(CorvaneSystem* system) {
        m_server = StartServer(m_path, system);
        ASSERT_TRUE(WaitConnectable(m_path)) << m_log.Dump();
    }

    VXCDBMessage ReadReply(ClientSocket& client) {
        VXCDBMessageString frame;
        EXPECT_EQ(client.Receive(&frame), Received::kFrame);
        VXCDBMessage reply;
        EXPECT_TRUE(DecodeVXCDBMessage(frame, &reply));
        return reply;
    }

    corvanetest::TestSysroot m_sysroot;
    corvanetest::LogCapture m_log;
    corvanetest::TempDir m_dir;
    std::string m_path = m_dir / "vxcdb_socket";
    Controller m_controller;
    ServerPtr m_server{nullptr, &Server::Destroy};  // goes before the controller
};

bool SameFrame(const VXCDBMessageString& a, const VXCDBMessageString& b) {
    return memcmp(&a, &b, sizeof(a)) == 0;
}

TEST_F(SocketServer, StaleSocketFileIsReplaced) {
    std::ofstream(m_path) << "left over";
    Serve(m_controller.get());
    struct stat info = {};
    ASSERT_EQ(stat(m_path.c_str(), &info), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    // Logged after listen(), so a client may connect before the line is written.
    EXPECT_TRUE(
        corvanetest::WaitFor([&] { return m_log.Contains("Setup Server Socket: " + m_path); }));
}

TEST_F(SocketServer, OneRequestOneReplyThenTheConnectionIsClosed) {
    Serve(m_controller.get());
    ClientSocket client(m_path);
    ASSERT_TRUE(client.connected());
    VXCDBMessageString request = Frame(Request("corvane", {{"help", {"x"}}}), 77);
    ASSERT_TRUE(client.Send(request));
    VXCDBMessage reply = ReadReply(client);
    EXPECT_EQ(EntriesOf(reply), (Entries{{"type", {"string"}}, {"help", {kExpectedHelp}}}));
    EXPECT_TRUE(m_log.Contains("msgType = 77, payloadLen " + std::to_string(request.payloadLen)))
        << m_log.Dump();

    // A second request on the same connection gets nothing: the server has closed it.
    client.Send(Frame(Request("corvane", {{"help", {"x"}}})));
    VXCDBMessageString frame;
    EXPECT_EQ(client.Receive(&frame), Received::kClosed);
}

TEST_F(SocketServer, UnreadableFrameGetsNoReplyAndTheConnectionWaitsForAnother) {
    Serve(m_controller.get());
    ClientSocket client(m_path);
    ASSERT_TRUE(client.connected());
    VXCDBMessageString bad = Frame(Request("corvane", {{"help", {"x"}}}));
    bad.payloadLen = 5000;
    ASSERT_TRUE(client.Send(bad));
    ASSERT_TRUE(corvanetest::WaitFor([&] {
        return m_log.Contains("ERROR, can't process the protobuf!");
    })) << m_log.Dump();
    EXPECT_TRUE(client.NothingPending());

    ASSERT_TRUE(client.Send(Frame(Request("corvane", {{"inject", {"clear"}}}))));
    EXPECT_EQ(EntriesOf(ReadReply(client)), TableEntries("result", {"<cleared>"}));
}

TEST_F(SocketServer, ClientThatClosesWithoutSendingEndsItsConnection) {
    Serve(m_controller.get());
    {
        ClientSocket client(m_path);
        ASSERT_TRUE(client.connected());
    }
    EXPECT_TRUE(corvanetest::WaitFor([&] {
        return m_log.Contains("Failed to receive message from client: ");
    })) << m_log.Dump();
}

TEST_F(SocketServer, DebugRequestsGetTheReplyThenTheirOwnFrame) {
    Serve(m_controller.get());
    ClientSocket client(m_path);
    VXCDBMessageString request =
        Frame(Request("debug", {{"dumpimagesensormoduledata", {}}}, VXCDBMessage::DEBUG));
    ASSERT_TRUE(client.Send(request));
    VXCDBMessage reply = ReadReply(client);
    EXPECT_EQ(reply.modulename(), "debug");
    EXPECT_EQ(EntriesOf(reply)[0], (Command{"type", {"string"}}));
    VXCDBMessageString echo;
    ASSERT_EQ(client.Receive(&echo), Received::kFrame);
    EXPECT_TRUE(SameFrame(echo, request));
    EXPECT_EQ(client.Receive(&echo), Received::kClosed);
}

TEST_F(SocketServer, OtherModuleTypesAreEchoed) {
    Serve(m_controller.get());
    for (auto type : {std::optional<VXCDBMessage::CDBModuleType>(),
                      std::optional<VXCDBMessage::CDBModuleType>(VXCDBMessage::MAX)}) {
        ClientSocket client(m_path);
        VXCDBMessageString request = Frame(Request("camera", {{"help", {"x"}}}, type), 3);
        ASSERT_TRUE(client.Send(request));
        VXCDBMessageString echo;
        ASSERT_EQ(client.Receive(&echo), Received::kFrame);
        EXPECT_TRUE(SameFrame(echo, request));
        EXPECT_EQ(client.Receive(&echo), Received::kClosed);
    }
    EXPECT_TRUE(m_log.Contains("rcv moduleType other"));
}

TEST_F(SocketServer, WithoutControllerRequestsAreEchoed) {
    Serve(nullptr);
    ClientSocket client(m_path);
    VXCDBMessageString request = Frame(Request("corvane", {{"help", {"x"}}}));
    ASSERT_TRUE(client.Send(request));
    VXCDBMessageString echo;
    ASSERT_EQ(client.Receive(&echo), Received::kFrame);
    EXPECT_TRUE(SameFrame(echo, request));
    EXPECT_TRUE(corvanetest::WaitFor([&] { return m_log.Contains("moduleType CORVANE is null"); }));
}

TEST_F(SocketServer, DestroyingTheServerEndsOpenConnections) {
    Serve(m_controller.get());
    ClientSocket idle(m_path);
    ASSERT_TRUE(idle.connected());
    ASSERT_TRUE(corvanetest::WaitFor([&] { return m_log.Contains("Setup connect to client"); }));
    m_server.reset();  // returns only once the connection thread has ended
    VXCDBMessageString frame;
    EXPECT_EQ(idle.Receive(&frame), Received::kClosed);
    EXPECT_TRUE(m_log.Contains("End"));
    EXPECT_FALSE(ClientSocket(m_path).connected()) << "no longer listening";
}

TEST_F(SocketServer, UnusablePathEndsTheServerWithoutListening) {
    // bind fails (no such directory); the kept bind check lets it through to listen, which
    // fails on the unbound socket.
    m_path = m_dir / "missing/vxcdb_socket";
    m_server = StartServer(m_path, m_controller.get());
    EXPECT_TRUE(corvanetest::WaitFor([&] { return m_log.Contains("End"); })) << m_log.Dump();
    EXPECT_TRUE(m_log.Contains("Failed to listen on socket, error: "));
}

// Alone: the switches are decided once per process, so the controller of a fixture would have
// decided them already.
TEST(SocketServerSwitch, ControllerStartsTheServerWhenSwitchedOn) {
    int status = corvanetest::RunInChild([] {
        corvanetest::TestSysroot sysroot;
        sysroot.SetProperty("persist.vendor.camera.cloud.corvanesystem.modswitch", "1");
        CorvaneSystem* system = CorvaneSystem::Create();
        std::string path = sysroot / "data/vendor/camera/vxcdb_socket";
        bool listening = WaitConnectable(path);
        ClientSocket client(path);
        client.Send(Frame(Request("corvane", {{"inject", {"clear"}}})));
        VXCDBMessageString frame;
        bool answered = client.Receive(&frame) == Received::kFrame;
        CorvaneSystem::Destroy(system);
        return listening && answered && !ClientSocket(path).connected() ? 0 : 1;
    });
    EXPECT_TRUE(corvanetest::ChildSucceeded(status)) << status;
}

}  // namespace
