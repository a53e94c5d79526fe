// Pending firmware fault-injection commands (table hook_firmware) and the acknowledgements the
// firmware side sent back (table fault_inject_ack), kept in the hook database file beside the
// hook tables, through an object of their own.
#pragma once

#include <string>
#include <vector>

#include "core/database/hook/hookdboperations.h"
#include "core/model/hook/hook.h"

// Table statements, byte for byte what deployed databases were created with.
constexpr const char* CREATE_HOOK_FIRMWARE_TABLE_SQL =
    "create table if not exists hook_firmware( cam_module_id    INTEGER   not null,  "
    "subdev_id        INTEGER   not null,  interface_id     INTEGER   not null,  "
    "param            VARCHAR, PRIMARY KEY (cam_module_id, subdev_id, interface_id));";
constexpr const char* CREATE_FAULT_INJECT_ACK_TABLE_SQL =
    "create table if not exists fault_inject_ack( hook_name        VARCHAR   not null,  "
    "cam_module_id    INTEGER   not null,  subdev_id        INTEGER   not null,  "
    "interface_id     INTEGER   not null,  status           VARCHAR,PRIMARY KEY (hook_name, "
    "cam_module_id, subdev_id, interface_id));";

// The three hook tables, then hook_firmware and fault_inject_ack.
const std::vector<std::string>& HookFwDbTableList();
#define HOOK_FW_DB_TABLE_LIST HookFwDbTableList()

using DBTable = std::vector<std::vector<std::string>>;

class HookFwDBOperations {
  public:
    virtual ~HookFwDBOperations() = default;
    virtual int AddHookPrepare(const HookFw& hookFw) = 0;
    virtual int DeleteHookPrepare(const HookFw& hookFw) = 0;
    virtual int GetHookItemPrepare(const HookFw& hookFw, DBTable& result, int& nRow, int& nCol) = 0;
    virtual int ClearHook() = 0;
    virtual std::vector<HookFw> GetHookAllItemToTable() = 0;
    virtual int AddFaultInjectAck(const std::string& hookName, unsigned char camModuleId,
                                  unsigned char subdevId, unsigned char interfaceId,
                                  unsigned char status) = 0;
    virtual int DeleteFaultInjectAck(const std::string& hookName, unsigned char camModuleId,
                                     unsigned char subdevId, unsigned char interfaceId) = 0;
    // A negative camModuleId matches every camera module.
    virtual int GetFaultInjectAckItem(const std::string& hookName, int camModuleId,
                                      unsigned char subdevId, unsigned char interfaceId,
                                      DBTable& result) = 0;

    static HookFwDBOperations* Create(const std::string& dbPath,
                                      const std::vector<std::string>& createStatements);
    static void Destroy(HookFwDBOperations* operations);
};
