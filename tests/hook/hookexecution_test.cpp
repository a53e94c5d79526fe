// Hooks installed on the real sample sensor library through the real inline-hook engine, with
// the controller started as the camera service starts it. Switches and the inline-hook library
// are set up once per process, so each scenario runs in its own child.
#include <errno.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "core/controller/corvanesystem.h"
#include "core/model/hook/hookoperation.h"
#include "tests/support/samplesysroot.h"

namespace {

using namespace corvanetest;

using WriteFunction = int (*)(uint16_t, uint16_t, uint16_t);

// Groups of hooks that cannot all be installed, and one whose hook asks for a reload.
constexpr const char* kOwnHookCases = R"({
    "HOOK_GROUP": [{"group_id": 2, "group_name": "half", "case": [2]},
                   {"group_id": 3, "group_name": "reload", "case": [3]}],
    "HOOK_CASE": [{"case_id": 2, "hook_function": ["good", "nolib"]},
                  {"case_id": 3, "hook_function": ["good"]}],
    "HOOK_FUNCTION": [
        {"hook_name": "nolib", "hook_type": 2, "source_lib_name": "vendor/lib64/libnone.so"},
        {"hook_name": "good", "hook_type": 2, "function_type": 2,
         "source_lib_name": "vendor/lib64/libcorvane_sample_sensor.so",
         "target_lib_name": "vendor/lib64/libcorvane_sample_fault.so",
         "source_function_symbol": "CameraActuatorMove",
         "target_function_symbol": "FaultActuatorMoveTimeout"}]})";

class HookExecutionTest : public ::testing::Test {
  protected:
    // The sample libraries and hook cases, hookswitch and inithookswitch on.
    void SetUp() override { InstallSamples(m_sysroot, "0xC"); }

    // Runs `body` in a child started as the camera service starts; true when it passed.
    bool InService(const std::function<void(CorvaneSystem*, HookOperation*)>& body) {
        return ChildSucceeded(RunTestInChild([&] {
            ScopedChdir chdir(m_sysroot.path());
            CorvaneSystem* system = CorvaneSystemGetInstance();
            body(system, HookOperation::GetInstance());
        }));
    }
    std::string Sql(const std::string& query) {
        return corvanetest::Sql(m_sysroot / kHookDbFile, query);
    }

    TestSysroot m_sysroot;
};

// A hook's result and executed mark, as the status table shows them.
std::string State(HookOperation* engine, const std::string& hook) {
    for (const HookRelationship& row : engine->GetHookRelationshipList()) {
        if (row.hook_name == hook) {
            return row.result + (row.executed ? " executed" : "");
        }
    }
    return "no row";
}

TEST_F(HookExecutionTest, InjectedGroupReplacesTheFunctionAndTracksItsExecution) {
    EXPECT_TRUE(InService([&](CorvaneSystem*, HookOperation* engine) {
        auto write = SampleSensor<WriteFunction>("CameraSensorI2CWrite");
        auto read = SampleSensor<int (*)(uint16_t, uint16_t, uint16_t*)>("CameraSensorI2CRead");
        ASSERT_EQ(engine->DoHookGroup("sensor_i2c_fault", {"a"}), 0);
        EXPECT_FALSE(engine->IsHookGroupExecuted("sensor_i2c_fault"));
        EXPECT_EQ(write(0x10, 1, 2), -EIO);  // the fault function runs and reports itself
        EXPECT_EQ(State(engine, "sensor_i2c_write_fail"), "<Successfully hooked> executed");
        EXPECT_EQ(State(engine, "sensor_i2c_read_fail"), "<Successfully hooked>");
        uint16_t value = 0;
        EXPECT_EQ(read(0x10, 1, &value), -EIO);
        EXPECT_TRUE(engine->IsHookGroupExecuted("sensor_i2c_fault"));
        EXPECT_EQ(Sql("select hook_state, executed from hook where "
                      "hook_name='sensor_i2c_write_fail'"),
                  "1|1\n");
        EXPECT_EQ(Sql("select args_array_list, available from hook_group where group_id=1"),
                  "a|1\n");

        // Injected again: the arguments are stored only when they changed.
        LogCapture capture;
        EXPECT_EQ(engine->DoHookGroup("sensor_i2c_fault", {"a"}), 0);
        EXPECT_TRUE(capture.Contains("The hook parameters are not updated"));
        EXPECT_EQ(engine->DoHookGroup("sensor_i2c_fault", {"b", "c"}), 0);
        EXPECT_EQ(engine->GetHookGroupArguments("sensor_i2c_fault"),
                  (std::vector<std::string>{"b", "c"}));

        engine->UnhookAllCase();
        EXPECT_EQ(Sql("select args_array_list, available from hook_group where group_id=1"),
                  "|0\n");
    }));
}

TEST_F(HookExecutionTest, AGroupThatCannotBeReinstalledRemovesEveryGroupAtStart) {
    ASSERT_TRUE(InService([&](CorvaneSystem*, HookOperation* engine) {
        ASSERT_EQ(engine->DoHookGroup("sensor_i2c_fault", {"a"}), 0);
        // Types 1 and 4 install nothing: the injection "succeeds" but the group is not ready.
        ASSERT_EQ(engine->DoHookGroup("legacy_paths", {}), 0);
        EXPECT_FALSE(engine->IsHookGroupReady("legacy_paths"));
    }));
    EXPECT_TRUE(InService([&](CorvaneSystem*, HookOperation* engine) {
        EXPECT_FALSE(engine->IsHookGroupReady("sensor_i2c_fault"));
        EXPECT_EQ(SampleSensor<WriteFunction>("CameraSensorI2CWrite")(0x10, 1, 2), 0);
        EXPECT_EQ(Sql("select sum(available) from hook_group"), "0\n");
    }));
}

// A rolled-back hook never asks for a reload; removing an executed reload hook does.
TEST_F(HookExecutionTest, AFailedInstallRollsBackAndRemovingAnExecutedReloadHookAsksForAReload) {
    m_sysroot.WriteFile(kHookCaseFile, kOwnHookCases);
    m_sysroot.SetProperty(kModSwitchProperty, "0x103EC");  // autoreload too
    EXPECT_TRUE(InService([&](CorvaneSystem* system, HookOperation* engine) {
        LogCapture capture;
        EXPECT_EQ(engine->DoHookGroup("half", {"x"}), 1);
        EXPECT_TRUE(capture.Contains("Failed to open: vendor/lib64/libnone.so, error: "));
        // The hook was stored (its row exists since start-up) with its failed state, and the
        // first hook of the case was rolled back.
        EXPECT_EQ(Sql("select hook_state from hook where hook_name='nolib'"), "0\n");
        EXPECT_EQ(SampleSensor<int (*)(int32_t)>("CameraActuatorMove")(5), 0);
        EXPECT_EQ(State(engine, "good"), "<unhook>");                // as the status table shows it
        EXPECT_TRUE(engine->GetHookGroupArguments("half").empty());  // the group was removed
        EXPECT_FALSE(system->NeedReload());

        ASSERT_EQ(engine->DoHookGroup("reload", {}), 0);
        // Installed but not yet executed also counts, as the engine has always judged it.
        EXPECT_TRUE(system->NeedReload());
        engine->ModifyHookExecuteStatus("good", true);
        engine->UnhookGroup(std::string("reload"));
        EXPECT_TRUE(system->NeedReload());
    }));
}

}  // namespace
