#include "core/database/dboperations.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdio.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "core/database/hook/hookfwdboperations.h"
#include "tests/support/testsupport.h"

namespace {

using corvanetest::LogCapture;
using corvanetest::ScopedChdir;
using corvanetest::TempDir;
using Table = std::vector<std::vector<std::string>>;

// Lets the tests see the status word, as the table classes could.
class InspectableDB : public DBOperations {
  public:
    using DBOperations::DBOperations;
    uint32_t Status() const { return m_dbStatus; }
};

bool Exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// Names of the tables in `path`, read through a connection of our own that never creates it.
std::vector<std::string> TablesOf(const std::string& path) {
    std::vector<std::string> names;
    sqlite3* handle = nullptr;
    if (sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_stmt* statement = nullptr;
        sqlite3_prepare_v2(handle, "select name from sqlite_master where type='table' order by 1",
                           -1, &statement, nullptr);
        while (statement != nullptr && sqlite3_step(statement) == SQLITE_ROW) {
            names.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)));
        }
        sqlite3_finalize(statement);
    }
    sqlite3_close(handle);
    return names;
}

// Output of the sqlite3 command-line shell run on `path`.
std::string Shell(const std::string& path, const std::string& command) {
    std::string line = "sqlite3 '" + path + "' '" + command + "' 2>&1";
    FILE* pipe = popen(line.c_str(), "r");
    std::string out;
    char buffer[256];
    while (pipe != nullptr && fgets(buffer, sizeof(buffer), pipe) != nullptr) {
        out += buffer;
    }
    if (pipe != nullptr) {
        pclose(pipe);
    }
    return out;
}

int CountRows(void* context, int, char**, char**) {
    ++*static_cast<int*>(context);
    return 0;
}

TEST(DBOperations, CreatesEachTableAndLeavesAFileTheShellAccepts) {
    TempDir dir;
    std::string path = dir / "hook.db";
    InspectableDB db(path, {"create table if not exists a(x INT not null);",
                            "b(y TEXT);"});  // the prefix is added when missing
    EXPECT_EQ(db.Status(), 0u);
    EXPECT_EQ(Shell(path, ".tables"), "a  b\n");
    EXPECT_EQ(Shell(path, "PRAGMA integrity_check;"), "ok\n");
    EXPECT_EQ(db.SQLExecute("insert into a values(1);", nullptr, nullptr), 0);
    EXPECT_EQ(db.SQLExecute("insert into a values(2);", nullptr, nullptr), 0);
    int rows = 0;
    EXPECT_EQ(db.SQLExecute("select * from a", CountRows, &rows), 0);
    EXPECT_EQ(rows, 2);
    EXPECT_EQ(Shell(path, "select sum(x) from a;"), "3\n");
}

TEST(DBOperations, EmptyPathBlocksWithoutTouchingAnyFile) {
    TempDir dir;
    ScopedChdir inside(dir.path());
    LogCapture log;
    InspectableDB db("", {"t(x);"});
    EXPECT_TRUE(log.Contains("Database path is empty")) << log.Dump();
    EXPECT_EQ(db.Status(), DB_STATUS_INIT_FAILED);
    Table result{{"stale"}};
    int nRow = -1, nCol = -1;
    EXPECT_EQ(db.SQLExecute("create table t(x);", nullptr, nullptr), DB_BLOCKED);
    EXPECT_EQ(db.SQLGetTable("select 1", result, nRow, nCol), DB_BLOCKED);
    EXPECT_TRUE(result.empty());
    EXPECT_EQ(nRow, -1);
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
    EXPECT_EQ(log.Lines().size(), 1u) << log.Dump();
}

TEST(DBOperations, NoStatementsOpenNothingUntilTheFirstStatement) {
    TempDir dir;
    std::string path = dir / "lazy.db";
    InspectableDB db(path, {});
    EXPECT_EQ(db.Status(), 0u);
    EXPECT_FALSE(Exists(path));
    EXPECT_EQ(db.SQLExecute("create table t(x);", nullptr, nullptr), 0);
    EXPECT_EQ(TablesOf(path), std::vector<std::string>{"t"});
}

