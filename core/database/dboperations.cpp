#include "core/database/dboperations.h"

#include <sqlite3.h>
#include <stdio.h>
#include <unistd.h>

#include <memory>

#include "core/controller/corvanesystemlog.h"
#include "utils/stringutils.h"

namespace {

constexpr const char* INTEGRITY_CHECK_SQL = "PRAGMA integrity_check;";

// Closes a connection when it goes out of scope, also one whose open failed.
struct ConnectionCloser {
    void operator()(sqlite3* handle) const { sqlite3_close(handle); }
};
using Connection = std::unique_ptr<sqlite3, ConnectionCloser>;

struct SqliteFree {
    void operator()(char* text) const { sqlite3_free(text); }
};
using SqliteText = std::unique_ptr<char, SqliteFree>;

struct TableFree {
    void operator()(char** cells) const { sqlite3_free_table(cells); }
};
using SqliteTable = std::unique_ptr<char*, TableFree>;

// Two objects share one file (the hook and firmware tables) and lock separately, and a statement
// that fails blocks its object and deletes the file. A statement that finds the file locked by
// the other object therefore waits this long for it before it counts as failed.
constexpr int kBusyTimeoutMs = 2000;

// Values reach the statements unescaped, so a statement can be made to compute anything SQLite
// can compute within one statement (a recursive query that never ends, a blob of a gigabyte).
// These bounds make such a statement fail, like any failed statement, instead of holding the
// object's lock, and with it the controller, forever. The system's own statements stay far
// below them: a few hundred bytes of text and a few thousand virtual-machine steps each.
constexpr int kMaxValueLength = 1 << 20;                   // bytes of one string, blob or row
constexpr int kProgressInterval = 1000;                    // steps between two checks of the budget
constexpr int kStepBudget = 10000000 / kProgressInterval;  // checks before it is interrupted

// Counts the checks of one connection; a non-zero result interrupts the running statement.
int ExceedsStepBudget(void* context) {
    int* checks = static_cast<int*>(context);
    return ++*checks > kStepBudget ? 1 : 0;
}

// Error text of a request that holds more than one statement; none of them is run.
constexpr const char* kSecondStatementError =
    "more than one statement in the request, none was run";

// sqlite3_open hands back a handle even when it fails, unless it could not allocate one.
// `checks` must outlive the connection: the step budget counts in it.
int OpenConnection(const std::string& path, Connection& connection, int* checks) {
    sqlite3* handle = nullptr;
    int result = sqlite3_open(path.c_str(), &handle);
    connection.reset(handle);
    if (result != SQLITE_OK) {
        CORVANE_LOGE("Database opening failed, path: %s, error message: %s", path.c_str(),
                     sqlite3_errmsg(handle));
    } else {
        sqlite3_busy_timeout(handle, kBusyTimeoutMs);
        sqlite3_limit(handle, SQLITE_LIMIT_LENGTH, kMaxValueLength);
        sqlite3_progress_handler(handle, kProgressInterval, ExceedsStepBudget, checks);
    }
    return result;
}

// The failure of a request that holds a second statement; `error` gets the text the log shows.
int RefuseSecondStatement(char** error) {
    *error = sqlite3_mprintf("%s", kSecondStatementError);
    return SQLITE_ERROR;
}

// Every request is built for exactly one statement, but its values are placed into the text
// unescaped: a value such as "x'); drop table hook_group; --" would close that statement and
// start another, which sqlite3_exec would run too. Returns SQLITE_OK when `sql` holds at most one
// statement (blanks, comments and empty statements around it do not count), SQLITE_ERROR when
// it holds more, with `error` set to an sqlite3_mprintf'd text. Text whose first statement does
// not compile is left to sqlite3_exec, which then fails on it, with its own message, before
// running anything.
int RequireOneStatement(sqlite3* handle, const char* sql, char** error) {
    int statements = 0;
    const char* rest = sql;
    while (*rest != '\0') {
        sqlite3_stmt* statement = nullptr;
        const char* tail = nullptr;
        int result = sqlite3_prepare_v2(handle, rest, -1, &statement, &tail);
        if (statement != nullptr) {
            ++statements;
            sqlite3_finalize(statement);
        }
        if (result != SQLITE_OK) {
            // A second statement that does not compile is still a second statement.
            return statements == 0 ? SQLITE_OK : RefuseSecondStatement(error);
        }
        if (statements > 1) {
            return RefuseSecondStatement(error);
        }
        if (tail == nullptr || tail == rest) {
            break;  // nothing consumed: only trailing blanks or comments are left
        }
        rest = tail;
    }
    return SQLITE_OK;
}

}  // namespace

