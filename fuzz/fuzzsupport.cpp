#include "fuzz/fuzzsupport.h"

#include <android/log.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace corvanefuzz {

namespace {

std::string g_sysroot;

void RemoveSysroot() {
    std::error_code ignored;
    fs::remove_all(g_sysroot, ignored);
}

void DropLogLine(const struct __android_logger_data*, const char*) {}

}  // namespace

const std::string& SetUpSysroot() {
    if (!g_sysroot.empty()) {
        return g_sysroot;
    }
    std::string pattern = (fs::temp_directory_path() / "corvane-fuzz-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        perror("mkdtemp");
        abort();
    }
    g_sysroot = pattern;
    atexit(RemoveSysroot);
    for (const char* dir :
         {"odm/etc/camera", "data/vendor/camera", "vendor/lib64", "sys/module/camera/parameters"}) {
        fs::create_directories(fs::path(g_sysroot) / dir);
    }
    std::string properties = g_sysroot + "/corvane.prop";
    const char kProperties[] = "persist.vendor.camera.cloud.corvanesys.loglevel=3\n";
    WriteWholeFile(properties, reinterpret_cast<const uint8_t*>(kProperties),
                   sizeof(kProperties) - 1);
    setenv("CORVANE_SYSROOT", g_sysroot.c_str(), 1);
    setenv("CORVANE_PROP_FILE", properties.c_str(), 1);
    return g_sysroot;
}

InSysroot::InSysroot() : m_previous(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (m_previous < 0 || chdir(SetUpSysroot().c_str()) != 0) {
        perror("chdir");
        abort();
    }
}

InSysroot::~InSysroot() {
    if (fchdir(m_previous) != 0) {
        perror("fchdir");
        abort();
    }
    close(m_previous);
}

void SilenceLog() {
    __android_log_set_logger(DropLogLine);
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

void WriteWholeFile(const std::string& path, const uint8_t* data, size_t size) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        perror(path.c_str());
        abort();
    }
    size_t written = 0;
    while (written < size) {
        ssize_t count = write(fd, data + written, size - written);
        if (count <= 0) {
            perror(path.c_str());
            abort();
        }
        written += static_cast<size_t>(count);
    }
    close(fd);
}

void Fail(const char* file, int line, const char* what) {
    fprintf(stderr, "%s:%d: broken promise: %s\n", file, line, what);
    abort();
}

}  // namespace corvanefuzz
