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

using namespace corvanetest;

constexpr const char* kModSwitch = "persist.vendor.camera.cloud.corvanesystem.modswitch";

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
                for (ready.fetch_add(1); ready.load() < kThreads;) {
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

// The hook engine needs "hookswitch" and the hook-case file, the hook library "inithookswitch"
// too; without them start-up goes on with the rest.
TEST(CorvaneSystemTest, HookStartUpNeedsTheFileAndItsSwitches) {
    const struct {
        const char* modswitch;
        const char* hookCases;  // null: no file
        std::vector<std::string> logged, notLogged;
    } cases[] = {
        {"0xC",  // hookswitch and inithookswitch
         nullptr,
         {"/odm/etc/camera/corvanesystem_hook_case.json not exists", "Protection"},
         {"hook config exists", "hook lib initialization successful"}},
        {"4",  // hookswitch only
         "{}",
         {"Initialize() hook config exists"},
         {"hook lib initialization successful", "Initialization hook function failed",
          "hook initialization successful"}},
    };
    for (const auto& c : cases) {
        TestSysroot sysroot;
        sysroot.SetProperty(kModSwitch, c.modswitch);
        if (c.hookCases != nullptr) {
            sysroot.WriteFile("odm/etc/camera/corvanesystem_hook_case.json", c.hookCases);
        }
        ExpectInChild([&] {
            ScopedChdir chdir(sysroot.path());
            LogCapture capture;
            CorvaneSystem::Destroy(CorvaneSystem::Create());
            for (const std::string& line : c.logged) {
                EXPECT_TRUE(capture.Contains(line)) << line << "\n" << capture.Dump();
            }
            for (const std::string& line : c.notLogged) {
                EXPECT_FALSE(capture.Contains(line)) << line;
            }
        });
    }
}

}  // namespace
