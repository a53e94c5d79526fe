// Which optional sub-modules are on for the life of the process, decided once at first use from
// the text configuration, two bit-mask properties and one property per protection module.
#pragma once

#include <stdint.h>

#include <map>
#include <string>

// Sub-module names. "monitr" is six letters on purpose: properties and files use this spelling.
constexpr const char* SUBMODULE_AUTORELOAD = "autoreload";
constexpr const char* SUBMODULE_BIGDATA = "bigdata";
constexpr const char* SUBMODULE_CORELOAD = "coreload";
constexpr const char* SUBMODULE_FIRMWARE = "firmware";
constexpr const char* SUBMODULE_HOOKSWITCH = "hookswitch";
constexpr const char* SUBMODULE_INITHOOKSWITCH = "inithookswitch";
constexpr const char* SUBMODULE_MONITR = "monitr";
constexpr const char* SUBMODULE_PROBECOUNT = "probecount";
constexpr const char* SUBMODULE_PROBEINJECT = "probeinject";
constexpr const char* SUBMODULE_PROBESTATE = "probestate";
constexpr const char* SUBMODULE_SENSORSTATE = "sensorstate";
constexpr const char* SUBMODULE_VXCDB = "vxcdb";

constexpr int32_t SUBMODULE_ENABLED = 1;
constexpr int32_t SUBMODULE_DISABLED = 2;

struct SubModuleSwitch {
    std::string name;
    int32_t state = SUBMODULE_DISABLED;
};

class CorvaneSystemConfig {
  public:
    // The instance; its construction makes every decision (never re-read).
    static CorvaneSystemConfig* GetInstance();

    void InitSubModuleConfig();
    // False for an unknown name ("monitor" included: only "monitr" is known).
    bool IsSubModuleIsEnable(std::string name);

    CorvaneSystemConfig(const CorvaneSystemConfig&) = delete;
    CorvaneSystemConfig& operator=(const CorvaneSystemConfig&) = delete;

  private:
    CorvaneSystemConfig();

    int32_t m_modswitch = 0;
    int32_t m_moddisabledswitch = 0;
    int32_t m_txtconfig = 0;
    std::map<std::string, SubModuleSwitch> m_switches;
};
