#include "core/database/hook/hookfwdboperationsimpl.h"

#include <stdarg.h>
#include <stdio.h>

#include <string>

#include "core/controller/corvanesystemlog.h"

namespace {

constexpr const char* kAddHookPrepareSql =
    "insert or replace into hook_firmware(cam_module_id, subdev_id, interface_id, param) "
    "values('%d', '%d', '%d', '%s');";
constexpr const char* kDeleteHookPrepareSql =
    "delete from hook_firmware where cam_module_id=%d and subdev_id=%d and interface_id=%d";
constexpr const char* kGetHookItemPrepareSql =
    "select * from hook_firmware where cam_module_id=%d and subdev_id=%d and interface_id=%d and "
    "param='%s'";
constexpr const char* kClearHookFirmwareSql = "delete from hook_firmware";
constexpr const char* kClearFaultInjectAckSql = "delete from fault_inject_ack";
constexpr const char* kGetAllHookFirmwareSql = "select * from hook_firmware";
constexpr const char* kAddFaultInjectAckSql =
    "insert or replace into fault_inject_ack(hook_name, cam_module_id, subdev_id, interface_id, "
    "status) values('%s', '%u', '%u', '%u', '0x%02X');";
// "LIKE '%%'" becomes the pattern '%': every non-null status, so a null status is never deleted.
constexpr const char* kDeleteFaultInjectAckSql =
    "delete from fault_inject_ack where hook_name='%s' and cam_module_id=%u and subdev_id=%u and "
    "interface_id=%u and status LIKE '%%'";
constexpr const char* kGetFaultInjectAckSql =
    "select * from fault_inject_ack where hook_name='%s' and cam_module_id='%u' and "
    "subdev_id='%u' and interface_id='%u';";
constexpr const char* kGetFaultInjectAckAnyCameraSql =
    "select * from fault_inject_ack where hook_name='%s' and subdev_id=%u and interface_id=%u;";

constexpr const char* kEmptyParam = "<empty>";

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
    char buffer[1024] = {};
    va_list args;
    va_start(args, format);
    vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    return buffer;
}

}  // namespace

const std::vector<std::string>& HookFwDbTableList() {
    static const std::vector<std::string> tables = {
        CREATE_HOOK_GROUP_TABLE_SQL, CREATE_HOOK_CASE_TABLE_SQL, CREATE_HOOK_TABLE_SQL,
        CREATE_HOOK_FIRMWARE_TABLE_SQL, CREATE_FAULT_INJECT_ACK_TABLE_SQL};
    return tables;
}

HookFwDBOperations* HookFwDBOperations::Create(const std::string& dbPath,
                                               const std::vector<std::string>& createStatements) {
    return new HookFwDBOperationsImpl(dbPath, createStatements);
}

void HookFwDBOperations::Destroy(HookFwDBOperations* operations) {
    delete operations;
}

HookFwDBOperationsImpl::HookFwDBOperationsImpl(const std::string& dbPath,
                                               const std::vector<std::string>& createStatements)
    : DBOperations(dbPath, createStatements) {
    CORVANE_LOGI("HookFwDBOperationsImpl Constructor");
}

int HookFwDBOperationsImpl::AddHookPrepare(const HookFw& hookFw) {
    int result = SQLExecute(Format(kAddHookPrepareSql, hookFw.cam_module_id, hookFw.subdev_id,
                                   hookFw.interface_id, hookFw.param.c_str()),
                            nullptr, nullptr);
    if (result != 0) {
        CORVANE_LOGE("SQLExecute failed");
    } else {
        CORVANE_LOGI("AddHookPrepare success!");
    }
    return result;
}

int HookFwDBOperationsImpl::DeleteHookPrepare(const HookFw& hookFw) {
    int result = SQLExecute(
        Format(kDeleteHookPrepareSql, hookFw.cam_module_id, hookFw.subdev_id, hookFw.interface_id),
        nullptr, nullptr);
    if (result != 0) {
        CORVANE_LOGE("SQLExecute failed");
    } else {
        CORVANE_LOGI("DeleteHookPrepare success!");
    }
    return result;
}

int HookFwDBOperationsImpl::GetHookItemPrepare(const HookFw& hookFw, DBTable& result, int& nRow,
                                               int& nCol) {
    int code = SQLGetTable(Format(kGetHookItemPrepareSql, hookFw.cam_module_id, hookFw.subdev_id,
                                  hookFw.interface_id, hookFw.param.c_str()),
                           result, nRow, nCol);
    if (code != 0) {
        CORVANE_LOGE("SQLGetTable failed");
    }
    CORVANE_LOGI("GetHookItemPrepare nRow: %d nCol: %d", nRow, nCol);
    return code;
}

