// The socket server with real client sockets: set-up, one request and one reply per connection,
// the module types, frames in pieces, tear-down with connections open, and what hostile peers
// and exhausted resources can (not) do to it.
#include <sys/resource.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "core/client/clientimpl.h"
#include "core/server/server.h"
#include "core/server/serverimpl.h"
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
    // Sends `request` (in pieces cut at `cuts`); the frames that come back until the server
    // closes the connection.
    std::vector<VXCDBMessageString> Exchange(const VXCDBMessageString& request,
                                             const std::vector<size_t>& cuts = {}) {
        ClientSocket client(m_path);
        EXPECT_TRUE(client.SendInPieces(request, cuts));
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

const VXCDBMessageString kHelp = Frame(Request("corvane", {{"help", {"x"}}}));

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

// However the peer cuts it, a frame is answered as if it had arrived whole.
TEST_F(SocketServer, FrameInPiecesIsAnsweredAsIfWhole) {
    Serve(m_controller.get());
    const std::vector<VXCDBMessageString> whole = Exchange(kHelp);
    ASSERT_EQ(whole.size(), 1u);
    const std::vector<size_t> cuts[] = {{2052}, {2, 4100}, {4, 40}, {1000, 4103}};
    for (const std::vector<size_t>& at : cuts) {
        std::vector<VXCDBMessageString> frames = Exchange(kHelp, at);
        ASSERT_EQ(frames.size(), 1u) << "cut at " << at[0];
        EXPECT_TRUE(SameFrame(frames[0], whole[0])) << "cut at " << at[0];
    }
    EXPECT_EQ(m_log.Count("ERROR, can't process the protobuf!"), 0);
}

// A frame that stays short is taken as it is once the peer pauses: its missing bytes read as
// zero, so a payload length of 0 makes an empty message, which is echoed.
TEST_F(SocketServer, ShortFrameIsTakenAsItIsAfterAPause) {
    Serve(m_controller.get());
    ClientSocket client(m_path);
    constexpr size_t kSent = 10;
    ASSERT_EQ(send(client.fd(), &kHelp, kSent, MSG_NOSIGNAL), static_cast<ssize_t>(kSent));
    VXCDBMessageString expected;
    memset(&expected, 0, sizeof(expected));
    memcpy(&expected, &kHelp, kSent);
    VXCDBMessageString frame;
    ASSERT_EQ(client.Receive(&frame), Received::kFrame);
    EXPECT_TRUE(SameFrame(frame, expected));
    EXPECT_TRUE(m_log.Contains("rcv moduleType other"));
}

// Idle peers hold at most the cap's worth of threads, and only until the deadline, whether they
// send nothing or only frames that never parse; the peers never close, yet the server gives back
// every thread and descriptor and answers the next request.
TEST_F(SocketServer, IdlePeersHoldNoMoreThanTheCapAndOnlyUntilTheDeadline) {
    constexpr int kIdle = 1000;
    constexpr int kCap = static_cast<int>(ServerImpl::kMaxConnections);
    ASSERT_TRUE(RaiseDescriptorLimit(kIdle + 256));
    std::thread([] {}).join();  // a sanitizer's helper threads start with the first thread
    const int threads = ThreadCount() + 1;  // the accepting thread
    const int fds = DescriptorCount() + 1;  // the listening socket
    Serve(m_controller.get());

    const auto start = std::chrono::steady_clock::now();
    std::vector<std::unique_ptr<ClientSocket>> idle;
    for (int i = 0; i < kIdle; ++i) {
        idle.push_back(std::make_unique<ClientSocket>(m_path));
        ASSERT_TRUE(idle.back()->connected()) << i;
    }
    VXCDBMessageString unreadable = kHelp;
    unreadable.payloadLen = 5000;
    ASSERT_TRUE(idle[0]->Send(unreadable));
    auto closed = [&] {
        return std::count_if(idle.begin(), idle.end(),
                             [](const auto& peer) { return peer->ClosedByServer(); });
    };
    // Those over the cap are closed at once, without a thread.
    ASSERT_TRUE(corvanetest::WaitFor([&] { return closed() >= kIdle - kCap; }));
    EXPECT_LE(ThreadCount(), threads + kCap);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const int refusalLines = m_log.Count("Too many client connections");
    EXPECT_GE(refusalLines, 1);
    EXPECT_LE(refusalLines, 1 + static_cast<int>(seconds)) << "at most one line a second";

    EXPECT_TRUE(corvanetest::WaitFor(
        [&] { return ThreadCount() == threads && DescriptorCount() == fds + kIdle; },
        ClientImpl::kConnectionDeadline + std::chrono::seconds(10)))
        << "threads " << ThreadCount() << " of " << threads << ", descriptors " << DescriptorCount()
        << " of " << fds + kIdle;
    EXPECT_EQ(closed(), kIdle);
    EXPECT_TRUE(m_log.Contains("No request from client")) << m_log.Dump().substr(0, 4000);
    EXPECT_EQ(Exchange(kHelp).size(), 1u);
}

long VirtualSizeBytes() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmSize:", 0) == 0) {
            return std::stol(line.substr(7)) * 1024;
        }
    }
    return -1;
}

