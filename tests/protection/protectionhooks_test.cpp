// Protection schemes backed by hook groups, installed through the real inline-hook engine on the
// sample sensor library while the controller starts as the camera service starts it. Switches
// are decided once per process, so every scenario runs in its own child.
#include <errno.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/controller/corvanesystem.h"
#include "core/model/hook/hookoperation.h"
#include "tests/protection/bigdatareports.h"
#include "tests/support/samplesysroot.h"

namespace {

using namespace corvanetest;

constexpr const char* kMainSwitch =
    "persist.vendor.camera.cloud.corvanesystem.protection.mainswitch";
constexpr const char* kSchemePrefix = "persist.vendor.camera.cloud.corvanesystem.protection.";

// Sub-module bits: monitr 0x2, hookswitch 0x4, inithookswitch 0x8, coreload 0x80.
constexpr const char* kProtectionModules = "0x8E";

constexpr uint16_t kSlave = 0x10;
constexpr uint16_t kModeSelect = 0x0100;  // protected by the sample scheme; beyond the sample's
constexpr uint16_t kSoftReset = 0x0103;   // 256 registers, so unguarded writes give -EINVAL

using WriteFunction = int (*)(uint16_t, uint16_t, uint16_t);
using ReadFunction = int (*)(uint16_t, uint16_t, uint16_t*);
using MoveFunction = int (*)(int32_t);
using EepromFunction = int (*)(uint32_t, uint8_t*, uint32_t);

TEST(ProtectionHooksTest, SwitchesDecideWhetherTheSensorGuardIsInstalled) {
    struct Row {
        const char* what;
        const char* modswitch;
        const char* mainSwitch;
        const char* sensorScheme;
        bool opened;  // the switch alone; installing also needs coreload and monitr
        bool installed;
    };
    const Row rows[] = {
        {"hook library initialised by the controller", "0x8E", "1", "1", true, true},
        {"hook library initialised by the protection model", "0x86", "1", "1", true, true},
        {"coreload off", "0x0E", "1", "1", true, false},
        {"monitr off", "0x8C", "1", "1", true, false},
        {"main switch off", "0x8E", "0", "1", false, false},
        {"scheme at 2", "0x8E", "1", "2", false, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        TestSysroot sysroot;
        InstallSamples(sysroot, row.modswitch, true);
        sysroot.SetProperty(kMainSwitch, row.mainSwitch);
        sysroot.SetProperty(std::string(kSchemePrefix) + "SENSORI2C", row.sensorScheme);
        ExpectInChild([&] {
            ScopedChdir chdir(sysroot.path());
            CorvaneSystem* system = CorvaneSystemGetInstance();
            auto write = SampleSensor<WriteFunction>("CameraSensorI2CWrite");
            auto read = SampleSensor<ReadFunction>("CameraSensorI2CRead");
            ASSERT_NE(write, nullptr);
            EXPECT_EQ(system->IsSwitchOpened(ProtectionScheme::SENSORI2C), row.opened);
            if (!row.installed) {
                EXPECT_EQ(write(kSlave, kModeSelect, 1), -EINVAL);  // the sensor's own answer
                EXPECT_FALSE(sysroot.Exists(kBigDataReportFile));
                return;
            }
            EXPECT_EQ(system->GetHookArguments("sensor_i2c_guard"),
                      (std::vector<std::string>{"0x0100", "0x0103"}));
            EXPECT_EQ(write(kSlave, kModeSelect, 1), -EPERM);
            EXPECT_EQ(write(kSlave, kSoftReset, 1), -EPERM);
            EXPECT_EQ(write(kSlave, 0x20, 7), 0);  // other registers go to the bus
            uint16_t value = 0;
            EXPECT_EQ(read(kSlave, 0x20, &value), 0);
            EXPECT_EQ(value, 7);
            // Each refusal came back through the controller: reported "p" then "e".
            EXPECT_EQ(ReportSummary(sysroot / kBigDataReportFile),
                      "SENSORI2C/256/p SENSORI2C/256/e SENSORI2C/259/p SENSORI2C/259/e");
        });
    }
}

TEST(ProtectionHooksTest, AFailingGroupRollsBackTheGroupsOfItsOwnSchemeOnly) {
    TestSysroot sysroot;
    InstallSamples(sysroot, kProtectionModules, true);
    auto hook = [](const char* name, const char* source, const char* target) {
        return std::string(R"({"hook_type": 2, "hook_name": ")") + name +
               R"(", "source_lib_name": "vendor/lib64/libcorvane_sample_sensor.so",
                 "target_lib_name": "vendor/lib64/libcorvane_sample_fault.so",
                 "source_function_symbol": ")" +
               source + R"(", "target_function_symbol": ")" + target + R"("})";
    };
    sysroot.WriteFile(kHookCaseFile,
                      std::string(R"({"HOOK_GROUP": [
            {"group_id": 1, "group_name": "sensor_i2c_guard", "case": [1]},
            {"group_id": 2, "group_name": "a_move", "case": [2]},
            {"group_id": 3, "group_name": "b_broken", "case": [3]},
            {"group_id": 4, "group_name": "c_read", "case": [4]},
            {"group_id": 5, "group_name": "z_eeprom", "case": [5]}],
          "HOOK_CASE": [{"case_id": 1, "hook_function": ["guard"]},
                        {"case_id": 2, "hook_function": ["move"]},
                        {"case_id": 3, "hook_function": ["broken"]},
                        {"case_id": 4, "hook_function": ["read"]},
                        {"case_id": 5, "hook_function": ["eeprom"]}],
          "HOOK_FUNCTION": [)") +
                          hook("guard", "CameraSensorI2CWrite", "GuardSensorI2CWrite") + "," +
                          hook("move", "CameraActuatorMove", "FaultActuatorMoveTimeout") + "," +
                          hook("broken", "CameraOisEnable", "NoSuchFunction") + "," +
                          hook("read", "CameraSensorI2CRead", "FaultSensorI2CReadFail") + "," +
                          hook("eeprom", "CameraEepromRead", "FaultEepromReadCorrupt") + "]}");
    // Groups install in name order, whatever the file's order: a_move, then b_broken fails.
    sysroot.WriteFile(kProtectionConfigFile, R"([
        {"protection_scheme": "INVAILD", "hook_group_list": [{"sensor_i2c_guard": ["0x0100"]}]},
        {"protection_scheme": "ACTUATORI2C",
         "hook_group_list": [{"c_read": []}, {"b_broken": ["x"]}, {"a_move": ["y"]}]},
        {"protection_scheme": "ZOOMI2C", "hook_group_list": [{"z_eeprom": []}]}])");
    sysroot.SetProperty(kMainSwitch, "1");
    for (const char* scheme : {"INVAILD", "ACTUATORI2C", "ZOOMI2C"}) {
        sysroot.SetProperty(std::string(kSchemePrefix) + scheme, "1");
    }
    ExpectInChild([&] {
        ScopedChdir chdir(sysroot.path());
        LogCapture capture;
        CorvaneSystemGetInstance();
        HookOperation* engine = HookOperation::GetInstance();
        // The scheme before the failure keeps its group ("INVAILD" is a scheme like the others).
        EXPECT_EQ(SampleSensor<WriteFunction>("CameraSensorI2CWrite")(kSlave, kModeSelect, 1),
                  -EPERM);
        // The failing scheme: its earlier group is removed, its later group never tried.
        EXPECT_TRUE(capture.Contains("protection scheme: ACTUATORI2C hook group: b_broken failed"))
            << capture.Dump();
        EXPECT_EQ(SampleSensor<MoveFunction>("CameraActuatorMove")(5), 0);
        EXPECT_FALSE(engine->IsHookGroupReady("a_move"));
        EXPECT_FALSE(capture.Contains("The name of the hook group is: c_read"));
        uint16_t value = 1;
        EXPECT_EQ(SampleSensor<ReadFunction>("CameraSensorI2CRead")(kSlave, 0x20, &value), 0);
        // The scheme after it is installed all the same.
        uint8_t buffer[4] = {};
        EXPECT_EQ(SampleSensor<EepromFunction>("CameraEepromRead")(0, buffer, 4), 4);
        EXPECT_EQ(buffer[1], 0xFF);
        EXPECT_TRUE(engine->IsHookGroupReady("z_eeprom"));
    });
}

