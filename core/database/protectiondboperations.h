// One record per protection callback, in its own database file.
#pragma once

#include <string>
#include <vector>

#include "core/model/protection/protectionscheme.h"

// The table declares case_id, count and last_time, while the insert names a status column: the
// first record fails by design, which blocks the object and removes the file (see the insert).
constexpr const char* CREATE_PROTECTION_TABLE_SQL =
    "create table if not exists protection( case_id         INTEGER      not null primary key, "
    "count           BIGINT       not null, last_time       TIMESTAMP    not null  );";

const std::vector<std::string>& ProtectionDbTableList();
#define PROTECTION_DB_TABLE_LIST ProtectionDbTableList()

class ProtectionDBOperations {
  public:
    virtual ~ProtectionDBOperations() = default;
    virtual int RecordProtectionFunctionCallback(CallbackMessage message) = 0;

    static ProtectionDBOperations* Create(const std::string& dbPath,
                                          const std::vector<std::string>& createStatements);
    static void Destroy(ProtectionDBOperations* operations);
};
