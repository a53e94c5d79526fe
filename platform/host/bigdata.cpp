// Host reference of the big-data reporting library: every report becomes one line appended to
// a file of the sysroot, plus a log line, so that a person or a script can see what a device
// would have sent. Line format (tab-separated key=value, keys always in this order):
//
//   time=2026-01-31T14:05:09.123  pid=4242  property=5  name=SENSORI2C  device=6  value=256
//   kind=p  message=2  count=1  error=2
//
// Text values escape backslash, tab, newline and carriage return as \\, \t, \n and \r, so one
// report is always one line. Each line is written with one append, so reports from several
// threads or processes never interleave.
#include "platform/corvanesystembigdata.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "core/controller/corvanesystemlog.h"
#include "platform/devicepath.h"
#include "utils/scopedfd.h"

namespace {

constexpr const char* kReportFile = "/data/vendor/camera/bigdata_reports.log";

std::string Escape(const std::string& text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (char c : text) {
        switch (c) {
            case '\\':
                escaped += "\\\\";
                break;
            case '\t':
                escaped += "\\t";
                break;
            case '\n':
                escaped += "\\n";
                break;
            case '\r':
                escaped += "\\r";
                break;
            default:
                escaped += c;
                break;
        }
    }
    return escaped;
}

// Local time with milliseconds, ISO 8601 without a zone ("2026-01-31T14:05:09.123").
std::string Now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[32] = {};
    size_t length = strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &local);
    snprintf(text + length, sizeof(text) - length, ".%03ld", now.tv_nsec / 1000000);
    return text;
}

int WriteAll(int fd, const std::string& text) {
    size_t written = 0;
    while (written < text.size()) {
        ssize_t result = write(fd, text.data() + written, text.size() - written);
        if (result < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -errno;
        }
        written += static_cast<size_t>(result);
    }
    return 0;
}

}  // namespace

int CorvaneSystemBigData::SendMessage(BDPropertyType propertyType, const std::string& name,
                                      BDDeviceType deviceType, uint32_t value,
                                      const std::string& kind, CVBDMessageType messageType,
                                      uint32_t count, BDErrorType errorType) {
    std::string fields = "property=" + std::to_string(static_cast<int32_t>(propertyType)) +
                         "\tname=" + Escape(name) +
                         "\tdevice=" + std::to_string(static_cast<int32_t>(deviceType)) +
                         "\tvalue=" + std::to_string(value) + "\tkind=" + Escape(kind) +
                         "\tmessage=" + std::to_string(static_cast<int32_t>(messageType)) +
                         "\tcount=" + std::to_string(count) +
                         "\terror=" + std::to_string(static_cast<int32_t>(errorType));
    std::string line = "time=" + Now() + "\tpid=" + std::to_string(getpid()) + "\t" + fields + "\n";

    std::string path = DevicePath(kReportFile);
    ScopedFd fd(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    int result = fd.get() < 0 ? -errno : WriteAll(fd.get(), line);
    if (result != 0) {
        CORVANE_LOGE("big data report not written to %s: %s", path.c_str(), strerror(-result));
        return result;
    }
    CORVANE_LOGI("big data report: %s", fields.c_str());
    return 0;
}
