// Helpers shared by the tests: temporary device trees, property files, log capture, child
// processes and deadline waits. Tests use real parts; these only set the stage.
#pragma once

#include <sys/types.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace corvanetest {

// Whole-file text, for files outside a TestSysroot.
void WriteTextFile(const std::string& path, const std::string& content);
std::string ReadTextFile(const std::string& path);

// Sanitizer builds reserve terabytes of address space up front and keep freed memory in a
// quarantine, so tests of address-space limits and of resident memory do not apply to them.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kUnderSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kUnderSanitizer = true;
#else
constexpr bool kUnderSanitizer = false;
#endif
#else
constexpr bool kUnderSanitizer = false;
#endif

// Where the build put the programs, and the source tree.
inline std::string BinDir() {
    return CORVANE_BIN_DIR;
}
inline std::string SourceDir() {
    return CORVANE_SOURCE_DIR;
}

// A temporary directory removed with everything below it when the object goes away.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& relative) const { return m_path + "/" + relative; }

  private:
    std::string m_path;
};

// A device-shaped tree in a temporary directory. While it lives, CORVANE_SYSROOT points at it and
// CORVANE_PROP_FILE at its property file; both are restored afterwards.
class TestSysroot {
  public:
    TestSysroot();
    ~TestSysroot();
    const std::string& path() const { return m_dir.path(); }
    std::string operator/(const std::string& relative) const { return m_dir / relative; }
    // Copies a built library (file name in the build's lib/) into vendor/lib64 under `as` (or its
    // name).
    void InstallLibrary(const std::string& fileName, const std::string& as = "");
    void SetProperty(const std::string& name, const std::string& value);
    void WriteFile(const std::string& relative, const std::string& content);
    std::string ReadFile(const std::string& relative) const {
        return ReadTextFile(m_dir / relative);
    }
    bool Exists(const std::string& relative) const {
        return std::filesystem::exists(m_dir / relative);
    }
    std::string propertyFile() const { return m_dir / "corvane.prop"; }

  private:
    TempDir m_dir;
    std::map<std::string, std::string> m_properties;
    // The variables' values before, null for unset ones.
    std::unique_ptr<std::string> m_oldSysroot, m_oldPropFile;
};

// Changes the working directory for its lifetime (the camera service runs in "/").
class ScopedChdir {
  public:
    explicit ScopedChdir(const std::string& dir) { std::filesystem::current_path(dir); }
    ~ScopedChdir() { std::filesystem::current_path(m_old); }

  private:
    std::filesystem::path m_old = std::filesystem::current_path();
};

struct LogLine {
    int priority;
    std::string tag;
    std::string message;
};

// Captures every line written through the Android log while it lives, at every priority.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    std::vector<LogLine> Lines() const;
    // Number of lines whose message contains `text` (and whose tag is `tag` when given).
    int Count(const std::string& text, const std::string& tag = "") const;
    bool Contains(const std::string& text, const std::string& tag = "") const {
        return Count(text, tag) > 0;
    }
    std::string Dump() const;
};

// Runs `body` in a forked child and returns its wait status: for behaviour fixed once per
// process (cached properties, switches decided at first use). The child exits with body()'s.
int RunInChild(const std::function<int()>& body);
// True when the child exited normally with code 0.
inline bool ChildSucceeded(int status) {
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
// Runs a body that uses EXPECT_*/ASSERT_* in a forked child, which exits 1 when an expectation
// failed there (printing its messages). Returns the wait status.
int RunTestInChild(const std::function<void()>& body);
// RunTestInChild, failing the current test when the child failed.
void ExpectInChild(const std::function<void()>& body);

// Runs `query` on the SQLite file at `path` with the sqlite3 shell (columns separated by '|',
// its error messages included in the output), so that what the code stored is read back by a
// second, independent reader.
std::string Sql(const std::string& path, const std::string& query);

// Waits until `condition` holds or `timeout` passes; returns the last value of `condition`.
bool WaitFor(const std::function<bool()>& condition,
             std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace corvanetest
