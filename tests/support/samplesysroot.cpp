#include "tests/support/samplesysroot.h"

#include <filesystem>

namespace corvanetest {

void InstallSamples(TestSysroot& sysroot, const std::string& modswitch,
                    bool withProtectionSchemes) {
    sysroot.InstallLibrary("libcorvane_sample_sensor.so");
    sysroot.InstallLibrary("libcorvane_sample_fault.so");
    for (const char* file : {kHookCaseFile, kProtectionConfigFile}) {
        if (file == kProtectionConfigFile && !withProtectionSchemes) {
            continue;
        }
        std::filesystem::copy_file(
            SourceDir() + "/host/samples/etc/" + std::filesystem::path(file).filename().string(),
            sysroot / file, std::filesystem::copy_options::overwrite_existing);
    }
    sysroot.SetProperty(kModSwitchProperty, modswitch);
}

}  // namespace corvanetest
