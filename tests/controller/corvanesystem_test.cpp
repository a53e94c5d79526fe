#include "core/controller/corvanesystem.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "tests/support/testsupport.h"

namespace {

using corvanetest::ChildSucceeded;
using corvanetest::LogCapture;
using corvanetest::RunInChild;
using corvanetest::ScopedChdir;
using corvanetest::TestSysroot;

constexpr const char* kModSwitch = "persist.vendor.camera.cloud.corvanesystem.modswitch";

bool DiedBySignal(int status, int signal) {
    return WIFSIGNALED(status) && WTERMSIG(status) == signal;
}

TEST(CorvaneSystemTest, ConcurrentFirstCallsShareOneControllerAndOneStartUp) {
    TestSysroot sysroot;
    EXPECT_TRUE(ChildSucceeded(RunInChild([] {
        LogCapture capture;
        constexpr int kThreads = 8;
        std::atomic<int> ready{0};
        std::vector<CorvaneSystem*> seen(kThreads, nullptr);
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                ready.fetch_add(1);
                while (ready.load() < kThreads) {
                }
                seen[i] = CorvaneSystemGetInstance();
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        std::set<CorvaneSystem*> distinct(seen.begin(), seen.end());
        // Start-up always ends by creating the protection model, successfully or not: exactly
        // one such line means exactly one start-up.
        int startUps = capture.Count("Initialize() Protection initialization successful") +
                       capture.Count("Initialize() Failed to create Protection model");
        return distinct.size() == 1 && *distinct.begin() != nullptr && startUps == 1 ? 0 : 1;
    })));
}

TEST(CorvaneSystemTest, RaiseSignalRaisesOnlyHangupAndAbort) {
    TestSysroot sysroot;
    for (int signal : {SIGHUP, SIGABRT}) {
        int status = RunInChild([signal] {
            CorvaneSystem::Create()->RaiseSignal(signal);
            return 0;
        });
        EXPECT_TRUE(DiedBySignal(status, signal)) << "signal " << signal;
    }
    EXPECT_TRUE(ChildSucceeded(RunInChild([] {
        LogCapture capture;
        CorvaneSystem* system = CorvaneSystem::Create();
        for (int signal : {2, 5, 15, 0, -1}) {
            system->RaiseSignal(signal);
        }
        return capture.Contains("error signal type: 5") && capture.Contains("error signal type: -1")
                   ? 0
                   : 1;
    })));
}

TEST(CorvaneSystemTest, ReloadRaisesHangupOnlyWithAutoreload) {
    TestSysroot sysroot;
    EXPECT_TRUE(ChildSucceeded(RunInChild([] {
        CorvaneSystem* system = CorvaneSystem::Create();
        system->Reload();
        return system->NeedReload() ? 1 : 0;
    })));
    sysroot.SetProperty(kModSwitch, "0x103E8");
    EXPECT_TRUE(DiedBySignal(RunInChild([] {
                                 CorvaneSystem::Create()->Reload();
                                 return 0;
                             }),
                             SIGHUP));
}

TEST(CorvaneSystemTest, MissingSubModulesGiveNeutralResults) {
    TestSysroot sysroot;
    EXPECT_TRUE(ChildSucceeded(RunInChild([] {
        CorvaneSystem* system = CorvaneSystem::Create();
        system->NotifyHookMessage({"hook", HOOK_MESSAGE_EXECUTED});
        system->NotifyHookMessage({"", HOOK_MESSAGE_EXECUTED});
        system->ProtectionCallback({1, 2, 3, "name", CALLBACK_MESSAGE_TYPE_BOTH});
        system->ProtectionConfig(ProtectionScheme::KERNELI2C, {"1"});
        system->RecordProbeMessage("sensor_wide_i", true);
        bool neutral = system->GetHookArguments("group").empty() && !system->NeedReload() &&
                       !system->IsSwitchOpened(ProtectionScheme::SENSORI2C);
        CorvaneSystem::Destroy(system);
        CorvaneSystem::Destroy(nullptr);
        return neutral ? 0 : 1;
    })));
}

TEST(CorvaneSystemTest, HookSwitchWithoutHookCaseFileStartsTheRest) {
    TestSysroot sysroot;
    sysroot.SetProperty(kModSwitch, "0xC");  // hookswitch and inithookswitch
    EXPECT_TRUE(ChildSucceeded(RunInChild([&sysroot] {
        ScopedChdir chdir(sysroot.path());
        LogCapture capture;
        CorvaneSystem* system = CorvaneSystem::Create();
        bool ok = capture.Contains("/odm/etc/camera/corvanesystem_hook_case.json not exists") &&
                  !capture.Contains("hook config exists") &&
                  !capture.Contains("hook lib initialization successful") &&
                  capture.Contains("Protection");
        CorvaneSystem::Destroy(system);
        return ok ? 0 : 1;
    })));
}

TEST(CorvaneSystemTest, HookCaseFileWithoutInitHookSwitchInitialisesNoHookLibrary) {
    TestSysroot sysroot;
    sysroot.SetProperty(kModSwitch, "4");  // hookswitch only
    sysroot.WriteFile("odm/etc/camera/corvanesystem_hook_case.json", "{}");
    EXPECT_TRUE(ChildSucceeded(RunInChild([&sysroot] {
        ScopedChdir chdir(sysroot.path());
        LogCapture capture;
        CorvaneSystem* system = CorvaneSystem::Create();
        bool ok = capture.Contains("Initialize() hook config exists") &&
                  !capture.Contains("hook lib initialization successful") &&
                  !capture.Contains("Initialization hook function failed") &&
                  !capture.Contains("hook initialization successful");
        CorvaneSystem::Destroy(system);
        return ok ? 0 : 1;
    })));
}

}  // namespace
