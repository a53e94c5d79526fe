// The socket server with real client sockets: set-up, one request and one reply per connection,
// the module types, frames in pieces, tear-down with connections open, and what hostile peers
// and exhausted resources can (not) do to it.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "core/client/clientimpl.h"
#include "core/server/serverimpl.h"
#include "tests/channel/channeltestutil.h"

namespace {

using namespace channeltest;

const VXCDBMessageString kHelp = Frame(Request("corvane", {{"help", {"x"}}}));

class SocketServer : public ChannelTest {
  protected:
    void Serve(CorvaneSystem* system) {
        m_server = StartServer(m_path, system);
        ASSERT_TRUE(WaitConnectable(m_path)) << m_log.Dump();
    }
    // Sends the first `size` bytes of `request` (in pieces cut at `cuts`); the frames that come
    // back until the server closes the connection.
    std::vector<VXCDBMessageString> Exchange(const VXCDBMessageString& request,
                                             const std::vector<size_t>& cuts = {},
                                             size_t size = sizeof(VXCDBMessageString)) {
        ClientSocket client(m_path);
        EXPECT_TRUE(client.Send(request, cuts, size));
        std::vector<VXCDBMessageString> frames(1);
        while (client.Receive(&frames.back())) {
            frames.emplace_back();
        }
        EXPECT_EQ(client.Peek(), 0) << "closed by the server";
        frames.pop_back();
        return frames;
    }
    // Whether `request`, sent as Exchange sends it, is answered with `reply` alone.
    bool Answers(const VXCDBMessageString& request, const VXCDBMessageString& reply,
                 const std::vector<size_t>& cuts = {}, size_t size = sizeof(VXCDBMessageString)) {
        std::vector<VXCDBMessageString> frames = Exchange(request, cuts, size);
        return frames.size() == 1 && memcmp(&frames[0], &reply, sizeof(reply)) == 0;
    }

