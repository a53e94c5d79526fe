#include "core/database/hook/hookdboperationsimpl.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <exception>

#include "core/controller/corvanesystemlog.h"
#include "utils/stringutils.h"

namespace {

constexpr const char* kListSeparator = ",";
constexpr size_t kStatementBufferSize = 1024;

constexpr const char* kAddGroupSql =
    "insert or replace into hook_group(group_id, group_name, case_list, args_array_list, "
    "available) values(%lu, '%s', '%s', '%s', %d);";
constexpr const char* kUpdateGroupSql =
    "update hook_group set group_name = '%s', case_list = '%s', args_array_list = '%s', "
    "available = %d where group_id = %lu;";
constexpr const char* kQueryGroupSql = "select * from hook_group where group_id=%lu";
constexpr const char* kAddCaseSql =
    "insert or replace into hook_case(case_id, case_name, hook_name_list) values(%lu, '%s', "
    "'%s');";
// The blank before the comma is part of the deployed text.
constexpr const char* kUpdateCaseSql =
    "update hook_case set case_name = '%s' , hook_name_list = '%s' where case_id = %lu;";
constexpr const char* kAddHookSql =
    "insert or replace into hook(hook_name, source_lib_name, target_lib_name, "
    "source_function_symbol, target_function_symbol, proxy_function_symbol, function_type, "
    "hook_type, hook_state, executed) values('%s', '%s', '%s', '%s', '%s', '%s', %d, %d, %d, "
    "%d);";
constexpr const char* kUpdateHookSql =
    "update hook set source_lib_name = '%s', target_lib_name = '%s', source_function_symbol = "
    "'%s', target_function_symbol = '%s', proxy_function_symbol = '%s', function_type = %d, "
    "hook_type = %d, hook_state = %d, executed = %d where hook_name = '%s';";
constexpr const char* kQueryHookSql = "select * from hook where hook_name = '%s';";
// The trailing blanks are part of the deployed text.
constexpr const char* kModifyAvailableSql =
    "update hook_group set available = %d where group_id = %lu ";
constexpr const char* kModifyArgumentsSql =
    "update hook_group set args_array_list = '%s' where group_id = %lu ";

// Formats into a zeroed 1024-byte buffer; longer statements are cut at 1023 characters (and then
// fail as SQL, which is how an over-long value is refused).
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
    char buffer[kStatementBufferSize] = {};
    va_list args;
    va_start(args, format);
    vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    return buffer;
}

const char* ValueOrNull(const char* value) {
    return value == nullptr ? "NULL" : value;
}

// Stores true in *context when the column `wanted` holds exactly "1", and stops reading the row.
int FlagCallback(const char* function, const char* wanted, void* context, int columnCount,
                 char** values, char** names) {
    for (int i = 0; i < columnCount; ++i) {
        CorvaneSystemLog(CORVANE_LOG_DEBUG, __FILE__, __LINE__, function,
                         "columnNames: %s, data: %s", names[i], ValueOrNull(values[i]));
        if (strcmp(names[i], wanted) == 0 && values[i] != nullptr && strcmp(values[i], "1") == 0) {
            *static_cast<bool*>(context) = true;
            break;
        }
    }
    return 0;
}

}  // namespace

const std::vector<std::string>& HookDbTableList() {
    static const std::vector<std::string> tables = {
        CREATE_HOOK_GROUP_TABLE_SQL, CREATE_HOOK_CASE_TABLE_SQL, CREATE_HOOK_TABLE_SQL};
    return tables;
}

HookDBOperations* HookDBOperations::Create(const std::string& dbPath,
                                           const std::vector<std::string>& createStatements) {
    return new HookDBOperationsImpl(dbPath, createStatements);
}

void HookDBOperations::Destroy(HookDBOperations* operations) {
    delete operations;
}

HookDBOperationsImpl::HookDBOperationsImpl(const std::string& dbPath,
                                           const std::vector<std::string>& createStatements)
    : DBOperations(dbPath, createStatements) {}

int QueryHookGroupCallbackFunction(void* context, int columnCount, char** values, char** names) {
    HookGroup* group = static_cast<HookGroup*>(context);
    for (int i = 0; i < columnCount; ++i) {
        CORVANE_LOGD("columnNames: %s, data: %s", names[i], ValueOrNull(values[i]));
        if (values[i] == nullptr) {
            continue;
        }
        std::string column = names[i];
        if (column == "group_id") {
            group->group_id = strtoul(values[i], nullptr, 10);
        } else if (column == "group_name") {
            group->group_name = values[i];
        } else if (column == "case_list") {
            // Lists are written by this system; one it cannot read back is left as far as read.
            try {
                SplitInt(values[i], &group->case_list, kListSeparator);
            } catch (const std::exception&) {
            }
        } else if (column == "args_array_list") {
            SplitString(values[i], &group->args_array_list, kListSeparator);
        } else if (column == "available") {
            group->available = atoi(values[i]) == 1;
        }
    }
    return 0;
}

int QueryHookExecutedCallbackFunction(void* context, int columnCount, char** values, char** names) {
    return FlagCallback(__func__, "executed", context, columnCount, values, names);
}

int QueryHookGroupAvailableCallbackFunction(void* context, int columnCount, char** values,
                                            char** names) {
    return FlagCallback(__func__, "available", context, columnCount, values, names);
}

int QueryArgumentsCallbackFunction(void* context, int columnCount, char** values, char** names) {
    auto* arguments = static_cast<std::vector<std::string>*>(context);
    for (int i = 0; i < columnCount; ++i) {
        CORVANE_LOGD("columnNames: %s, data: %s", names[i], ValueOrNull(values[i]));
        if (strcmp(names[i], "args_array_list") == 0 && values[i] != nullptr) {
            SplitString(values[i], arguments, kListSeparator);
            break;
        }
    }
    return 0;
}

