#include "core/model/hook/hookoperationimpl.h"

#include <stdlib.h>

#include "config/interface/configloadfactory.h"
#include "core/controller/corvanesystemconfig.h"
#include "core/controller/corvanesystemlog.h"
#include "core/database/hook/hookdboperations.h"
#include "platform/devicepath.h"

namespace {

// Hook-case file keys.
constexpr const char* kHookGroupKey = "HOOK_GROUP";
constexpr const char* kHookCaseKey = "HOOK_CASE";
constexpr const char* kHookFunctionKey = "HOOK_FUNCTION";

std::mutex g_instanceMutex;
HookOperation* g_instance = nullptr;

// Ids are unsigned 64-bit; an integer literal keeps its sign-extended value (-1 reads as all
// ones), a larger one its exact digits.
unsigned long ToId(const Data& data) {
    switch (data.GetType()) {
        case Data::TYPE_INT:
            return static_cast<unsigned long>(static_cast<long>(data.GetInt()));
        case Data::TYPE_FLOAT:
        case Data::TYPE_STRING:
            return strtoul(data.GetText().c_str(), nullptr, 10);
        default:
            return HOOK_ID_NONE;
    }
}

int ToInt(const Data& data) {
    return data.GetType() == Data::TYPE_INT ? data.GetInt() : atoi(data.GetText().c_str());
}

HookGroup ReadGroup(const std::vector<Config>& entries) {
    HookGroup group;
    for (const Config& entry : entries) {
        if (entry.name == "group_name") {
            group.group_name = entry.data.GetText();
        } else if (entry.name == "group_id") {
            group.group_id = ToId(entry.data);
        } else if (entry.name == "case") {
            group.case_list.push_back(ToId(entry.data));
        }
    }
    return group;
}

HookCase ReadCase(const std::vector<Config>& entries) {
    HookCase hookCase;
    for (const Config& entry : entries) {
        if (entry.name == "case_id") {
            hookCase.case_id = ToId(entry.data);
        } else if (entry.name == "case_name") {
            hookCase.case_name = entry.data.GetText();
        } else if (entry.name == "hook_function") {
            hookCase.hook_name_list.push_back(entry.data.GetText());
        }
    }
    return hookCase;
}

Hook ReadHook(const std::vector<Config>& entries) {
    Hook hook;
    for (const Config& entry : entries) {
        const std::string& name = entry.name;
        const std::string& text = entry.data.GetText();
        if (name == "hook_id") {
            hook.hook_id = ToId(entry.data);
        } else if (name == "hook_name") {
            hook.hook_name = text;
        } else if (name == "hook_type") {
            hook.hook_type = ToInt(entry.data);
        } else if (name == "function_type") {
            hook.function_type = ToInt(entry.data);
        } else if (name == "source_lib_name") {
            hook.source_lib_name = text;
        } else if (name == "target_lib_name") {
            hook.target_lib_name = text;
        } else if (name == "source_function_symbol") {
            hook.source_function_symbol = text;
        } else if (name == "target_function_symbol") {
            hook.target_function_symbol = text;
        } else if (name == "proxy_function_symbol") {
            hook.proxy_function_symbol = text;
        }
    }
    return hook;
}

}  // namespace

HookOperation* HookOperation::Create(HookOperationCreateInputData data) {
    return new HookOperationImpl(data);
}

HookOperation* CurrentHookOperation() {
    std::lock_guard<std::mutex> lock(g_instanceMutex);
    return g_instance;
}

HookOperation* HookOperation::GetInstance() {
    std::lock_guard<std::mutex> lock(g_instanceMutex);
    if (g_instance == nullptr) {
        g_instance = Create({});
    }
    return g_instance;
}

void HookOperation::Destroy(HookOperation* hookOperation) {
    {
        // A destroyed singleton is created afresh by the next GetInstance, never handed out.
        std::lock_guard<std::mutex> lock(g_instanceMutex);
        if (hookOperation == g_instance) {
            g_instance = nullptr;
        }
    }
    delete hookOperation;
}

