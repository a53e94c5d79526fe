// Protection schemes backed by hook groups, installed through the real inline-hook engine on the
// sample sensor library while the controller starts as the camera service starts it. Switches
// are decided once per process, so every scenario runs in its own child.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "core/controller/corvanesystem.h"
#include "core/model/hook/hookoperation.h"
#include "tests/protection/protectiontest.h"
#include "tests/support/samplesysroot.h"

namespace {

using namespace corvanetest;

// Sub-module bits: monitr 0x2, hookswitch 0x4, inithookswitch 0x8, coreload 0x80.
constexpr const char* kProtectionModules = "0x8E";

constexpr uint16_t kSlave = 0x10;
constexpr uint16_t kModeSelect = 0x0100;  // protected by the sample scheme; beyond the sample's
constexpr uint16_t kSoftReset = 0x0103;   // 256 registers, so unguarded writes give -EINVAL

using WriteFunction = int (*)(uint16_t, uint16_t, uint16_t);

TEST(ProtectionHooksTest, SwitchesDecideWhetherTheSensorGuardIsInstalled) {
    // The sensor scheme and the main switch on; installing also needs coreload and monitr.
    const struct {
        const char* what;
        const char* modswitch;
        bool installed;
    } rows[] = {
        {"hook library initialised by the controller", "0x8E", true},
        {"hook library initialised by the protection model", "0x86", true},
        {"coreload off", "0x0E", false},
        {"monitr off", "0x8C", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        TestSysroot sysroot;
        InstallSamples(sysroot, row.modswitch, true);
        sysroot.SetProperty(kMainSwitch, "1");
        sysroot.SetProperty(kSchemePrefix + "SENSORI2C", "1");
        ExpectInChild([&] {
            ScopedChdir chdir(sysroot.path());
            CorvaneSystem* system = CorvaneSystemGetInstance();
            auto write = SampleSensor<WriteFunction>("CameraSensorI2CWrite");
            EXPECT_TRUE(system->IsSwitchOpened(ProtectionScheme::SENSORI2C));
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
            // Each refusal came back through the controller: reported "p" then "e".
            EXPECT_EQ(ReportSummary(sysroot / kBigDataReportFile),
                      "SENSORI2C/256/p SENSORI2C/256/e SENSORI2C/259/p SENSORI2C/259/e");
        });
    }
}

TEST(ProtectionHooksTest, AFailingGroupRollsBackItsSchemeOnlyAndASchemeOffIsRemovedAtTheNextStart) {
    TestSysroot sysroot;
    InstallSamples(sysroot, kProtectionModules, true);
    // One hook of the sample group motion_fault names a replacement that does not exist.
    std::string cases = sysroot.ReadFile(kHookCaseFile);
    cases.replace(cases.find("FaultOisEnableFail"), strlen("FaultOisEnableFail"), "NoSuchFunction");
    sysroot.WriteFile(kHookCaseFile, cases);
    // Groups install in name order, whatever the file's order: eeprom_fault, then motion_fault
    // fails.
    sysroot.WriteFile(kProtectionConfigFile, R"([
        {"protection_scheme": "INVAILD", "hook_group_list": [{"sensor_i2c_guard": ["0x0100"]}]},
        {"protection_scheme": "ACTUATORI2C", "hook_group_list": [
            {"sensor_i2c_fault": []}, {"motion_fault": ["x"]}, {"eeprom_fault": ["y"]}]},
        {"protection_scheme": "ZOOMI2C", "hook_group_list": [{"sensor_i2c_flaky": []}]}])");
    sysroot.SetProperty(kMainSwitch, "1");
    for (const char* scheme : {"INVAILD", "ACTUATORI2C", "ZOOMI2C"}) {
        sysroot.SetProperty(kSchemePrefix + scheme, "1");
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
        EXPECT_TRUE(
            capture.Contains("protection scheme: ACTUATORI2C hook group: motion_fault failed"))
            << capture.Dump();
        EXPECT_EQ(SampleSensor<int (*)(int32_t)>("CameraActuatorMove")(5), 0);
        EXPECT_FALSE(engine->IsHookGroupReady("eeprom_fault"));
        EXPECT_FALSE(engine->IsHookGroupReady("sensor_i2c_fault"));
        // The scheme after it is installed all the same.
        EXPECT_TRUE(engine->IsHookGroupReady("sensor_i2c_flaky"));
    });
    const std::string flakyAvailable = "select available from hook_group where group_id=6";
    ASSERT_EQ(Sql(sysroot / kHookDbFile, flakyAvailable), "1\n");

    // Restarted with that scheme off: the engine re-installs the stored group at start-up, then
    // the protection model removes it; the scheme before it keeps its guard.
    sysroot.SetProperty(kSchemePrefix + "ZOOMI2C", "0");
    ExpectInChild([&] {
        ScopedChdir chdir(sysroot.path());
        CorvaneSystemGetInstance();
        EXPECT_FALSE(HookOperation::GetInstance()->IsHookGroupReady("sensor_i2c_flaky"));
        EXPECT_EQ(SampleSensor<WriteFunction>("CameraSensorI2CWrite")(kSlave, kModeSelect, 1),
                  -EPERM);
    });
    EXPECT_EQ(Sql(sysroot / kHookDbFile, flakyAvailable), "0\n");
}

}  // namespace
