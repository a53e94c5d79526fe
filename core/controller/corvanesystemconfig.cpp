#include "core/controller/corvanesystemconfig.h"

#include <android/log.h>
#include <cutils/properties.h>

#include <utility>
#include <vector>

#include "core/controller/corvaneconfigmanager.h"

namespace {

constexpr const char* kTag = "CorvaneSystemConfig";
constexpr const char* kTxtConfigProperty = "persist.vendor.camera.cloud.corvanesystem.txtconfig";
constexpr const char* kModSwitchProperty = "persist.vendor.camera.cloud.corvanesystem.modswitch";
constexpr const char* kModDisabledSwitchProperty =
    "persist.vendor.camera.cloud.corvanesystem.moddisabledswitch";
constexpr const char* kModulePropertyPrefix = "persist.vendor.camera.cloud.corvsysw.";
// Relative on purpose: the camera service runs with "/" as its working directory.
constexpr const char* kTxtConfigPath = "odm/etc/camera/corvane_mode_config.txt";
constexpr int32_t kModulePropertyEnable = 61680;  // 0xF0F0
constexpr int32_t kModulePropertyDisable = 3855;  // 0x0F0F

// "autoreload" is not a single bit: 0x103E8 is bits 3, 5-9 and 16 together, and only a
// modswitch holding all of them turns it on. Kept as deployed property values rely on it.
const std::vector<std::pair<const char*, int32_t>>& BitMaskModules() {
    static const std::vector<std::pair<const char*, int32_t>> modules = {
        {SUBMODULE_AUTORELOAD, 66536}, {SUBMODULE_BIGDATA, 32},     {SUBMODULE_CORELOAD, 128},
        {SUBMODULE_FIRMWARE, 16},      {SUBMODULE_HOOKSWITCH, 4},   {SUBMODULE_INITHOOKSWITCH, 8},
        {SUBMODULE_MONITR, 2},         {SUBMODULE_PROBECOUNT, 256}, {SUBMODULE_PROBEINJECT, 512},
        {SUBMODULE_PROBESTATE, 1024},  {SUBMODULE_SENSORSTATE, 64}, {SUBMODULE_VXCDB, 1},
    };
    return modules;
}

const std::vector<const char*>& PropertyModules() {
    static const std::vector<const char*> modules = {"ACTUATORI2C", "EEPROMI2C", "KERNELI2C",
                                                     "OISI2C",      "SENSORI2C", "ZOOMI2C"};
    return modules;
}

}  // namespace

CorvaneSystemConfig* CorvaneSystemConfig::GetInstance() {
    static CorvaneSystemConfig s_corvaneSystemConfig;
    return &s_corvaneSystemConfig;
}

CorvaneSystemConfig::CorvaneSystemConfig() {
    InitSubModuleConfig();
}

bool CorvaneSystemConfig::IsSubModuleIsEnable(std::string name) {
    auto found = m_switches.find(name);
    return found != m_switches.end() && found->second.state == SUBMODULE_ENABLED;
}

void CorvaneSystemConfig::InitSubModuleConfig() {
    CorvaneConfigManager* manager = nullptr;
    CorvaneConfigReaderHandle reader = nullptr;
    bool txtLoaded = false;
    m_txtconfig = property_get_int32(kTxtConfigProperty, 1);
    if (m_txtconfig == 1) {
        manager = CorvaneConfigManager::GetInstance();
        reader = manager->CreateConfigReader();
        if (reader != nullptr) {
            txtLoaded = manager->LoadConfigFile(reader, kTxtConfigPath);
        }
    }
    auto enabledByText = [&](const char* name) {
        return txtLoaded && manager->HasConfigKey(reader, name) &&
               manager->GetBooleanValue(reader, name, false);
    };

    m_modswitch = property_get_int32(kModSwitchProperty, 0);
    m_moddisabledswitch = property_get_int32(kModDisabledSwitchProperty, 0);

    for (const auto& [name, mask] : BitMaskModules()) {
        SubModuleSwitch& decision = m_switches[name];
        decision = {name, SUBMODULE_DISABLED};
        if (enabledByText(name)) {
            decision.state = SUBMODULE_ENABLED;
            __android_log_print(ANDROID_LOG_INFO, kTag, "%s is enabled by txt config", name);
        }
        if ((mask & ~m_modswitch) == 0) {
            decision.state = SUBMODULE_ENABLED;
            __android_log_print(ANDROID_LOG_INFO, kTag, "%s is enabled by property", name);
        }
        if ((mask & ~m_moddisabledswitch) == 0) {
            decision.state = SUBMODULE_DISABLED;
            __android_log_print(ANDROID_LOG_INFO, kTag, "%s is disabled by property", name);
        }
    }

    for (const char* name : PropertyModules()) {
        SubModuleSwitch& decision = m_switches[name];
        decision = {name, SUBMODULE_DISABLED};
        if (enabledByText(name)) {
            decision.state = SUBMODULE_ENABLED;
            __android_log_print(ANDROID_LOG_INFO, kTag, "%s is enabled by txt config", name);
        }
        int32_t value = property_get_int32((std::string(kModulePropertyPrefix) + name).c_str(), 0);
        if (value == kModulePropertyEnable) {
            decision.state = SUBMODULE_ENABLED;
            __android_log_print(ANDROID_LOG_INFO, kTag, "%s is enabled by property", name);
        } else if (value == kModulePropertyDisable) {
            decision.state = SUBMODULE_DISABLED;
            __android_log_print(ANDROID_LOG_INFO, kTag, "%s is disabled by property", name);
        }
    }

    if (reader != nullptr) {
        manager->DestroyConfigReader(reader);
    }
}