// Out of address space for another thread's stack, a connection is closed with one line and
// the server goes on; once the space is back, requests are answered again.
TEST_F(SocketServer, ThreadThatCannotStartCostsOnlyItsConnection) {
    if (corvanetest::kUnderSanitizer) {
        GTEST_SKIP() << "a sanitizer's runtime cannot run under a tight address-space limit";
    }
    corvanetest::ExpectInChild([&] {
        Serve(m_controller.get());
        ASSERT_EQ(Exchange(kHelp).size(), 1u);
        rlimit saved = {};
        ASSERT_EQ(getrlimit(RLIMIT_AS, &saved), 0);
        rlimit low = saved;
        // Room for small allocations, none for a new thread stack (8 MiB).
        low.rlim_cur = static_cast<rlim_t>(VirtualSizeBytes() + (1 << 20));
        ASSERT_EQ(setrlimit(RLIMIT_AS, &low), 0);
        // A freed stack may be reused once; a new one cannot be mapped.
        std::vector<std::unique_ptr<ClientSocket>> peers;
        auto outcomes = [&] {
            return m_log.Count("Failed to start the client thread") +
                   m_log.Count("The client thread is ready to start");
        };
        const int before = outcomes();
        while (!m_log.Contains("Failed to start the client thread") && peers.size() < 8) {
            peers.push_back(std::make_unique<ClientSocket>(m_path));
            ASSERT_TRUE(corvanetest::WaitFor(
                [&] { return outcomes() == before + static_cast<int>(peers.size()); }));
        }
        ASSERT_TRUE(m_log.Contains("Failed to start the client thread"));
        EXPECT_TRUE(corvanetest::WaitFor([&] { return peers.back()->ClosedByServer(); }));
        ASSERT_EQ(setrlimit(RLIMIT_AS, &saved), 0);
        EXPECT_EQ(Exchange(kHelp).size(), 1u);
        EXPECT_EQ(m_log.Count("Failed to start the client thread"), 1);
        m_server.reset();  // the child leaves without the fixture's tear-down
    });
}

// Out of descriptors, accept fails again and again: the server backs off, folds the failures
// into one line a second, and accepts the waiting peer once descriptors are back.
TEST_F(SocketServer, AcceptFailuresAreFoldedAndTheServerRecovers) {
    corvanetest::ExpectInChild([&] {
        const int fds = DescriptorCount();
        Serve(m_controller.get());
        // The connections that found the server listening have ended, so no descriptor below
        // the limit set next is freed afterwards.
        ASSERT_TRUE(corvanetest::WaitFor([&] { return DescriptorCount() == fds + 1; }));
        ClientSocket waiting;  // its descriptor is taken while there are some
        rlimit saved = {};
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
        int lowest = dup(0);  // every descriptor below it is in use
        close(lowest);
        rlimit none = saved;
        none.rlim_cur = static_cast<rlim_t>(lowest);
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
        ASSERT_TRUE(waiting.Connect(m_path));
        const std::string failed = "Failed to accept client connection";
        ASSERT_TRUE(corvanetest::WaitFor([&] { return m_log.Count(failed) >= 2; }));
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        EXPECT_LE(m_log.Count(failed), 1 + static_cast<int>(seconds));
        // The second line stands for every failure since the first.
        std::vector<std::string> lines;
        for (const corvanetest::LogLine& line : m_log.Lines()) {
            if (line.message.find(failed) != std::string::npos) {
                lines.push_back(line.message);
            }
        }
        ASSERT_GE(lines.size(), 2u);
        EXPECT_TRUE(lines[1].find("Too many open files") != std::string::npos) << lines[1];
        EXPECT_GT(std::stoi(lines[1].substr(lines[1].rfind(' '))), 1) << lines[1];

        ASSERT_TRUE(waiting.Send(kHelp));
        VXCDBMessageString frame;
        EXPECT_EQ(waiting.Receive(&frame), Received::kFrame);
        m_server.reset();  // the child leaves without the fixture's tear-down
    });
}

}  // namespace
