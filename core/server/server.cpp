#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "core/client/clientimpl.h"
#include "core/controller/corvanesystemlog.h"
#include "core/server/serverimpl.h"
#include "utils/errortext.h"
#include "utils/scopedfd.h"

namespace {

// Pause after an accept failure caused by exhausted resources (descriptors, memory), so that the
// accepting thread retries instead of spinning while they last.
constexpr std::chrono::milliseconds kAcceptBackoff(10);

// Who may connect: anyone who can connect may raise signals in the host process and replace its
// functions, so the socket is open to the service's own user and group only, whatever the umask
// the process was started with (connecting needs write permission on the socket file).
constexpr mode_t kSocketMode = 0660;

bool IsResourceExhausted(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

Server* Server::Create(ServerCreateInputData data) {
    return new ServerImpl(data);
}

void Server::Destroy(Server* server) {
    delete server;
}

ServerImpl::ServerImpl(const ServerCreateInputData& data)
    : m_backlog(data.backlog),
      m_socketPath(data.socketPath),
      m_pSystem(data.system),
      m_thread(&ServerImpl::Run, this) {}

ServerImpl::~ServerImpl() {
    Stop();
    if (m_thread.joinable()) {
        m_thread.join();
    }
    // The accepting thread has ended, so the list is final. Connections still running may be
    // inside the controller; the controller must outlive them, so wait for each.
    std::vector<ClientImpl*> running;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        running.swap(m_unjoined);
    }
    for (ClientImpl* client : running) {
        client->Join();
    }
    // Every connection thread has ended: nothing can reach a connection object any more.
    for (Client* client : m_clients) {
        delete client;
    }
    m_clients.clear();
    if (m_listenFd >= 0) {
        close(m_listenFd);
        m_listenFd = -1;
    }
}

int ServerImpl::Initialize(const ServerCreateInputData&) {
    return 0;
}

int ServerImpl::SetupConnect() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state.load() == kStateRunning) {
        CORVANE_LOGI("Server in running state");
        return 0;
    }
    if (m_state.load() == kStateStopped) {
        return 1;  // stopped before the accepting thread got here: never start listening
    }
    unlink(m_socketPath.c_str());  // a socket file left by an earlier run would make bind fail
    ScopedFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) {
        CORVANE_LOGE("Failed to create socket, error: %s", ErrorText(errno).c_str());
        return 1;
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, m_socketPath.c_str(), sizeof(address.sun_path) - 1);
    socklen_t length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(address.sun_path) + 1);
    // Deliberately only a result of 1 counts as failure here; an ordinary -1 falls through to
    // listen, which then fails on the unbound socket and ends the set-up there.
    int bound = bind(fd.get(), reinterpret_cast<sockaddr*>(&address), length);
    if (bound == 1) {
        CORVANE_LOGE("Failed to bind port");
        return 1;
    }
    // Before listen, so no peer can connect while the umask's mode is still in place.
    if (bound == 0 && chmod(address.sun_path, kSocketMode) != 0) {
        char text[128];
        CORVANE_LOGE("Failed to restrict socket permissions, error: %s",
                     strerror_r(errno, text, sizeof(text)));
    }
    if (listen(fd.get(), m_backlog) != 0) {
        CORVANE_LOGE("Failed to listen on socket, error: %s", ErrorText(errno).c_str());
        return 1;
    }
    m_listenFd = fd.release();
    m_state.store(kStateRunning);
    CORVANE_LOGI("Setup Server Socket: %s", m_socketPath.c_str());
    return 0;
}

void ServerImpl::Stop() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_state.store(kStateStopped);
    if (m_listenFd >= 0) {
        // Wakes the blocked accept (a plain close would not); the accepting thread closes it.
        shutdown(m_listenFd, SHUT_RDWR);
    }
    for (ClientImpl* client : m_unjoined) {
        client->Stop();
    }
    for (Client* client : m_clients) {
        Client::Destroy(client);  // a no-op by design: connections end by themselves
    }
}

void ServerImpl::JoinFinishedClients() {
    auto finished = std::partition(m_unjoined.begin(), m_unjoined.end(),
                                   [](ClientImpl* client) { return !client->IsFinished(); });
    for (auto it = finished; it != m_unjoined.end(); ++it) {
        (*it)->Join();
    }
    m_unjoined.erase(finished, m_unjoined.end());
}

void ServerImpl::Run() {
    if (SetupConnect() != 0 || m_state.load() != kStateRunning) {
        CORVANE_LOGI("End");
        return;
    }
    int listenFd = -1;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        listenFd = m_listenFd;
    }
    while (m_state.load() == kStateRunning) {
        int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            int error = errno;
            if (m_state.load() != kStateRunning) {
                break;
            }
            CORVANE_LOGE("Failed to accept client connection");
            if (IsResourceExhausted(error)) {
                std::this_thread::sleep_for(kAcceptBackoff);
            }
            continue;
        }
        CORVANE_LOGI("Setup connect to client: %d", fd);
        Client* client = Client::Create({fd, m_pSystem});
        std::lock_guard<std::mutex> lock(m_mutex);
        m_clients.push_back(client);
        // Every connection this server creates is a ClientImpl.
        m_unjoined.push_back(static_cast<ClientImpl*>(client));
        if (m_state.load() != kStateRunning) {
            // Stop ran between accept and here and did not see this connection.
            static_cast<ClientImpl*>(client)->Stop();
        }
        JoinFinishedClients();
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        close(m_listenFd);
        m_listenFd = -1;
    }
    CORVANE_LOGI("End");
}
