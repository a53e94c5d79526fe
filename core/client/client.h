// One accepted debug connection: its own thread reads one request frame, has the controller
// execute it and writes the reply frame back, then closes the connection.
#pragma once

class CorvaneSystem;

struct ClientCreateInputData {
    int fd = -1;                      // the accepted connection; owned by the client from now on
    CorvaneSystem* system = nullptr;  // executes the commands
};

class Client {
  public:
    virtual ~Client() = default;

    // Starts the connection's thread; it receives nothing before the client is fully set up.
    static Client* Create(ClientCreateInputData data);
    // Deliberately does nothing: a connection ends by itself after its reply, and the server
    // keeps every connection object it accepted until the server itself is destroyed.
    static void Destroy(Client* client);
};
