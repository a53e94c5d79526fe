// Host camera service: changes into the sysroot (as the device's service runs in "/"), loads
// the core library from vendor/lib64 with dlopen and obtains the controller, which starts every
// sub-module its switches allow. Then it plays the rest of a camera service: the firmware side
// of fault injection on the bus, sensor probes and their queries, the kernel I2C protection
// code, and a camera pipeline calling the sample sensor library until SIGINT or SIGTERM.
//
//   corvane_camera_service [--sysroot DIR] [--once] [--period-ms N]
//
// --once starts everything, runs one pipeline period and exits (a smoke test).
// Without --sysroot, $CORVANE_SYSROOT is used. Properties come from $CORVANE_PROP_FILE, or the
// sysroot's corvane.prop when that variable is unset.
#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "core/controller/corvanesystem.h"
#include "host/cameraservice/hostbus.h"
#include "host/cameraservice/simulation.h"

namespace {

constexpr const char* kCoreLibrary = "vendor/lib64/com.halvern.corvanesystem.core.so";
constexpr const char* kSensorLibrary = "vendor/lib64/libcorvane_sample_sensor.so";
constexpr int kDefaultPeriodMs = 200;

volatile sig_atomic_t g_stop = 0;

void OnStopSignal(int) {
    g_stop = 1;
}

int Usage(const char* program) {
    fprintf(stderr, "usage: %s [--sysroot DIR] [--once] [--period-ms N]\n", program);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::string sysroot = getenv("CORVANE_SYSROOT") == nullptr ? "" : getenv("CORVANE_SYSROOT");
    bool once = false;
    int periodMs = kDefaultPeriodMs;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--sysroot") == 0 && i + 1 < argc) {
            sysroot = argv[++i];
        } else if (strcmp(argv[i], "--once") == 0) {
            once = true;
        } else if (strcmp(argv[i], "--period-ms") == 0 && i + 1 < argc) {
            periodMs = atoi(argv[++i]);
            if (periodMs <= 0) {
                return Usage(argv[0]);
            }
        } else {
            return Usage(argv[0]);
        }
    }
    if (sysroot.empty()) {
        fprintf(stderr, "camera service: no sysroot (use --sysroot or CORVANE_SYSROOT)\n");
        return 2;
    }
    // The library's reload path raises SIGHUP or SIGABRT and counts on them killing the process,
    // as they do in a service that init starts. A shell may hand us either ignored or blocked
    // (nohup ignores SIGHUP), so the defaults are put back.
    for (int reload : {SIGHUP, SIGABRT}) {
        signal(reload, SIG_DFL);
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, reload);
        sigprocmask(SIG_UNBLOCK, &set, nullptr);
    }
    // Relative paths given by the caller must survive the change of directory below.
    const char* propFile = getenv("CORVANE_PROP_FILE");
    if (propFile != nullptr && propFile[0] != '\0' && propFile[0] != '/') {
        char* absoluteProp = realpath(propFile, nullptr);
        if (absoluteProp != nullptr) {
            setenv("CORVANE_PROP_FILE", absoluteProp, 1);
            free(absoluteProp);
        }
    }
    char* absolute = realpath(sysroot.c_str(), nullptr);
    if (absolute == nullptr || chdir(absolute) != 0) {
        fprintf(stderr, "camera service: cannot enter sysroot %s: %s\n", sysroot.c_str(),
                strerror(errno));
        free(absolute);
        return 1;
    }
    setenv("CORVANE_SYSROOT", absolute, 1);
    if (getenv("CORVANE_PROP_FILE") == nullptr) {
        setenv("CORVANE_PROP_FILE", (std::string(absolute) + "/corvane.prop").c_str(), 1);
    }
    free(absolute);

    // Global binding: fault libraries loaded later reach the controller's exported entry.
    void* core = dlopen(kCoreLibrary, RTLD_NOW | RTLD_GLOBAL);
    if (core == nullptr) {
        fprintf(stderr, "camera service: cannot load %s: %s\n", kCoreLibrary, dlerror());
        return 1;
    }
    using GetInstanceFunction = CorvaneSystem* (*)();
    auto getInstance =
        reinterpret_cast<GetInstanceFunction>(dlsym(core, "CorvaneSystemGetInstance"));
    if (getInstance == nullptr) {
        fprintf(stderr, "camera service: no CorvaneSystemGetInstance in %s\n", kCoreLibrary);
        return 1;
    }
    signal(SIGINT, OnStopSignal);
    signal(SIGTERM, OnStopSignal);
    CorvaneSystem* system = getInstance();
    fprintf(stderr, "camera service: controller ready (%p), pid %d\n", static_cast<void*>(system),
            getpid());

    HostBus bus;
    std::string error;
    if (!bus.Open(&error)) {
        fprintf(stderr, "camera service: no message bus (%s); firmware and probes skipped\n",
                error.c_str());
    } else {
        StartFirmwareSimulator(bus);
        BootFirmware(bus);
        SimulateSensorProbes(system, bus);
    }
    system->ProtectionConfig(ProtectionScheme::KERNELI2C, {});

    CameraPipeline pipeline;
    if (!pipeline.Start(kSensorLibrary, periodMs, &error)) {
        fprintf(stderr, "camera service: no camera pipeline (%s)\n", error.c_str());
    }
    fprintf(stderr, "camera service: ready\n");
    if (once) {
        std::this_thread::sleep_for(std::chrono::milliseconds(periodMs));
    }
    while (!once && g_stop == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    pipeline.Stop();
    fprintf(stderr, "camera service: stopping\n");
    return 0;
}