TEST(DBOperations, AFailedCreationDeletesTheFileAndSkipsTheRest) {
    TempDir dir;
    std::string path = dir / "hook.db";
    // A second name for the file keeps its content visible after the layer removes the path.
    std::ofstream(path).close();
    ASSERT_EQ(link(path.c_str(), (dir / "witness.db").c_str()), 0);
    LogCapture log;
    InspectableDB db(path, {"create table if not exists first(x);",
                            "create table if not exists second(x y z ,);",
                            "create table if not exists third(x ,);"});
    EXPECT_FALSE(Exists(path));
    EXPECT_EQ(db.Status(), DB_STATUS_INIT_FAILED | DB_STATUS_SQL_FAILED);
    EXPECT_EQ(TablesOf(dir / "witness.db"), std::vector<std::string>{"first"});
    EXPECT_EQ(log.Count("SQL statement execution failed, sql: create table if not exists second"),
              1)
        << log.Dump();
    EXPECT_EQ(log.Count("Failed to create table: create table if not exists second("), 1)
        << log.Dump();
    EXPECT_FALSE(log.Contains("third")) << log.Dump();
    EXPECT_EQ(db.SQLExecute("create table t(x);", nullptr, nullptr), DB_BLOCKED);
    EXPECT_FALSE(Exists(path));
}

TEST(DBOperations, CreationStatementsMustStartWithTheLowerCasePrefix) {
    struct Case {
        const char* statement;
        bool created;
    } cases[] = {
        {"create table if not exists t(x);", true},
        {"t(x);", true},
        // Deliberately not recognised: the prefix lands in front of the statement's own
        // keywords and the result is a syntax error.
        {"CREATE TABLE IF NOT EXISTS t(x);", false},
        {"create table t(x);", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.statement);
        TempDir dir;
        std::string path = dir / "t.db";
        LogCapture log;
        InspectableDB db(path, {c.statement});
        EXPECT_EQ(Exists(path), c.created);
        EXPECT_EQ(db.Status(), c.created ? 0u : DB_STATUS_INIT_FAILED | DB_STATUS_SQL_FAILED);
        if (!c.created) {
            EXPECT_TRUE(log.Contains("syntax error")) << log.Dump();
            EXPECT_TRUE(log.Contains(std::string("sql: create table if not exists ") + c.statement))
                << log.Dump();
        }
    }
}

TEST(DBOperations, AFailureBlocksOnlyThisObject) {
    TempDir dir;
    std::string path = dir / "shared.db";
    InspectableDB broken(path, {"t(x);"});
    InspectableDB healthy(path, {"t(x);"});
    ASSERT_EQ(broken.SQLExecute("insert into t values(1);", nullptr, nullptr), 0);

    LogCapture log;
    EXPECT_EQ(broken.SQLExecute("insert into missing values(1);", nullptr, nullptr), SQLITE_ERROR);
    EXPECT_TRUE(log.Contains("error message: no such table: missing")) << log.Dump();
    EXPECT_FALSE(Exists(path));
    EXPECT_EQ(broken.Status(), DB_STATUS_SQL_FAILED);

    size_t linesBefore = log.Lines().size();
    Table result;
    int nRow = 0, nCol = 0;
    EXPECT_EQ(broken.SQLExecute("create table t(x);", nullptr, nullptr), DB_BLOCKED);
    EXPECT_EQ(broken.SQLGetTable("select 1", result, nRow, nCol), DB_BLOCKED);
    EXPECT_EQ(log.Lines().size(), linesBefore) << log.Dump();  // blocked calls are silent
    EXPECT_FALSE(Exists(path));

    // The other object recreates the file, without the tables, on its next statement.
    EXPECT_EQ(healthy.SQLGetTable("select count(*) from sqlite_master", result, nRow, nCol), 0);
    EXPECT_EQ(result, (Table{{"count(*)"}, {"0"}}));
    EXPECT_TRUE(Exists(path));
    EXPECT_EQ(healthy.SQLExecute("insert into t values(1);", nullptr, nullptr), SQLITE_ERROR);
    EXPECT_FALSE(Exists(path));
}

