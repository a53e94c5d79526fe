// The hook model (groups, cases, hooks) kept in three SQLite tables, so that a group's
// availability, its arguments and every hook's executed mark survive a restart.
#pragma once

#include <string>
#include <vector>

#include "core/model/hook/hook.h"

// Table statements, byte for byte what deployed databases were created with (the runs of blanks
// and the trailing blank of the hook table included).
constexpr const char* CREATE_HOOK_GROUP_TABLE_SQL =
    "create table if not exists hook_group( group_id          INTEGER      not null primary key, "
    "group_name        VARCHAR      not null, case_list         TEXT         not null, "
    "args_array_list   TEXT         not null, "
    "available         INT          not null default 0);";
constexpr const char* CREATE_HOOK_CASE_TABLE_SQL =
    "create table if not exists hook_case( case_id           INTEGER      not null primary key, "
    "case_name         VARCHAR not null, hook_name_list    TEXT         not null);";
constexpr const char* CREATE_HOOK_TABLE_SQL =
    "create table if not exists hook( hook_name            VARCHAR not null primary key, "
    "source_lib_name      TEXT not null, target_lib_name      TEXT not null, "
    "source_function_symbol TEXT , target_function_symbol TEXT , "
    "proxy_function_symbol TEXT ,  function_type        INT  not null,  "
    "hook_type            INT  not null,  hook_state           INT  not null,  "
    "executed             INT  not null); ";

// hook_group, hook_case, hook, in this order.
const std::vector<std::string>& HookDbTableList();
#define HOOK_DB_TABLE_LIST HookDbTableList()

class HookDBOperations {
  public:
    virtual ~HookDBOperations() = default;
    virtual int AddGroup(const HookGroup& group) = 0;
    virtual int UpdateGroup(const HookGroup& group) = 0;
    // Deliberately ignores its argument and asks for the all-ones id (see the implementation).
    virtual HookGroup QueryGroup(unsigned long groupId) = 0;
    virtual int AddCase(const HookCase& hookCase) = 0;
    virtual int UpdateCase(const HookCase& hookCase) = 0;
    virtual int AddHook(const Hook& hook) = 0;
    virtual int UpdateHook(const Hook& hook) = 0;
    virtual bool GetHookExecutedMessage(const Hook& hook) = 0;
    virtual int AddHookConfigInformation(const HookConfigInformation& info) = 0;
    virtual int UpdateHookConfigInformation(const HookConfigInformation& info) = 0;
    virtual bool QueryHookGroupAvailable(const HookGroup& group) = 0;
    virtual int ModifyHookGroupAvailable(const HookGroup& group) = 0;
    virtual std::vector<std::string> QueryHookGroupArguments(const HookGroup& group) = 0;
    virtual int ModifyHookGroupArguments(const HookGroup& group) = 0;

    // Never null for database reasons: a broken database only makes later operations fail.
    static HookDBOperations* Create(const std::string& dbPath,
                                    const std::vector<std::string>& createStatements);
    static void Destroy(HookDBOperations* operations);
};
