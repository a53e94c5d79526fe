#include "tools/vxcdb/vxcdbshellcommand.h"

#include <errno.h>
#include <fcntl.h>
#include <paths.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <sstream>

#include "utils/errortext.h"
#include "utils/scopedfd.h"

namespace vxcdb {

namespace {

using Clock = std::chrono::steady_clock;

// How often the shell's state is looked at while it prints nothing.
constexpr int kWaitSliceMs = 50;

void Keep(std::string* output, const char* data, size_t size) {
    output->append(data, size);
    if (output->size() > kMaxCommandOutputBytes) {
        output->erase(0, output->size() - kMaxCommandOutputBytes);
    }
}

// Reads what is there without blocking; false at end of file or on an error.
bool Drain(int fd, std::string* output) {
    char buffer[4096];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n > 0) {
            Keep(output, buffer, static_cast<size_t>(n));
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
        }
    }
}

void RecordStatus(int status, ShellResult* result) {
    if (WIFEXITED(status)) {
        result->exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result->termSignal = WTERMSIG(status);
    }
}

}  // namespace

std::string ShellResult::Describe() const {
    if (!started) {
        return "not started";
    }
    if (timedOut) {
        std::ostringstream text;
        text << "timed out after " << seconds << " s";
        return text.str();
    }
    if (termSignal != 0) {
        return "killed by signal " + std::to_string(termSignal);
    }
    return "exit " + std::to_string(exitCode);
}

ShellResult RunShellCommand(const std::string& command, const Environment& extra,
                            double timeoutSeconds) {
    ShellResult result;
    const Clock::time_point start = Clock::now();
    const Clock::time_point deadline = start + std::chrono::duration_cast<Clock::duration>(
                                                   std::chrono::duration<double>(timeoutSeconds));
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        result.output = "pipe: " + ErrorText(errno);
        return result;
    }
    ScopedFd readEnd(fds[0]);
    ScopedFd writeEnd(fds[1]);
    pid_t child = fork();
    if (child < 0) {
        result.output = "fork: " + ErrorText(errno);
        return result;
    }
    if (child == 0) {
        // Its own process group, so that the deadline reaches everything the command started.
        setpgid(0, 0);
        int devNull = open("/dev/null", O_RDONLY);
        if (devNull >= 0) {
            dup2(devNull, STDIN_FILENO);
        }
        dup2(writeEnd.get(), STDOUT_FILENO);
        dup2(writeEnd.get(), STDERR_FILENO);
        for (const auto& variable : extra) {
            setenv(variable.first.c_str(), variable.second.c_str(), 1);
        }
        // The system's shell: /bin/sh on a host, /system/bin/sh on a device.
        execl(_PATH_BSHELL, "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    setpgid(child, child);  // also here: whichever runs first, the group exists before a kill
    result.started = true;
    close(writeEnd.release());  // the child's copy is the only writer left
    fcntl(readEnd.get(), F_SETFL, O_NONBLOCK);

    bool open = true;
    int status = 0;
    for (;;) {
        if (waitpid(child, &status, WNOHANG) == child) {
            // What the shell printed is in the pipe by now; descendants it left in the
            // background may keep the pipe open, and are not waited for.
            Drain(readEnd.get(), &result.output);
            RecordStatus(status, &result);
            break;
        }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            kill(-child, SIGKILL);
            waitpid(child, &status, 0);
            Drain(readEnd.get(), &result.output);
            result.timedOut = true;
            break;
        }
        int sliceMs = static_cast<int>(std::min<long long>(left.count(), kWaitSliceMs));
        if (open) {
            pollfd waiting = {readEnd.get(), POLLIN, 0};
            if (poll(&waiting, 1, sliceMs) > 0) {
                open = Drain(readEnd.get(), &result.output);
            }
        } else {
            poll(nullptr, 0, sliceMs);  // output closed: only the exit is left to wait for
        }
    }
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return result;
}

}  // namespace vxcdb
