#include "core/model/hook/hookoperationimpl.h"

#include <gtest/gtest.h>

#include <memory>

#include "tests/support/testsupport.h"

namespace {

using corvanetest::TestSysroot;

constexpr const char* kHookCaseFile = "odm/etc/camera/corvanesystem_hook_case.json";

// With every sub-module off the engine has no database: only its model is exercised here.
std::unique_ptr<HookOperation> EngineFor(TestSysroot& sysroot, const std::string& json) {
    sysroot.WriteFile(kHookCaseFile, json);
    return std::unique_ptr<HookOperation>(HookOperation::Create({}));
}

TEST(HookConfigTest, ReadsGroupsCasesAndHooksWithTheirOverrideRules) {
    TestSysroot sysroot;
    auto engine = EngineFor(sysroot, R"({
        // comments and trailing commas are allowed
        "HOOK_GROUP": [
            {"group_id": 7, "group_name": "first", "case": [3, 1, 3], "group_name": "renamed"},
            {"group_id": 7, "group_name": "twin", "case": 1},
            {"group_name": "no_id"},
        ],
        "HOOK_CASE": [
            {"case_id": 1, "case_name": "old", "hook_function": ["a"]},
            {"case_id": 1, "case_name": "new", "hook_function": ["b", "a", "b"]},
            {"case_name": "anonymous", "hook_function": "c"},
            {"case_id": 3, "case_name": "three", "hook_function": "a"},
        ],
        "HOOK_FUNCTION": [
            {"hook_id": 1, "hook_name": "a", "hook_type": 2, "source_lib_name": "first"},
            {"hook_id": 2, "hook_name": "a", "hook_type": 4, "source_lib_name": "second",
             "unknown_key": 1},
            {"hook_name": "b", "function_type": 2, "target_function_symbol": "t"},
        ],
    })");
    HookConfigInformation info;
    engine->GetHookConfg(sysroot / kHookCaseFile, info);

    ASSERT_EQ(info.hook_groups.size(), 3u);
    EXPECT_EQ(info.hook_groups[0].group_name, "renamed");  // a later entry overwrites
    EXPECT_EQ(info.hook_groups[0].case_list, (std::vector<unsigned long>{3, 1, 3}));
    EXPECT_EQ(info.hook_groups[1].group_id, 7u);  // groups are not de-duplicated
    EXPECT_EQ(info.hook_groups[2].group_id, HOOK_ID_NONE);

    ASSERT_EQ(info.hook_cases.size(), 3u);
    EXPECT_EQ(info.hook_cases[1].case_name, "new");  // the last case of an id wins
    EXPECT_EQ(info.hook_cases[1].hook_name_list, (std::vector<std::string>{"b", "a", "b"}));
    EXPECT_EQ(info.hook_cases[18446744073709551615UL].case_name, "anonymous");

    ASSERT_EQ(info.hooks.size(), 2u);
    EXPECT_EQ(info.hooks["a"].hook_id, 2u);  // assigned over: the last hook of a name wins
    EXPECT_EQ(info.hooks["a"].hook_type, 4);
    EXPECT_EQ(info.hooks["b"].hook_id, HOOK_ID_NONE);
    EXPECT_EQ(info.hooks["b"].target_function_symbol, "t");
}

TEST(HookConfigTest, RelationshipListFollowsGroupsCasesAndHooksInOrder) {
    TestSysroot sysroot;
    auto engine = EngineFor(sysroot, R"({
        "HOOK_GROUP": [{"group_id": 1, "group_name": "g1", "case": [2, 9, 1]},
                       {"group_id": 2, "group_name": "g2", "case": [1]}],
        "HOOK_CASE": [{"case_id": 1, "case_name": "c1", "hook_function": ["h1"]},
                      {"case_id": 2, "case_name": "c2", "hook_function": ["h2", "missing"]}],
        "HOOK_FUNCTION": [{"hook_name": "h1"}, {"hook_name": "h2"}]})");
    std::vector<std::string> rows;
    for (const HookRelationship& row : engine->GetHookRelationshipList()) {
        rows.push_back(row.group_name + "/" + row.case_name + "/" + row.hook_name + "/" +
                       row.result + "/" + (row.executed ? "1" : "0"));
    }
    // Case 9 names nothing and adds no row; the unknown hook name is listed, never installed.
    EXPECT_EQ(rows, (std::vector<std::string>{"g1/c2/h2//0", "g1/c2/missing//0", "g1/c1/h1//0",
                                              "g2/c1/h1//0"}));
}

// The firmware side addresses hooks by case and hook id; groups without cases count as ready.
TEST(HookModelTest, QueriesOnGroupsWithoutInstallation) {
    TestSysroot sysroot;
    auto engine = EngineFor(sysroot, R"({
        "HOOK_GROUP": [{"group_name": "empty"}, {"group_name": "g", "case": [1]}],
        "HOOK_CASE": [{"case_id": 1, "hook_function": ["type3"]}],
        "HOOK_FUNCTION": [{"hook_name": "type3", "hook_type": 3, "hook_id": 4}]})");
    EXPECT_TRUE(engine->IsHookGroupReady("empty"));  // deliberately
    EXPECT_FALSE(engine->IsHookGroupReady("unknown"));
    EXPECT_FALSE(engine->IsHookGroupExecuted("unknown"));
    EXPECT_EQ(engine->DoHookGroup("unknown", {"x"}), 0);

    EXPECT_EQ(engine->GetHookName(1, 4), "type3");
    EXPECT_EQ(engine->GetHookName(1, 99), "");
    EXPECT_EQ(engine->GetCaseAndHookId("type3"), std::make_pair(1UL, 4UL));
    EXPECT_EQ(engine->GetCaseAndHookId("nothing"), std::make_pair(HOOK_ID_NONE, HOOK_ID_NONE));
    EXPECT_NE(engine->ModifyHookExecuteStatus("nothing", true), 0);
    EXPECT_EQ(engine->ModifyHookExecuteStatus(1, 4, 0x81020310u), 0);
    EXPECT_TRUE(engine->IsHookStatus("type3"));

    // Unhook of a hook that never went in still records the removal.
    EXPECT_EQ(engine->DoHookGroup("g", {"a"}), 0);
    EXPECT_EQ(engine->UnhookGroup(std::string("g")), 0);
    EXPECT_EQ(engine->GetHookRelationshipList().at(0).result, "<unhook>");
    EXPECT_FALSE(engine->IsHookStatus("type3"));
    EXPECT_TRUE(engine->GetHookGroupArguments("g").empty());
}

}  // namespace
