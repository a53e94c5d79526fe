// Process-wide loader of the closed configuration-reader library. Every wrapper takes a shared
// lock, so readers call the library concurrently while loading and unloading are exclusive.
#pragma once

#include <shared_mutex>

#include "core/controller/corvaneconfigreaderapi.h"

class CorvaneConfigManager {
  public:
    // Relative on purpose: the camera service runs with "/" as its working directory.
    static constexpr const char* kDefaultLibraryPath =
        "vendor/lib64/com.halvern.corvanesystem.config.so";

    // The instance, loading the default library on first use.
    static CorvaneConfigManager* GetInstance();

    // 1 when loaded (also when already loaded), 0 on failure. Null means the default path.
    // A library that lacks any of the eleven entry points is rejected whole.
    int Initialize(const char* path);

    CorvaneConfigReaderHandle CreateConfigReader();
    bool LoadConfigFile(CorvaneConfigReaderHandle reader, const char* path);
    void DestroyConfigReader(CorvaneConfigReaderHandle reader);
    bool HasConfigKey(CorvaneConfigReaderHandle reader, const char* key);
    bool GetBooleanValue(CorvaneConfigReaderHandle reader, const char* key, bool defaultValue);

    ~CorvaneConfigManager();
    CorvaneConfigManager(const CorvaneConfigManager&) = delete;
    CorvaneConfigManager& operator=(const CorvaneConfigManager&) = delete;

  private:
    CorvaneConfigManager();
    void ClearEntries();

    void* m_handle = nullptr;
    CreateCorvaneConfigReaderFunc m_createReader = nullptr;
    DestroyCorvaneConfigReaderFunc m_destroyReader = nullptr;
    CorvaneConfigLoadConfigFileFunc m_loadConfigFile = nullptr;
    CorvaneConfigGetValueFunc m_getValue = nullptr;
    CorvaneConfigGetIntValueFunc m_getIntValue = nullptr;
    CorvaneConfigGetBoolValueFunc m_getBoolValue = nullptr;
    CorvaneConfigClearFunc m_clear = nullptr;
    CorvaneConfigLoadConfigFilesFunc m_loadConfigFiles = nullptr;
    CorvaneConfigHasKeyFunc m_hasKey = nullptr;
    CorvaneConfigSizeFunc m_size = nullptr;
    CorvaneConfigPrintConfigFunc m_printConfig = nullptr;
    bool m_initialized = false;
    std::shared_mutex m_mutex;
};
