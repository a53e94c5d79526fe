#include "core/model/hook/hookoperationimpl.h"

#include <gtest/gtest.h>

#include <memory>
#include <tuple>

#include "tests/support/samplesysroot.h"

namespace {

using namespace corvanetest;

// With every sub-module off the engine has no database: only its model is exercised here.
std::unique_ptr<HookOperation> EngineFor(TestSysroot& sysroot, const std::string& json) {
    sysroot.WriteFile(kHookCaseFile, json);
    return std::unique_ptr<HookOperation>(HookOperation::Create({}));
}

TEST(HookConfigTest, ReadsGroupsCasesAndHooksWithTheirOverrideRulesAndListsThemInOrder) {
    TestSysroot sysroot;
    auto engine = EngineFor(sysroot, R"({
        // comments and trailing commas are allowed
        "HOOK_GROUP": [
            {"group_id": 7, "group_name": "first", "case": [3, 9, 1, 3], "group_name": "renamed"},
            {"group_id": 7, "group_name": "twin", "case": 1},
            {"group_name": "no_id"},
        ],
        "HOOK_CASE": [
            {"case_id": 1, "case_name": "old", "hook_function": ["a"]},
            {"case_id": 1, "case_name": "new", "hook_function": ["b", "a"]},
            {"case_name": "anonymous", "hook_function": "c"},
            {"case_id": 3, "case_name": "three", "hook_function": "missing"},
        ],
        "HOOK_FUNCTION": [
            {"hook_id": 1, "hook_name": "a", "function_type": 5},
            {"hook_id": 2, "hook_name": "a", "hook_type": 4, "unknown_key": 1},
            {"hook_name": "b", "function_type": 2, "target_function_symbol": "t"},
        ],
    })");
    // A later key overwrites, the last case of an id wins, groups are neither merged nor
    // de-duplicated, case 9 names nothing and adds no row, and a hook name that names no hook
    // is listed all the same (never installed).
    std::vector<std::string> rows;
    for (const HookRelationship& row : engine->GetHookRelationshipList()) {
        rows.push_back(std::to_string(row.group_id) + "/" + row.group_name + "/" + row.case_name +
                       "/" + row.hook_name);
    }
    EXPECT_EQ(rows, (std::vector<std::string>{"7/renamed/three/missing", "7/renamed/new/b",
                                              "7/renamed/new/a", "7/renamed/three/missing",
                                              "7/twin/new/b", "7/twin/new/a"}));
    HookConfigInformation info;
    engine->GetHookConfg(sysroot / kHookCaseFile, info);
    EXPECT_EQ(info.hook_groups.at(2).group_id, HOOK_ID_NONE);
    EXPECT_EQ(info.hook_cases[HOOK_ID_NONE].case_name, "anonymous");
    ASSERT_EQ(info.hooks.size(), 2u);
    // The last hook of a name replaces the earlier one whole.
    const Hook& a = info.hooks["a"];
    EXPECT_EQ(std::make_tuple(a.hook_id, a.hook_type, a.function_type), std::make_tuple(2u, 4, 0));
    EXPECT_EQ(info.hooks["b"].target_function_symbol, "t");
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
    EXPECT_EQ(engine->DoHookGroup("unknown", {"x"}), 0);

    EXPECT_EQ(engine->GetHookName(1, 4), "type3");
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
