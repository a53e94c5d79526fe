#include "tests/support/testsupport.h"

#include <android/log.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/supervisedservice.h"

namespace fs = std::filesystem;

namespace corvanetest {

TempDir::TempDir() : m_path((fs::temp_directory_path() / "corvane-test-XXXXXX").string()) {
    if (mkdtemp(m_path.data()) == nullptr) {
        abort();
    }
}

TempDir::~TempDir() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}

namespace {

// Sets the variable and returns its previous value, null when it was unset.
std::unique_ptr<std::string> SwapEnv(const char* name, const std::string& value) {
    const char* old = getenv(name);
    std::unique_ptr<std::string> saved(old == nullptr ? nullptr : new std::string(old));
    setenv(name, value.c_str(), 1);
    return saved;
}

void RestoreEnv(const char* name, const std::unique_ptr<std::string>& old) {
    old == nullptr ? unsetenv(name) : setenv(name, old->c_str(), 1);
}

}  // namespace

TestSysroot::TestSysroot() {
    for (const char* dir :
         {"odm/etc/camera", "data/vendor/camera", "vendor/lib64", "sys/module/camera/parameters"}) {
        fs::create_directories(m_dir / dir);
    }
    m_oldSysroot = SwapEnv("CORVANE_SYSROOT", m_dir.path());
    m_oldPropFile = SwapEnv("CORVANE_PROP_FILE", propertyFile());
    WriteFile("corvane.prop", "");
}

TestSysroot::~TestSysroot() {
    RestoreEnv("CORVANE_SYSROOT", m_oldSysroot);
    RestoreEnv("CORVANE_PROP_FILE", m_oldPropFile);
}

void TestSysroot::InstallLibrary(const std::string& fileName, const std::string& as) {
    fs::copy_file(fs::path(CORVANE_LIB_DIR) / fileName,
                  fs::path(m_dir / "vendor/lib64") / (as.empty() ? fileName : as),
                  fs::copy_options::overwrite_existing);
}

void TestSysroot::SetProperty(const std::string& name, const std::string& value) {
    m_properties[name] = value;
    std::string text;
    for (const auto& [key, setting] : m_properties) {
        text += key + "=" + setting + "\n";
    }
    WriteFile("corvane.prop", text);
}

void TestSysroot::WriteFile(const std::string& relative, const std::string& content) {
    fs::create_directories(fs::path(m_dir / relative).parent_path());
    WriteTextFile(m_dir / relative, content);
}

namespace {

std::mutex g_logMutex;
std::vector<LogLine>* g_logLines = nullptr;

void CaptureLogger(const struct __android_logger_data* data, const char* message) {
    std::lock_guard<std::mutex> lock(g_logMutex);
    if (g_logLines != nullptr) {
        g_logLines->push_back({data->priority, data->tag == nullptr ? "" : data->tag,
                               message == nullptr ? "" : message});
    }
}

}  // namespace

LogCapture::LogCapture() {
    {
        std::lock_guard<std::mutex> lock(g_logMutex);
        delete g_logLines;
        g_logLines = new std::vector<LogLine>();
    }
    // Outside g_logMutex: liblog holds its own lock while it calls CaptureLogger.
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(CaptureLogger);
}

LogCapture::~LogCapture() {
    __android_log_set_logger(__android_log_stderr_logger);
    std::lock_guard<std::mutex> lock(g_logMutex);
    delete g_logLines;
    g_logLines = nullptr;
}

std::vector<LogLine> LogCapture::Lines() const {
    std::lock_guard<std::mutex> lock(g_logMutex);
    return g_logLines == nullptr ? std::vector<LogLine>() : *g_logLines;
}

int LogCapture::Count(const std::string& text, const std::string& tag) const {
    int count = 0;
    for (const LogLine& line : Lines()) {
        count += line.message.find(text) != std::string::npos && (tag.empty() || line.tag == tag);
    }
    return count;
}

std::string LogCapture::Dump() const {
    std::string text;
    for (const LogLine& line : Lines()) {
        text += std::to_string(line.priority) + " " + line.tag + " " + line.message + "\n";
    }
    return text;
}

int RunInChild(const std::function<int()>& body) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int code = body();
        fflush(nullptr);
        _exit(code);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

int RunTestInChild(const std::function<void()>& body) {
    return RunInChild([&body] {
        body();
        return ::testing::Test::HasFailure() ? 1 : 0;
    });
}

void ExpectInChild(const std::function<void()>& body) {
    EXPECT_TRUE(ChildSucceeded(RunTestInChild(body))) << "the scenario failed in its child";
}

void WriteTextFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string ReadTextFile(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

std::string Sql(const std::string& path, const std::string& query) {
    // A running service may be writing: wait for its lock as it waits for ours.
    return RunProgram({"sqlite3", "-separator", "|", "-cmd", ".timeout 5000", path, query}).output;
}

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace corvanetest
