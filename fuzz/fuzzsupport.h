// What every fuzz target sets up once before its first input, and how it reports a broken
// promise. The targets run the library's real code against files and frames made of fuzzer
// bytes; anything but a clean return is a finding.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace corvanefuzz {

// A private device tree in a fresh temporary directory (odm/etc/camera, data/vendor/camera,
// vendor/lib64, sys/module/camera/parameters), made the process's CORVANE_SYSROOT, with a
// property file (CORVANE_PROP_FILE) that opens the log down to debug lines. Removed when the
// process exits normally. Returns its path; later calls return the same one.
const std::string& SetUpSysroot();

// Makes the sysroot the working directory while it lives, as the camera service runs in the
// device's root, so that relative system paths ("data/vendor/camera/...") resolve into it. Only
// around one input: libFuzzer itself reads and writes corpus paths relative to where it started.
class InSysroot {
  public:
    InSysroot();
    ~InSysroot();
    InSysroot(const InSysroot&) = delete;
    InSysroot& operator=(const InSysroot&) = delete;

  private:
    int m_previous;
};

// Every Android log line is still formatted (format bugs stay visible to the sanitizers) but
// dropped instead of printed, so a run is not slowed down by its own log.
void SilenceLog();

// Replaces the file at `path` with the given bytes; aborts when it cannot (the run would be
// meaningless).
void WriteWholeFile(const std::string& path, const uint8_t* data, size_t size);

// Reports a broken promise of the code under test and aborts, which libFuzzer records as a crash
// together with the input.
[[noreturn]] void Fail(const char* file, int line, const char* what);

}  // namespace corvanefuzz

#define FUZZ_CHECK(condition)                                    \
    do {                                                         \
        if (!(condition)) {                                      \
            ::corvanefuzz::Fail(__FILE__, __LINE__, #condition); \
        }                                                        \
    } while (false)
