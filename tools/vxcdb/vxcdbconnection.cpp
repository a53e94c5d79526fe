#include "tools/vxcdb/vxcdbconnection.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>

#include "utils/errortext.h"
#include "utils/scopedfd.h"

namespace vxcdb {

namespace {

using Clock = std::chrono::steady_clock;

int RemainingMs(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

ExchangeResult Fail(ExchangeStatus status, std::string detail) {
    return {status, std::move(detail)};
}

}  // namespace

ExchangeResult Exchange(const std::string& socketPath, const VXCDBMessageString& request,
                        double timeoutSeconds, VXCDBMessageString* reply) {
    const Clock::time_point deadline =
        Clock::now() +
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeoutSeconds));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof(address.sun_path)) {
        return Fail(ExchangeStatus::kCannotConnect, "socket path is too long: " + socketPath);
    }
    memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);

    ScopedFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) {
        return Fail(ExchangeStatus::kCannotConnect, "socket: " + ErrorText(errno));
    }
    // Bounds a connect to a server whose backlog is full, and the send.
    timeval limit = {};
    limit.tv_sec = static_cast<time_t>(timeoutSeconds);
    limit.tv_usec = static_cast<suseconds_t>((timeoutSeconds - limit.tv_sec) * 1e6);
    setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    if (connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        int error = errno;
        if (error == EAGAIN || error == EINPROGRESS || error == ETIMEDOUT) {
            return Fail(ExchangeStatus::kTimeout, "the server did not accept the connection");
        }
        return Fail(ExchangeStatus::kCannotConnect,
                    "cannot connect to " + socketPath + ": " + ErrorText(error));
    }
    // Tells a restarted service from the one before: a campaign must notice a restart even when
    // the supervisor brought the service back between two of its requests.
    pid_t serverPid = -1;
    ucred peer = {};
    socklen_t peerSize = sizeof(peer);
    if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &peerSize) == 0) {
        serverPid = peer.pid;
    }

    const char* out = reinterpret_cast<const char*>(&request);
    size_t sent = 0;
    while (sent < sizeof(request)) {
        ssize_t n = send(fd.get(), out + sent, sizeof(request) - sent, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                return Fail(ExchangeStatus::kTimeout, "the server did not take the request");
            }
            return Fail(ExchangeStatus::kClosed, "sending the request: " + ErrorText(errno));
        }
        sent += static_cast<size_t>(n);
    }

    char* in = reinterpret_cast<char*>(reply);
    size_t received = 0;
    while (received < sizeof(*reply)) {
        pollfd waiting = {fd.get(), POLLIN, 0};
        int ready = poll(&waiting, 1, RemainingMs(deadline));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return Fail(ExchangeStatus::kTimeout, "no reply within the timeout");
        }
        ssize_t n = recv(fd.get(), in + received, sizeof(*reply) - received, 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            ExchangeResult closed =
                Fail(ExchangeStatus::kClosed,
                     received == 0 ? "the server closed the connection without a reply"
                                   : "the server closed the connection in the middle of "
                                     "the reply");
            closed.partialReply = received > 0;
            return closed;
        }
        received += static_cast<size_t>(n);
    }
    ExchangeResult result;
    result.serverPid = serverPid;
    return result;
}

}  // namespace vxcdb
