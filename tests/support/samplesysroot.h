// A device tree holding the sample sensor and fault libraries and their configuration files, for
// the tests that install real hooks through the controller started as the camera service starts
// it (with the sysroot as working directory).
#pragma once

#include <dlfcn.h>

#include <string>

#include "tests/support/testsupport.h"

namespace corvanetest {

constexpr const char* kModSwitchProperty = "persist.vendor.camera.cloud.corvanesystem.modswitch";
constexpr const char* kHookCaseFile = "odm/etc/camera/corvanesystem_hook_case.json";
constexpr const char* kProtectionConfigFile = "odm/etc/camera/protection_config.json";
constexpr const char* kHookDbFile = "data/vendor/camera/hook.db";
constexpr const char* kSampleSensorLibrary = "vendor/lib64/libcorvane_sample_sensor.so";

// Installs the two sample libraries and the sample hook cases (and, when asked, the sample
// protection schemes) from host/samples/etc, and sets the modswitch property.
void InstallSamples(TestSysroot& sysroot, const std::string& modswitch,
                    bool withProtectionSchemes = false);

// A function of the sample sensor library as the process loads it from the working directory,
// or null.
template <typename Function>
Function SampleSensor(const char* symbol) {
    void* library = dlopen(kSampleSensorLibrary, RTLD_NOW);
    return library == nullptr ? nullptr : reinterpret_cast<Function>(dlsym(library, symbol));
}

}  // namespace corvanetest
