#include "core/controller/corvanesystem.h"
#include "core/controller/corvanesystemconfig.h"
#include "core/controller/corvanesystemlog.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <filesystem>
#include <set>
#include <string>

#include "tests/support/testsupport.h"

namespace {

using namespace corvanetest;

constexpr const char* kModSwitch = "persist.vendor.camera.cloud.corvanesystem.modswitch";

// Without autoreload, Reload does nothing (below); with it, it raises a hangup.
TEST(CorvaneSystemTest, ReloadRaisesHangupWithAutoreload) {
    TestSysroot sysroot;
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
        system->Reload();
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

const char* const kModules[] = {"autoreload",  "bigdata",        "coreload",    "firmware",
                                "hookswitch",  "inithookswitch", "monitr",      "probecount",
                                "probeinject", "probestate",     "sensorstate", "vxcdb",
                                "ACTUATORI2C", "EEPROMI2C",      "KERNELI2C",   "OISI2C",
                                "SENSORI2C",   "ZOOMI2C",        "monitor"};

constexpr const char* kModDisabled = "persist.vendor.camera.cloud.corvanesystem.moddisabledswitch";
constexpr const char* kTxtConfig = "persist.vendor.camera.cloud.corvanesystem.txtconfig";
constexpr const char* kTxtPath = "odm/etc/camera/corvane_mode_config.txt";
constexpr const char* kReader = "com.halvern.corvanesystem.config.so";

using Lines = std::vector<std::string>;

// The switches are decided once per process: each scenario is decided and checked in a fresh
// child, which runs in the sysroot as the camera service does.
void ExpectDecision(const TestSysroot& sysroot, const std::set<std::string>& expected,
                    const Lines& logged = {}) {
    ExpectInChild([&] {
        ScopedChdir chdir(sysroot.path());
        LogCapture capture;
        std::set<std::string> enabled;
        for (const char* module : kModules) {
            if (CorvaneSystemConfig::GetInstance()->IsSubModuleIsEnable(module)) {
                enabled.insert(module);
            }
        }
        EXPECT_EQ(enabled, expected);
        const std::string log = capture.Dump();  // tag and text of every line
        for (const std::string& line : logged) {
            EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
        }
    });
}

TEST(CorvaneSystemConfigTest, BitMaskProperties) {
    struct Case {
        const char* modswitch;  // "": not set, like the disabling mask by default
        std::set<std::string> expected;
        const char* disabled = "";
        Lines logged = {};
    } cases[] = {
        {"",
         {},
         "",
         {std::string("CorvaneConfigManager dlopen(vendor/lib64/") + kReader + ") failed: "}},
        {"5", {"vxcdb", "hookswitch"}},
        // autoreload needs every bit of 0x103E8; the other modules of those bits come along.
        {"0x103E8",
         {"autoreload", "inithookswitch", "bigdata", "sensorstate", "coreload", "probecount",
          "probeinject"}},
        {"0x3E8",
         {"inithookswitch", "bigdata", "sensorstate", "coreload", "probecount", "probeinject"}},
        {"-1",
         {"autoreload", "bigdata", "coreload", "firmware", "hookswitch", "inithookswitch", "monitr",
          "probecount", "probeinject", "probestate", "sensorstate", "vxcdb"}},
        // The disabling mask wins, and both decisions are logged.
        {"3", {"vxcdb"}, "2", {"monitr is enabled by property", "monitr is disabled by property"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.modswitch) + " " + c.disabled);
        TestSysroot sysroot;
        sysroot.SetProperty(kModSwitch, c.modswitch);
        sysroot.SetProperty(kModDisabled, c.disabled);
        ExpectDecision(sysroot, c.expected, c.logged);
    }
}

// The reader is used only with the text file and without txtconfig 0; the properties decide
// after it, and a reader lacking one entry is rejected whole.
TEST(CorvaneSystemConfigTest, TextConfigurationThroughTheReaderThenPerModuleProperties) {
    TestSysroot sysroot;
    sysroot.InstallLibrary(kReader);
    sysroot.SetProperty(kModSwitch, "1");
    ExpectDecision(sysroot, {"vxcdb"});
    sysroot.WriteFile(kTxtPath, "monitr = true\n");
    sysroot.SetProperty(kTxtConfig, "0");
    ExpectDecision(sysroot, {"vxcdb"});
    sysroot.SetProperty(kTxtConfig, "1");
    sysroot.WriteFile(kTxtPath,
                      "# modules\nvxcdb = true\nmonitr=on\nfirmware = off\nOISI2C = 1\n"
                      "ZOOMI2C = yes\nbroken line\n");
    sysroot.SetProperty(kModDisabled, "1");
    sysroot.SetProperty("persist.vendor.camera.cloud.corvsysw.OISI2C", "3855");
    sysroot.SetProperty("persist.vendor.camera.cloud.corvsysw.SENSORI2C", "61680");
    sysroot.SetProperty("persist.vendor.camera.cloud.corvsysw.ZOOMI2C", "1");
    ExpectDecision(sysroot, {"monitr", "SENSORI2C", "ZOOMI2C"},
                   {"vxcdb is enabled by txt config", "vxcdb is disabled by property",
                    "OISI2C is enabled by txt config", "OISI2C is disabled by property",
                    "SENSORI2C is enabled by property"});
    std::filesystem::copy_file(
        std::string(CORVANE_BUILD_DIR) + "/testlib/libtest_configreader_incomplete.so",
        sysroot / (std::string("vendor/lib64/") + kReader),
        std::filesystem::copy_options::overwrite_existing);
    // The format text is the tag and the symbol name the message, as the line always read.
    ExpectDecision(sysroot, {"SENSORI2C"},
                   {"Failed to load symbol '%s': %s CorvaneConfig_PrintConfig",
                    "Library not initialized. Call Initialize() first."});
}

constexpr const char* kLevelProperty = "persist.vendor.camera.cloud.corvanesys.loglevel";

// The threshold is read once per process, at the first line: every scenario runs in a fresh
// child, and a later change of the property is ignored.
TEST(CorvaneSystemLogTest, ThresholdComesFromThePropertyReadOnce) {
    const std::pair<const char*, std::string> cases[] = {
        {nullptr, "46"}, {"6", "6"}, {"0", "346"}, {"junk", "46"}};
    for (const auto& [value, levels] : cases) {
        SCOPED_TRACE(value == nullptr ? "unset" : value);
        ExpectInChild([value = value, levels = levels] {
            TestSysroot sysroot;
            if (value != nullptr) {
                sysroot.SetProperty(kLevelProperty, value);
            }
            LogCapture capture;
            std::string written;
            for (int level : {3, 4, 6}) {
                CorvaneSystemLog(level, "a/b/c.cpp", 1, "F", "level %d", level);
                written +=
                    capture.Contains("level " + std::to_string(level)) ? std::to_string(level) : "";
            }
            EXPECT_EQ(written, levels);
            sysroot.SetProperty(kLevelProperty, "7");
            CorvaneSystemLog(6, "x.cpp", 1, "F", "after the change");
            EXPECT_TRUE(capture.Contains("after the change"));
        });
    }
}

TEST(CorvaneSystemLogTest, LineShapeAndDroppedLines) {
    corvanetest::ExpectInChild([] {
        TestSysroot sysroot;
        LogCapture capture;
        CorvaneSystemLog(4, "/src/core/controller/corvanesystem.cpp", 42, "Initialize",
                         "hook config %s", "exists");
        CorvaneSystemLog(6, "plain.cpp", 7, "Run", "no slash");
        using LogFunction = void (*)(int, const char*, int, const char*, const char*, ...);
        LogFunction log = CorvaneSystemLog;  // no format checking: null is the point here
        log(6, "x.cpp", 1, nullptr, "null function");
        log(6, "x.cpp", 1, "F", nullptr);
        // A line longer than 1023 characters is dropped whole.
        const std::string prefix = "x.cpp:1 F() ";
        const std::string fits(1023 - prefix.size(), 'a');
        CorvaneSystemLog(6, "x.cpp", 1, "F", "%s", fits.c_str());
        CorvaneSystemLog(6, "x.cpp", 1, "F", "%s", (fits + "b").c_str());

        EXPECT_EQ(capture.Dump(),
                  "4 [CORVANESYS] corvanesystem.cpp:42 Initialize() hook config exists\n"
                  "6 [CORVANESYS] plain.cpp:7 Run() no slash\n6 [CORVANESYS] " +
                      prefix + fits + "\n");
    });
}

}  // namespace
