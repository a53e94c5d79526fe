// A stand-in hook engine for the debug channel's tests: an in-memory model of what the command
// tables read (relationships, group state, firmware acknowledgements) that records what the
// commands asked of it. Every other operation is the real engine's, here with no hook cases and
// no database (every sub-module off).
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/model/hook/hookoperationimpl.h"

class FakeHookOperation : public HookOperationImpl {
  public:
    FakeHookOperation() : HookOperationImpl({}) {}

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
    std::map<std::string, std::pair<unsigned long, unsigned long>> hookIds;  // case and hook id
    std::vector<Ack> acks;

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
        for (const auto& [hook, ids] : hookIds) {
            if (ids == std::make_pair(caseId, hookId)) {
                return hook;
            }
        }
        return "";
    }
    std::pair<unsigned long, unsigned long> GetCaseAndHookId(const std::string& hook) override {
        auto ids = hookIds.find(hook);
        return ids == hookIds.end() ? std::make_pair(HOOK_ID_NONE, HOOK_ID_NONE) : ids->second;
    }
    int ProcessCmds(const HookFw& fw) override {
        processed.push_back(fw);
        return 0;
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
};
