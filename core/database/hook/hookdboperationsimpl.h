// HookDBOperations on top of DBOperations: one printf-style statement per operation, values
// put between single quotes unescaped (a quote in a value makes the statement fail, which
// blocks the object and removes the file, as every failed statement does).
#pragma once

#include "core/database/dboperations.h"
#include "core/database/hook/hookdboperations.h"

class HookDBOperationsImpl : public DBOperations, public HookDBOperations {
  public:
    HookDBOperationsImpl(const std::string& dbPath,
                         const std::vector<std::string>& createStatements);
    ~HookDBOperationsImpl() override = default;

    int AddGroup(const HookGroup& group) override;
    int UpdateGroup(const HookGroup& group) override;
    HookGroup QueryGroup(unsigned long groupId) override;
    int AddCase(const HookCase& hookCase) override;
    int UpdateCase(const HookCase& hookCase) override;
    int AddHook(const Hook& hook) override;
    int UpdateHook(const Hook& hook) override;
    bool GetHookExecutedMessage(const Hook& hook) override;
    int AddHookConfigInformation(const HookConfigInformation& info) override;
    int UpdateHookConfigInformation(const HookConfigInformation& info) override;
    bool QueryHookGroupAvailable(const HookGroup& group) override;
    int ModifyHookGroupAvailable(const HookGroup& group) override;
    std::vector<std::string> QueryHookGroupArguments(const HookGroup& group) override;
    int ModifyHookGroupArguments(const HookGroup& group) override;
};

// Row callbacks (SQLite's callback contract); every one returns 0.
int QueryHookGroupCallbackFunction(void* context, int columnCount, char** values, char** names);
int QueryHookExecutedCallbackFunction(void* context, int columnCount, char** values, char** names);
int QueryHookGroupAvailableCallbackFunction(void* context, int columnCount, char** values,
                                            char** names);
int QueryArgumentsCallbackFunction(void* context, int columnCount, char** values, char** names);
