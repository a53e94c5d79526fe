#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <system_error>

#include "core/client/clientimpl.h"
#include "core/controller/corvanesystem.h"
#include "core/controller/corvanesystemlog.h"
#include "core/controller/vxcdbprotocol.h"
#include "utils/errortext.h"

namespace {

constexpr int kFrameSize = static_cast<int>(sizeof(VXCDBMessageString));

// Waits until `fd` has data, an end or an error to report, or `until` passes (false then).
bool WaitReadable(int fd, std::chrono::steady_clock::time_point until) {
    for (;;) {
        auto left =
            std::chrono::ceil<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
        pollfd readable = {fd, POLLIN, 0};
        int ready = poll(&readable, 1, static_cast<int>(std::max<long long>(0, left.count())));
        if (ready > 0 || (ready < 0 && errno != EINTR)) {
            return true;  // a failure of poll is left to recv to report
        }
        if (ready == 0 && left.count() <= 0) {
            return false;
        }
    }
}

void LogThreadFailure(int fd, int error) {
    CORVANE_LOGE("Failed to start the client thread, client fd: %d, error: %s", fd,
                 ErrorText(error).c_str());
}

}  // namespace

Client* Client::Create(ClientCreateInputData data) {
    ClientImpl* client = nullptr;
    try {
        client = new ClientImpl(data);
    } catch (const std::system_error& error) {
        // Out of threads or of address space for a stack: this connection is dropped, the
        // server goes on.
        LogThreadFailure(data.fd, error.code().value());
    } catch (const std::bad_alloc&) {
        LogThreadFailure(data.fd, ENOMEM);
    }
    if (client == nullptr) {
        if (data.fd >= 0) {
            close(data.fd);
        }
        return nullptr;
    }
    client->Initialize();
    return client;
}

void Client::Destroy(Client*) {}

ClientImpl::ClientImpl(const ClientCreateInputData& data)
    : m_fd(data.fd), m_pSystem(data.system), m_thread(&ClientImpl::Run, this) {}

ClientImpl::~ClientImpl() {
    Stop();
    Join();
    if (m_fd >= 0) {
        close(m_fd);
    }
}

int ClientImpl::Initialize() {
    CORVANE_LOGI("The client thread is ready to start, client fd: %d, corvane system pointer: %p",
                 m_fd, static_cast<void*>(m_pSystem));
    SetState(kStateReady);
    return 0;
}

void ClientImpl::Stop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_fd >= 0) {
            // Wakes a receive or send in progress; the connection thread closes the descriptor.
            shutdown(m_fd, SHUT_RDWR);
        }
    }
    SetState(kStateStopped);
}

void ClientImpl::Join() {
    if (m_thread.joinable() && m_thread.get_id() != std::this_thread::get_id()) {
        m_thread.join();
    }
}

void ClientImpl::SetState(int state) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_state.store(state);
    }
    m_stateChanged.notify_all();
}

void ClientImpl::CloseConnection() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd >= 0) {
        shutdown(m_fd, SHUT_RDWR);
        close(m_fd);
        m_fd = -1;
    }
}

ssize_t ClientImpl::ReceiveFrame(VXCDBMessageString* frame, Clock::time_point deadline,
                                 bool* late) {
    char* bytes = reinterpret_cast<char*>(frame);
    *late = !WaitReadable(m_fd, deadline);
    if (*late) {
        return 0;
    }
    ssize_t received = recv(m_fd, bytes, kFrameSize, 0);
    while (received > 0 && received < kFrameSize) {
        if (!WaitReadable(m_fd, std::min(Clock::now() + kFramePiecePause, deadline))) {
            *late = Clock::now() >= deadline;
            return *late ? 0 : received;  // a pause: the frame stays short
        }
        ssize_t more = recv(m_fd, bytes + received, kFrameSize - received, 0);
        if (more <= 0) {
            break;  // the peer closed or failed: what came is the frame
        }
        received += more;
    }
    return received;
}

void ClientImpl::Run() {
    const Clock::time_point deadline = Clock::now() + kConnectionDeadline;
    VXCDBMessageString frame;
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_stateChanged.wait(lock, [this] { return m_state.load() != kStateCreated; });
        }
        if (m_state.load() == kStateStopped) {
            break;
        }
        if (m_fd == -1) {
            CORVANE_LOGE("Client fd is invalid, thread is stopping");
            break;
        }
        memset(&frame, 0, sizeof(frame));
        bool late = false;
        ssize_t received = ReceiveFrame(&frame, deadline, &late);
        if (late) {
            CORVANE_LOGE("No request from client %d within %lld ms, closing the connection", m_fd,
                         static_cast<long long>(kConnectionDeadline.count()));
            break;
        }
        if (received <= 0) {
            int error = errno;
            CORVANE_LOGE("Failed to receive message from client: %d, error message: %s", m_fd,
                         ErrorText(error).c_str());
            break;
        }
        if (Process(&frame) != 0) {
            break;  // one request and one reply per connection
        }
    }
    CloseConnection();
    SetState(kStateStopped);
    m_finished.store(true);
}

int ClientImpl::Send(const VXCDBMessageString& frame) {
    // MSG_NOSIGNAL: a tool that hung up must not take the host process down with SIGPIPE.
    return static_cast<int>(send(m_fd, &frame, kFrameSize, MSG_NOSIGNAL));
}

int ClientImpl::Process(VXCDBMessageString* request) {
    CORVANE_LOGE("msgType = %d, payloadLen %d", request->msgType, request->payloadLen);
    VXCDBMessage message;
    if (!DecodeVXCDBMessage(*request, &message)) {
        CORVANE_LOGE("ERROR, can't process the protobuf!");
        return 0;
    }
    int result = 0;
    VXCDBMessageString reply;
    switch (message.moduletype()) {
        case VXCDBMessage::CORVANE:
            memset(&reply, 0, sizeof(reply));
            if (m_pSystem == nullptr) {
                result = Send(*request);
                CORVANE_LOGE("moduleType CORVANE is null");
                return result;
            }
            m_pSystem->ExecuteCommand(request, &reply);
            CORVANE_LOGD("feed back message data size: %d", kFrameSize);
            result = Send(reply);
            if (m_pSystem->NeedReload()) {
                // The service is about to restart: nothing more on this connection.
                CloseConnection();
                SetState(kStateStopped);
            }
            return result;
        case VXCDBMessage::DEBUG:
            memset(&reply, 0, sizeof(reply));
            if (m_pSystem == nullptr) {
                result = Send(*request);
                CORVANE_LOGE("moduleType DEBUG is null");
            } else {
                m_pSystem->ExecuteCommand(request, &reply);
                CORVANE_LOGD("feed back message data size: %d", kFrameSize);
                result = Send(reply);
            }
            // Deliberate fall-through: a debug request is also echoed, so the tool receives the
            // reply and then its own request; it reads the first frame.
            [[fallthrough]];
        default:
            CORVANE_LOGE("rcv moduleType other");
            result = Send(*request);
            return result;
    }
}
