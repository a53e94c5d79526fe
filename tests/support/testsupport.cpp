#include "tests/support/testsupport.h"

#include <android/log.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

namespace corvanetest {

std::string LibDir() {
    return CORVANE_LIB_DIR;
}
std::string BinDir() {
    return CORVANE_BIN_DIR;
}
std::string SourceDir() {
    return CORVANE_SOURCE_DIR;
}

TempDir::TempDir() {
    std::string pattern = (fs::temp_directory_path() / "corvane-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        abort();
    }
    m_path = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}

namespace {

bool SaveEnv(const char* name, std::string* old) {
    const char* value = getenv(name);
    if (value != nullptr) {
        *old = value;
    }
    return value != nullptr;
}

void RestoreEnv(const char* name, bool had, const std::string& old) {
    if (had) {
        setenv(name, old.c_str(), 1);
    } else {
        unsetenv(name);
    }
}

}  // namespace

TestSysroot::TestSysroot() {
    for (const char* dir :
         {"odm/etc/camera", "data/vendor/camera", "vendor/lib64", "sys/module/camera/parameters"}) {
        fs::create_directories(m_dir / dir);
    }
    m_hadSysroot = SaveEnv("CORVANE_SYSROOT", &m_oldSysroot);
    m_hadPropFile = SaveEnv("CORVANE_PROP_FILE", &m_oldPropFile);
    setenv("CORVANE_SYSROOT", m_dir.path().c_str(), 1);
    setenv("CORVANE_PROP_FILE", propertyFile().c_str(), 1);
    WriteProperties();
}

TestSysroot::~TestSysroot() {
    RestoreEnv("CORVANE_SYSROOT", m_hadSysroot, m_oldSysroot);
    RestoreEnv("CORVANE_PROP_FILE", m_hadPropFile, m_oldPropFile);
}

void TestSysroot::InstallLibrary(const std::string& fileName, const std::string& as) {
    fs::copy_file(fs::path(LibDir()) / fileName,
                  fs::path(m_dir / "vendor/lib64") / (as.empty() ? fileName : as),
                  fs::copy_options::overwrite_existing);
}

void TestSysroot::SetProperty(const std::string& name, const std::string& value) {
    for (auto& property : m_properties) {
        if (property.first == name) {
            property.second = value;
            WriteProperties();
            return;
        }
    }
    m_properties.emplace_back(name, value);
    WriteProperties();
}

void TestSysroot::ClearProperties() {
    m_properties.clear();
    WriteProperties();
}

void TestSysroot::WriteProperties() {
    std::ostringstream text;
    for (const auto& property : m_properties) {
        text << property.first << "=" << property.second << "\n";
    }
    WriteFile("corvane.prop", text.str());
}

void TestSysroot::WriteFile(const std::string& relative, const std::string& content) {
    fs::create_directories(fs::path(m_dir / relative).parent_path());
    WriteTextFile(m_dir / relative, content);
}

std::string TestSysroot::ReadFile(const std::string& relative) const {
    return ReadTextFile(m_dir / relative);
}

bool TestSysroot::Exists(const std::string& relative) const {
    return fs::exists(m_dir / relative);
}

ScopedChdir::ScopedChdir(const std::string& dir) : m_old(fs::current_path().string()) {
    fs::current_path(dir);
}

ScopedChdir::~ScopedChdir() {
    fs::current_path(m_old);
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
        if (line.message.find(text) != std::string::npos && (tag.empty() || line.tag == tag)) {
            ++count;
        }
    }
    return count;
}

std::string LogCapture::Dump() const {
    std::ostringstream text;
    for (const LogLine& line : Lines()) {
        text << line.priority << " " << line.tag << " " << line.message << "\n";
    }
    return text.str();
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

bool ChildSucceeded(int status) {
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void ExpectInChild(const std::function<void()>& body) {
    int status = RunTestInChild(body);
    EXPECT_TRUE(ChildSucceeded(status))
        << "the scenario failed in its child, wait status " << status;
}

void WriteTextFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

std::string ReadTextFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

std::string Sql(const std::string& path, const std::string& query) {
    std::string output;
    FILE* pipe =
        popen(("sqlite3 -separator '|' '" + path + "' \"" + query + "\" 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return output;
    }
    char buffer[512];
    while (fgets(buffer, sizeof(buffer), pipe) != nullptr) {
        output += buffer;
    }
    pclose(pipe);
    return output;
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
