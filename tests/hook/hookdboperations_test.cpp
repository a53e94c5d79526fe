// The hook tables and the firmware tables, which share one database file.
#include "core/database/hook/hookdboperations.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "core/database/dboperations.h"
#include "core/database/hook/hookfwdboperations.h"
#include "tests/support/testsupport.h"

namespace {

using namespace corvanetest;

// A fresh database of the table class T in a directory of its own.
template <typename T>
struct Database {
    explicit Database(const std::vector<std::string>& tables) : db(T::Create(path, tables)) {}

    TempDir dir;
    std::string path = dir / "hook.db";
    std::unique_ptr<T> db;
};
TEST(HookDBOperationsTest, GroupColumnsAndReadBack) {
    Database<HookDBOperations> d(HOOK_DB_TABLE_LIST);
    EXPECT_EQ(d.db->AddGroup(HookGroup{1, "group1", {3, 7}, {"a", "b"}, true}), 0);
    EXPECT_EQ(d.db->AddGroup(HookGroup{2, "group2", {}, {}, false}), 0);
    EXPECT_EQ(Sql(d.path, "select * from hook_group order by group_id"),
              "1|group1|3,7|a,b|1\n2|group2|||0\n");

    EXPECT_EQ(d.db->AddGroup(HookGroup{1, "group1", {9}, {"c"}, false}), 0);  // replaces id 1
    EXPECT_EQ(Sql(d.path, "select * from hook_group where group_id=1"), "1|group1|9|c|0\n");

    HookGroup updated{2, "group2", {4}, {"x", "", "y"}, true};
    EXPECT_EQ(d.db->UpdateGroup(updated), 0);
    EXPECT_TRUE(d.db->QueryHookGroupAvailable(updated));
    // Read back split at ',' with runs collapsed, as the stored text is "x,,y".
    EXPECT_EQ(d.db->QueryHookGroupArguments(updated), (std::vector<std::string>{"x", "y"}));

    // Only a stored "1" is available; a 2 is not. An unknown group has no arguments.
    Sql(d.path, "update hook_group set available=2 where group_id=1");
    EXPECT_FALSE(d.db->QueryHookGroupAvailable(HookGroup{1, "group1", {}, {}, false}));
    EXPECT_TRUE(d.db->QueryHookGroupArguments(HookGroup{42, "group42", {}, {}, false}).empty());
    // QueryGroup always asks for the all-ones id, so it finds no stored group.
    EXPECT_EQ(d.db->QueryGroup(1).group_id, HOOK_ID_NONE);

    // Values are stored unescaped: a quote fails the statement and blocks the object; what is
    // asked of it then reads as nothing stored.
    EXPECT_NE(d.db->AddGroup(HookGroup{3, "it's", {}, {}, false}), 0);
    EXPECT_EQ(d.db->UpdateHook(Hook()), DB_BLOCKED);
    EXPECT_FALSE(d.db->QueryHookGroupAvailable(updated));
    EXPECT_TRUE(d.db->QueryHookGroupArguments(updated).empty());
}

TEST(HookDBOperationsTest, CasesHooksAndTheWholeConfiguration) {
    Database<HookDBOperations> d(HOOK_DB_TABLE_LIST);
    HookConfigInformation info;
    info.hook_groups.push_back(HookGroup{1, "group1", {2}, {}, false});
    info.hook_cases[2] = HookCase{2, "case2", {"h1", "h2"}};
    // Name, libraries, symbols, no proxy, function type -2, hook type 2, nothing installed yet.
    Hook hook{HOOK_ID_NONE, "h1", "libsrc.so", "libdst.so", "f", "g", "",      nullptr,
              nullptr,      -2,   2,           0,           "",  0,   nullptr, nullptr};
    info.hooks["h1"] = hook;
    EXPECT_EQ(d.db->AddHookConfigInformation(info), 0);
    EXPECT_EQ(Sql(d.path, "select * from hook_case"), "2|case2|h1,h2\n");
    EXPECT_EQ(Sql(d.path, "select * from hook"), "h1|libsrc.so|libdst.so|f|g||-2|2|0|0\n");
    EXPECT_FALSE(d.db->GetHookExecutedMessage(hook));
    hook.executed = 1;
    EXPECT_EQ(d.db->UpdateHook(hook), 0);
    EXPECT_TRUE(d.db->GetHookExecutedMessage(hook));
}

// Replacing per key, the replay of pending commands and clearing are exercised through the
// engine; these are what only the table class decides.
TEST(HookFwDBOperationsTest, StoredFormsAndLookups) {
    Database<HookFwDBOperations> d(HOOK_FW_DB_TABLE_LIST);
    EXPECT_EQ(d.db->AddHookPrepare(HookFw{0, 0, 255, 7, ""}), 0);
    std::vector<HookFw> all = d.db->GetHookAllItemToTable();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].subdev_id, 255);
    EXPECT_EQ(all[0].param, "<empty>");  // an empty param comes back marked
    DBTable table;
    int nRow = -1, nCol = -1;
    EXPECT_EQ(d.db->GetHookItemPrepare(HookFw{0, 0, 255, 7, "other"}, table, nRow, nCol), 0);
    EXPECT_EQ(nRow, 0);  // the parameter is part of the lookup

    EXPECT_EQ(d.db->AddFaultInjectAck("hook", 1, 2, 3, 10), 0);
    EXPECT_EQ(d.db->AddFaultInjectAck("hook", 4, 2, 3, 255), 0);
    EXPECT_EQ(Sql(d.path, "select * from fault_inject_ack order by cam_module_id"),
              "hook|1|2|3|0x0A\nhook|4|2|3|0xFF\n");
    const struct {
        const char* hook;
        int camera;   // negative: any camera module
        size_t rows;  // the header row included
    } lookups[] = {{"hook", 1, 2}, {"hook", -1, 3}, {"other", -1, 1}};
    for (const auto& l : lookups) {
        EXPECT_EQ(d.db->GetFaultInjectAckItem(l.hook, l.camera, 2, 3, table), 0);
        EXPECT_EQ(table.size(), l.rows) << l.hook << " " << l.camera;
    }
    // A null status is never matched by the delete's LIKE '%'.
    Sql(d.path, "insert into fault_inject_ack values('nul', 1, 2, 3, NULL)");
    EXPECT_EQ(d.db->DeleteFaultInjectAck("nul", 1, 2, 3), 0);
    EXPECT_EQ(Sql(d.path, "select count(*) from fault_inject_ack where hook_name='nul'"), "1\n");
}

}  // namespace
