// Installing and removing hooks, cases and groups; execution status; group arguments.
#include <dlfcn.h>
#include <errno.h>
#include <string.h>

#include "core/controller/corvanesystemlog.h"
#include "core/database/hook/hookdboperations.h"
#include "core/model/hook/hookoperationimpl.h"
#include "shadowhook.h"
#include "utils/stringutils.h"

namespace {

constexpr int kHookTypeProxyFunction = 1;
constexpr int kHookTypeSymbolAddress = 2;
constexpr int kHookTypeJumpTable = 4;
// Removing an executed hook of this function type needs a restart of the camera service.
constexpr int kFunctionTypeNeedsReload = 2;

constexpr const char* kResultHooked = "<Successfully hooked>";
constexpr const char* kResultUnhooked = "<unhook>";
constexpr const char* kArgumentSeparator = ",";

// Libraries stay mapped after their last close: a camera thread may still be running inside a
// replacement function at the moment its hook is removed.
constexpr int kOpenFlags = RTLD_NOW | RTLD_NODELETE;

void CloseHandle(void*& handle) {
    if (handle != nullptr) {
        dlclose(handle);
        handle = nullptr;
    }
}

// The loader's own reason for the last failure, which names what is really wrong (a missing
// file, a missing dependency, an undefined symbol); errno after a failed dlopen often says
// "Success". Reading it also clears it.
std::string LoaderError() {
    const char* text = dlerror();
    return text == nullptr ? "no error text from the loader" : text;
}

// Beside the "Failed to open" line, which names only the library: which hook needed it, for
// which symbol, and the loader's reason.
void LogLoadFailure(const Hook& hook, const std::string& library, const std::string& symbol,
                    const std::string& loaderError) {
    CORVANE_LOGE("hook %s: cannot load %s (for symbol %s): %s", hook.hook_name.c_str(),
                 library.c_str(), symbol.c_str(), loaderError.c_str());
}

// dlsym with a log line naming the hook, the library and the symbol when the symbol is not
// there (a misspelt name, a C++ name without extern "C", a hidden symbol).
void* LookUp(const Hook& hook, void* handle, const std::string& library,
             const std::string& symbol) {
    dlerror();
    void* address = dlsym(handle, symbol.c_str());
    if (address == nullptr) {
        CORVANE_LOGE("hook %s: symbol %s not found in %s: %s", hook.hook_name.c_str(),
                     symbol.c_str(), library.c_str(), LoaderError().c_str());
    }
    return address;
}

}  // namespace

int HookOperationImpl::DoHook(Hook& hook) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    CORVANE_LOGI(
        "source library name: %s, target library name: %s, source function symbol: %s, target "
        "function symbol: %s, proxy function symbol: %s, function type: %d, hook type: %d",
        hook.source_lib_name.c_str(), hook.target_lib_name.c_str(),
        hook.source_function_symbol.c_str(), hook.target_function_symbol.c_str(),
        hook.proxy_function_symbol.c_str(), hook.function_type, hook.hook_type);
    switch (hook.hook_type) {
        case kHookTypeProxyFunction:
            return DoHookByProxyFunctionAddress(hook);
        case kHookTypeSymbolAddress:
            return DoHookBySymbolAddress(hook);
        case kHookTypeJumpTable:
            return DoHookByJumpTable(hook);
        default:
            return 0;
    }
}

// Installing by proxy-function address and by jump table does nothing: only symbol addresses
// are installed. Start-up re-injection counts such hooks as failures, on purpose.
int HookOperationImpl::DoHookByProxyFunctionAddress(Hook&) {
    return 0;
}

int HookOperationImpl::DoHookByJumpTable(Hook&) {
    return 0;
}

