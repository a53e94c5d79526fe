#include "core/model/protection/protectionimpl.h"

#include <cutils/properties.h>
#include <errno.h>
#include <fcntl.h>
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <string.h>
#include <unistd.h>

#include <utility>

#include "core/controller/corvanesystemconfig.h"
#include "core/controller/corvanesystemlog.h"
#include "core/database/protectiondboperations.h"
#include "core/model/hook/hookoperation.h"
#include "platform/corvanesystembigdata.h"
#include "platform/devicepath.h"
#include "shadowhook.h"
#include "utils/errortext.h"
#include "utils/fileutils.h"
#include "utils/scopedfd.h"

namespace {

// Indexed by the scheme's value, COUNT included. "INVAILD" is misspelt on purpose: property
// names and configuration files carry this text.
const char* const kSchemeNames[] = {"INVAILD", "SENSORI2C", "EEPROMI2C", "ACTUATORI2C",
                                    "OISI2C",  "KERNELI2C", "ZOOMI2C",   "COUNT"};

constexpr const char* kSchemeKey = "protection_scheme";
constexpr const char* kHookGroupListKey = "hook_group_list";

// Comments and trailing commas are allowed, as in every configuration file of the system. The
// iterative parser keeps the stack flat whatever the nesting of a corrupt file.
constexpr unsigned kParseFlags = rapidjson::kParseCommentsFlag |
                                 rapidjson::kParseTrailingCommasFlag |
                                 rapidjson::kParseIterativeFlag;

// Every report of a callback carries the same codes; only the kind ("p" or "e") differs.
constexpr BDPropertyType kReportPropertyType = BDPropertyType::PROTECTION;
constexpr BDDeviceType kReportDeviceType = BDDeviceType::CAMERA;
constexpr CVBDMessageType kReportMessageType = CVBDMessageType::EVENT;
constexpr uint32_t kReportCount = 1;
constexpr BDErrorType kReportErrorType = BDErrorType::I2C;

constexpr ProtectionScheme kLastScheme = ProtectionScheme::ZOOMI2C;

bool IsEnabled(const char* subModule) {
    return CorvaneSystemConfig::GetInstance()->IsSubModuleIsEnable(subModule);
}

std::string Text(const rapidjson::Value& value) {
    return std::string(value.GetString(), value.GetStringLength());
}

bool IsKnownScheme(const std::string& name) {
    for (int value = 0; value <= static_cast<int>(kLastScheme); ++value) {
        if (name == kSchemeNames[value]) {
            return true;
        }
    }
    return false;
}

// The arguments of one hook group: a non-empty array of strings gives them in order; any other
// value gives none. An array holding anything but strings is refused whole (false): arguments
// are positional, so dropping one would shift the meaning of the others.
bool ReadGroupArguments(const std::string& schemeName, const std::string& groupName,
                        const rapidjson::Value& value, std::vector<std::string>& arguments) {
    if (!value.IsArray()) {
        return true;
    }
    for (rapidjson::SizeType i = 0; i < value.Size(); ++i) {
        if (!value[i].IsString()) {
            CORVANE_LOGE(
                "protection scheme %s: hook group %s: argument %u is not a string, group skipped",
                schemeName.c_str(), groupName.c_str(), i);
            return false;
        }
        arguments.push_back(Text(value[i]));
    }
    return true;
}

// One element of the root array, or false (logged) when it is not a usable scheme.
bool ReadScheme(const rapidjson::Value& element, rapidjson::SizeType index,
                ProtectinoShemeConfig& scheme) {
    if (!element.IsObject()) {
        CORVANE_LOGE("protection config element %u is not an object, skipped", index);
        return false;
    }
    auto name = element.FindMember(kSchemeKey);
    if (name == element.MemberEnd() || !name->value.IsString()) {
        CORVANE_LOGE("protection config element %u has no string \"%s\", skipped", index,
                     kSchemeKey);
        return false;
    }
    scheme.schemeName = Text(name->value);
    CORVANE_LOGI("scheme name: %s", scheme.schemeName.c_str());
    auto list = element.FindMember(kHookGroupListKey);
    if (list == element.MemberEnd() || !list->value.IsArray()) {
        CORVANE_LOGE("protection scheme %s: \"%s\" is missing or not an array, skipped",
                     scheme.schemeName.c_str(), kHookGroupListKey);
        return false;
    }
    for (rapidjson::SizeType i = 0; i < list->value.Size(); ++i) {
        const rapidjson::Value& groups = list->value[i];
        if (!groups.IsObject()) {
            CORVANE_LOGE("protection scheme %s: %s element %u is not an object, skipped",
                         scheme.schemeName.c_str(), kHookGroupListKey, i);
            continue;
        }
        for (auto group = groups.MemberBegin(); group != groups.MemberEnd(); ++group) {
            std::string groupName = Text(group->name);
            CORVANE_LOGI("hook group name: %s", groupName.c_str());
            std::vector<std::string> arguments;
            if (ReadGroupArguments(scheme.schemeName, groupName, group->value, arguments)) {
                // A name met again within the scheme replaces the earlier arguments.
                scheme.hookGroupList[groupName] = std::move(arguments);
            }
        }
    }
    if (!IsKnownScheme(scheme.schemeName)) {
        CORVANE_LOGI("protection scheme %s is not a known scheme and is never switched",
                     scheme.schemeName.c_str());
    }
    return true;
}

void Report(const CallbackMessage& message, const char* kind) {
    CorvaneSystemBigData::SendMessage(kReportPropertyType, message.reportName, kReportDeviceType,
                                      message.reportValue, kind, kReportMessageType, kReportCount,
                                      kReportErrorType);
}

}  // namespace