DBOperations::DBOperations(const std::string& dbPath,
                           const std::vector<std::string>& createStatements)
    : m_dbPath(dbPath), m_dbStatus(0) {
    if (m_dbPath.empty()) {
        CORVANE_LOGE("Database path is empty");
        m_dbStatus |= DB_STATUS_INIT_FAILED;
        return;
    }
    for (const std::string& statement : createStatements) {
        if (SQLTableCreate(statement) != SQLITE_OK) {
            CORVANE_LOGE("Failed to create table: %s", statement.c_str());
            m_dbStatus |= DB_STATUS_INIT_FAILED;
            return;
        }
        m_dbStatus = 0;
        // Only the result code counts: a file that opens and answers the pragma passes, whatever
        // rows the pragma returns.
        if (SQLExecute(INTEGRITY_CHECK_SQL, nullptr, nullptr) != SQLITE_OK) {
            m_dbStatus |= DB_STATUS_INTEGRITY_FAILED;
            // "data table" is the log's historical wording, kept so log searches keep matching.
            CORVANE_LOGE("Failed to data table: %s", m_dbPath.c_str());
            if (!m_dbPath.empty() && access(m_dbPath.c_str(), F_OK) == 0) {
                remove(m_dbPath.c_str());
            }
            return;
        }
    }
}

DBOperations::~DBOperations() = default;

bool DBOperations::IsBlocked() const {
    return (m_dbStatus & (DB_STATUS_INIT_FAILED | DB_STATUS_SQL_FAILED)) != 0;
}

void DBOperations::FailAndRemoveFile() {
    m_dbStatus |= DB_STATUS_SQL_FAILED;
    if (!m_dbPath.empty() && access(m_dbPath.c_str(), F_OK) == 0) {
        remove(m_dbPath.c_str());
    }
}

int DBOperations::SQLExecute(std::string sql, RowCallback callback, void* context) {
    std::lock_guard<std::recursive_mutex> lock(m_dbMutex);
    if (IsBlocked()) {
        return DB_BLOCKED;
    }
    int result;
    int checks = 0;
    {
        Connection connection;
        result = OpenConnection(m_dbPath, connection, &checks);
        if (result == SQLITE_OK) {
            CORVANE_LOGD("SQLExecute: handle: %p sql: %s", static_cast<void*>(connection.get()),
                         sql.c_str());
            char* rawError = nullptr;
            result = RequireOneStatement(connection.get(), sql.c_str(), &rawError);
            if (result == SQLITE_OK) {
                result = sqlite3_exec(connection.get(), sql.c_str(), callback, context, &rawError);
            }
            SqliteText errorText(rawError);
            if (result != SQLITE_OK) {
                CORVANE_LOGE("SQL statement execution failed, sql: %s, error message: %s",
                             sql.c_str(), errorText ? errorText.get() : sqlite3_errstr(result));
            }
        }
    }  // closed here, before the file may be removed
    if (result != SQLITE_OK) {
        FailAndRemoveFile();
    }
    return result;
}

int DBOperations::SQLTableCreate(std::string sql) {
    // The prefix test is exact and case-sensitive, deliberately: a statement written in upper
    // case gets the prefix in front of its own keywords and fails. Every creation statement of
    // the system starts with the lower-case prefix.
    if (!StartsWith(sql, DB_CREATE_TABLE_PREFIX)) {
        sql = DB_CREATE_TABLE_PREFIX + sql;
    }
    return SQLExecute(sql, nullptr, nullptr);
}

int DBOperations::SQLGetTable(const std::string& sql, std::vector<std::vector<std::string>>& result,
                              int& nRow, int& nCol) {
    std::lock_guard<std::recursive_mutex> lock(m_dbMutex);
    result.clear();
    if (IsBlocked()) {
        return DB_BLOCKED;
    }
    int code;
    int checks = 0;
    {
        Connection connection;
        code = OpenConnection(m_dbPath, connection, &checks);
        SqliteTable cells;
        if (code == SQLITE_OK) {
            CORVANE_LOGI("SQLExecute: handle: %p sql: %s", static_cast<void*>(connection.get()),
                         sql.c_str());
            char** rawCells = nullptr;
            char* rawError = nullptr;
            code = RequireOneStatement(connection.get(), sql.c_str(), &rawError);
            if (code == SQLITE_OK) {
                code = sqlite3_get_table(connection.get(), sql.c_str(), &rawCells, &nRow, &nCol,
                                         &rawError);
            }
            cells.reset(rawCells);
            SqliteText errorText(rawError);
            if (code != SQLITE_OK) {
                CORVANE_LOGE("SQL statement execution failed, sql: %s, error message: %s",
                             sql.c_str(), errorText ? errorText.get() : sqlite3_errstr(code));
            } else {
                result.reserve(static_cast<size_t>(nRow) + 1);
                for (int row = 0; row <= nRow; ++row) {
                    std::vector<std::string> line;
                    line.reserve(static_cast<size_t>(nCol));
                    for (int column = 0; column < nCol; ++column) {
                        const char* cell = cells.get()[row * nCol + column];
                        line.emplace_back(cell == nullptr ? "" : cell);
                    }
                    result.push_back(std::move(line));
                }
            }
        }
        cells.reset();
        CORVANE_LOGI("SQLExecute: result nRow: %d nCol: %d", nRow, nCol);
    }  // closed here, before the file may be removed
    if (code != SQLITE_OK) {
        FailAndRemoveFile();
    }
    return code;
}
