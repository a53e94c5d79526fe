// Hooks installed on the real sample sensor library through the real inline-hook engine, with
// the controller started as the camera service starts it. Switches and the inline-hook library
// are set up once per process, so each scenario runs in its own child.
#include <errno.h>
#include <gtest/gtest.h>

#include <string>

#include "core/controller/corvanesystem.h"
#include "core/model/hook/hookoperation.h"
#include "tests/support/samplesysroot.h"

namespace {

using namespace corvanetest;

using WriteFunction = int (*)(uint16_t, uint16_t, uint16_t);
using ReadFunction = int (*)(uint16_t, uint16_t, uint16_t*);
using MoveFunction = int (*)(int32_t);

// The sample libraries and hook cases, hookswitch and inithookswitch on.
constexpr const char* kHookModules = "0xC";

const HookRelationship* Row(const std::vector<HookRelationship>& rows, const std::string& hook) {
    for (const HookRelationship& row : rows) {
        if (row.hook_name == hook) {
            return &row;
        }
    }
    return nullptr;
}

TEST(HookExecutionTest, InjectedGroupReplacesTheFunctionAndTracksItsExecution) {
    TestSysroot sysroot;
    InstallSamples(sysroot, kHookModules);
    ExpectInChild([&] {
        ScopedChdir chdir(sysroot.path());
        CorvaneSystemGetInstance();
        HookOperation* engine = HookOperation::GetInstance();
        auto write = SampleSensor<WriteFunction>("CameraSensorI2CWrite");
        auto read = SampleSensor<ReadFunction>("CameraSensorI2CRead");
        ASSERT_NE(write, nullptr);
        EXPECT_EQ(write(0x10, 1, 2), 0);

        ASSERT_EQ(engine->DoHookGroup("sensor_i2c_fault", {"a"}), 0);
        EXPECT_TRUE(engine->IsHookGroupReady("sensor_i2c_fault"));
        EXPECT_FALSE(engine->IsHookGroupExecuted("sensor_i2c_fault"));
        EXPECT_EQ(write(0x10, 1, 2), -EIO);  // the fault function runs and reports itself
        auto rows = engine->GetHookRelationshipList();
        ASSERT_NE(Row(rows, "sensor_i2c_write_fail"), nullptr);
        EXPECT_EQ(Row(rows, "sensor_i2c_write_fail")->result, "<Successfully hooked>");
        EXPECT_TRUE(Row(rows, "sensor_i2c_write_fail")->executed);
        EXPECT_FALSE(Row(rows, "sensor_i2c_read_fail")->executed);
        uint16_t value = 0;
        EXPECT_EQ(read(0x10, 1, &value), -EIO);
        EXPECT_TRUE(engine->IsHookGroupExecuted("sensor_i2c_fault"));

        std::string db = sysroot / kHookDbFile;
        EXPECT_EQ(Sql(db,
                      "select hook_state, executed from hook where "
                      "hook_name='sensor_i2c_write_fail'"),
                  "1|1\n");
        EXPECT_EQ(Sql(db, "select args_array_list, available from hook_group where group_id=1"),
                  "a|1\n");

        {
            LogCapture capture;
            EXPECT_EQ(engine->DoHookGroup("sensor_i2c_fault", {"a"}), 0);
            EXPECT_TRUE(capture.Contains("The hook parameters are not updated"));
        }
        {
            LogCapture capture;
            EXPECT_EQ(engine->DoHookGroup("sensor_i2c_fault", {"b", "c"}), 0);
            EXPECT_TRUE(
                capture.Contains("The hook parameters are updated. The name of the hook "
                                 "group is: sensor_i2c_fault"));
            EXPECT_EQ(engine->GetHookGroupArguments("sensor_i2c_fault"),
                      (std::vector<std::string>{"b", "c"}));
        }

        engine->UnhookAllCase();
        EXPECT_EQ(write(0x10, 1, 2), 0);  // the original function is back
        rows = engine->GetHookRelationshipList();
        EXPECT_EQ(Row(rows, "sensor_i2c_write_fail")->result, "<unhook>");
        EXPECT_FALSE(Row(rows, "sensor_i2c_write_fail")->executed);
        EXPECT_EQ(Sql(db, "select args_array_list, available from hook_group where group_id=1"),
                  "|0\n");
    });
}

TEST(HookExecutionTest, MissingLibraryAndFailedInstallRollBack) {
    TestSysroot sysroot;
    InstallSamples(sysroot, kHookModules);
    sysroot.WriteFile(kHookCaseFile, R"({
        "HOOK_GROUP": [{"group_id": 1, "group_name": "missing", "case": [1]},
                       {"group_id": 2, "group_name": "half", "case": [2]}],
        "HOOK_CASE": [{"case_id": 1, "hook_function": ["nolib"]},
                      {"case_id": 2, "hook_function": ["good", "nosymbol"]}],
        "HOOK_FUNCTION": [
            {"hook_name": "nolib", "hook_type": 2, "source_lib_name": "vendor/lib64/libnone.so",
             "target_lib_name": "vendor/lib64/libcorvane_sample_fault.so",
             "source_function_symbol": "f", "target_function_symbol": "g"},
            {"hook_name": "good", "hook_type": 2,
             "source_lib_name": "vendor/lib64/libcorvane_sample_sensor.so",
             "target_lib_name": "vendor/lib64/libcorvane_sample_fault.so",
             "source_function_symbol": "CameraActuatorMove",
             "target_function_symbol": "FaultActuatorMoveTimeout"},
            {"hook_name": "nosymbol", "hook_type": 2,
             "source_lib_name": "vendor/lib64/libcorvane_sample_sensor.so",
             "target_lib_name": "vendor/lib64/libcorvane_sample_fault.so",
             "source_function_symbol": "CameraOisEnable",
             "target_function_symbol": "NoSuchFunction"}]})");
    ExpectInChild([&] {
        ScopedChdir chdir(sysroot.path());
        CorvaneSystemGetInstance();
        HookOperation* engine = HookOperation::GetInstance();
        {
            LogCapture capture;
            EXPECT_EQ(engine->DoHookGroup("missing", {}), 1);
            EXPECT_TRUE(capture.Contains("Failed to open: vendor/lib64/libnone.so, error: "));
        }
        // The hook was stored (its row exists since start-up) with its failed state.
        EXPECT_EQ(Sql(sysroot / kHookDbFile, "select hook_state from hook where hook_name='nolib'"),
                  "0\n");

        auto move = SampleSensor<MoveFunction>("CameraActuatorMove");
        EXPECT_NE(engine->DoHookGroup("half", {"x"}), 0);
        EXPECT_EQ(move(5), 0);  // the first hook of the case was rolled back
        auto rows = engine->GetHookRelationshipList();
        EXPECT_EQ(Row(rows, "good")->result, "<unhook>");
        EXPECT_FALSE(Row(rows, "nosymbol")->result.empty());
        EXPECT_NE(Row(rows, "nosymbol")->result, "<Successfully hooked>");
        EXPECT_FALSE(engine->IsHookGroupReady("half"));
        EXPECT_TRUE(engine->GetHookGroupArguments("half").empty());  // the group was removed
    });
}

