// The debug socket server: one accepting thread; every accepted connection is served by a
// Client with its own thread (one request, one reply).
#pragma once

#include <string>

class CorvaneSystem;

struct ServerCreateInputData {
    int backlog = 10;                 // listen backlog
    CorvaneSystem* system = nullptr;  // executes the commands
    std::string socketPath;
};

class Server {
  public:
    virtual ~Server() = default;
    virtual void Stop() = 0;

    static Server* Create(ServerCreateInputData data);
    static void Destroy(Server* server);
};