TEST(DBOperations, GetTableReturnsAHeaderRowThenTheData) {
    TempDir dir;
    std::string path = dir / "g.db";
    DBOperations db(path, {"g(id INTEGER primary key, name VARCHAR, note TEXT);"});
    ASSERT_EQ(db.SQLExecute("insert into g values(1, 'one', 'a');", nullptr, nullptr), 0);
    ASSERT_EQ(db.SQLExecute("insert into g values(2, 'two', NULL);", nullptr, nullptr), 0);
    Table result{{"stale"}};
    int nRow = -1, nCol = -1;
    LogCapture log;
    EXPECT_EQ(db.SQLGetTable("select id, name, note from g order by id", result, nRow, nCol), 0);
    EXPECT_EQ(nRow, 2);
    EXPECT_EQ(nCol, 3);
    // An SQL NULL reads as empty text.
    EXPECT_EQ(result, (Table{{"id", "name", "note"}, {"1", "one", "a"}, {"2", "two", ""}}));
    EXPECT_TRUE(log.Contains("SQLExecute: result nRow: 2 nCol: 3")) << log.Dump();

    // No matching row: SQLite reports no columns either, and the header row is empty.
    EXPECT_EQ(db.SQLGetTable("select id, name from g where id = 9", result, nRow, nCol), 0);
    EXPECT_EQ(nRow, 0);
    EXPECT_EQ(nCol, 0);
    EXPECT_EQ(result, Table{{}});

    EXPECT_EQ(db.SQLGetTable("select nope from g", result, nRow, nCol), SQLITE_ERROR);
    EXPECT_TRUE(result.empty());
    EXPECT_FALSE(Exists(path));
}

int StopAtFirstRow(void*, int, char**, char**) {
    return 1;
}

TEST(DBOperations, ACallbackThatStopsTheQueryCountsAsAFailure) {
    TempDir dir;
    std::string path = dir / "c.db";
    DBOperations db(path, {"c(x);"});
    ASSERT_EQ(db.SQLExecute("insert into c values(1);", nullptr, nullptr), 0);
    LogCapture log;
    EXPECT_EQ(db.SQLExecute("select x from c", StopAtFirstRow, nullptr), SQLITE_ABORT);
    EXPECT_TRUE(log.Contains("SQL statement execution failed, sql: select x from c")) << log.Dump();
    EXPECT_FALSE(Exists(path));
    int rows = 0;
    EXPECT_EQ(db.SQLExecute("select 1", CountRows, &rows), DB_BLOCKED);
    EXPECT_EQ(rows, 0);
}

struct Reentry {
    DBOperations* db = nullptr;
    int innerResult = -1;
    Table innerTable;
};

int QueryAgain(void* context, int, char** values, char**) {
    Reentry* reentry = static_cast<Reentry*>(context);
    int nRow = 0, nCol = 0;
    reentry->innerResult = reentry->db->SQLGetTable(
        std::string("select x + 1 from r where x = ") + values[0], reentry->innerTable, nRow, nCol);
    return 0;
}

int WriteAgain(void* context, int, char**, char**) {
    Reentry* reentry = static_cast<Reentry*>(context);
    reentry->innerResult = reentry->db->SQLExecute("insert into r values(1);", nullptr, nullptr);
    return 0;
}

TEST(DBOperations, ARowCallbackMayQueryButNotWriteTheSameObject) {
    TempDir dir;
    std::string path = dir / "r.db";
    DBOperations db(path, {"r(x);"});
    ASSERT_EQ(db.SQLExecute("insert into r values(41);", nullptr, nullptr), 0);
    Reentry reentry;
    reentry.db = &db;
    // The lock is recursive: no deadlock.
    EXPECT_EQ(db.SQLExecute("select x from r", QueryAgain, &reentry), 0);
    EXPECT_EQ(reentry.innerResult, 0);
    EXPECT_EQ(reentry.innerTable, (Table{{"x + 1"}, {"42"}}));
    // The outer query still reads the file; the inner connection cannot commit, and a busy
    // file is a failure like any other.
    db.SQLExecute("select x from r", WriteAgain, &reentry);
    EXPECT_EQ(reentry.innerResult, SQLITE_BUSY);
    EXPECT_FALSE(Exists(path));
}

