// The debug channel's cost per request: a whole round trip over the socket (connect, send,
// reply, close) from an in-process client, and the command dispatch alone. The round trip
// reports its median and 99th percentile in microseconds.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include "core/controller/corvanesystemimpl.h"
#include "core/controller/vxcdbprotocol.h"
#include "core/server/server.h"

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

void BM_RoundTrip(benchmark::State& state) {
    Channel& channel = Channel::Get();
    const VXCDBMessageString request = HelpRequest();
    while (!RoundTrip(channel.path(), request)) {
        // the accepting thread is still setting up
    }
    std::vector<double> micros;
    micros.reserve(static_cast<size_t>(state.max_iterations));
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        if (!RoundTrip(channel.path(), request)) {
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
BENCHMARK(BM_RoundTrip)->Iterations(20000)->UseRealTime()->Unit(benchmark::kMicrosecond);

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
