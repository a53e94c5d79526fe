// The base of every table class: one SQLite file, the statements that create its tables, and
// single statements run on behalf of the table classes. No connection is kept: every statement
// opens the file, runs and closes it.
//
// Failure policy: the first statement that fails (including a failed open, a busy or locked
// file and a row callback that returns non-zero) blocks this object for the rest of its life and
// deletes the database file, so that the next construction on the path (normally at the next
// start of the host process) rebuilds a healthy database. A blocked object answers every call
// with DB_BLOCKED at once. Other objects on the same path are not affected.
#pragma once

#include <stdint.h>

#include <mutex>
#include <string>
#include <vector>

// Bits of the status word. The object runs statements only while neither of the first two is
// set; the integrity bit never stands alone, the failed check having set DB_STATUS_SQL_FAILED.
constexpr uint32_t DB_STATUS_INIT_FAILED = 1;       // empty path, or a table creation failed
constexpr uint32_t DB_STATUS_SQL_FAILED = 2;        // an open or a statement failed
constexpr uint32_t DB_STATUS_INTEGRITY_FAILED = 4;  // the check after a table creation failed

// Returned, without touching the file, by every call on a blocked object.
constexpr int DB_BLOCKED = 3;

// Every table creation statement starts with this, exactly and in lower case.
constexpr const char* DB_CREATE_TABLE_PREFIX = "create table if not exists ";

class DBOperations {
  public:
    using RowCallback = int (*)(void* context, int columnCount, char** values, char** names);

    // Creates each table in order, checking the file after each one; stops at the first failure.
    // The outcome is kept in the status word; nothing is thrown.
    DBOperations(const std::string& dbPath, const std::vector<std::string>& createStatements);
    // Does not touch the file.
    virtual ~DBOperations();
    DBOperations(const DBOperations&) = delete;
    DBOperations& operator=(const DBOperations&) = delete;

    // Runs `sql`, one statement, with sqlite3_exec; `callback` and `context` go to SQLite
    // unchanged and may be null. 0, the SQLite code of the failed open or statement, or
    // DB_BLOCKED. A callback may call back into this object. Text holding a second statement
    // fails as a whole, before anything runs, as invalid SQL does. A statement that exceeds the
    // bounds on its work (ten million SQLite steps) or on the size of a value (1 MiB) is
    // stopped and fails too.
    virtual int SQLExecute(std::string sql, RowCallback callback, void* context);

    // Runs one creation statement, putting DB_CREATE_TABLE_PREFIX in front unless it already
    // starts with it. Returns what SQLExecute returns.
    int SQLTableCreate(std::string sql);

    // Runs one query (with the same checks as SQLExecute) and collects the whole result: row 0
    // holds the column names, rows 1 to nRow the data, each row nCol strings (an SQL NULL reads
    // as empty text). `result` is emptied first in every case. 0, the SQLite code of the
    // failure, or DB_BLOCKED. A query that finds no row gives nRow 0, nCol 0 and one empty
    // header row.
    int SQLGetTable(const std::string& sql, std::vector<std::vector<std::string>>& result,
                    int& nRow, int& nCol);

  protected:
    std::string m_dbPath;
    uint32_t m_dbStatus = 0;
    std::recursive_mutex m_dbMutex;  // held for a whole statement

  private:
    bool IsBlocked() const;
    // Marks the object failed and deletes the file if it exists.
    void FailAndRemoveFile();
};