int HookOperationImpl::DoHookBySymbolAddress(Hook& hook) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    int result = 1;
    void* sourceHandle = dlopen(hook.source_lib_name.c_str(), kOpenFlags);
    if (sourceHandle == nullptr) {
        int openError = errno;
        std::string loaderError = LoaderError();
        CORVANE_LOGE("Failed to open: %s, error: %s", hook.source_lib_name.c_str(),
                     strerror(openError));
        LogLoadFailure(hook, hook.source_lib_name, hook.source_function_symbol, loaderError);
        CORVANE_LOGI("sourceHandle: %p, proxyhandle: %p", nullptr, nullptr);
    } else {
        void* targetHandle = dlopen(hook.target_lib_name.c_str(), kOpenFlags);
        if (targetHandle == nullptr) {
            int openError = errno;
            std::string loaderError = LoaderError();
            CORVANE_LOGE("Failed to open: %s, error: %s", hook.target_lib_name.c_str(),
                         strerror(openError));
            LogLoadFailure(hook, hook.target_lib_name, hook.target_function_symbol, loaderError);
            CORVANE_LOGI("sourceHandle: %p, proxyhandle: %p", sourceHandle, nullptr);
            dlclose(sourceHandle);
        } else {
            CORVANE_LOGI("sourceHandle: %p, proxyhandle: %p", sourceHandle, targetHandle);
            CORVANE_LOGI("sourceFunctionSymbol: %s, targetFunctionSymbol: %s",
                         hook.source_function_symbol.c_str(), hook.target_function_symbol.c_str());
            void* sourceAddress =
                LookUp(hook, sourceHandle, hook.source_lib_name, hook.source_function_symbol);
            void* targetAddress =
                LookUp(hook, targetHandle, hook.target_lib_name, hook.target_function_symbol);
            hook.stub = shadowhook_hook_sym_addr(sourceAddress, targetAddress, &hook.orig_addr);
            int errorNumber = shadowhook_get_errno();
            const char* errorMessage = shadowhook_to_errmsg(errorNumber);
            if (hook.stub == nullptr) {
                CORVANE_LOGE("shadowhook_hook_sym_addr failed, error number: %d, error msg: %s",
                             errorNumber, errorMessage);
                hook.hook_state = 0;
                hook.result = errorMessage == nullptr ? "" : errorMessage;
            } else {
                hook.hook_state = 1;
                hook.result = kResultHooked;
                CORVANE_LOGI("shadowhook_hook_sym_addr finished, stub: %p", hook.stub);
                result = 0;
            }
            // A failed install keeps its handles too; the next install or removal closes them.
            CloseHandle(hook.source_handle);
            CloseHandle(hook.target_handle);
            hook.source_handle = sourceHandle;
            hook.target_handle = targetHandle;
        }
    }
    if (m_pHookDBOperations != nullptr) {
        m_pHookDBOperations->UpdateHook(hook);
    }
    return result;
}

int HookOperationImpl::DoHookCase(HookCase& hookCase) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    auto& hooks = m_hookConfigInformation.hooks;
    int result = 0;
    for (const std::string& hookName : hookCase.hook_name_list) {
        auto known = hooks.find(hookName);
        if (known == hooks.end() || known->second.hook_name.empty()) {
            // It becomes an empty hook that installs nothing, so the group stays "not ready".
            CORVANE_LOGE("hook case %s names hook %s, which the hook-case file does not define",
                         hookCase.case_name.c_str(), hookName.c_str());
        }
        Hook& hook = hooks[hookName];  // an unknown name becomes an empty hook of type 0
        if (hook.hook_state == 1) {
            continue;
        }
        result = DoHook(hook);
        if (result != 0) {
            for (const std::string& installedName : hookCase.hook_name_list) {
                Hook& installed = hooks[installedName];
                if (installed.hook_state == 1) {
                    Unhook(installed);
                }
            }
            break;
        }
    }
    if (m_pHookDBOperations != nullptr) {
        m_pHookDBOperations->UpdateCase(hookCase);
    }
    return result;
}

