// The one logging function of the library. A line is written only when its level is at least
// the threshold read once per process from "persist.vendor.camera.cloud.corvanesys.loglevel"
// (default 4), so a filtered call costs one comparison and allocates nothing.
#pragma once

// Android priorities used by the library.
constexpr int CORVANE_LOG_DEBUG = 3;
constexpr int CORVANE_LOG_INFO = 4;
constexpr int CORVANE_LOG_ERROR = 6;

// Writes "<base name of file>:<line> <function>() <message>" under the tag "[CORVANESYS]".
// A line whose prefix and message together exceed 1023 characters is dropped whole, on purpose:
// a shortened line would read as a different message.
void CorvaneSystemLog(int level, const char* file, int line, const char* function,
                      const char* format, ...) __attribute__((format(printf, 5, 6)));

// The source file a line names. The macro looks this name up unqualified, so a class that is
// written across several source files can declare a static member of the same name and have all
// its methods log under one file name; everywhere else a line names its own source file. The
// line number is always the caller's own.
constexpr const char* CorvaneLogFile(const char* file) {
    return file;
}

#define CORVANE_LOG(level, ...) \
    CorvaneSystemLog(level, CorvaneLogFile(__FILE__), __LINE__, __func__, __VA_ARGS__)
#define CORVANE_LOGD(...) CORVANE_LOG(CORVANE_LOG_DEBUG, __VA_ARGS__)
#define CORVANE_LOGI(...) CORVANE_LOG(CORVANE_LOG_INFO, __VA_ARGS__)
#define CORVANE_LOGE(...) CORVANE_LOG(CORVANE_LOG_ERROR, __VA_ARGS__)
