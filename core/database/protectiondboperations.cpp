#include "core/database/protectiondboperations.h"

#include <stdio.h>

#include "core/database/dboperations.h"

namespace {

// Names a status column the table does not have: every insert fails, on purpose. This is the
// recording the device has always done; the file is rebuilt empty at the next start.
constexpr const char* kRecordSql =
    "insert into protection(case_id, status, last_time) values(%d, %d, datetime('now', "
    "'localtime'))";

class ProtectionDBOperationsImpl : public ProtectionDBOperations, public DBOperations {
  public:
    ProtectionDBOperationsImpl(const std::string& dbPath,
                               const std::vector<std::string>& createStatements)
        : DBOperations(dbPath, createStatements) {}

    int RecordProtectionFunctionCallback(CallbackMessage message) override {
        char statement[1024] = {};
        snprintf(statement, sizeof(statement), kRecordSql, message.caseId, message.status);
        return SQLExecute(statement, nullptr, nullptr);
    }
};

}  // namespace

const std::vector<std::string>& ProtectionDbTableList() {
    static const std::vector<std::string> tables = {CREATE_PROTECTION_TABLE_SQL};
    return tables;
}

ProtectionDBOperations* ProtectionDBOperations::Create(
    const std::string& dbPath, const std::vector<std::string>& createStatements) {
    return new ProtectionDBOperationsImpl(dbPath, createStatements);
}

void ProtectionDBOperations::Destroy(ProtectionDBOperations* operations) {
    delete operations;
}
