// The debug socket server behind Server: state 0 (created) -> 1 (listening) -> 2 (stopped).
// One accepting thread; every accepted connection becomes a ClientImpl with its own thread.
//
// Whatever a local peer does, the server holds at most kMaxConnections connections (threads and
// descriptors) at a time; each of them ends by itself within the connection's deadline (see
// ClientImpl) or after its reply. A connection over the cap, or one whose thread cannot be
// started, is closed at once and the server goes on accepting. Finished connections are joined
// and freed by the accepting thread before it admits the next one, so memory stays flat however
// many requests are served. Accept failures (out of descriptors or memory) back off from
// kAcceptBackoffMin to kAcceptBackoffMax, and repeated failures are folded into one log line a
// second. The destructor returns only once every connection thread has ended, so none is still
// inside the controller afterwards.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/server/logthrottle.h"
#include "core/server/server.h"

class ClientImpl;

class ServerImpl : public Server {
  public:
    static constexpr int kStateCreated = 0;
    static constexpr int kStateRunning = 1;
    static constexpr int kStateStopped = 2;

    // Live connections at most: the tool makes one connection at a time, so this leaves room for
    // scripts running it in parallel while bounding what idle peers can hold in the camera
    // service (a thread with its stack and a descriptor each; descriptors are shared with the
    // whole service, whose limit may be as low as 128).
    static constexpr size_t kMaxConnections = 32;
    // First pause after a failed accept: long enough not to spin while descriptors or memory are
    // exhausted, short enough that a passing shortage costs a tool nothing it would notice.
    static constexpr std::chrono::milliseconds kAcceptBackoffMin{10};
    // Longest pause: the pause doubles with each failure in a row up to this, so a lasting
    // shortage costs one wake-up a second; a tool waits 5 s by default, so it is still answered.
    static constexpr std::chrono::milliseconds kAcceptBackoffMax{1000};
    // At most one log line per this interval for a repeated failure (accept, refused
    // connection), with the number of failures it stands for.
    static constexpr std::chrono::seconds kFailureLogInterval{1};

    // Takes the input, then starts the accepting thread, which sets up the socket itself.
    explicit ServerImpl(const ServerCreateInputData& data);
    // Stops, waits for the accepting thread and every connection thread, then frees the
    // connection objects. The socket file is left in place; the next start-up removes it before
    // binding.
    ~ServerImpl() override;

    int Initialize(const ServerCreateInputData& data);
    // Binds and listens: 0 when listening (or already running), 1 on failure.
    int SetupConnect();
    // Stops accepting and ends every open connection; threads end by themselves.
    void Stop() override;

  private:
    void Run();
    // Admits an accepted connection, or closes it when the server is full or its thread cannot
    // start (m_mutex held). Refusals are counted in `refusals`.
    void Admit(int fd, LogThrottle& refusals);
    // Joins and frees the connections that have ended (m_mutex held).
    void FreeFinishedClients();
    // Sleeps for `pause`, or less when the server is stopped meanwhile.
    void PauseWhileRunning(std::chrono::milliseconds pause);

    int m_listenFd = -1;
    int m_backlog = 0;
    std::atomic<int> m_state{kStateCreated};
    std::string m_socketPath;
    std::vector<std::unique_ptr<ClientImpl>>
        m_clients;  // live connections, kMaxConnections at most
    CorvaneSystem* m_pSystem = nullptr;
    std::mutex m_mutex;  // guards set-up, the listening descriptor and the connection list
    std::condition_variable m_stopped;  // wakes an accept back-off when the server stops
    std::thread m_thread;               // last: started once every other member is set
};