int HookDBOperationsImpl::AddGroup(const HookGroup& group) {
    return SQLExecute(
        Format(kAddGroupSql, group.group_id, group.group_name.c_str(),
               StringJoinUint(group.case_list, kListSeparator).c_str(),
               StringJoin(group.args_array_list, kListSeparator).c_str(), group.available ? 1 : 0),
        nullptr, nullptr);
}

int HookDBOperationsImpl::UpdateGroup(const HookGroup& group) {
    return SQLExecute(Format(kUpdateGroupSql, group.group_name.c_str(),
                             StringJoinUint(group.case_list, kListSeparator).c_str(),
                             StringJoin(group.args_array_list, kListSeparator).c_str(),
                             group.available ? 1 : 0, group.group_id),
                      nullptr, nullptr);
}

HookGroup HookDBOperationsImpl::QueryGroup(unsigned long /*groupId*/) {
    HookGroup group;
    // Deliberately formatted with the result's own all-ones id, not the argument: this is what
    // the query has always asked, and callers rely on getting the default group back.
    SQLExecute(Format(kQueryGroupSql, group.group_id), QueryHookGroupCallbackFunction, &group);
    return group;
}

int HookDBOperationsImpl::AddCase(const HookCase& hookCase) {
    return SQLExecute(Format(kAddCaseSql, hookCase.case_id, hookCase.case_name.c_str(),
                             StringJoin(hookCase.hook_name_list, kListSeparator).c_str()),
                      nullptr, nullptr);
}

int HookDBOperationsImpl::UpdateCase(const HookCase& hookCase) {
    return SQLExecute(
        Format(kUpdateCaseSql, hookCase.case_name.c_str(),
               StringJoin(hookCase.hook_name_list, kListSeparator).c_str(), hookCase.case_id),
        nullptr, nullptr);
}

int HookDBOperationsImpl::AddHook(const Hook& hook) {
    return SQLExecute(
        Format(kAddHookSql, hook.hook_name.c_str(), hook.source_lib_name.c_str(),
               hook.target_lib_name.c_str(), hook.source_function_symbol.c_str(),
               hook.target_function_symbol.c_str(), hook.proxy_function_symbol.c_str(),
               hook.function_type, hook.hook_type, hook.hook_state, hook.executed),
        nullptr, nullptr);
}

int HookDBOperationsImpl::UpdateHook(const Hook& hook) {
    return SQLExecute(
        Format(kUpdateHookSql, hook.source_lib_name.c_str(), hook.target_lib_name.c_str(),
               hook.source_function_symbol.c_str(), hook.target_function_symbol.c_str(),
               hook.proxy_function_symbol.c_str(), hook.function_type, hook.hook_type,
               hook.hook_state, hook.executed, hook.hook_name.c_str()),
        nullptr, nullptr);
}

bool HookDBOperationsImpl::GetHookExecutedMessage(const Hook& hook) {
    bool executed = false;
    SQLExecute(Format(kQueryHookSql, hook.hook_name.c_str()), QueryHookExecutedCallbackFunction,
               &executed);
    return executed;
}

int HookDBOperationsImpl::AddHookConfigInformation(const HookConfigInformation& info) {
    for (const HookGroup& group : info.hook_groups) {
        AddGroup(group);
    }
    for (const auto& entry : info.hook_cases) {
        AddCase(entry.second);
    }
    for (const auto& entry : info.hooks) {
        AddHook(entry.second);
    }
    return 0;
}

int HookDBOperationsImpl::UpdateHookConfigInformation(const HookConfigInformation& info) {
    for (const HookGroup& group : info.hook_groups) {
        UpdateGroup(group);
    }
    for (const auto& entry : info.hook_cases) {
        UpdateCase(entry.second);
    }
    for (const auto& entry : info.hooks) {
        UpdateHook(entry.second);
    }
    return 0;
}

bool HookDBOperationsImpl::QueryHookGroupAvailable(const HookGroup& group) {
    bool available = false;
    std::string sql = Format(kQueryGroupSql, group.group_id);
    if (SQLExecute(sql, QueryHookGroupAvailableCallbackFunction, &available) != 0) {
        CORVANE_LOGE("Faile to execute: sql: %s", sql.c_str());  // wording kept as deployed
        return false;
    }
    // Names a case although the row is a group's; the text is kept as log readers know it.
    CORVANE_LOGD("HookCase available: %d", available);
    return available;
}

int HookDBOperationsImpl::ModifyHookGroupAvailable(const HookGroup& group) {
    return SQLExecute(Format(kModifyAvailableSql, group.available ? 1 : 0, group.group_id), nullptr,
                      nullptr);
}

std::vector<std::string> HookDBOperationsImpl::QueryHookGroupArguments(const HookGroup& group) {
    std::vector<std::string> arguments;
    std::string sql = Format(kQueryGroupSql, group.group_id);
    if (SQLExecute(sql, QueryArgumentsCallbackFunction, &arguments) != 0) {
        CORVANE_LOGE("Faile to execute: sql: %s", sql.c_str());
        arguments.clear();
        return arguments;
    }
    for (const std::string& argument : arguments) {
        CORVANE_LOGI("arg: %s", argument.c_str());
    }
    return arguments;
}

int HookDBOperationsImpl::ModifyHookGroupArguments(const HookGroup& group) {
    return SQLExecute(
        Format(kModifyArgumentsSql, StringJoin(group.args_array_list, kListSeparator).c_str(),
               group.group_id),
        nullptr, nullptr);
}