const char* GetProtectionSchemeString(ProtectionScheme scheme) {
    return kSchemeNames[static_cast<int>(scheme)];
}

Protection* Protection::Create(HookOperation* hookOperation, int hookInitResult) {
    ProtectionImpl* protection = new ProtectionImpl();
    protection->Initialize(hookOperation, hookInitResult);
    return protection;
}

void Protection::Destroy(Protection* protection) {
    delete protection;
}

ProtectionImpl::ProtectionImpl() {
    m_recordSwitch = property_get_int32(PROTECTION_RECORD_SWITCH_PROPERTY, 0);
    if (m_recordSwitch == 1) {
        m_pProtectionDBOperations = ProtectionDBOperations::Create(DevicePath(PROTECTION_DB_PATH),
                                                                   PROTECTION_DB_TABLE_LIST);
    }
    m_schemeConfig = GetProtectionHookGroupConfig();
}

ProtectionImpl::~ProtectionImpl() {
    if (m_pProtectionDBOperations != nullptr) {
        ProtectionDBOperations::Destroy(m_pProtectionDBOperations);
    }
}

int ProtectionImpl::Initialize(HookOperation* hookOperation, int hookInitResult) {
    if (hookOperation == nullptr) {
        CORVANE_LOGE("InitializeProtectionScheme failed");
        return 0;
    }
    m_pHookOperation = hookOperation;
    m_hookInitResult = hookInitResult;
    InitializeProtectionScheme();
    return 0;
}

std::map<std::string, ProtectinoShemeConfig> ProtectionImpl::GetProtectionHookGroupConfig() {
    std::map<std::string, ProtectinoShemeConfig> schemes;
    std::string path = DevicePath(PROTECTION_CONFIG_PATH);
    std::string content;
    if (!ReadWholeFile(path, &content)) {
        CORVANE_LOGI("Failed to open: %s", path.c_str());
        return schemes;
    }
    CORVANE_LOGI("File content: %s", content.c_str());

    rapidjson::Document document;
    document.Parse<kParseFlags>(content.data(), content.size());
    if (document.HasParseError()) {
        CORVANE_LOGE("Failed to parse %s: %s (offset %zu)", path.c_str(),
                     rapidjson::GetParseError_En(document.GetParseError()),
                     document.GetErrorOffset());
        return schemes;
    }
    if (!document.IsArray()) {
        CORVANE_LOGE("%s: the root is not an array, no protection scheme", path.c_str());
        return schemes;
    }
    for (rapidjson::SizeType i = 0; i < document.Size(); ++i) {
        ProtectinoShemeConfig scheme;
        if (ReadScheme(document[i], i, scheme)) {
            std::string name = scheme.schemeName;
            // A scheme named again replaces the earlier entry.
            schemes[name] = std::move(scheme);
        }
    }
    return schemes;
}

int ProtectionImpl::GetSchemeState(ProtectionScheme scheme) {
    std::string name = GetProtectionSchemeString(scheme);
    // Both are read every time, whatever the first says.
    int32_t first = property_get_int32((PROTECTION_SCHEME_PROPERTY_PREFIX + name).c_str(), 0);
    int32_t second =
        property_get_int32((PROTECTION_SCHEME_SECOND_PROPERTY_PREFIX + name).c_str(), 0);
    return first != 0 ? first : second;
}

bool ProtectionImpl::IsSwitchOpened(ProtectionScheme scheme) {
    // Read once per process: a changed main switch takes effect at the next start only.
    static const int32_t mainSwitch = property_get_int32(PROTECTION_MAIN_SWITCH_PROPERTY, 0);
    if (mainSwitch == 1 && GetSchemeState(scheme) == 1) {
        return true;
    }
    if (mainSwitch != 1) {
        CORVANE_LOGD("main switch is not turned on");
    }
    // Asked again: the scheme's properties are live, only the main switch is cached.
    if (GetSchemeState(scheme) != 1) {
        CORVANE_LOGD("protection scheme: %s switch is not turned on",
                     GetProtectionSchemeString(scheme));
    }
    return false;
}

