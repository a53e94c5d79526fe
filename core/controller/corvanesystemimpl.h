// The controller: starts the sub-modules in a fixed order according to their switches, owns
// them, forwards the host's calls to them and tears them down in a fixed order. Any sub-module
// may be missing; every forward then gives its neutral result.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "core/controller/corvanesystem.h"

class HookOperation;
class Protection;
class Server;
class Monitor;

class CorvaneSystemImpl : public CorvaneSystem {
  public:
    // Where the debug channel listens, and where the hook-case file lives (device paths).
    static constexpr const char* kSocketPath = "/data/vendor/camera/vxcdb_socket";
    static constexpr const char* kHookCasePath = "/odm/etc/camera/corvanesystem_hook_case.json";
    static constexpr int kServerBacklog = 10;

    CorvaneSystemImpl() = default;
    ~CorvaneSystemImpl() override;

    int Initialize();
    // Misspelt on purpose (the system's name). Ignores its argument, works on the own engine.
    int InitilizeHook(HookOperation* hookOperation);

    bool IsSwitchOpened(ProtectionScheme scheme) override;
    void ProtectionCallback(CallbackMessage message) override;
    void ProtectionConfig(ProtectionScheme scheme, std::vector<std::string> arguments) override;
    std::vector<std::string> GetHookArguments(std::string groupName) override;
    int ExecuteCommand(VXCDBMessageString* request, VXCDBMessageString* response) override;
    void NotifyHookMessage(HookMessage message) override;
    void Reload() override;
    bool NeedReload() override;
    void RaiseSignal(int signal) override;
    void RecordProbeMessage(std::string message, bool result) override;

  private:
    std::vector<HookCase> m_hookCases;  // kept for layout; never filled by the controller
    int m_hookInitResult = -1;
    HookOperation* m_pHookOperation = nullptr;
    Protection* m_pProtection = nullptr;
    std::recursive_mutex m_mutex;
    Server* m_pServer = nullptr;
    Monitor* m_pMonitor = nullptr;
    bool m_hookConfigExists = false;
};