TEST(HookExecutionTest, InjectedGroupsComeBackAfterARestart) {
    TestSysroot sysroot;
    InstallSamples(sysroot, kHookModules);
    ASSERT_TRUE(ChildSucceeded(RunTestInChild([&] {
        ScopedChdir chdir(sysroot.path());
        CorvaneSystemGetInstance();
        ASSERT_EQ(HookOperation::GetInstance()->DoHookGroup("motion_fault", {"fast", "x"}), 0);
    })));
    ExpectInChild([&] {
        ScopedChdir chdir(sysroot.path());
        CorvaneSystem* system = CorvaneSystemGetInstance();
        EXPECT_EQ(system->GetHookArguments("motion_fault"),
                  (std::vector<std::string>{"fast", "x"}));
        EXPECT_TRUE(HookOperation::GetInstance()->IsHookGroupReady("motion_fault"));
        EXPECT_EQ(SampleSensor<MoveFunction>("CameraActuatorMove")(5), -ETIMEDOUT);
    });
}

TEST(HookExecutionTest, AGroupThatCannotBeReinstalledRemovesEveryGroupAtStart) {
    TestSysroot sysroot;
    InstallSamples(sysroot, kHookModules);
    ASSERT_TRUE(ChildSucceeded(RunTestInChild([&] {
        ScopedChdir chdir(sysroot.path());
        CorvaneSystemGetInstance();
        HookOperation* engine = HookOperation::GetInstance();
        ASSERT_EQ(engine->DoHookGroup("sensor_i2c_fault", {"a"}), 0);
        // Types 1 and 4 install nothing: the injection "succeeds" but the group is not ready.
        ASSERT_EQ(engine->DoHookGroup("legacy_paths", {}), 0);
        EXPECT_FALSE(engine->IsHookGroupReady("legacy_paths"));
    })));
    ExpectInChild([&] {
        ScopedChdir chdir(sysroot.path());
        CorvaneSystemGetInstance();
        EXPECT_FALSE(HookOperation::GetInstance()->IsHookGroupReady("sensor_i2c_fault"));
        EXPECT_EQ(SampleSensor<WriteFunction>("CameraSensorI2CWrite")(0x10, 1, 2), 0);
        EXPECT_EQ(Sql(sysroot / kHookDbFile, "select sum(available) from hook_group"), "0\n");
    });
}

TEST(HookExecutionTest, RemovingAnExecutedReloadHookAsksForAReload) {
    TestSysroot sysroot;
    InstallSamples(sysroot, "0x103EC");  // autoreload, hookswitch, inithookswitch
    sysroot.WriteFile(kHookCaseFile, R"({
        "HOOK_GROUP": [{"group_id": 1, "group_name": "g", "case": [1]}],
        "HOOK_CASE": [{"case_id": 1, "hook_function": ["move"]}],
        "HOOK_FUNCTION": [{"hook_name": "move", "hook_type": 2, "function_type": 2,
             "source_lib_name": "vendor/lib64/libcorvane_sample_sensor.so",
             "target_lib_name": "vendor/lib64/libcorvane_sample_fault.so",
             "source_function_symbol": "CameraActuatorMove",
             "target_function_symbol": "FaultActuatorMoveTimeout"}]})");
    ExpectInChild([&] {
        ScopedChdir chdir(sysroot.path());
        CorvaneSystem* system = CorvaneSystemGetInstance();
        HookOperation* engine = HookOperation::GetInstance();
        EXPECT_FALSE(system->NeedReload());
        ASSERT_EQ(engine->DoHookGroup("g", {}), 0);
        // Installed but not yet executed also counts, as the engine has always judged it.
        EXPECT_TRUE(system->NeedReload());
        engine->ModifyHookExecuteStatus("move", true);
        engine->UnhookGroup(std::string("g"));
        EXPECT_TRUE(system->NeedReload());
    });
}

}  // namespace
