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
    // Sends `request`; the frames that come back until the server closes the connection.
    std::vector<VXCDBMessageString> Exchange(const VXCDBMessageString& request) {
        ClientSocket client(m_path);
        EXPECT_TRUE(client.Send(request));
        std::vector<VXCDBMessageString> frames(1);
        Received received;
        while ((received = client.Receive(&frames.back())) == Received::kFrame) {
            frames.emplace_back();
        }
        EXPECT_EQ(received, Received::kClosed);
        frames.pop_back();
        return frames;
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

Entries Decoded(const VXCDBMessageString& frame) {
    VXCDBMessage reply;
    EXPECT_TRUE(DecodeVXCDBMessage(frame, &reply));
    return EntriesOf(reply);
}

// A stale socket file is replaced, and only the service's user and group may connect whatever
// the umask.
TEST_F(SocketServer, FreshSocketOpenToTheServiceOnly) {
    std::ofstream(m_path) << "left over";
    mode_t old = umask(0);
    Serve(m_controller.get());
    umask(old);
    struct stat info = {};
    ASSERT_EQ(stat(m_path.c_str(), &info), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(info.st_mode & 07777, 0660u);
}

TEST_F(SocketServer, OneRequestOneReplyThenTheConnectionIsClosed) {
    Serve(m_controller.get());
    std::vector<VXCDBMessageString> frames = Exchange(Frame(Request("corvane", {{"help", {"x"}}})));
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(Decoded(frames[0]), (Entries{{"type", {"string"}}, {"help", {kExpectedHelp}}}));

    // The debug module answers with the reply, then its own request frame.
    VXCDBMessageString debug =
        Frame(Request("debug", {{"dumpimagesensormoduledata", {}}}, VXCDBMessage::DEBUG));
    frames = Exchange(debug);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(Decoded(frames[0])[0], (Command{"type", {"string"}}));
    EXPECT_TRUE(SameFrame(frames[1], debug));
}

TEST_F(SocketServer, UnreadableFrameGetsNoReplyAndTheConnectionWaitsForAnother) {
    Serve(m_controller.get());
    ClientSocket client(m_path);
    VXCDBMessageString bad = Frame(Request("corvane", {{"help", {"x"}}}));
    bad.payloadLen = 5000;
    ASSERT_TRUE(client.Send(bad));
    ASSERT_TRUE(corvanetest::WaitFor([&] {
        return m_log.Contains("ERROR, can't process the protobuf!");
    })) << m_log.Dump();
    EXPECT_TRUE(client.NothingPending());

    ASSERT_TRUE(client.Send(Frame(Request("corvane", {{"inject", {"clear"}}}))));
    VXCDBMessageString frame;
    ASSERT_EQ(client.Receive(&frame), Received::kFrame);
    EXPECT_EQ(Decoded(frame), TableEntries("result", {"<cleared>"}));
}

TEST_F(SocketServer, ClientThatClosesWithoutSendingEndsItsConnection) {
    Serve(m_controller.get());
    ASSERT_TRUE(ClientSocket(m_path).connected());
    EXPECT_TRUE(corvanetest::WaitFor([&] {
        return m_log.Contains("Failed to receive message from client: ");
    })) << m_log.Dump();
}

// What the server does not execute comes back unchanged: other module types, and every request
// when there is no controller.
TEST_F(SocketServer, RequestsItCannotExecuteAreEchoed) {
    const struct {
        bool withController;
        std::optional<VXCDBMessage::CDBModuleType> type;
        const char* logged;
    } cases[] = {
        {true, std::nullopt, "rcv moduleType other"},
        {true, VXCDBMessage::MAX, "rcv moduleType other"},
        {false, VXCDBMessage::CORVANE, "moduleType CORVANE is null"},
    };
    for (const auto& c : cases) {
        Serve(c.withController ? m_controller.get() : nullptr);
        VXCDBMessageString request = Frame(Request("camera", {{"help", {"x"}}}, c.type), 3);
        std::vector<VXCDBMessageString> frames = Exchange(request);
        ASSERT_EQ(frames.size(), 1u);
        EXPECT_TRUE(SameFrame(frames[0], request));
        EXPECT_TRUE(m_log.Contains(c.logged)) << m_log.Dump();
        m_server.reset();
    }
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

}  // namespace