TEST(ProtectionHooksTest, ASchemeSwitchedOffHasItsGroupsRemovedAtTheNextStart) {
    TestSysroot sysroot;
    InstallSamples(sysroot, kProtectionModules, true);
    const std::string scheme = std::string(kSchemePrefix) + "SENSORI2C";
    sysroot.SetProperty(kMainSwitch, "1");
    sysroot.SetProperty(scheme, "1");
    ExpectInChild([&] {
        ScopedChdir chdir(sysroot.path());
        CorvaneSystemGetInstance();
        ASSERT_EQ(SampleSensor<WriteFunction>("CameraSensorI2CWrite")(kSlave, kModeSelect, 1),
                  -EPERM);
    });
    ASSERT_EQ(Sql(sysroot / kHookDbFile, "select available from hook_group where group_id=4"),
              "1\n");

    // Restarted with the scheme off: the engine re-installs the stored group at start-up, then
    // the protection model removes it.
    sysroot.SetProperty(scheme, "0");
    ExpectInChild([&] {
        ScopedChdir chdir(sysroot.path());
        LogCapture capture;
        CorvaneSystem* system = CorvaneSystemGetInstance();
        EXPECT_TRUE(capture.Contains("shadowhook_hook_sym_addr finished")) << capture.Dump();
        EXPECT_EQ(SampleSensor<WriteFunction>("CameraSensorI2CWrite")(kSlave, kModeSelect, 1),
                  -EINVAL);
        EXPECT_FALSE(HookOperation::GetInstance()->IsHookGroupReady("sensor_i2c_guard"));
        EXPECT_TRUE(system->GetHookArguments("sensor_i2c_guard").empty());
    });
    EXPECT_EQ(Sql(sysroot / kHookDbFile, "select available from hook_group where group_id=4"),
              "0\n");
}

}  // namespace
