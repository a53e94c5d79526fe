// A stand-in hook engine for the debug channel's tests: an in-memory model of what the command
// tables read (relationships, group state, firmware acknowledgements) that records what the
// commands asked of it. Every other operation is inert.
#pragma once

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/model/hook/hookoperation.h"

class FakeHookOperation : public HookOperation {
  public:
    struct Ack {
        std::string hookName;
        std::string camModuleId, subdevId, interfaceId, status;
    };
    struct AckQuery {
        std::string hookName;
        int camModuleId;
        int subdevId, interfaceId;
        bool operator==(const AckQuery& o) const {
            return hookName == o.hookName && camModuleId == o.camModuleId &&
                   subdevId == o.subdevId && interfaceId == o.interfaceId;
        }
    };

    // Model.
    std::vector<HookRelationship> relations;
    std::set<std::string> readyGroups, executedGroups;
    std::set<std::string> readyAfterInject;  // groups that become ready when injected
    int doHookGroupResult = 0;
    std::vector<std::pair<unsigned long, unsigned long>> hookIds;  // parallel to hookIdNames
    std::vector<std::string> hookIdNames;
    std::vector<Ack> acks;
    int processResult = 0;

    // Record.
    std::vector<std::pair<std::string, std::vector<std::string>>> injected;
    std::vector<HookFw> processed;
    std::vector<AckQuery> ackQueries;
    int unhookAllCalls = 0;

    void AddRelation(const std::string& group, unsigned long caseId, const std::string& caseName,
                     const std::string& hook, const std::string& result = "",
                     bool executed = false) {
        HookRelationship relation;
        relation.group_name = group;
        relation.case_id = caseId;
        relation.case_name = caseName;
        relation.hook_name = hook;
        relation.result = result;
        relation.executed = executed;
        relations.push_back(relation);
    }
    void SetHookId(const std::string& hook, unsigned long caseId, unsigned long hookId) {
        hookIdNames.push_back(hook);
        hookIds.push_back({caseId, hookId});
    }

    std::vector<HookRelationship> GetHookRelationshipList() override { return relations; }
    std::vector<HookRelationship> GetHookRelationshipList(HookConfigInformation&) override {
        return relations;
    }
    bool IsHookGroupReady(const std::string& name) override { return readyGroups.count(name) > 0; }
    bool IsHookGroupExecuted(const std::string& name) override {
        return executedGroups.count(name) > 0;
    }
    int DoHookGroup(const std::string& name, const std::vector<std::string>& args) override {
        injected.push_back({name, args});
        if (doHookGroupResult == 0 && readyAfterInject.count(name) > 0) {
            readyGroups.insert(name);
        }
        return doHookGroupResult;
    }
    void UnhookAllCase() override { ++unhookAllCalls; }
    std::string GetHookName(unsigned long caseId, unsigned long hookId) override {
        for (size_t i = 0; i < hookIds.size(); ++i) {
            if (hookIds[i] == std::make_pair(caseId, hookId)) {
                return hookIdNames[i];
            }
        }
        return "";
    }
    std::pair<unsigned long, unsigned long> GetCaseAndHookId(const std::string& hook) override {
        for (size_t i = 0; i < hookIdNames.size(); ++i) {
            if (hookIdNames[i] == hook) {
                return hookIds[i];
            }
        }
        return {HOOK_ID_NONE, HOOK_ID_NONE};
    }
    int ProcessCmds(const HookFw& fw) override {
        processed.push_back(fw);
        return processResult;
    }
    // As the database answers: the header row, then the matches; one empty row for none.
    int GetFaultInjectAckItem(const std::string& hookName, int camModuleId, unsigned char subdevId,
                              unsigned char interfaceId,
                              std::vector<std::vector<std::string>>& result) override {
        ackQueries.push_back({hookName, camModuleId, subdevId, interfaceId});
        result.clear();
        for (const Ack& ack : acks) {
            if (ack.hookName == hookName && ack.subdevId == std::to_string(subdevId) &&
                ack.interfaceId == std::to_string(interfaceId) &&
                (camModuleId < 0 || ack.camModuleId == std::to_string(camModuleId))) {
                if (result.empty()) {
                    result.push_back(
                        {"hook_name", "cam_module_id", "subdev_id", "interface_id", "status"});
                }
                result.push_back(
                    {ack.hookName, ack.camModuleId, ack.subdevId, ack.interfaceId, ack.status});
            }
        }
        if (result.empty()) {
            result.push_back({});
        }
        return 0;
    }

    // Inert.
    void GetHookConfg(std::string) override {}
    void GetHookConfg(std::string, HookConfigInformation&) override {}
    std::vector<std::string> GetHookGroupArguments(const std::string&) override { return {}; }
    int SetHookGroupArguments(const std::string&, const std::vector<std::string>&) override {
        return 0;
    }
    bool CompareGroupArguments(const std::string&, const std::vector<std::string>&) override {
        return false;
    }
    void HookAllAvailableCase() override {}
    bool IsHookGroupReady(const HookGroup&) override { return false; }
    bool IsHookStatus(const std::string&) override { return false; }
    bool IsHookGroupExecuted(const HookGroup&) override { return false; }
    int DoHookGroup(HookGroup&) override { return 0; }
    bool IsNeedReloadConfig() override { return false; }
    int DoHookCase(HookCase&) override { return 0; }
    int DoHook(Hook&) override { return 0; }
    int DoHook(const HookFw&) override { return 0; }
    int UnhookGroup(HookGroup&) override { return 0; }
    int UnhookGroup(std::string) override { return 0; }
    int UnhookCase(HookCase&) override { return 0; }
    int Unhook(Hook&) override { return 0; }
    int UnHook(const HookFw&) override { return 0; }
    int ModifyHookExecuteStatus(const std::string&, bool) override { return 0; }
    int ModifyHookExecuteStatus(unsigned long, unsigned long, unsigned int) override { return 0; }
    int UpdateHookStatus() override { return 0; }
    int DoHookBySymbolAddress(Hook&) override { return 0; }
    int DoHookByProxyFunctionAddress(Hook&) override { return 0; }
    int DoHookByJumpTable(Hook&) override { return 0; }
    int ClearHook() override { return 0; }
    int AddFaultInjectAck(const std::string&, unsigned char, unsigned char, unsigned char,
                          unsigned char) override {
        return 0;
    }
    int DeleteFaultInjectAck(const std::string&, unsigned char, unsigned char,
                             unsigned char) override {
        return 0;
    }
};
