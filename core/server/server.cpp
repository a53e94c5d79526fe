#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <system_error>
#include <utility>

#include "core/client/clientimpl.h"
#include "core/controller/corvanesystemlog.h"
#include "core/server/logthrottle.h"
#include "core/server/serverimpl.h"
#include "utils/errortext.h"
#include "utils/scopedfd.h"

namespace {

// Who may connect: anyone who can connect may raise signals in the host process and replace its
// functions, so the socket is open to the service's own user and group only, whatever the umask
// the process was started with (connecting needs write permission on the socket file).
constexpr mode_t kSocketMode = 0660;

}  // namespace

Server* Server::Create(ServerCreateInputData data) {
    try {
        return new ServerImpl(data);
    } catch (const std::system_error& error) {
        // No thread to spare (or no memory for one): the service runs on without the channel.
        CORVANE_LOGE("Failed to start the server thread, error: %s",
                     ErrorText(error.code().value()).c_str());
    } catch (const std::bad_alloc&) {
        CORVANE_LOGE("Failed to start the server thread, error: %s", ErrorText(ENOMEM).c_str());
    }
    return nullptr;
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
    // inside the controller; the controller must outlive them, so each is waited for (by its
    // destructor) before this returns.
    std::vector<std::unique_ptr<ClientImpl>> clients;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        clients.swap(m_clients);
    }
    clients.clear();
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
        CORVANE_LOGE("Failed to restrict socket permissions, error: %s", ErrorText(errno).c_str());
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
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_state.store(kStateStopped);
        if (m_listenFd >= 0) {
            // Wakes the blocked accept (a plain close would not); the accepting thread closes it.
            shutdown(m_listenFd, SHUT_RDWR);
        }
        for (const std::unique_ptr<ClientImpl>& client : m_clients) {
            client->Stop();
            Client::Destroy(client.get());  // a no-op by design: connections end by themselves
        }
    }
    m_stopped.notify_all();
}

void ServerImpl::FreeFinishedClients() {
    auto finished = std::partition(
        m_clients.begin(), m_clients.end(),
        [](const std::unique_ptr<ClientImpl>& client) { return !client->IsFinished(); });
    m_clients.erase(finished, m_clients.end());  // joins each: their threads have returned
}

void ServerImpl::PauseWhileRunning(std::chrono::milliseconds pause) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_stopped.wait_for(lock, pause, [this] { return m_state.load() != kStateRunning; });
}

void ServerImpl::Admit(int fd, LogThrottle& refusals) {
    FreeFinishedClients();
    if (m_clients.size() >= kMaxConnections) {
        close(fd);
        if (int count = refusals.Note(LogThrottle::Clock::now())) {
            CORVANE_LOGE("Too many client connections (%zu open), refused: %d", m_clients.size(),
                         count);
        }
        return;
    }
    CORVANE_LOGI("Setup connect to client: %d", fd);
    Client* client = Client::Create({fd, m_pSystem});
    if (client == nullptr) {
        return;  // its thread could not start; Create closed the descriptor and said why
    }
    // Every connection this server creates is a ClientImpl; the list never outgrows the
    // capacity reserved for it, so adding cannot fail.
    m_clients.emplace_back(static_cast<ClientImpl*>(client));
    if (m_state.load() != kStateRunning) {
        // Stop ran between accept and here and did not see this connection.
        m_clients.back()->Stop();
    }
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
        m_clients.reserve(kMaxConnections);
    }
    LogThrottle acceptFailures(kFailureLogInterval);
    LogThrottle refusals(kFailureLogInterval);
    std::chrono::milliseconds backoff = kAcceptBackoffMin;
    while (m_state.load() == kStateRunning) {
        int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            int error = errno;
            if (m_state.load() != kStateRunning) {
                break;
            }
            if (int count = acceptFailures.Note(LogThrottle::Clock::now())) {
                CORVANE_LOGE("Failed to accept client connection, error: %s, failures: %d",
                             ErrorText(error).c_str(), count);
            }
            // Whatever the cause, retrying at once would only fail again as fast as it can.
            PauseWhileRunning(backoff);
            backoff = std::min(backoff * 2, kAcceptBackoffMax);
            continue;
        }
        backoff = kAcceptBackoffMin;
        std::lock_guard<std::mutex> lock(m_mutex);
        Admit(fd, refusals);
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        close(m_listenFd);
        m_listenFd = -1;
    }
    CORVANE_LOGI("End");
}
