// HookFwDBOperations on top of DBOperations. The templates quote their numbers differently on
// purpose (the firmware insert quotes them, its delete and select do not; the acknowledgement
// insert quotes them, its delete does not, and its two selects differ): existing databases and
// scripts rely on these exact statements.
#pragma once

#include "core/database/dboperations.h"
#include "core/database/hook/hookfwdboperations.h"

class HookFwDBOperationsImpl : public DBOperations, public HookFwDBOperations {
  public:
    HookFwDBOperationsImpl(const std::string& dbPath,
                           const std::vector<std::string>& createStatements);
    ~HookFwDBOperationsImpl() override = default;

    int AddHookPrepare(const HookFw& hookFw) override;
    int DeleteHookPrepare(const HookFw& hookFw) override;
    int GetHookItemPrepare(const HookFw& hookFw, DBTable& result, int& nRow, int& nCol) override;
    int ClearHook() override;
    std::vector<HookFw> GetHookAllItemToTable() override;
    int AddFaultInjectAck(const std::string& hookName, unsigned char camModuleId,
                          unsigned char subdevId, unsigned char interfaceId,
                          unsigned char status) override;
    int DeleteFaultInjectAck(const std::string& hookName, unsigned char camModuleId,
                             unsigned char subdevId, unsigned char interfaceId) override;
    int GetFaultInjectAckItem(const std::string& hookName, int camModuleId, unsigned char subdevId,
                              unsigned char interfaceId, DBTable& result) override;
};
