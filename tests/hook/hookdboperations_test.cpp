#include "core/database/hook/hookdboperations.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "tests/support/testsupport.h"

namespace {

using corvanetest::Sql;
using corvanetest::TempDir;

struct Database {
    TempDir dir;
    std::string path = dir / "hook.db";
    std::unique_ptr<HookDBOperations> db{HookDBOperations::Create(path, HOOK_DB_TABLE_LIST)};
};

HookGroup Group(unsigned long id, std::vector<unsigned long> cases, std::vector<std::string> args,
                bool available) {
    HookGroup group;
    group.group_id = id;
    group.group_name = "group" + std::to_string(id);
    group.case_list = std::move(cases);
    group.args_array_list = std::move(args);
    group.available = available;
    return group;
}

TEST(HookDBOperationsTest, CreatesTheThreeTablesWithTheirExactStatements) {
    Database d;
    EXPECT_EQ(Sql(d.path, "select name from sqlite_master where type='table' order by rowid"),
              "hook_group\nhook_case\nhook\n");
    EXPECT_EQ(Sql(d.path, "select sql from sqlite_master where name='hook_case'"),
              "CREATE TABLE hook_case( case_id           INTEGER      not null primary key, "
              "case_name         VARCHAR not null, hook_name_list    TEXT         not null)\n");
}

TEST(HookDBOperationsTest, GroupColumnsAndReadBack) {
    Database d;
    EXPECT_EQ(d.db->AddGroup(Group(1, {3, 7}, {"a", "b"}, true)), 0);
    EXPECT_EQ(d.db->AddGroup(Group(2, {}, {}, false)), 0);
    EXPECT_EQ(Sql(d.path, "select * from hook_group order by group_id"),
              "1|group1|3,7|a,b|1\n2|group2|||0\n");

    EXPECT_EQ(d.db->AddGroup(Group(1, {9}, {"c"}, false)), 0);  // replaces the row of id 1
    EXPECT_EQ(Sql(d.path, "select * from hook_group where group_id=1"), "1|group1|9|c|0\n");

    HookGroup updated = Group(2, {4}, {"x", "", "y"}, true);
    EXPECT_EQ(d.db->UpdateGroup(updated), 0);
    EXPECT_TRUE(d.db->QueryHookGroupAvailable(updated));
    // Read back split at ',' with runs collapsed, as the stored text is "x,,y".
    EXPECT_EQ(d.db->QueryHookGroupArguments(updated), (std::vector<std::string>{"x", "y"}));
    EXPECT_TRUE(d.db->QueryHookGroupArguments(Group(1, {}, {}, false)).size() == 1);

    updated.args_array_list = {"only"};
    EXPECT_EQ(d.db->ModifyHookGroupArguments(updated), 0);
    updated.available = false;
    EXPECT_EQ(d.db->ModifyHookGroupAvailable(updated), 0);
    EXPECT_EQ(Sql(d.path, "select args_array_list, available from hook_group where group_id=2"),
              "only|0\n");

    // Only a stored "1" is available; a 2 is not. An unknown group has no arguments.
    Sql(d.path, "update hook_group set available=2 where group_id=1");
    EXPECT_FALSE(d.db->QueryHookGroupAvailable(Group(1, {}, {}, false)));
    EXPECT_TRUE(d.db->QueryHookGroupArguments(Group(42, {}, {}, false)).empty());
    // QueryGroup always asks for the all-ones id, so it finds no stored group.
    HookGroup queried = d.db->QueryGroup(1);
    EXPECT_EQ(queried.group_id, HOOK_ID_NONE);
    EXPECT_TRUE(queried.group_name.empty());
}

TEST(HookDBOperationsTest, CasesHooksAndTheWholeConfiguration) {
    Database d;
    HookConfigInformation info;
    info.hook_groups.push_back(Group(1, {2}, {}, false));
    info.hook_cases[2] = HookCase{2, "case2", {"h1", "h2"}};
    Hook hook;
    hook.hook_name = "h1";
    hook.source_lib_name = "libsrc.so";
    hook.target_lib_name = "libdst.so";
    hook.source_function_symbol = "f";
    hook.target_function_symbol = "g";
    hook.function_type = -2;
    hook.hook_type = 2;
    info.hooks["h1"] = hook;
    EXPECT_EQ(d.db->AddHookConfigInformation(info), 0);
    EXPECT_EQ(Sql(d.path, "select * from hook_case"), "2|case2|h1,h2\n");
    EXPECT_EQ(Sql(d.path, "select * from hook"), "h1|libsrc.so|libdst.so|f|g||-2|2|0|0\n");
    EXPECT_FALSE(d.db->GetHookExecutedMessage(hook));

    hook.hook_state = 1;
    hook.executed = 1;
    EXPECT_EQ(d.db->UpdateHook(hook), 0);
    EXPECT_TRUE(d.db->GetHookExecutedMessage(hook));
    info.hook_cases[2].case_name = "renamed";
    EXPECT_EQ(d.db->UpdateCase(info.hook_cases[2]), 0);
    EXPECT_EQ(Sql(d.path, "select case_name from hook_case"), "renamed\n");

    Hook unknown;
    unknown.hook_name = "nobody";
    EXPECT_FALSE(d.db->GetHookExecutedMessage(unknown));
    EXPECT_EQ(d.db->UpdateHook(unknown), 0);  // an update without a row still succeeds
}

TEST(HookDBOperationsTest, ASingleQuoteBlocksTheObjectAndRemovesTheFile) {
    Database d;
    ASSERT_EQ(d.db->AddGroup(Group(1, {1}, {"a"}, true)), 0);
    HookGroup quoted = Group(2, {}, {}, false);
    quoted.group_name = "it's";
    EXPECT_NE(d.db->AddGroup(quoted), 0);
    EXPECT_NE(access(d.path.c_str(), F_OK), 0);
    EXPECT_EQ(d.db->AddGroup(Group(3, {}, {}, false)), 3);
    EXPECT_EQ(d.db->UpdateHook(Hook()), 3);
    EXPECT_FALSE(d.db->QueryHookGroupAvailable(Group(1, {}, {}, false)));
    EXPECT_TRUE(d.db->QueryHookGroupArguments(Group(1, {}, {}, false)).empty());
    EXPECT_EQ(d.db->AddHookConfigInformation(HookConfigInformation()), 0);

    // A new object on the same path rebuilds the tables.
    std::unique_ptr<HookDBOperations> again(HookDBOperations::Create(d.path, HOOK_DB_TABLE_LIST));
    EXPECT_EQ(again->AddGroup(Group(4, {}, {}, true)), 0);
    EXPECT_EQ(Sql(d.path, "select group_id from hook_group"), "4\n");
}

}  // namespace
