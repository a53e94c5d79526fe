#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "core/client/clientimpl.h"
#include "core/controller/corvanesystem.h"
#include "core/controller/corvanesystemlog.h"
#include "core/controller/vxcdbprotocol.h"
#include "utils/errortext.h"

namespace {

constexpr int kFrameSize = static_cast<int>(sizeof(VXCDBMessageString));

}  // namespace

Client* Client::Create(ClientCreateInputData data) {
    ClientImpl* client = new ClientImpl(data);
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

void ClientImpl::Run() {
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
        // One receive is one frame: the tool writes each frame whole, and no reassembly is done.
        memset(&frame, 0, sizeof(frame));
        ssize_t received = recv(m_fd, &frame, sizeof(frame), 0);
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
