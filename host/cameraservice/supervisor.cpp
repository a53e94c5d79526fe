// Keeps the camera service running as init does on a device: a service that dies by SIGHUP or
// SIGABRT (the library's reload path) is started again; one that exits or dies otherwise ends
// the supervisor with its status. SIGINT or SIGTERM stop the service and then the supervisor.
//
//   corvane_supervisor [--max-restarts N] -- COMMAND [ARGS...]
//
// More than N restarts within ten seconds (default 5) is taken as a crash loop and ends it.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <deque>

namespace {

volatile sig_atomic_t g_stopRequested = 0;
volatile pid_t g_child = 0;

void OnStop(int) {
    g_stopRequested = 1;
    if (g_child > 0) {
        kill(g_child, SIGTERM);
    }
}

pid_t Start(char** command) {
    pid_t pid = fork();
    if (pid == 0) {
        signal(SIGINT, SIG_DFL);
        signal(SIGTERM, SIG_DFL);
        execvp(command[0], command);
        fprintf(stderr, "supervisor: cannot run %s: %s\n", command[0], strerror(errno));
        _exit(127);
    }
    return pid;
}

bool RestartsOnSignal(int status) {
    return WIFSIGNALED(status) && (WTERMSIG(status) == SIGHUP || WTERMSIG(status) == SIGABRT);
}

}  // namespace

int main(int argc, char** argv) {
    int maxRestarts = 5;
    int first = 1;
    while (first < argc && strcmp(argv[first], "--") != 0) {
        if (strcmp(argv[first], "--max-restarts") == 0 && first + 1 < argc) {
            maxRestarts = atoi(argv[++first]);
        } else {
            fprintf(stderr, "usage: %s [--max-restarts N] -- COMMAND [ARGS...]\n", argv[0]);
            return 2;
        }
        ++first;
    }
    if (first + 1 >= argc) {
        fprintf(stderr, "usage: %s [--max-restarts N] -- COMMAND [ARGS...]\n", argv[0]);
        return 2;
    }
    char** command = argv + first + 1;

    struct sigaction stop = {};
    stop.sa_handler = OnStop;
    sigaction(SIGINT, &stop, nullptr);
    sigaction(SIGTERM, &stop, nullptr);

    std::deque<time_t> restarts;
    while (true) {
        g_child = Start(command);
        if (g_child < 0) {
            fprintf(stderr, "supervisor: fork failed: %s\n", strerror(errno));
            return 1;
        }
        fprintf(stderr, "supervisor: camera service started, pid %d\n", g_child);
        int status = 0;
        while (waitpid(g_child, &status, 0) < 0 && errno == EINTR) {
        }
        g_child = 0;
        if (g_stopRequested != 0) {
            fprintf(stderr, "supervisor: stopped\n");
            return 0;
        }
        if (!RestartsOnSignal(status)) {
            if (WIFSIGNALED(status)) {
                fprintf(stderr, "supervisor: camera service died by signal %d\n", WTERMSIG(status));
                return 128 + WTERMSIG(status);
            }
            fprintf(stderr, "supervisor: camera service exited with %d\n", WEXITSTATUS(status));
            return WEXITSTATUS(status);
        }
        time_t now = time(nullptr);
        restarts.push_back(now);
        while (!restarts.empty() && now - restarts.front() > 10) {
            restarts.pop_front();
        }
        if (static_cast<int>(restarts.size()) > maxRestarts) {
            fprintf(stderr, "supervisor: restarted %zu times in ten seconds, giving up\n",
                    restarts.size());
            return 1;
        }
        fprintf(stderr, "supervisor: camera service died by signal %d, restarting\n",
                WTERMSIG(status));
    }
}
