#include "core/database/dboperations.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/support/testsupport.h"

namespace {

using namespace corvanetest;
using Table = std::vector<std::vector<std::string>>;

// Lets the tests see the status word, as the table classes could.
class InspectableDB : public DBOperations {
  public:
    using DBOperations::DBOperations;
    uint32_t Status() const { return m_dbStatus; }
};

std::string TablesOf(const std::string& path) {
    return Sql(path, "select name from sqlite_master where type='table' order by 1;");
}

// A second name for the database file keeps its content visible after the layer removes it.
std::string Witness(const TempDir& dir, const std::string& path) {
    EXPECT_EQ(link(path.c_str(), (dir / "witness.db").c_str()), 0);
    return dir / "witness.db";
}

TEST(DBOperations, CreatesTablesAndGivesAHeaderRowThenTheData) {
    TempDir dir;
    std::string path = dir / "hook.db";
    EXPECT_EQ(InspectableDB(path, {}).Status(), 0u);
    EXPECT_FALSE(std::filesystem::exists(path));  // no statement, no file
    InspectableDB db(path, {"create table if not exists a(x INT not null);",
                            "g(id INTEGER primary key, name TEXT);"});  // the prefix is added
    EXPECT_EQ(TablesOf(path), "a\ng\n");
    // Blanks, comments and empty statements around one statement are accepted.
    for (const char* sql : {"insert into g values(1, 'a;b');",
                            "/* before */ insert into g values(2, NULL) ;; -- after \n\t"}) {
        EXPECT_EQ(db.SQLExecute(sql, nullptr, nullptr), 0) << sql;
    }
    Table result{{"stale"}};
    int nRow = -1, nCol = -1;
    EXPECT_EQ(db.SQLGetTable("select id, name from g order by id", result, nRow, nCol), 0);
    EXPECT_EQ(std::make_pair(nRow, nCol), std::make_pair(2, 2));
    EXPECT_EQ(result, (Table{{"id", "name"}, {"1", "a;b"}, {"2", ""}}));  // NULL reads as ""
    // A row callback may query the same object: the lock is recursive.
    static Table inner;
    auto queryAgain = [](void* context, int, char** values, char**) {
        std::string sql = std::string("select id + 40 from g where id = ") + values[0];
        int rows = 0, columns = 0;
        return static_cast<DBOperations*>(context)->SQLGetTable(sql, inner, rows, columns);
    };
    EXPECT_EQ(db.SQLExecute("select id from g where id = 2", queryAgain, &db), 0);
    EXPECT_EQ(inner, (Table{{"id + 40"}, {"42"}}));
}

// An empty path or a file that cannot be opened blocks the object. A failed creation deletes the
// file and skips the statements after it. Only the lower-case prefix is recognised, deliberately:
// otherwise it lands in front of the statement's own keywords and the result is a syntax error.
TEST(DBOperations, AnUnusablePathOrAFailedCreationBlocksTheObject) {
    TempDir dir;
    Table result{{"stale"}};
    int nRow = 7, nCol = 8;
    ScopedChdir inside(dir.path());
    InspectableDB empty("", {"t(x);"});
    EXPECT_EQ(empty.Status(), DB_STATUS_INIT_FAILED);
    EXPECT_EQ(empty.SQLGetTable("select 1", result, nRow, nCol), DB_BLOCKED);
    EXPECT_TRUE(result.empty());
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
    std::string unopenable = dir / "no/such/dir/x.db";
    EXPECT_EQ(InspectableDB(unopenable, {"t(x);"}).Status(),
              DB_STATUS_INIT_FAILED | DB_STATUS_SQL_FAILED);
    InspectableDB lazy(unopenable, {});
    EXPECT_EQ(lazy.SQLGetTable("select 1", result, nRow, nCol), SQLITE_CANTOPEN);
    EXPECT_EQ(std::make_pair(nRow, nCol), std::make_pair(7, 8));  // left as they were
    EXPECT_EQ(lazy.Status(), DB_STATUS_SQL_FAILED);

    const std::string statement = "CREATE TABLE IF NOT EXISTS t(x);";
    std::string path = dir / "hook.db";
    std::ofstream(path).close();
    std::string witness = Witness(dir, path);
    LogCapture log;
    InspectableDB db(path, {"first(x);", statement, "third(x);"});
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(db.Status(), DB_STATUS_INIT_FAILED | DB_STATUS_SQL_FAILED);
    EXPECT_EQ(TablesOf(witness), "first\n");
    EXPECT_EQ(log.Count("SQL statement execution failed, sql: create table if not exists " +
                        statement + ", error message: near"),
              1)
        << log.Dump();
    EXPECT_EQ(log.Count("Failed to create table: " + statement), 1);
}

// Every failed request leaves the same aftermath: the error logged with the statement, the
// object blocked, the file removed, and (seen through the witness) the tables and data as they
// were: none of the request ran. Another object of the same file goes on, on a new empty file.
TEST(DBOperations, AFailedRequestRunsNothingBlocksTheObjectAndRemovesTheFile) {
    const std::string kRefused = "more than one statement in the request, none was run";
    const std::string kEndless =
        "(with recursive c(x) as (select 1 union all select x + 1 from c) select max(x) from c)";
    const struct {
        std::string sql;
        bool query;  // through SQLGetTable, else SQLExecute
        int code;
        std::string error;
    } cases[] = {
        // Values reach the statements unescaped; these are what a template becomes when a value
        // closes its statement and appends another, which must not run, compiled or not.
        {"insert into t(name) values('it's');", false, SQLITE_ERROR, "near \"s\": syntax error"},
        {"select * from t where name='a';;; delete from victim", true, SQLITE_ERROR, kRefused},
        {"insert into t(name) values('a'); drop tabel victim; --');", false, SQLITE_ERROR,
         kRefused},
        // One statement can still compute without end or build a huge value; it is stopped
        // instead of holding the lock for ever.
        {"select " + kEndless, true, SQLITE_INTERRUPT, "interrupted"},
        {"insert into t(name) values(zeroblob(2000000));", false, SQLITE_TOOBIG,
         "string or blob too big"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sql);
        TempDir dir;
        std::string path = dir / "hook.db";
        InspectableDB db(path, {"t(name TEXT);", "victim(x INT);"}), other(path, {});
        ASSERT_EQ(db.SQLExecute("insert into victim values(7);", nullptr, nullptr), 0);
        std::string witness = Witness(dir, path);
        LogCapture log;
        Table result;
        int nRow = 0, nCol = 0;
        EXPECT_EQ(c.query ? db.SQLGetTable(c.sql, result, nRow, nCol)
                          : db.SQLExecute(c.sql, nullptr, nullptr),
                  c.code);
        EXPECT_EQ(log.Count("SQL statement execution failed, sql: " + c.sql +
                            ", error message: " + c.error),
                  1)
            << log.Dump();
        EXPECT_EQ(db.Status(), DB_STATUS_SQL_FAILED);
        EXPECT_FALSE(std::filesystem::exists(path));
        EXPECT_EQ(TablesOf(witness), "t\nvictim\n");
        EXPECT_EQ(Sql(witness, "select x from victim;"), "7\n");
        EXPECT_EQ(db.SQLExecute("create table t(x);", nullptr, nullptr), DB_BLOCKED);
        EXPECT_EQ(other.SQLExecute("create table t(x);", nullptr, nullptr), 0);
        EXPECT_EQ(TablesOf(path), "t\n");
    }
}

}  // namespace