HookOperationImpl::HookOperationImpl(HookOperationCreateInputData)
    : m_restartGuard(DevicePath(HookRestartGuard::kStatePath)) {
    CorvaneSystemConfig* config = CorvaneSystemConfig::GetInstance();
    if (config->IsSubModuleIsEnable(SUBMODULE_INITHOOKSWITCH)) {
        m_pHookDBOperations = HookDBOperations::Create(DevicePath(kHookDbPath), HOOK_DB_TABLE_LIST);
    }
    if (config->IsSubModuleIsEnable(SUBMODULE_FIRMWARE)) {
        StartFirmware();
    }
    GetHookConfg(DevicePath(kHookCasePath));
}

HookOperationImpl::~HookOperationImpl() {
    StopFirmware();
    HookDBOperations::Destroy(m_pHookDBOperations);
}

void HookOperationImpl::GetHookConfg(std::string path) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    GetHookConfg(path, m_hookConfigInformation);
}

void HookOperationImpl::GetHookConfg(std::string path, HookConfigInformation& info) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    m_pConfigLoad.reset(Configloadfactory::CreateObject({CONFIG_FILE_TYPE_JSON, path}));
    if (m_pConfigLoad == nullptr) {
        return;
    }
    // A configuration read again replaces the one read before.
    info = HookConfigInformation();
    for (const std::vector<Config>& entries : m_pConfigLoad->GetArrayObject(kHookGroupKey)) {
        info.hook_groups.push_back(ReadGroup(entries));
    }
    for (const std::vector<Config>& entries : m_pConfigLoad->GetArrayObject(kHookCaseKey)) {
        HookCase hookCase = ReadCase(entries);
        info.hook_cases[hookCase.case_id] = hookCase;  // the last case of an id wins
    }
    for (const std::vector<Config>& entries : m_pConfigLoad->GetArrayObject(kHookFunctionKey)) {
        Hook hook = ReadHook(entries);
        info.hooks[hook.hook_name] = hook;  // the last hook of a name wins
    }
}

std::vector<HookRelationship> HookOperationImpl::GetHookRelationshipList() {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return GetHookRelationshipList(m_hookConfigInformation);
}

std::vector<HookRelationship> HookOperationImpl::GetHookRelationshipList(
    HookConfigInformation& info) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    std::vector<HookRelationship> relationships;
    for (const HookGroup& group : info.hook_groups) {
        for (unsigned long caseId : group.case_list) {
            // A case id that names no case has no hooks to list.
            auto hookCase = info.hook_cases.find(caseId);
            if (hookCase == info.hook_cases.end()) {
                continue;
            }
            for (const std::string& hookName : hookCase->second.hook_name_list) {
                HookRelationship row;
                row.group_id = group.group_id;
                row.group_name = group.group_name;
                row.case_id = caseId;
                row.case_name = hookCase->second.case_name;
                row.hook_name = hookName;
                // A hook name that names no hook is still listed, never installed, so that a
                // misspelt name shows up in "query" and "result".
                auto hook = info.hooks.find(hookName);
                if (hook != info.hooks.end()) {
                    row.result = hook->second.result;
                    row.executed = hook->second.executed != 0;
                }
                relationships.push_back(row);
            }
        }
    }
    return relationships;
}

HookGroup* HookOperationImpl::FindGroup(const std::string& groupName) {
    for (HookGroup& group : m_hookConfigInformation.hook_groups) {
        if (group.group_name == groupName) {
            return &group;
        }
    }
    return nullptr;
}

bool HookOperationImpl::IsNeedReloadConfig() {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_reloadFlag != 0) {
        return true;
    }
    for (const auto& entry : m_hookConfigInformation.hooks) {
        const Hook& hook = entry.second;
        if (hook.function_type == 2 && hook.hook_state == 1 && hook.executed == 0) {
            return true;
        }
    }
    return false;
}
