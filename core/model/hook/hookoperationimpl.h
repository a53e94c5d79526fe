// The hook engine: the hook-case configuration read from JSON, the inline hooks installed from
// it with their execution tracking, and firmware fault injection. Every change of a hook, case
// or group is stored in the hook database when that database exists.
//
// Callers serialise hook operations (the controller's lock); the engine's own lock only keeps
// the model consistent for the bus handlers and replacement functions that report execution
// from other threads.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/messagecenter/message.h"
#include "core/model/hook/hookoperation.h"
#include "core/model/hook/hookrestartguard.h"

class ConfigLoad;
class HookDBOperations;
class HookFwDBOperations;

// The process's engine if one exists; never creates one (bus handlers must not).
HookOperation* CurrentHookOperation();

class HookOperationImpl : public HookOperation {
  public:
    static constexpr const char* kHookCasePath = "/odm/etc/camera/corvanesystem_hook_case.json";
    static constexpr const char* kHookDbPath = "/data/vendor/camera/hook.db";

    explicit HookOperationImpl(HookOperationCreateInputData data);
    ~HookOperationImpl() override;

    void GetHookConfg(std::string path) override;
    void GetHookConfg(std::string path, HookConfigInformation& info) override;
    std::vector<std::string> GetHookGroupArguments(const std::string& groupName) override;
    int SetHookGroupArguments(const std::string& groupName,
                              const std::vector<std::string>& args) override;
    bool CompareGroupArguments(const std::string& groupName,
                               const std::vector<std::string>& args) override;
    void HookAllAvailableCase() override;
    void UnhookAllCase() override;
    bool IsHookGroupReady(const std::string& groupName) override;
    bool IsHookGroupReady(const HookGroup& group) override;
    bool IsHookGroupExecuted(const std::string& groupName) override;
    bool IsHookStatus(const std::string& hookName) override;
    std::string GetHookName(unsigned long caseId, unsigned long hookId) override;
    std::pair<unsigned long, unsigned long> GetCaseAndHookId(const std::string& hookName) override;
    bool IsHookGroupExecuted(const HookGroup& group) override;
    int DoHookGroup(HookGroup& group) override;
    int DoHookGroup(const std::string& groupName, const std::vector<std::string>& args) override;
    bool IsNeedReloadConfig() override;
    int DoHookCase(HookCase& hookCase) override;
    int DoHook(Hook& hook) override;
    int DoHook(const HookFw& hookFw) override;
    int UnhookGroup(HookGroup& group) override;
    int UnhookGroup(std::string groupName) override;
    int UnhookCase(HookCase& hookCase) override;
    int Unhook(Hook& hook) override;
    int UnHook(const HookFw& hookFw) override;
    int ModifyHookExecuteStatus(const std::string& hookName, bool executed) override;
    int ModifyHookExecuteStatus(unsigned long caseId, unsigned long hookId,
                                unsigned int status) override;
    std::vector<HookRelationship> GetHookRelationshipList() override;
    std::vector<HookRelationship> GetHookRelationshipList(HookConfigInformation& info) override;
    int UpdateHookStatus() override;
    int DoHookBySymbolAddress(Hook& hook) override;
    int DoHookByProxyFunctionAddress(Hook& hook) override;
    int DoHookByJumpTable(Hook& hook) override;
    int ProcessCmds(const HookFw& hookFw) override;
    int ClearHook() override;
    int AddFaultInjectAck(const std::string& hookName, unsigned char camModuleId,
                          unsigned char subdevId, unsigned char interfaceId,
                          unsigned char status) override;
    int DeleteFaultInjectAck(const std::string& hookName, unsigned char camModuleId,
                             unsigned char subdevId, unsigned char interfaceId) override;
    int GetFaultInjectAckItem(const std::string& hookName, int camModuleId, unsigned char subdevId,
                              unsigned char interfaceId,
                              std::vector<std::vector<std::string>>& result) override;

    HookFwDBOperations* GetHookFwDBOperations() const { return m_pHookFwDBOperations; }

    // Bus handlers of "FaultInjectAck" and "bootinject"; they act on the process's engine.
    static void FaultInjectAckCallback(Message request, Message* reply);
    static void FastMsgSubscriberHandle(Message request, Message* reply);

  private:
    HookGroup* FindGroup(const std::string& groupName);
    // Firmware start-up and shut-down: subscriptions and pending commands.
    void StartFirmware();
    void StopFirmware();

    std::recursive_mutex m_mutex;
    std::unique_ptr<ConfigLoad> m_pConfigLoad;
    HookConfigInformation m_hookConfigInformation;
    uint8_t m_reloadFlag = 0;
    HookDBOperations* m_pHookDBOperations = nullptr;
    HookFwDBOperations* m_pHookFwDBOperations = nullptr;
    std::vector<HookFw> m_hookFwList;
    HookRestartGuard m_restartGuard;  // counts starts that re-installed stored groups
};
