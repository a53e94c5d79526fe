#include "core/controller/corvanesystem.h"

#include <signal.h>
#include <unistd.h>

#include "core/controller/corvanesystemconfig.h"
#include "core/controller/corvanesystemimpl.h"
#include "core/controller/corvanesystemlog.h"
#include "core/model/hook/hookoperation.h"
#include "core/model/hook/hookrestartguard.h"
#include "core/model/monitor/monitor.h"
#include "core/model/protection/protection.h"
#include "core/server/server.h"
#include "platform/devicepath.h"
#include "shadowhook.h"

namespace {

bool IsEnabled(const char* subModule) {
    return CorvaneSystemConfig::GetInstance()->IsSubModuleIsEnable(subModule);
}

}  // namespace

extern "C" CorvaneSystem* CorvaneSystemGetInstance() {
    static CorvaneSystem* instance = CorvaneSystem::Create();
    return instance;
}

CorvaneSystem* CorvaneSystem::Create() {
    CorvaneSystemImpl* system = new CorvaneSystemImpl();
    system->Initialize();
    return system;
}

void CorvaneSystem::Destroy(CorvaneSystem* system) {
    delete system;
}

int CorvaneSystemImpl::Initialize() {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (IsEnabled(SUBMODULE_HOOKSWITCH)) {
        do {
            std::string hookCasePath = DevicePath(kHookCasePath);
            if (access(hookCasePath.c_str(), F_OK) != 0) {
                CORVANE_LOGE("%s not exists", kHookCasePath);
                break;
            }
            CORVANE_LOGI("hook config exists");
            m_hookConfigExists = true;
            if (IsEnabled(SUBMODULE_INITHOOKSWITCH)) {
                m_hookInitResult = shadowhook_init(SHADOWHOOK_MODE_SHARED, true);
                if (m_hookInitResult != 0) {
                    CORVANE_LOGE("Initialization hook function failed");
                    break;
                }
                CORVANE_LOGI("hook lib initialization successful");
            }
            m_pHookOperation = HookOperation::GetInstance();
            if (m_pHookOperation == nullptr) {
                CORVANE_LOGE("Failed to create HookOperation");
                break;
            }
            CORVANE_LOGI("hook operation object initialization successful");
            if (m_hookInitResult == 0 && IsEnabled(SUBMODULE_INITHOOKSWITCH)) {
                m_pHookOperation->UpdateHookStatus();
                m_pHookOperation->HookAllAvailableCase();
                CORVANE_LOGI("hook initialization successful");
            }
        } while (false);
    }
    if (IsEnabled(SUBMODULE_VXCDB)) {
        m_pServer = Server::Create({kServerBacklog, this, DevicePath(kSocketPath)});
    }
    if (IsEnabled(SUBMODULE_MONITR)) {
        m_pMonitor = Monitor::Create();
    }
    m_pProtection = Protection::Create(m_pHookOperation, m_hookInitResult);
    if (m_pProtection == nullptr) {
        CORVANE_LOGE("Failed to create Protection model");
    } else {
        CORVANE_LOGI("Protection initialization successful");
    }
    return 0;
}

int CorvaneSystemImpl::InitilizeHook(HookOperation*) {
    if (m_pHookOperation == nullptr) {
        return 0;
    }
    m_pHookOperation->UpdateHookStatus();
    m_pHookOperation->HookAllAvailableCase();
    return 0;
}

CorvaneSystemImpl::~CorvaneSystemImpl() {
    // The server goes first so that no command can arrive while the rest is torn down. Its
    // destruction waits for connection threads that may be inside ExecuteCommand, which takes
    // m_mutex: so it runs before the lock is taken here, or the two would wait on each other.
    if (m_pServer != nullptr) {
        Server::Destroy(m_pServer);
        m_pServer = nullptr;
    }
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_pHookOperation != nullptr) {
        HookOperation::Destroy(m_pHookOperation);
        m_pHookOperation = nullptr;
    }
    if (m_pMonitor != nullptr) {
        Monitor::Destroy(m_pMonitor);
        m_pMonitor = nullptr;
    }
    if (m_pProtection != nullptr) {
        Protection::Destroy(m_pProtection);
        m_pProtection = nullptr;
    }
}

bool CorvaneSystemImpl::IsSwitchOpened(ProtectionScheme scheme) {
    return m_pProtection != nullptr && m_pProtection->IsSwitchOpened(scheme);
}

void CorvaneSystemImpl::ProtectionCallback(CallbackMessage message) {
    if (m_pProtection != nullptr) {
        m_pProtection->RecordProtectionFunctionCallback(message);
    }
}

void CorvaneSystemImpl::ProtectionConfig(ProtectionScheme scheme,
                                         std::vector<std::string> arguments) {
    if (m_pProtection != nullptr) {
        m_pProtection->ProtectionConfig(scheme, arguments);
    }
}

std::vector<std::string> CorvaneSystemImpl::GetHookArguments(std::string groupName) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_pHookOperation == nullptr) {
        return {};
    }
    return m_pHookOperation->GetHookGroupArguments(groupName);
}

void CorvaneSystemImpl::NotifyHookMessage(HookMessage message) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (message.kind == HOOK_MESSAGE_EXECUTED && !message.hookName.empty() &&
        m_pHookOperation != nullptr) {
        m_pHookOperation->ModifyHookExecuteStatus(message.hookName, true);
    }
}

void CorvaneSystemImpl::Reload() {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (IsEnabled(SUBMODULE_AUTORELOAD)) {
        // The supervisor (init on a device) restarts the service, which re-reads everything.
        RaiseSignal(SIGHUP);
    }
}

bool CorvaneSystemImpl::NeedReload() {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_pHookOperation == nullptr || !IsEnabled(SUBMODULE_AUTORELOAD)) {
        return false;
    }
    return m_pHookOperation->IsNeedReloadConfig();
}

void CorvaneSystemImpl::RaiseSignal(int signal) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (signal != SIGHUP && signal != SIGABRT) {
        CORVANE_LOGE("error signal type: %d", signal);
        return;
    }
    CORVANE_LOGI("raise signal: %d", signal);
    // A restart asked for is not a crash: it must not count towards leaving stored groups out.
    HookRestartGuard::Forget(DevicePath(HookRestartGuard::kStatePath));
    raise(signal);
}

void CorvaneSystemImpl::RecordProbeMessage(std::string message, bool result) {
    if (m_pMonitor != nullptr) {
        m_pMonitor->RecordProbeMessage(message, result);
    }
}
