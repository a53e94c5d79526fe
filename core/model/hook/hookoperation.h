// The hook engine: installs and removes the inline hooks of the hook-case configuration,
// tracks their execution, and drives firmware fault injection. One instance per process.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "core/model/hook/hook.h"

struct HookOperationCreateInputData {};

class HookOperation {
  public:
    virtual ~HookOperation() = default;

    virtual void GetHookConfg(std::string path) = 0;  // misspelt on purpose: the system's name
    virtual void GetHookConfg(std::string path, HookConfigInformation& info) = 0;
    virtual std::vector<std::string> GetHookGroupArguments(const std::string& groupName) = 0;
    virtual int SetHookGroupArguments(const std::string& groupName,
                                      const std::vector<std::string>& args) = 0;
    virtual bool CompareGroupArguments(const std::string& groupName,
                                       const std::vector<std::string>& args) = 0;
    virtual void HookAllAvailableCase() = 0;
    virtual void UnhookAllCase() = 0;
    virtual bool IsHookGroupReady(const std::string& groupName) = 0;
    virtual bool IsHookGroupReady(const HookGroup& group) = 0;
    virtual bool IsHookGroupExecuted(const std::string& groupName) = 0;
    virtual bool IsHookStatus(const std::string& hookName) = 0;
    virtual std::string GetHookName(unsigned long caseId, unsigned long hookId) = 0;
    virtual std::pair<unsigned long, unsigned long> GetCaseAndHookId(
        const std::string& hookName) = 0;
    virtual bool IsHookGroupExecuted(const HookGroup& group) = 0;
    virtual int DoHookGroup(HookGroup& group) = 0;
    virtual int DoHookGroup(const std::string& groupName, const std::vector<std::string>& args) = 0;
    virtual bool IsNeedReloadConfig() = 0;
    virtual int DoHookCase(HookCase& hookCase) = 0;
    virtual int DoHook(Hook& hook) = 0;
    virtual int DoHook(const HookFw& hookFw) = 0;
    virtual int UnhookGroup(HookGroup& group) = 0;
    virtual int UnhookGroup(std::string groupName) = 0;
    virtual int UnhookCase(HookCase& hookCase) = 0;
    virtual int Unhook(Hook& hook) = 0;
    virtual int UnHook(const HookFw& hookFw) = 0;
    virtual int ModifyHookExecuteStatus(const std::string& hookName, bool executed) = 0;
    virtual int ModifyHookExecuteStatus(unsigned long caseId, unsigned long hookId,
                                        unsigned int status) = 0;
    virtual std::vector<HookRelationship> GetHookRelationshipList() = 0;
    virtual std::vector<HookRelationship> GetHookRelationshipList(HookConfigInformation& info) = 0;
    virtual int UpdateHookStatus() = 0;
    virtual int DoHookBySymbolAddress(Hook& hook) = 0;
    virtual int DoHookByProxyFunctionAddress(Hook& hook) = 0;
    virtual int DoHookByJumpTable(Hook& hook) = 0;
    virtual int ProcessCmds(const HookFw& hookFw) = 0;
    virtual int ClearHook() = 0;
    virtual int AddFaultInjectAck(const std::string& hookName, unsigned char camModuleId,
                                  unsigned char subdevId, unsigned char interfaceId,
                                  unsigned char status) = 0;
    virtual int DeleteFaultInjectAck(const std::string& hookName, unsigned char camModuleId,
                                     unsigned char subdevId, unsigned char interfaceId) = 0;
    virtual int GetFaultInjectAckItem(const std::string& hookName, int camModuleId,
                                      unsigned char subdevId, unsigned char interfaceId,
                                      std::vector<std::vector<std::string>>& result) = 0;

    static HookOperation* Create(HookOperationCreateInputData data);
    // The process-wide engine, created on first call and never replaced.
    static HookOperation* GetInstance();
    static void Destroy(HookOperation* hookOperation);
};
