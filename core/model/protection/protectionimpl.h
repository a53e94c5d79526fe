// The protection model: reads the protection schemes of "/odm/etc/camera/protection_config.json",
// installs the hook groups of every scheme switched on by its properties and removes those of the
// schemes switched off, records and reports what protected functions call back, and tells the
// camera kernel module whether kernel I2C protection is on.
//
// Guarantees: the scheme map is read once, at construction, and never changes afterwards, so
// callbacks may arrive on any thread; a malformed configuration file yields fewer (or no)
// schemes and a log line, never a crash; a hook group that cannot be installed takes back the
// groups of its own scheme installed before it, and nothing else.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include "core/model/protection/protection.h"

class HookOperation;
class ProtectionDBOperations;

// One scheme of the configuration file: its name and its hook groups with their arguments.
// The misspelt name is the system's own; keep it.
struct ProtectinoShemeConfig {
    std::string schemeName;
    std::map<std::string, std::vector<std::string>> hookGroupList;
};

// Device paths and properties of the protection model.
constexpr const char* PROTECTION_CONFIG_PATH = "/odm/etc/camera/protection_config.json";
// "protecion" is misspelt on purpose: it is the file name devices have always used.
constexpr const char* PROTECTION_DB_PATH = "/data/vendor/camera/protecion.db";
constexpr const char* KERNEL_I2C_PROTECTION_PATH =
    "/sys/module/camera/parameters/cam_cci_io_protect";
constexpr const char* PROTECTION_MAIN_SWITCH_PROPERTY =
    "persist.vendor.camera.cloud.corvanesystem.protection.mainswitch";
constexpr const char* PROTECTION_RECORD_SWITCH_PROPERTY =
    "persist.vendor.camera.cloud.corvanesystem.protection.recordswitch";
// Per-scheme properties: the prefix followed by the scheme's name. The first wins when not 0.
constexpr const char* PROTECTION_SCHEME_PROPERTY_PREFIX =
    "persist.vendor.camera.cloud.corvanesystem.protection.";
constexpr const char* PROTECTION_SCHEME_SECOND_PROPERTY_PREFIX =
    "persist.vendor.camera.corvanesystem.protection.";

class ProtectionImpl : public Protection {
  public:
    ProtectionImpl();
    ~ProtectionImpl() override;
    ProtectionImpl(const ProtectionImpl&) = delete;
    ProtectionImpl& operator=(const ProtectionImpl&) = delete;

    // Keeps the engine and the hook library's result and installs the schemes; with a null
    // engine it only logs and leaves the object unconfigured. Always 0.
    int Initialize(HookOperation* hookOperation, int hookInitResult);

    bool IsSwitchOpened(ProtectionScheme scheme) override;
    int GetSchemeState(ProtectionScheme scheme) override;
    int RecordProtectionFunctionCallback(CallbackMessage message) override;
    void ProtectionConfig(ProtectionScheme scheme, std::vector<std::string> arguments) override;
    int InitializeProtectionScheme() override;

    // The schemes read at construction, by name (for diagnostics and tests).
    const std::map<std::string, ProtectinoShemeConfig>& GetSchemeConfig() const {
        return m_schemeConfig;
    }

  private:
    std::map<std::string, ProtectinoShemeConfig> GetProtectionHookGroupConfig();
    // Installs the groups of one wanted scheme; on a failure removes those installed before.
    void InstallScheme(const ProtectinoShemeConfig& scheme, int& result);
    // Removes the groups of an unwanted scheme, stopping at the first that cannot be removed.
    void RemoveScheme(const ProtectinoShemeConfig& scheme, int& result);

    ProtectionDBOperations* m_pProtectionDBOperations = nullptr;  // owned; only with recording
    HookOperation* m_pHookOperation = nullptr;                    // not owned
    [[maybe_unused]] bool m_reserved = false;  // part of the object's layout; never used
    int32_t m_recordSwitch = 0;
    std::map<std::string, ProtectinoShemeConfig> m_schemeConfig;
    int32_t m_hookInitResult = -1;
    bool m_hookInitTried = false;  // this object has called shadowhook_init itself
};

// Tells the camera kernel module whether kernel I2C protection is on: writes "0" or "1" to
// KERNEL_I2C_PROTECTION_PATH. Any other code is ignored.
void SetKernelI2CProtectionCode(int code);