int ProtectionImpl::InitializeProtectionScheme() {
    int result = 0;
    // "INVAILD" (0) is visited like any other scheme; COUNT is not a scheme.
    for (int value = 0; value <= static_cast<int>(kLastScheme); ++value) {
        ProtectionScheme scheme = static_cast<ProtectionScheme>(value);
        const char* name = GetProtectionSchemeString(scheme);
        bool wanted =
            IsEnabled(SUBMODULE_CORELOAD) && IsEnabled(SUBMODULE_MONITR) && IsSwitchOpened(scheme);
        auto config = m_schemeConfig.find(name);
        if (!wanted) {
            if (config != m_schemeConfig.end()) {
                RemoveScheme(config->second, result);
            }
            continue;
        }
        if (m_hookInitResult != 0) {
            // Tried once per object: a failed initialisation is remembered, not retried.
            if (!m_hookInitTried) {
                m_hookInitResult = shadowhook_init(SHADOWHOOK_MODE_SHARED, true);
                m_hookInitTried = true;
                CORVANE_LOGI("hook lib initialization for protection: %d", m_hookInitResult);
            }
            if (m_hookInitResult != 0) {
                CORVANE_LOGE("protection scheme: %s skipped, hook lib not initialized: %d", name,
                             m_hookInitResult);
                continue;
            }
        }
        if (config == m_schemeConfig.end()) {
            CORVANE_LOGD("protection scheme: %s has no hook group configured", name);
            continue;
        }
        InstallScheme(config->second, result);
    }
    return result;
}

void ProtectionImpl::InstallScheme(const ProtectinoShemeConfig& scheme, int& result) {
    if (m_pHookOperation == nullptr) {
        return;
    }
    std::vector<std::string> installed;
    for (const auto& [groupName, arguments] : scheme.hookGroupList) {
        result = m_pHookOperation->DoHookGroup(groupName, arguments);
        if (result == 0) {
            if (!m_pHookOperation->IsHookGroupReady(groupName)) {
                // The engine reports success for a group it does not know (for instance when
                // the hook-case file did not parse): the guard is then not in force.
                CORVANE_LOGE(
                    "protection scheme: %s hook group: %s is not in force: no such "
                    "group, or its hooks did not install",
                    scheme.schemeName.c_str(), groupName.c_str());
            }
            installed.push_back(groupName);
            continue;
        }
        CORVANE_LOGE("protection scheme: %s hook group: %s failed: %d, removing %zu group(s)",
                     scheme.schemeName.c_str(), groupName.c_str(), result, installed.size());
        for (const std::string& done : installed) {
            result = m_pHookOperation->UnhookGroup(done);
        }
        return;
    }
    CORVANE_LOGI("protection scheme: %s installed %zu hook group(s)", scheme.schemeName.c_str(),
                 installed.size());
}

void ProtectionImpl::RemoveScheme(const ProtectinoShemeConfig& scheme, int& result) {
    if (m_pHookOperation == nullptr) {
        return;
    }
    for (const auto& entry : scheme.hookGroupList) {
        result = m_pHookOperation->UnhookGroup(entry.first);
        if (result != 0) {
            CORVANE_LOGE("protection scheme: %s hook group: %s not removed: %d",
                         scheme.schemeName.c_str(), entry.first.c_str(), result);
            return;
        }
    }
}

void ProtectionImpl::ProtectionConfig(ProtectionScheme scheme, std::vector<std::string>) {
    // Only the kernel scheme has something to tell outside the process; arguments are unused.
    if (scheme == ProtectionScheme::KERNELI2C) {
        SetKernelI2CProtectionCode(IsSwitchOpened(scheme) ? 1 : 0);
    }
}

int ProtectionImpl::RecordProtectionFunctionCallback(CallbackMessage message) {
    if (m_recordSwitch == 1 && m_pProtectionDBOperations != nullptr) {
        // Fails by design on the first record (see the protection table); ignored.
        m_pProtectionDBOperations->RecordProtectionFunctionCallback(message);
    }
    const std::string& type = message.messageType;
    bool both = type == CALLBACK_MESSAGE_TYPE_BOTH;
    if (both || type == CALLBACK_MESSAGE_TYPE_PROTECTION) {
        Report(message, BIGDATA_KIND_PROTECTION);
    }
    if (both || type == CALLBACK_MESSAGE_TYPE_ERROR) {
        Report(message, BIGDATA_KIND_ERROR);
    }
    return 0;
}

void SetKernelI2CProtectionCode(int code) {
    if (code != 0 && code != 1) {
        return;
    }
    ScopedFd fd(open(DevicePath(KERNEL_I2C_PROTECTION_PATH).c_str(), O_RDWR | O_CLOEXEC));
    if (fd.get() < 0) {
        char buffer[100] = {};
        snprintf(buffer, sizeof(buffer), "%s", ErrorText(errno).c_str());  // kept to 100 bytes
        CORVANE_LOGE(
            "[CORVANESYS] Failed to open /sys/module/camera/parameters/cam_cci_io_protect: "
            "errnoStr: %s",
            buffer);
        return;
    }
    char value[20] = {};
    snprintf(value, sizeof(value), "%d", code);
    // Logged whenever write does not return 0, so a failed write (-1) reads like a good one:
    // this is the line devices have always printed.
    if (write(fd.get(), value, strlen(value)) != 0) {
        CORVANE_LOGI("set cam_cci_io_protect: %s", value);
    }
}