TEST(DBOperations, AnUnopenablePathIsAFailedOpen) {
    TempDir dir;
    std::string path = dir / "no/such/dir/x.db";
    LogCapture log;
    InspectableDB db(path, {"t(x);"});
    EXPECT_TRUE(log.Contains("Database opening failed, path: " + path + ", error message: "))
        << log.Dump();
    EXPECT_TRUE(log.Contains("Failed to create table: t(x);")) << log.Dump();
    EXPECT_EQ(db.Status(), DB_STATUS_INIT_FAILED | DB_STATUS_SQL_FAILED);

    InspectableDB lazy(path, {});
    Table result;
    int nRow = 7, nCol = 8;
    EXPECT_EQ(lazy.SQLGetTable("select 1", result, nRow, nCol), SQLITE_CANTOPEN);
    // After a failed open the counts are left as the caller passed them.
    EXPECT_TRUE(log.Contains("SQLExecute: result nRow: 7 nCol: 8")) << log.Dump();
    EXPECT_EQ(lazy.Status(), DB_STATUS_SQL_FAILED);
}

// What a failed request leaves behind, observed from outside: the object blocked, the file gone,
// and through a second name of the file (taken before the request) the tables as they were.
struct Aftermath {
    int code = 0;
    uint32_t status = 0;
    bool fileExists = false;
    bool logged = false;
    int nextCall = 0;
    std::string tables;  // through the witness name
    std::string victimRows;
};

// A database holding a table t for the request and a table victim with one row (7), as a request
// finds it; `run` sends the request. The request must fail with `error` in its log line.
Aftermath RunFailingRequest(const std::function<int(DBOperations&)>& run, const std::string& sql,
                            const std::string& error) {
    TempDir dir;
    std::string path = dir / "hook.db";
    std::string witness = dir / "witness.db";
    InspectableDB db(path, {"t(name TEXT);", "victim(x INT);"});
    EXPECT_EQ(db.SQLExecute("insert into victim values(7);", nullptr, nullptr), 0);
    EXPECT_EQ(link(path.c_str(), witness.c_str()), 0);
    LogCapture log;
    Aftermath after;
    after.code = run(db);
    after.status = db.Status();
    after.fileExists = Exists(path);
    after.logged =
        log.Count("SQL statement execution failed, sql: " + sql + ", error message: " + error) == 1;
    int rows = 0;
    after.nextCall = db.SQLExecute("select 1", CountRows, &rows);
    after.tables = Shell(witness, "select name from sqlite_master order by 1;");
    after.victimRows = Shell(witness, "select x from victim;");
    if (!after.logged) {
        ADD_FAILURE() << log.Dump();
    }
    return after;
}

// Values reach the statements unescaped; these texts are what a template becomes when a value
// closes its statement and appends another. Whatever the second statement, nothing runs, and
// the request fails as invalid SQL does (the first row).
TEST(DBOperations, ARequestNeverRunsASecondStatement) {
    const std::string kRefused = "more than one statement in the request, none was run";
    struct Case {
        const char* sql;
        bool query;  // through SQLGetTable, otherwise SQLExecute
        std::string error;
    } cases[] = {
        {"insert into t(name) values('it's');", false, "near \"s\": syntax error"},
        {"insert or replace into t(name) values('a'); drop table victim; --');", false, kRefused},
        {"select * from t where name='a'; delete from victim; --'", true, kRefused},
        {"select * from t where name='a'; delete from victim; --'", false, kRefused},
        {"select * from t where name='a';;; delete from victim", true, kRefused},
        // A second statement that does not compile, or that needs what the first creates.
        {"insert into t(name) values('a'); drop tabel victim; --');", false, kRefused},
        {"create table t2(x); insert into t2 values(1)", false, kRefused},
        {"select name from t where name=''; attach database 'other.db' as other; --'", true,
         kRefused},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.sql);
        auto run = [&](DBOperations& db) {
            Table result;
            int nRow = 0, nCol = 0;
            int rows = 0;
            return c.query ? db.SQLGetTable(c.sql, result, nRow, nCol)
                           : db.SQLExecute(c.sql, CountRows, &rows);
        };
        Aftermath after = RunFailingRequest(run, c.sql, c.error);
        EXPECT_EQ(after.code, SQLITE_ERROR);
        EXPECT_EQ(after.status, DB_STATUS_SQL_FAILED);
        EXPECT_FALSE(after.fileExists);
        EXPECT_EQ(after.nextCall, DB_BLOCKED);
        EXPECT_EQ(after.tables, "t\nvictim\n");
        EXPECT_EQ(after.victimRows, "7\n");
    }
}

