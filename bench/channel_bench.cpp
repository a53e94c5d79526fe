// The debug channel's cost per request: a whole round trip over the socket (connect, send,
// reply, close) from an in-process client, alone and with a thousand idle peers connected, and
// the command dispatch alone. The round trips report their median and 99th percentile in
// microseconds. A last run measures the growth of resident memory over many sequential
// connections once the allocator and the stack cache are warm.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/controller/corvanesystemimpl.h"
#include "core/controller/vxcdbprotocol.h"
#include "core/server/server.h"
#include "core/server/serverimpl.h"

namespace {

// A controller with every sub-module off and a server on a temporary socket, for the whole run.
// Logging is silenced so that the figures measure the channel, not the terminal.
class Channel {
  public:
    static Channel& Get() {
        static Channel channel;
        return channel;
    }
    const std::string& path() const { return m_path; }
    CorvaneSystem* system() const { return m_system; }

  private:
    Channel() {
        char pattern[] = "/tmp/corvane-bench-XXXXXX";
        m_dir = mkdtemp(pattern);
        std::ofstream(m_dir + "/prop") << "persist.vendor.camera.cloud.corvanesys.loglevel=7\n";
        setenv("CORVANE_PROP_FILE", (m_dir + "/prop").c_str(), 1);
        setenv("CORVANE_SYSROOT", m_dir.c_str(), 1);
        m_path = m_dir + "/vxcdb_socket";
        m_system = CorvaneSystem::Create();
        m_server = Server::Create({10, m_system, m_path});
    }
    ~Channel() {
        Server::Destroy(m_server);
        CorvaneSystem::Destroy(m_system);
        unlink(m_path.c_str());
        unlink((m_dir + "/prop").c_str());
        rmdir(m_dir.c_str());
    }
    std::string m_dir, m_path;
    CorvaneSystem* m_system = nullptr;
    Server* m_server = nullptr;
};

VXCDBMessageString HelpRequest() {
    VXCDBMessage message;
    message.set_modulename("corvane");
    message.set_moduletype(VXCDBMessage::CORVANE);
    VXCDBMessage_CDBCmd* command = message.add_cmds();
    command->set_options("help");
    command->add_arguments("help");
    VXCDBMessageString frame;
    memset(&frame, 0, sizeof(frame));
    std::string bytes = message.SerializeAsString();
    memcpy(frame.payload, bytes.data(), bytes.size());
    frame.payloadLen = static_cast<int32_t>(bytes.size());
    return frame;
}

// One request on a fresh connection, as the tool does it; false when no whole reply came.
bool RoundTrip(const std::string& path, const VXCDBMessageString& request) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
              send(fd, &request, sizeof(request), MSG_NOSIGNAL) == sizeof(request);
    VXCDBMessageString reply;
    size_t received = 0;
    while (ok && received < sizeof(reply)) {
        ssize_t n =
            recv(fd, reinterpret_cast<char*>(&reply) + received, sizeof(reply) - received, 0);
        ok = n > 0;
        received += ok ? static_cast<size_t>(n) : 0;
    }
    close(fd);
    return ok;
}

// Connects to `path` and sends nothing; closed when it goes away.
class IdlePeer {
  public:
    explicit IdlePeer(const std::string& path) : m_fd(socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    }
    ~IdlePeer() { close(m_fd); }
    IdlePeer(const IdlePeer&) = delete;
    IdlePeer& operator=(const IdlePeer&) = delete;

  private:
    int m_fd;
};

int ThreadCount() {
    int threads = 0;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("Threads:", 0) == 0) {
            threads = std::stoi(line.substr(8));
        }
    }
    return threads;
}

long RssKiB() {
    long kib = 0;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            kib = std::stol(line.substr(6));
        }
    }
    return kib;
}

void MeasureRoundTrips(benchmark::State& state, const std::string& path) {
    const VXCDBMessageString request = HelpRequest();
    while (!RoundTrip(path, request)) {
        // the accepting thread is still setting up
    }
    std::vector<double> micros;
    micros.reserve(static_cast<size_t>(state.max_iterations));
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        if (!RoundTrip(path, request)) {
            state.SkipWithError("request not answered");
            break;
        }
        micros.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
                .count());
    }
    if (micros.empty()) {
        return;
    }
    std::sort(micros.begin(), micros.end());
    state.counters["median_us"] = micros[micros.size() / 2];
    state.counters["p99_us"] = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
}

void BM_RoundTrip(benchmark::State& state) {
    MeasureRoundTrips(state, Channel::Get().path());
}
BENCHMARK(BM_RoundTrip)->Iterations(20000)->UseRealTime()->Unit(benchmark::kMicrosecond);

// A thousand idle peers: all but two of the server's connection slots are held by idle peers
// (each with its thread waiting for a request), the rest are refused and stay open on the
// client side. The two free slots serve the measured requests: a finished connection's slot is
// taken back when the next one is accepted. Measured within the idle peers' deadline.
void BM_RoundTripWithIdlePeers(benchmark::State& state) {
    constexpr size_t kIdlePeers = 1000;
    const std::string& path = Channel::Get().path();
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, 4096));
    setrlimit(RLIMIT_NOFILE, &limit);
    while (!RoundTrip(path, HelpRequest())) {
    }
    const int threadsBefore = ThreadCount();
    std::vector<std::unique_ptr<IdlePeer>> peers;
    std::vector<std::unique_ptr<IdlePeer>> fillers;
    for (size_t i = 0; i < ServerImpl::kMaxConnections - 2; ++i) {
        peers.push_back(std::make_unique<IdlePeer>(path));
    }
    for (int i = 0; i < 2; ++i) {
        fillers.push_back(std::make_unique<IdlePeer>(path));
    }
    while (peers.size() < kIdlePeers) {
        peers.push_back(std::make_unique<IdlePeer>(path));
    }
    fillers.clear();  // frees two slots for the measured requests
    state.counters["server_threads_held"] = ThreadCount() - threadsBefore;
    MeasureRoundTrips(state, path);
    peers.clear();
}
BENCHMARK(BM_RoundTripWithIdlePeers)
    ->Iterations(2000)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

// Resident memory over many sequential connections once warm: the server must keep nothing per
// served connection.
void BM_RssGrowthOverSequentialConnections(benchmark::State& state) {
    constexpr int kWarmUp = 5000;
    constexpr int kConnections = 100000;
    const std::string& path = Channel::Get().path();
    const VXCDBMessageString request = HelpRequest();
    for (auto _ : state) {
        for (int i = 0; i < kWarmUp; ++i) {
            RoundTrip(path, request);
        }
        const long before = RssKiB();
        int answered = 0;
        for (int i = 0; i < kConnections; ++i) {
            answered += RoundTrip(path, request);
        }
        const long after = RssKiB();
        state.counters["connections"] = answered;
        state.counters["rss_growth_KiB"] = static_cast<double>(after - before);
        state.counters["bytes_per_connection"] =
            static_cast<double>(after - before) * 1024 / kConnections;
    }
}
BENCHMARK(BM_RssGrowthOverSequentialConnections)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_ExecuteCommand(benchmark::State& state) {
    CorvaneSystem* system = Channel::Get().system();
    VXCDBMessageString request = HelpRequest();
    VXCDBMessageString reply;
    for (auto _ : state) {
        benchmark::DoNotOptimize(system->ExecuteCommand(&request, &reply));
    }
}
BENCHMARK(BM_ExecuteCommand)->Unit(benchmark::kMicrosecond);

}  // namespace