int HookOperationImpl::DoHookGroup(HookGroup& group) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    for (unsigned long caseId : group.case_list) {
        int result = DoHookCase(m_hookConfigInformation.hook_cases[caseId]);
        if (result != 0) {
            UnhookGroup(group);
            return result;
        }
    }
    if (m_pHookDBOperations != nullptr) {
        m_pHookDBOperations->UpdateGroup(group);
    }
    return 0;
}

int HookOperationImpl::DoHookGroup(const std::string& groupName,
                                   const std::vector<std::string>& args) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (IsHookGroupReady(groupName) && CompareGroupArguments(groupName, args)) {
        CORVANE_LOGI(
            "The hook parameters are not updated and the hook operation is skipped. The name of "
            "the hook group is: %s",
            groupName.c_str());
        return 0;
    }
    CORVANE_LOGI("The hook parameters are updated. The name of the hook group is: %s",
                 groupName.c_str());
    HookGroup* group = FindGroup(groupName);
    if (group == nullptr) {
        return 0;
    }
    group->args_array_list = args;
    group->available = true;
    return DoHookGroup(*group);
}

int HookOperationImpl::Unhook(Hook& hook) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (hook.stub != nullptr) {
        shadowhook_unhook(hook.stub);
        if (hook.function_type == kFunctionTypeNeedsReload && hook.hook_state == 1 &&
            hook.executed != 0) {
            m_reloadFlag = 1;
        }
    }
    hook.stub = nullptr;
    hook.hook_state = 0;
    hook.result = kResultUnhooked;
    hook.executed = 0;
    CloseHandle(hook.source_handle);
    CloseHandle(hook.target_handle);
    if (m_pHookDBOperations != nullptr) {
        m_pHookDBOperations->UpdateHook(hook);
    }
    return 0;
}

int HookOperationImpl::UnhookCase(HookCase& hookCase) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    for (const std::string& hookName : hookCase.hook_name_list) {
        Unhook(m_hookConfigInformation.hooks[hookName]);
    }
    if (m_pHookDBOperations != nullptr) {
        m_pHookDBOperations->UpdateCase(hookCase);
    }
    return 0;
}

int HookOperationImpl::UnhookGroup(HookGroup& group) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    group.available = false;
    group.args_array_list.clear();
    if (m_pHookDBOperations != nullptr) {
        m_pHookDBOperations->UpdateGroup(group);
    }
    for (unsigned long caseId : group.case_list) {
        UnhookCase(m_hookConfigInformation.hook_cases[caseId]);
    }
    return 0;
}

int HookOperationImpl::UnhookGroup(std::string groupName) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    HookGroup* group = FindGroup(groupName);
    return group == nullptr ? 0 : UnhookGroup(*group);
}

void HookOperationImpl::UnhookAllCase() {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    for (HookGroup& group : m_hookConfigInformation.hook_groups) {
        UnhookGroup(group);
    }
}