    corvanetest::TempDir m_dir;
    std::string m_path = m_dir / "vxcdb_socket";
    ServerPtr m_server{nullptr, &Server::Destroy};  // goes before the controller
};

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// A stale socket file is replaced by a socket only the service's user and group may connect to,
// whatever the umask. However the peer cuts a frame, it is answered as if it had arrived whole;
// one that stays short is taken as it is once the peer pauses: its missing bytes read as zero, so
// a payload length of 0 makes an empty message, which is echoed. The debug module answers with
// its reply, then its own request frame; other module types are echoed unchanged. Destroying the
// server ends the connections still open and stops listening.
TEST_F(SocketServer, OneRequestOneReplyPerConnectionUntilDestroyed) {
    std::ofstream(m_path) << "left over";
    mode_t old = umask(0);
    Serve(m_system);
    umask(old);
    struct stat info = {};
    ASSERT_EQ(stat(m_path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & (S_IFMT | 07777), S_IFSOCK | 0660u);

    // (What the reply says, as the tool shows it: vxcdb_test.cpp.)
    const std::vector<VXCDBMessageString> whole = Exchange(kHelp);
    ASSERT_EQ(whole.size(), 1u);
    const std::vector<size_t> cuts[] = {{2052}, {2, 4100}, {4, 40}, {1000, 4103}};
    for (const std::vector<size_t>& at : cuts) {
        EXPECT_TRUE(Answers(kHelp, whole[0], at)) << "cut at " << at[0];
    }
    EXPECT_EQ(m_log.Count("ERROR, can't process the protobuf!"), 0);
    VXCDBMessageString truncated = {};
    memcpy(&truncated, &kHelp, 10);
    EXPECT_TRUE(Answers(kHelp, truncated, {}, 10));

    const VXCDBMessageString other =
        Frame(Request("camera", {{"help", {"x"}}}, VXCDBMessage::MAX), 3);
    EXPECT_TRUE(Answers(other, other));
    const VXCDBMessageString debug =
        Frame(Request("debug", {{"dumpimagesensormoduledata", {}}}, VXCDBMessage::DEBUG));
    const std::vector<VXCDBMessageString> frames = Exchange(debug);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(memcmp(&frames[1], &debug, sizeof(debug)), 0);

    // The probe that waited for the socket closed without sending: its connection ended.
    EXPECT_TRUE(corvanetest::WaitFor([&] {
        return m_log.Contains("Failed to receive message from client: ");
    })) << m_log.Dump();
    ClientSocket idle;
    ASSERT_TRUE(idle.Connect(m_path));
    m_server.reset();  // returns only once the connection thread has ended
    EXPECT_EQ(idle.Peek(), 0) << "closed";
    EXPECT_FALSE(ClientSocket().Connect(m_path)) << "no longer listening";

    // Without a controller every request is echoed.
    Serve(nullptr);
    EXPECT_TRUE(Answers(kHelp, kHelp));
    m_server.reset();
    // Where bind fails (no such directory), the kept bind check lets it through to listen, which
    // fails on the unbound socket: the server ends without listening.
    m_path = m_dir / "missing/vxcdb_socket";
    m_server = StartServer(m_path, m_system);
    EXPECT_TRUE(corvanetest::WaitFor([&] { return m_log.Count("Run() End") == 3; }))
        << m_log.Dump();
    EXPECT_TRUE(m_log.Contains("Failed to listen on socket, error: "));
}

// Idle peers hold at most the cap's worth of threads, and only until the deadline, whether they
// send nothing or only frames that never parse (a frame that does not parse gets no reply, and
// the connection waits for another); the peers never close, yet the server gives back every
// thread and descriptor and answers the next request. (Many concurrent requests: tests/load.)
TEST_F(SocketServer, IdlePeersHoldNoMoreThanTheCapAndOnlyUntilTheDeadline) {
    constexpr int kIdle = 1000;
    constexpr int kCap = static_cast<int>(ServerImpl::kMaxConnections);
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    ASSERT_TRUE(setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= kIdle + 256);
    std::thread([] {}).join();  // a sanitizer's helper threads start with the first thread
    auto figures = [] {
        const corvanetest::ProcessFigures now = corvanetest::FiguresOf(getpid());
        return std::make_pair(now.threads, now.descriptors);
    };
    const std::pair<int, int> alone = figures();
    Serve(m_system);

    VXCDBMessageString unreadable = kHelp;
    unreadable.payloadLen = 5000;
    std::vector<std::unique_ptr<ClientSocket>> idle;
    idle.push_back(std::make_unique<ClientSocket>(m_path));
    ASSERT_TRUE(idle[0]->Send(unreadable));
    ASSERT_TRUE(corvanetest::WaitFor([&] {
        return m_log.Contains("ERROR, can't process the protobuf!");
    })) << m_log.Dump();
    EXPECT_EQ(idle[0]->Peek(), -1) << "nothing to read";
    VXCDBMessageString reply;
    ASSERT_TRUE(idle[0]->Send(kHelp) && idle[0]->Receive(&reply));

    const auto start = std::chrono::steady_clock::now();
    for (int i = 1; i < kIdle; ++i) {
        idle.push_back(std::make_unique<ClientSocket>());
        ASSERT_TRUE(idle.back()->Connect(m_path)) << i;
    }
    ASSERT_TRUE(idle[1]->Send(unreadable));
    auto closed = [&] {
        return std::count_if(idle.begin(), idle.end(),
                             [](const auto& peer) { return peer->Peek() == 0; });
    };
    // Those over the cap are closed at once, without a thread.
    ASSERT_TRUE(corvanetest::WaitFor([&] { return closed() >= kIdle - kCap; }));
    EXPECT_LE(figures().first, alone.first + 1 + kCap);
    EXPECT_LE(m_log.Count("Setup connect to client"), kCap + 2) << "the probe and idle[0]";
    const int refusalLines = m_log.Count("Too many client connections");
    EXPECT_GE(refusalLines, 1);
    EXPECT_LE(refusalLines, 1 + static_cast<int>(SecondsSince(start))) << "one line a second";

    // The server keeps its accepting thread and listening socket; the peers keep theirs.
    const std::pair<int, int> atRest = {alone.first + 1, alone.second + 1 + kIdle};
    EXPECT_TRUE(corvanetest::WaitFor([&] { return figures() == atRest; },
                                     ClientImpl::kConnectionDeadline + std::chrono::seconds(10)))
        << ::testing::PrintToString(figures()) << " for " << ::testing::PrintToString(atRest);
    EXPECT_EQ(closed(), kIdle);
    EXPECT_TRUE(m_log.Contains("No request from client")) << m_log.Dump().substr(0, 4000);

    EXPECT_EQ(Exchange(kHelp).size(), 1u);
}

// Out of address space, a connection whose thread cannot start is closed and costs nothing
// more. Out of descriptors, accept fails again and again: the server backs off, folds the
// failures into one line a second, goes on, and answers again once descriptors are back.
TEST_F(SocketServer, ThreadThatCannotStartOrAcceptThatFailsCostsOnlyThatConnection) {
    if (corvanetest::kUnderSanitizer) {
        GTEST_SKIP() << "a sanitizer's runtime cannot run under a tight address-space limit, and "
                        "needs descriptors of its own (pipes to probe memory, the symbolizer's)";
    }
    corvanetest::ExpectInChild([&] {
        Serve(m_system);
        ASSERT_EQ(Exchange(kHelp).size(), 1u);
        rlimit saved = {};
        ASSERT_EQ(getrlimit(RLIMIT_AS, &saved), 0);
        rlimit low = saved;
        // Room for small allocations, none for a new thread stack (8 MiB).
        long pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        low.rlim_cur = static_cast<rlim_t>(pages * sysconf(_SC_PAGESIZE) + (1 << 20));
        ASSERT_EQ(setrlimit(RLIMIT_AS, &low), 0);
        // A freed stack may be reused once; a new one cannot be mapped.
        const std::string noThread = "Failed to start the client thread";
        std::vector<std::unique_ptr<ClientSocket>> peers;
        auto outcomes = [&] {
            return m_log.Count(noThread) + m_log.Count("The client thread is ready to start");
        };
        const int before = outcomes();
        while (!m_log.Contains(noThread) && peers.size() < 8) {
            peers.push_back(std::make_unique<ClientSocket>(m_path));
            ASSERT_TRUE(corvanetest::WaitFor(
                [&] { return outcomes() == before + static_cast<int>(peers.size()); }));
        }
        ASSERT_TRUE(m_log.Contains(noThread));
        EXPECT_TRUE(corvanetest::WaitFor([&] { return peers.back()->Peek() == 0; }));
        ASSERT_EQ(setrlimit(RLIMIT_AS, &saved), 0);
        EXPECT_EQ(Exchange(kHelp).size(), 1u);
        EXPECT_EQ(m_log.Count(noThread), 1);

        ClientSocket waiting;  // its descriptor is taken while there are some
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
        // The limit sits below every descriptor the process holds, the standard three kept open:
        // no descriptor that another thread closes later can be handed out again, so every
        // accept fails.
        constexpr int kLimit = 3;
        std::vector<std::unique_ptr<ScopedFd>> held;
        for (int fd = 0; fd < kLimit; ++fd) {
            if (fcntl(fd, F_GETFD) < 0) {
                held.push_back(std::make_unique<ScopedFd>(open("/dev/null", O_RDONLY)));
            }
        }
        rlimit none = saved;
        none.rlim_cur = kLimit;
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
        ASSERT_TRUE(waiting.Connect(m_path));
        const std::string noAccept = "Failed to accept client connection";
        ASSERT_TRUE(corvanetest::WaitFor([&] { return m_log.Count(noAccept) >= 2; }));
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
        EXPECT_LE(m_log.Count(noAccept), 1 + static_cast<int>(SecondsSince(start)));
        // The second line stands for every failure since the first.
        std::vector<std::string> lines;
        for (const corvanetest::LogLine& line : m_log.Lines()) {
            if (line.message.find(noAccept) != std::string::npos) {
                lines.push_back(line.message);
            }
        }
        EXPECT_TRUE(lines[1].find("Too many open files") != std::string::npos) << lines[1];
        EXPECT_GT(std::stoi(lines[1].substr(lines[1].rfind(' '))), 1) << lines[1];
        VXCDBMessageString frame;
        EXPECT_TRUE(waiting.Send(kHelp) && waiting.Receive(&frame));
        m_server.reset();  // the child leaves without the fixture's tear-down
    });
}

}  // namespace
