#include "core/database/dboperations.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "tests/support/testsupport.h"

namespace {

using corvanetest::LogCapture;
using corvanetest::ScopedChdir;
using corvanetest::Sql;
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

std::string TablesOf(const std::string& path) {
    return Sql(path, "select name from sqlite_master where type='table' order by 1;");
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
    EXPECT_EQ(TablesOf(path), "a\nb\n");
    EXPECT_EQ(Sql(path, "PRAGMA integrity_check;"), "ok\n");
    EXPECT_EQ(db.SQLExecute("insert into a values(1);", nullptr, nullptr), 0);
    EXPECT_EQ(db.SQLExecute("insert into a values(2);", nullptr, nullptr), 0);
    int rows = 0;
    EXPECT_EQ(db.SQLExecute("select * from a", CountRows, &rows), 0);
    EXPECT_EQ(rows, 2);
    EXPECT_EQ(Sql(path, "select sum(x) from a;"), "3\n");
}

TEST(DBOperations, EmptyPathBlocksWithoutTouchingAnyFile) {
    TempDir dir;
    ScopedChdir inside(dir.path());
    LogCapture log;
    InspectableDB db("", {"t(x);"});
    EXPECT_EQ(db.Status(), DB_STATUS_INIT_FAILED);
    Table result{{"stale"}};
    int nRow = -1, nCol = -1;
    EXPECT_EQ(db.SQLExecute("create table t(x);", nullptr, nullptr), DB_BLOCKED);
    EXPECT_EQ(db.SQLGetTable("select 1", result, nRow, nCol), DB_BLOCKED);
    EXPECT_TRUE(result.empty());
    EXPECT_EQ(nRow, -1);
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
    EXPECT_EQ(log.Lines().size(), 1u) << log.Dump();
    EXPECT_TRUE(log.Contains("Database path is empty")) << log.Dump();
}

TEST(DBOperations, NoStatementsOpenNothingUntilTheFirstStatement) {
    TempDir dir;
    std::string path = dir / "lazy.db";
    InspectableDB db(path, {});
    EXPECT_EQ(db.Status(), 0u);
    EXPECT_FALSE(Exists(path));
    EXPECT_EQ(db.SQLExecute("create table t(x);", nullptr, nullptr), 0);
    EXPECT_EQ(TablesOf(path), "t\n");
}

// A failed creation deletes the file and skips the statements after it. Only the lower-case
// prefix is recognised, deliberately: otherwise it lands in front of the statement's own
// keywords and the result is a syntax error.
TEST(DBOperations, AFailedCreationDeletesTheFileAndSkipsTheRest) {
    struct Case {
        const char* statement;
        const char* executed;
    } cases[] = {
        {"create table if not exists second(x y z ,);",
         "create table if not exists second(x y z ,);"},
        {"CREATE TABLE IF NOT EXISTS t(x);",
         "create table if not exists CREATE TABLE IF NOT EXISTS t(x);"},
        {"create table t(x);", "create table if not exists create table t(x);"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.statement);
        TempDir dir;
        std::string path = dir / "hook.db";
        // A second name for the file keeps its content visible after the layer removes the path.
        std::ofstream(path).close();
        ASSERT_EQ(link(path.c_str(), (dir / "witness.db").c_str()), 0);
        LogCapture log;
        InspectableDB db(path, {"first(x);", c.statement, "third(x ,);"});
        EXPECT_FALSE(Exists(path));
        EXPECT_EQ(db.Status(), DB_STATUS_INIT_FAILED | DB_STATUS_SQL_FAILED);
        EXPECT_EQ(TablesOf(dir / "witness.db"), "first\n");
        EXPECT_EQ(log.Count("SQL statement execution failed, sql: " + std::string(c.executed) +
                            ", error message: near"),
                  1)
            << log.Dump();
        EXPECT_EQ(log.Count("syntax error"), 1) << log.Dump();
        EXPECT_EQ(log.Count("Failed to create table: " + std::string(c.statement)), 1);
        EXPECT_FALSE(log.Contains("third")) << log.Dump();
        EXPECT_EQ(db.SQLExecute("create table t(x);", nullptr, nullptr), DB_BLOCKED);
        EXPECT_FALSE(Exists(path));
    }
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

TEST(DBOperations, ARowCallbackMayQueryButNotWriteTheSameObject) {
    TempDir dir;
    std::string path = dir / "r.db";
    DBOperations db(path, {"r(x);"});
    ASSERT_EQ(db.SQLExecute("insert into r values(41);", nullptr, nullptr), 0);
    struct Reentry {
        DBOperations* db;
        int innerResult = -1;
        Table innerTable;
    } reentry{&db, -1, {}};
    auto queryAgain = [](void* context, int, char** values, char**) {
        Reentry* r = static_cast<Reentry*>(context);
        int nRow = 0, nCol = 0;
        r->innerResult = r->db->SQLGetTable(
            std::string("select x + 1 from r where x = ") + values[0], r->innerTable, nRow, nCol);
        return 0;
    };
    // The lock is recursive: no deadlock.
    EXPECT_EQ(db.SQLExecute("select x from r", queryAgain, &reentry), 0);
    EXPECT_EQ(reentry.innerResult, 0);
    EXPECT_EQ(reentry.innerTable, (Table{{"x + 1"}, {"42"}}));
    // The outer query still reads the file; the inner connection cannot commit, and a busy
    // file is a failure like any other.
    auto writeAgain = [](void* context, int, char**, char**) {
        Reentry* r = static_cast<Reentry*>(context);
        r->innerResult = r->db->SQLExecute("insert into r values(1);", nullptr, nullptr);
        return 0;
    };
    db.SQLExecute("select x from r", writeAgain, &reentry);
    EXPECT_EQ(reentry.innerResult, SQLITE_BUSY);
    EXPECT_FALSE(Exists(path));
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

// Every failed request leaves the same aftermath: the error logged with the statement, the
// object blocked, the file removed, and (seen through a second name of the file taken before the
// request) the tables and data as they were.
TEST(DBOperations, AFailedRequestRunsNothingBlocksTheObjectAndRemovesTheFile) {
    const std::string kRefused = "more than one statement in the request, none was run";
    const std::string kEndless =
        "(with recursive c(x) as (select 1 union all select x + 1 from c) select max(x) from c)";
    enum Mode { EXECUTE, QUERY, STOP_AT_FIRST_ROW };
    struct Case {
        std::string sql;
        Mode mode;
        int code;
        std::string error;
    } cases[] = {
        // Values reach the statements unescaped; these texts are what a template becomes when
        // a value closes its statement and appends another. Whatever the second statement,
        // nothing runs, and the request fails as invalid SQL does (the first row).
        {"insert into t(name) values('it's');", EXECUTE, SQLITE_ERROR, "near \"s\": syntax error"},
        {"insert or replace into t(name) values('a'); drop table victim; --');", EXECUTE,
         SQLITE_ERROR, kRefused},
        {"select * from t where name='a'; delete from victim; --'", QUERY, SQLITE_ERROR, kRefused},
        {"select * from t where name='a'; delete from victim; --'", EXECUTE, SQLITE_ERROR,
         kRefused},
        {"select * from t where name='a';;; delete from victim", QUERY, SQLITE_ERROR, kRefused},
        // A second statement that does not compile, or that needs what the first creates.
        {"insert into t(name) values('a'); drop tabel victim; --');", EXECUTE, SQLITE_ERROR,
         kRefused},
        {"create table t2(x); insert into t2 values(1)", EXECUTE, SQLITE_ERROR, kRefused},
        {"select name from t where name=''; attach database 'other.db' as other; --'", QUERY,
         SQLITE_ERROR, kRefused},
        // One statement can still compute without end or build a huge value; it is stopped
        // instead of holding the lock for ever.
        {"select " + kEndless, QUERY, SQLITE_INTERRUPT, "interrupted"},
        {"insert into t(name) values(''||" + kEndless + "||'');", EXECUTE, SQLITE_INTERRUPT,
         "interrupted"},
        {"select length(randomblob(2000000))", QUERY, SQLITE_TOOBIG, "string or blob too big"},
        {"insert into t(name) values(zeroblob(2000000));", EXECUTE, SQLITE_TOOBIG,
         "string or blob too big"},
        // A row callback that stops the query.
        {"select x from victim", STOP_AT_FIRST_ROW, SQLITE_ABORT, "query aborted"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.sql);
        TempDir dir;
        std::string path = dir / "hook.db";
        InspectableDB db(path, {"t(name TEXT);", "victim(x INT);"});
        ASSERT_EQ(db.SQLExecute("insert into victim values(7);", nullptr, nullptr), 0);
        ASSERT_EQ(link(path.c_str(), (dir / "witness.db").c_str()), 0);
        LogCapture log;
        Table result;
        int nRow = 0, nCol = 0, rows = 0;
        auto stop = [](void*, int, char**, char**) { return 1; };
        int code = c.mode == QUERY     ? db.SQLGetTable(c.sql, result, nRow, nCol)
                   : c.mode == EXECUTE ? db.SQLExecute(c.sql, CountRows, &rows)
                                       : db.SQLExecute(c.sql, stop, nullptr);
        EXPECT_EQ(code, c.code);
        EXPECT_EQ(log.Count("SQL statement execution failed, sql: " + c.sql +
                            ", error message: " + c.error),
                  1)
            << log.Dump();
        EXPECT_EQ(db.Status(), DB_STATUS_SQL_FAILED);
        EXPECT_FALSE(Exists(path));
        EXPECT_EQ(db.SQLExecute("select 1", CountRows, &rows), DB_BLOCKED);
        EXPECT_EQ(rows, 0);
        EXPECT_EQ(TablesOf(dir / "witness.db"), "t\nvictim\n");
        EXPECT_EQ(Sql(dir / "witness.db", "select x from victim;"), "7\n");
    }
}

}  // namespace
