// Placeholder until the debug socket server lands: no server is started.
#include "core/server/server.h"

Server* Server::Create(ServerCreateInputData) {
    return nullptr;
}

void Server::Destroy(Server* server) {
    delete server;
}
