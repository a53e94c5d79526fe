// The whole system as a user runs it, for tests that drive it from outside: the host camera
// service under its supervisor on a temporary sysroot laid out with the sample configuration,
// reached with the real vxcdb binary, observed through its log and /proc.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/support/testsupport.h"

namespace corvanetest {

// What one program run printed (standard output and error together) and its exit code.
struct ProgramOutput {
    std::string output;
    int exitCode = -1;  // -1 when it did not exit normally
};

// Runs a program (looked up in PATH when the name has no slash) with these words as its argv, no
// shell involved; its output and exit code. Safe to call from many threads.
ProgramOutput RunProgram(std::vector<std::string> words);

// Resources a process holds, read from /proc.
struct ProcessFigures {
    int descriptors = -1;  // entries of /proc/<pid>/fd
    int threads = -1;      // entries of /proc/<pid>/task
    long rssKiB = -1;      // VmRSS of /proc/<pid>/status
};
ProcessFigures FiguresOf(pid_t pid);

// Owns the sysroot, the supervisor and its log. The sysroot is laid out at construction, so a
// test can break it before Start(); the supervisor is stopped (SIGINT) at destruction.
class SupervisedService {
  public:
    SupervisedService();
    ~SupervisedService() { Stop(); }
    SupervisedService(const SupervisedService&) = delete;
    SupervisedService& operator=(const SupervisedService&) = delete;

    TestSysroot& sysroot() { return m_sysroot; }
    std::string Path(const std::string& relative) const { return m_sysroot / relative; }
    // Appends a property line; the last line of a name wins. Read by the service at its start.
    void AddProperty(const std::string& name, const std::string& value);

    // Starts the supervisor with the service. Without `fileOverride` the processes run without
    // the capabilities that let root ignore file permissions (as a device's camera service,
    // which is not root); where they cannot be dropped the service keeps them, see
    // ServiceOverridesFilePermissions().
    void Start(bool fileOverride = false);
    // Waits until the log holds "camera service: ready" for the latest start and the debug channel
    // answers.
    bool WaitAnswering();
    // Stops the supervisor; true when it ended by itself with status 0 (the service had not
    // died, and stopped cleanly).
    bool Stop();

    // Runs vxcdb with these arguments (no shell involved: arguments are passed as they are).
    ProgramOutput Vxcdb(const std::vector<std::string>& arguments,
                        double timeoutSeconds = 10) const;

    std::string Log() const { return ReadTextFile(m_log); }
    int CountInLog(const std::string& text) const;
    bool LogContains(const std::string& text) const { return CountInLog(text) > 0; }
    bool WaitForLog(const std::string& text,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
        return WaitFor([&] { return LogContains(text); }, timeout);
    }
    // The pid of the latest service started, from its line "camera service: controller ready
    // (...), pid N"; -1 before there is one.
    pid_t ServicePid() const;
    // Whether the service may write files whatever their permissions (CAP_DAC_OVERRIDE).
    bool ServiceOverridesFilePermissions() const;

  private:
    TestSysroot m_sysroot;
    std::string m_log;
    pid_t m_supervisor = -1;
};

}  // namespace corvanetest