int HookFwDBOperationsImpl::ClearHook() {
    int result = SQLExecute(kClearHookFirmwareSql, nullptr, nullptr);
    if (result != 0) {
        CORVANE_LOGE("ClearHook failed.\n");
        return result;
    }
    result = SQLExecute(kClearFaultInjectAckSql, nullptr, nullptr);
    if (result != 0) {
        CORVANE_LOGE("clear fault_inject_ack failed");
        return result;
    }
    CORVANE_LOGI("delete fault_inject_ack");
    return 0;
}

std::vector<HookFw> HookFwDBOperationsImpl::GetHookAllItemToTable() {
    std::vector<HookFw> commands;
    DBTable table;
    int nRow = 0;
    int nCol = 0;
    int result = SQLGetTable(kGetAllHookFirmwareSql, table, nRow, nCol);
    if (result != 0 || nRow <= 0) {
        return commands;
    }
    CORVANE_LOGI("GetHookAllItemToTable: result%d nRow %d, nCol %d\n", result, nRow, nCol);
    for (size_t row = 0; row < table.size(); ++row) {
        for (size_t column = 0; column < table[row].size(); ++column) {
            CORVANE_LOGI("+++++++#%d %s, %s\n", static_cast<int>(row), table[0][column].c_str(),
                         table[row][column].c_str());
        }
        CORVANE_LOGI("+++++++++++++++++++++++++++++++++\n");
    }
    // Columns: cam_module_id, subdev_id, interface_id, param. A cell that is not a number throws
    // std::invalid_argument out of here, as it always has; only this system writes the table.
    for (size_t row = 1; row < table.size() && table[row].size() >= 4; ++row) {
        HookFw command;
        command.cmd_id = 0;
        command.cam_module_id = static_cast<uint8_t>(std::stoi(table[row][0]));
        CORVANE_LOGI("GetHookAllItemToTable: cid %d\n", command.cam_module_id);
        command.subdev_id = static_cast<uint8_t>(std::stoi(table[row][1]));
        CORVANE_LOGI("GetHookAllItemToTable: sid %d\n", command.subdev_id);
        command.interface_id = static_cast<uint8_t>(std::stoi(table[row][2]));
        CORVANE_LOGI("GetHookAllItemToTable: iid %d\n", command.interface_id);
        command.param = table[row][3].empty() ? kEmptyParam : table[row][3];
        CORVANE_LOGI("GetHookAllItemToTable: param %s\n", command.param.c_str());
        CORVANE_LOGI("GetHookAllItemToTable  sqlite: cid %d, sid %d, iid %d\n",
                     command.cam_module_id, command.subdev_id, command.interface_id);
        commands.push_back(command);
        const HookFw& appended = commands.back();
        CORVANE_LOGI("GetHookAllItemToTable: table cid %d, sid %d, iid %d\n",
                     appended.cam_module_id, appended.subdev_id, appended.interface_id);
    }
    return commands;
}

int HookFwDBOperationsImpl::AddFaultInjectAck(const std::string& hookName,
                                              unsigned char camModuleId, unsigned char subdevId,
                                              unsigned char interfaceId, unsigned char status) {
    std::string sql =
        Format(kAddFaultInjectAckSql, hookName.c_str(), camModuleId, subdevId, interfaceId, status);
    CORVANE_LOGI("AddFaultInjectAck sqlString: %s", sql.c_str());
    int result = SQLExecute(sql, nullptr, nullptr);
    if (result != 0) {
        CORVANE_LOGE("SQLExecute failed");
    } else {
        CORVANE_LOGI("AddFaultInjectAck success!");
    }
    return result;
}

int HookFwDBOperationsImpl::DeleteFaultInjectAck(const std::string& hookName,
                                                 unsigned char camModuleId, unsigned char subdevId,
                                                 unsigned char interfaceId) {
    int result = SQLExecute(
        Format(kDeleteFaultInjectAckSql, hookName.c_str(), camModuleId, subdevId, interfaceId),
        nullptr, nullptr);
    if (result != 0) {
        CORVANE_LOGE("SQLExecute failed");
    } else {
        CORVANE_LOGI("DeleteFaultInjectAck success!");
    }
    return result;
}

int HookFwDBOperationsImpl::GetFaultInjectAckItem(const std::string& hookName, int camModuleId,
                                                  unsigned char subdevId, unsigned char interfaceId,
                                                  DBTable& result) {
    int nRow = 0;
    int nCol = 0;
    std::string sql =
        camModuleId >= 0
            ? Format(kGetFaultInjectAckSql, hookName.c_str(),
                     static_cast<unsigned int>(camModuleId), subdevId, interfaceId)
            : Format(kGetFaultInjectAckAnyCameraSql, hookName.c_str(), subdevId, interfaceId);
    CORVANE_LOGI("GetFaultInjectAckItem sqlString: %s", sql.c_str());
    int code = SQLGetTable(sql, result, nRow, nCol);
    if (code != 0) {
        CORVANE_LOGE("SQLGetTable failed");
    }
    CORVANE_LOGI("GetFaultInjectAckItem nRow: %d nCol: %d", nRow, nCol);
    return code;
}
