#include "core/controller/corvaneconfigmanager.h"

#include <android/log.h>
#include <dlfcn.h>

#include <mutex>
#include <type_traits>

namespace {

constexpr const char* kTag = "CorvaneConfigManager";

void LogError(const char* text) {
    __android_log_write(ANDROID_LOG_ERROR, kTag, text);
}

}  // namespace

CorvaneConfigManager* CorvaneConfigManager::GetInstance() {
    static CorvaneConfigManager instance;
    return &instance;
}

CorvaneConfigManager::CorvaneConfigManager() {
    Initialize(kDefaultLibraryPath);
}

CorvaneConfigManager::~CorvaneConfigManager() {
    std::unique_lock<std::shared_mutex> lock(m_mutex);
    if (m_handle != nullptr) {
        dlclose(m_handle);
        m_handle = nullptr;
    }
    m_initialized = false;
    ClearEntries();
}

void CorvaneConfigManager::ClearEntries() {
    m_createReader = nullptr;
    m_destroyReader = nullptr;
    m_loadConfigFile = nullptr;
    m_getValue = nullptr;
    m_getIntValue = nullptr;
    m_getBoolValue = nullptr;
    m_clear = nullptr;
    m_loadConfigFiles = nullptr;
    m_hasKey = nullptr;
    m_size = nullptr;
    m_printConfig = nullptr;
}

int CorvaneConfigManager::Initialize(const char* path) {
    std::unique_lock<std::shared_mutex> lock(m_mutex);
    if (m_initialized) {
        return 1;
    }
    if (path == nullptr) {
        path = kDefaultLibraryPath;
    }
    m_handle = nullptr;
    ClearEntries();
    m_handle = dlopen(path, RTLD_NOW);
    if (m_handle == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "dlopen(%s) failed: %s", path, dlerror());
        return 0;
    }
    bool complete = true;
    auto resolve = [this, &complete](const char* symbol, auto& entry) {
        entry = reinterpret_cast<std::remove_reference_t<decltype(entry)>>(dlsym(m_handle, symbol));
        if (entry == nullptr) {
            // The format text stands in the tag's place and the bare symbol name is the message:
            // this is how the line has always read, and log filters match it as such.
            __android_log_write(ANDROID_LOG_ERROR, "Failed to load symbol '%s': %s", symbol);
            complete = false;
        }
    };
    resolve("CreateCorvaneConfigReader", m_createReader);
    resolve("DestroyCorvaneConfigReader", m_destroyReader);
    resolve("CorvaneConfig_LoadConfigFile", m_loadConfigFile);
    resolve("CorvaneConfig_GetValue", m_getValue);
    resolve("CorvaneConfig_GetIntValue", m_getIntValue);
    resolve("CorvaneConfig_GetBoolValue", m_getBoolValue);
    resolve("CorvaneConfig_Clear", m_clear);
    resolve("CorvaneConfig_LoadConfigFiles", m_loadConfigFiles);
    resolve("CorvaneConfig_HasKey", m_hasKey);
    resolve("CorvaneConfig_Size", m_size);
    resolve("CorvaneConfig_PrintConfig", m_printConfig);
    if (complete) {
        m_initialized = true;
        return 1;
    }
    ClearEntries();
    dlclose(m_handle);
    m_handle = nullptr;
    return 0;
}

CorvaneConfigReaderHandle CorvaneConfigManager::CreateConfigReader() {
    std::shared_lock<std::shared_mutex> lock(m_mutex);
    if (!m_initialized) {
        LogError("Library not initialized. Call Initialize() first.");
        return nullptr;
    }
    if (m_createReader == nullptr) {
        LogError("createConfigReader function not loaded");
        return nullptr;
    }
    return m_createReader();
}

bool CorvaneConfigManager::LoadConfigFile(CorvaneConfigReaderHandle reader, const char* path) {
    std::shared_lock<std::shared_mutex> lock(m_mutex);
    if (reader == nullptr || path == nullptr || !m_initialized) {
        LogError("Invalid parameters or library not initialized");
        return false;
    }
    if (m_loadConfigFile == nullptr) {
        LogError("loadConfigFile function not loaded");
        return false;
    }
    return (m_loadConfigFile(reader, path) & 1) != 0;
}

void CorvaneConfigManager::DestroyConfigReader(CorvaneConfigReaderHandle reader) {
    std::shared_lock<std::shared_mutex> lock(m_mutex);
    if (m_initialized && m_destroyReader != nullptr) {
        m_destroyReader(reader);
    }
}

bool CorvaneConfigManager::HasConfigKey(CorvaneConfigReaderHandle reader, const char* key) {
    std::shared_lock<std::shared_mutex> lock(m_mutex);
    if (reader == nullptr || key == nullptr || !m_initialized) {
        return false;
    }
    if (m_hasKey == nullptr) {
        LogError("hasKey function not loaded");
        return false;
    }
    return m_hasKey(reader, key);
}

bool CorvaneConfigManager::GetBooleanValue(CorvaneConfigReaderHandle reader, const char* key,
                                           bool defaultValue) {
    std::shared_lock<std::shared_mutex> lock(m_mutex);
    if (reader == nullptr || key == nullptr || !m_initialized) {
        return defaultValue;
    }
    if (m_getBoolValue == nullptr) {
        LogError("getBoolValue function not loaded");
        return defaultValue;
    }
    return m_getBoolValue(reader, key, defaultValue);
}