TEST(DBOperations, BlanksCommentsAndSemicolonsAroundOneStatementAreAccepted) {
    TempDir dir;
    std::string path = dir / "t.db";
    InspectableDB db(path, {"t(name TEXT);"});
    const char* statements[] = {
        "insert into t(name) values('a;b');",  // a semicolon inside a value is no separator
        "insert into t(name) values('c'); -- a comment after the statement",
        "/* before */ insert into t(name) values('d') ;; /* after */ \n\t",
        "insert into t(name) values('e')",
    };
    for (const char* sql : statements) {
        EXPECT_EQ(db.SQLExecute(sql, nullptr, nullptr), 0) << sql;
    }
    Table result;
    int nRow = 0, nCol = 0;
    EXPECT_EQ(db.SQLGetTable("select group_concat(name, '|') from t; -- all", result, nRow, nCol),
              0);
    EXPECT_EQ(result, (Table{{"group_concat(name, '|')"}, {"a;b|c|d|e"}}));
    EXPECT_EQ(db.Status(), 0u);
}

// One statement can still be made to compute without end or to build a huge value; it is
// stopped and fails like any other failed statement, instead of holding the lock for ever.
TEST(DBOperations, AStatementWithoutEndOrWithAHugeValueIsStopped) {
    const std::string kEndless =
        "(with recursive c(x) as (select 1 union all select x + 1 from c) select max(x) from c)";
    struct Case {
        std::string sql;
        bool query;
        int code;
        std::string error;
    } cases[] = {
        {"select " + kEndless, true, SQLITE_INTERRUPT, "interrupted"},
        {"insert into t(name) values(''||" + kEndless + "||'');", false, SQLITE_INTERRUPT,
         "interrupted"},
        {"select length(randomblob(2000000))", true, SQLITE_TOOBIG, "string or blob too big"},
        {"insert into t(name) values(zeroblob(2000000));", false, SQLITE_TOOBIG,
         "string or blob too big"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.sql);
        auto run = [&](DBOperations& db) {
            Table result;
            int nRow = 0, nCol = 0;
            return c.query ? db.SQLGetTable(c.sql, result, nRow, nCol)
                           : db.SQLExecute(c.sql, nullptr, nullptr);
        };
        Aftermath after = RunFailingRequest(run, c.sql, c.error);
        EXPECT_EQ(after.code, c.code);
        EXPECT_EQ(after.status, DB_STATUS_SQL_FAILED);
        EXPECT_FALSE(after.fileExists);
        EXPECT_EQ(after.nextCall, DB_BLOCKED);
        EXPECT_EQ(after.victimRows, "7\n");
    }
}

// The firmware parameter arrives from a debug command as typed and is stored unescaped.
TEST(DBOperations, AFirmwareParameterCannotDropTheHookTables) {
    TempDir dir;
    std::string path = dir / "hook.db";
    HookFwDBOperations* firmware = HookFwDBOperations::Create(path, HOOK_FW_DB_TABLE_LIST);
    ASSERT_NE(firmware, nullptr);
    ASSERT_EQ(link(path.c_str(), (dir / "witness.db").c_str()), 0);
    LogCapture log;
    HookFw command;
    command.param = "x'); drop table hook_group; --";
    EXPECT_EQ(firmware->AddHookPrepare(command), SQLITE_ERROR);
    EXPECT_TRUE(log.Contains("SQLExecute failed")) << log.Dump();
    EXPECT_FALSE(Exists(path));
    // The table the value tried to drop is still there (an empty table counts 0; a missing one
    // would be an error).
    EXPECT_EQ(Shell(dir / "witness.db", "select count(*) from hook_group;"), "0\n");
    EXPECT_EQ(Shell(dir / "witness.db", "select count(*) from hook_firmware;"), "0\n");
    HookFwDBOperations::Destroy(firmware);
}

}  // namespace
