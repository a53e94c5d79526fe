#include "tests/support/supervisedservice.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

extern char** environ;

namespace corvanetest {

namespace {

constexpr const char* kReadyLine = "camera service: ready";
constexpr const char* kPidLine = "camera service: controller ready (";

int CountEntries(const std::string& dir) {
    std::error_code error;
    auto entries = std::filesystem::directory_iterator(dir, error);
    return error ? -1 : static_cast<int>(std::distance(entries, {}));
}

// What follows "Name:" in /proc/<pid>/status (the value, then the rest of the file), or empty.
std::string StatusField(pid_t pid, const std::string& name) {
    std::string status = ReadTextFile("/proc/" + std::to_string(pid) + "/status");
    size_t at = status.find("\n" + name + ":");
    return at == std::string::npos ? "" : status.substr(at + name.size() + 2);
}

}  // namespace

ProgramOutput RunProgram(std::vector<std::string> words) {
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    ProgramOutput answer;
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        return answer;
    }
    // posix_spawn, not fork: tests call this from many threads at once.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDERR_FILENO);
    pid_t child = -1;
    int spawned = posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    char buffer[4096];
    ssize_t n;
    while ((n = read(pipeFds[0], buffer, sizeof(buffer))) > 0) {
        answer.output.append(buffer, static_cast<size_t>(n));
    }
    close(pipeFds[0]);
    if (spawned != 0) {
        return answer;
    }
    int status = 0;
    if (waitpid(child, &status, 0) == child && WIFEXITED(status)) {
        answer.exitCode = WEXITSTATUS(status);
    }
    return answer;
}

ProcessFigures FiguresOf(pid_t pid) {
    const std::string proc = "/proc/" + std::to_string(pid);
    const std::string rss = StatusField(pid, "VmRSS");
    return {CountEntries(proc + "/fd"), CountEntries(proc + "/task"),
            rss.empty() ? -1 : strtol(rss.c_str(), nullptr, 10)};
}

SupervisedService::SupervisedService() : m_log(m_sysroot / "camera_service.log") {
    if (RunProgram({SourceDir() + "/scripts/make-sysroot.sh", m_sysroot.path(), CORVANE_BUILD_DIR})
            .exitCode != 0) {
        ADD_FAILURE() << "could not lay out the sysroot " << m_sysroot.path();
    }
}

void SupervisedService::AddProperty(const std::string& name, const std::string& value) {
    std::ofstream(m_sysroot.propertyFile(), std::ios::app) << name << "=" << value << "\n";
}

void SupervisedService::Start(bool fileOverride) {
    std::string supervisor = BinDir() + "/corvane_supervisor";
    std::string service = BinDir() + "/corvane_camera_service";
    int log = open(m_log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    m_supervisor = fork();
    if (m_supervisor == 0) {
        // A test that dies (a crash, a timeout) takes its service down with it.
        prctl(PR_SET_PDEATHSIG, SIGINT);
        if (!fileOverride) {
            // Dropped from the bounding set, these stay out of the programs executed below.
            // Without the right to do so (not root) there is nothing to drop anyway.
            for (int capability : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH, CAP_FOWNER}) {
                prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
            }
        }
        dup2(log, STDOUT_FILENO);
        dup2(log, STDERR_FILENO);
        execl(supervisor.c_str(), supervisor.c_str(), "--", service.c_str(), "--sysroot",
              m_sysroot.path().c_str(), "--period-ms", "20", nullptr);
        _exit(127);
    }
    close(log);
}

bool SupervisedService::WaitAnswering() {
    return WaitFor([&] {
               std::string log = Log();
               size_t started = log.rfind("supervisor: camera service started");
               return started != std::string::npos &&
                      log.find(kReadyLine, started) != std::string::npos;
           }) &&
           WaitFor([&] {
               return Vxcdb({"corvane", "--help"}, 1).exitCode == 0;
           });
}

bool SupervisedService::Stop() {
    if (m_supervisor <= 0) {
        return false;
    }
    kill(m_supervisor, SIGINT);
    int status = 0;
    pid_t ended = waitpid(m_supervisor, &status, 0);
    m_supervisor = -1;
    return ended > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

ProgramOutput SupervisedService::Vxcdb(const std::vector<std::string>& arguments,
                                       double timeoutSeconds) const {
    std::vector<std::string> words = {BinDir() + "/vxcdb", "--timeout",
                                      std::to_string(timeoutSeconds)};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return RunProgram(words);
}

int SupervisedService::CountInLog(const std::string& text) const {
    std::string log = Log();
    int count = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
        ++count;
    }
    return count;
}

pid_t SupervisedService::ServicePid() const {
    std::string log = Log();
    size_t line = log.rfind(kPidLine);
    size_t pid = line == std::string::npos ? line : log.find("), pid ", line);
    return pid == std::string::npos ? -1 : static_cast<pid_t>(atoi(log.c_str() + pid + 7));
}

bool SupervisedService::ServiceOverridesFilePermissions() const {
    pid_t pid = ServicePid();
    std::string effective = pid > 0 ? StatusField(pid, "CapEff") : "";
    unsigned long long bits = strtoull(effective.c_str(), nullptr, 16);
    return (bits & (1ull << CAP_DAC_OVERRIDE)) != 0;
}

}  // namespace corvanetest
