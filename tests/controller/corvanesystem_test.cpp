#include "core/controller/corvanesystem.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "tests/support/testsupport.h"

namespace {

using namespace corvanetest;

constexpr const char* kModSwitch = "persist.vendor.camera.cloud.corvanesystem.modswitch";

TEST(CorvaneSystemTest, ReloadRaisesHangupOnlyWithAutoreload) {
    TestSysroot sysroot;
    EXPECT_TRUE(ChildSucceeded(RunInChild([] {
        CorvaneSystem* system = CorvaneSystem::Create();
        system->Reload();
        return system->NeedReload() ? 1 : 0;
    })));
    sysroot.SetProperty(kModSwitch, "0x103E8");
    int status = RunInChild([] {
        CorvaneSystem::Create()->Reload();
        return 0;
    });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGHUP) << status;
}

// Without a sub-module on, every call gives a neutral result; the shared instance is started once.
TEST(CorvaneSystemTest, MissingSubModulesGiveNeutralResults) {
    TestSysroot sysroot;
    ExpectInChild([] {
        LogCapture capture;
        CorvaneSystem* system = CorvaneSystemGetInstance();
        EXPECT_EQ(CorvaneSystemGetInstance(), system);
        // Start-up always ends by creating the protection model, successfully or not.
        EXPECT_EQ(capture.Count("Initialize() Protection initialization successful") +
                      capture.Count("Initialize() Failed to create Protection model"),
                  1);
        system->NotifyHookMessage({"hook", HOOK_MESSAGE_EXECUTED});
        system->NotifyHookMessage({"", HOOK_MESSAGE_EXECUTED});
        system->ProtectionCallback({1, 2, 3, "name", CALLBACK_MESSAGE_TYPE_BOTH});
        system->ProtectionConfig(ProtectionScheme::KERNELI2C, {"1"});
        system->RecordProbeMessage("sensor_wide_i", true);
        EXPECT_TRUE(system->GetHookArguments("group").empty());
        EXPECT_FALSE(system->NeedReload());
        EXPECT_FALSE(system->IsSwitchOpened(ProtectionScheme::SENSORI2C));
        CorvaneSystem::Destroy(CorvaneSystem::Create());
        CorvaneSystem::Destroy(nullptr);
    });
}

// The hook library needs "inithookswitch" besides "hookswitch" and the hook-case file.
TEST(CorvaneSystemTest, HookStartUpWithoutInitHookSwitchLeavesTheHookLibraryAlone) {
    TestSysroot sysroot;
    sysroot.SetProperty(kModSwitch, "4");
    sysroot.WriteFile("odm/etc/camera/corvanesystem_hook_case.json", "{}");
    ExpectInChild([&] {
        ScopedChdir chdir(sysroot.path());
        LogCapture capture;
        CorvaneSystem::Destroy(CorvaneSystem::Create());
        EXPECT_TRUE(capture.Contains("Initialize() hook config exists")) << capture.Dump();
        for (const char* line :
             {"hook lib initialization successful", "Initialization hook function failed",
              "hook initialization successful"}) {
            EXPECT_FALSE(capture.Contains(line)) << line;
        }
    });
}

}  // namespace