void HookOperationImpl::HookAllAvailableCase() {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_pHookDBOperations == nullptr) {
        return;
    }
    std::vector<HookGroup*> storedGroups;
    for (HookGroup& group : m_hookConfigInformation.hook_groups) {
        group.args_array_list = m_pHookDBOperations->QueryHookGroupArguments(group);
        if (m_pHookDBOperations->QueryHookGroupAvailable(group)) {
            storedGroups.push_back(&group);
        }
    }
    if (!storedGroups.empty() && !m_restartGuard.BeginReinstall()) {
        // The previous starts died soon after installing these groups: leave them out so that
        // the service stays up and the debug channel answers. They are stored as not available
        // with their arguments, for the user to look at and inject again.
        std::vector<std::string> names;
        for (const HookGroup* group : storedGroups) {
            names.push_back(group->group_name);
        }
        CORVANE_LOGE(
            "the camera service died within %lld s of re-installing stored hook groups at %d "
            "starts in a row; not re-installing: %s (stored as not available)",
            static_cast<long long>(HookRestartGuard::kStayUpWindow.count()),
            HookRestartGuard::kCrashedStartsBeforeWithholding, StringJoin(names, ", ").c_str());
        m_pHookDBOperations->AddHookConfigInformation(m_hookConfigInformation);
        return;
    }
    for (HookGroup* group : storedGroups) {
        for (unsigned long caseId : group->case_list) {
            HookCase& hookCase = m_hookConfigInformation.hook_cases[caseId];
            for (const std::string& hookName : hookCase.hook_name_list) {
                Hook& hook = m_hookConfigInformation.hooks[hookName];
                // A hook shared with a group re-installed before is not installed twice: its
                // first stub would be lost and could never be removed.
                if (hook.hook_state != 1) {
                    DoHook(hook);
                }
                // Judged by the state, not by DoHook's result: a hook whose type installs
                // nothing counts as a failure, and then every group is removed.
                if (hook.hook_state != 1) {
                    UnhookAllCase();
                    return;
                }
            }
        }
        group->available = true;
    }
    m_pHookDBOperations->AddHookConfigInformation(m_hookConfigInformation);
}

int HookOperationImpl::ModifyHookExecuteStatus(const std::string& hookName, bool executed) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    auto found = m_hookConfigInformation.hooks.find(hookName);
    if (found == m_hookConfigInformation.hooks.end()) {
        return 1;
    }
    CORVANE_LOGI("modify hook execute status: hookName: %s, executed: %d", hookName.c_str(),
                 executed);
    found->second.executed = executed ? 1 : 0;
    if (m_pHookDBOperations != nullptr) {
        m_pHookDBOperations->UpdateHook(found->second);
    }
    return 0;
}

int HookOperationImpl::ModifyHookExecuteStatus(unsigned long caseId, unsigned long hookId,
                                               unsigned int status) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    auto hookCase = m_hookConfigInformation.hook_cases.find(caseId);
    if (hookCase == m_hookConfigInformation.hook_cases.end()) {
        return 1;
    }
    for (const std::string& hookName : hookCase->second.hook_name_list) {
        auto hook = m_hookConfigInformation.hooks.find(hookName);
        if (hook == m_hookConfigInformation.hooks.end() || hook->second.hook_id != hookId) {
            continue;
        }
        hook->second.executed = static_cast<int>(status);
        CORVANE_LOGI(
            "modify hook execute status: case_id: %lu, hook_id: %lu, hookName: %s, "
            "status: %d",
            caseId, hookId, hookName.c_str(), hook->second.executed);
        if (m_pHookDBOperations != nullptr) {
            m_pHookDBOperations->UpdateHook(hook->second);
        }
        return 0;
    }
    return 1;
}

int HookOperationImpl::UpdateHookStatus() {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_pHookDBOperations == nullptr) {
        return 0;
    }
    for (auto& entry : m_hookConfigInformation.hooks) {
        entry.second.executed = m_pHookDBOperations->GetHookExecutedMessage(entry.second) ? 1 : 0;
    }
    return 0;
}

namespace {

// Walks the hooks of a group; true when `test` holds for every hook met. A group without cases,
// and a case without hooks, count as passing, deliberately. Hooks that the configuration does not
// define count as neither installed nor executed.
template <typename Test>
bool EveryHookOfGroup(HookConfigInformation& info, const HookGroup& group, Test test) {
    static const Hook kMissingHook;
    for (unsigned long caseId : group.case_list) {
        auto hookCase = info.hook_cases.find(caseId);
        if (hookCase == info.hook_cases.end()) {
            continue;
        }
        for (const std::string& hookName : hookCase->second.hook_name_list) {
            auto hook = info.hooks.find(hookName);
            if (!test(hook == info.hooks.end() ? kMissingHook : hook->second)) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace

bool HookOperationImpl::IsHookGroupReady(const HookGroup& group) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return EveryHookOfGroup(m_hookConfigInformation, group,
                            [](const Hook& hook) { return hook.hook_state == 1; });
}

bool HookOperationImpl::IsHookGroupExecuted(const HookGroup& group) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return EveryHookOfGroup(m_hookConfigInformation, group,
                            [](const Hook& hook) { return hook.executed != 0; });
}

bool HookOperationImpl::IsHookGroupReady(const std::string& groupName) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    HookGroup* group = FindGroup(groupName);
    return group != nullptr && IsHookGroupReady(*group);
}

bool HookOperationImpl::IsHookGroupExecuted(const std::string& groupName) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    HookGroup* group = FindGroup(groupName);
    return group != nullptr && IsHookGroupExecuted(*group);
}

