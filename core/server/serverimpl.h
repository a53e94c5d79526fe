// The debug socket server behind Server: state 0 (created) -> 1 (listening) -> 2 (stopped).
// One accepting thread; every accepted connection becomes a ClientImpl with its own thread.
// Connection objects are kept while the server runs (Client::Destroy is a no-op) and freed only by
// its destruction, once their threads have ended. Their threads are joined: finished ones by the
// accepting thread after each accept, the rest when the server is destroyed, so neither threads
// nor descriptors accumulate however many requests are served, and no connection thread is still
// inside the controller once the destructor has returned.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/server/server.h"

class Client;
class ClientImpl;

class ServerImpl : public Server {
  public:
    static constexpr int kStateCreated = 0;
    static constexpr int kStateRunning = 1;
    static constexpr int kStateStopped = 2;

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
    // Joins the threads of connections that have ended (m_mutex held).
    void JoinFinishedClients();

    int m_listenFd = -1;
    int m_backlog = 0;
    std::atomic<int> m_state{kStateCreated};
    std::string m_socketPath;
    std::vector<Client*> m_clients;       // every connection ever accepted
    std::vector<ClientImpl*> m_unjoined;  // connections whose thread has not been joined yet
    CorvaneSystem* m_pSystem = nullptr;
    std::mutex m_mutex;    // guards set-up, the listening descriptor and the connection list
    std::thread m_thread;  // last: started once every other member is set
};
