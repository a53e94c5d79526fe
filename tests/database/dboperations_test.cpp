#include "core/database/dboperations.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdio.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

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
    EXPECT_EQ(db.SQLExecute("insert into a values(1); insert into a values(2);", nullptr, nullptr),
              0);
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
    ASSERT_EQ(db.SQLExecute("insert into g values(1, 'one', 'a'); insert into g values(2, 'two', "
                            "NULL);",
                            nullptr, nullptr),
              0);
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

}  // namespace