bool HookOperationImpl::IsHookStatus(const std::string& hookName) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    auto found = m_hookConfigInformation.hooks.find(hookName);
    if (found == m_hookConfigInformation.hooks.end()) {
        return false;
    }
    CORVANE_LOGI("hook execute status: hook_id: %lu, hookName: %s, status: %u",
                 found->second.hook_id, hookName.c_str(),
                 static_cast<unsigned int>(found->second.executed));
    return found->second.executed != 0;
}

std::string HookOperationImpl::GetHookName(unsigned long caseId, unsigned long hookId) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    auto hookCase = m_hookConfigInformation.hook_cases.find(caseId);
    if (hookCase == m_hookConfigInformation.hook_cases.end()) {
        return "";
    }
    for (const std::string& hookName : hookCase->second.hook_name_list) {
        auto hook = m_hookConfigInformation.hooks.find(hookName);
        if (hook != m_hookConfigInformation.hooks.end() && hook->second.hook_id == hookId) {
            // Reuses the status line's text, as the log has always read.
            CORVANE_LOGI(
                "modify hook execute status: case_id: %lu, hook_id: %lu, hookName: %s, "
                "status: %d",
                caseId, hookId, hookName.c_str(), hook->second.executed);
            return hookName;
        }
    }
    return "";
}

std::pair<unsigned long, unsigned long> HookOperationImpl::GetCaseAndHookId(
    const std::string& hookName) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    // The first case, in ascending case id, that names the hook.
    for (const auto& entry : m_hookConfigInformation.hook_cases) {
        for (const std::string& name : entry.second.hook_name_list) {
            CORVANE_LOGD("find hookGroupName: %s, current hookGroupName: %s", hookName.c_str(),
                         name.c_str());
            if (name != hookName) {
                continue;
            }
            auto hook = m_hookConfigInformation.hooks.find(hookName);
            return {entry.first, hook == m_hookConfigInformation.hooks.end()
                                     ? HOOK_ID_NONE
                                     : hook->second.hook_id};
        }
    }
    return {HOOK_ID_NONE, HOOK_ID_NONE};
}

std::vector<std::string> HookOperationImpl::GetHookGroupArguments(const std::string& groupName) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    HookGroup* group = FindGroup(groupName);
    return group == nullptr ? std::vector<std::string>() : group->args_array_list;
}

int HookOperationImpl::SetHookGroupArguments(const std::string& groupName,
                                             const std::vector<std::string>& args) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    HookGroup* group = FindGroup(groupName);
    if (group == nullptr) {
        return 1;
    }
    group->args_array_list = args;
    return m_pHookDBOperations == nullptr ? 0
                                          : m_pHookDBOperations->ModifyHookGroupArguments(*group);
}

bool HookOperationImpl::CompareGroupArguments(const std::string& groupName,
                                              const std::vector<std::string>& args) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    // Joined with the separator the database stores them with, so arguments read back after a
    // restart compare equal to the ones given before it.
    return StringJoin(GetHookGroupArguments(groupName), kArgumentSeparator) ==
           StringJoin(args, kArgumentSeparator);
}
