#include "core/controller/corvanesystemconfig.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "tests/support/testsupport.h"

namespace {

using namespace corvanetest;

const char* const kModules[] = {"autoreload",  "bigdata",        "coreload",    "firmware",
                                "hookswitch",  "inithookswitch", "monitr",      "probecount",
                                "probeinject", "probestate",     "sensorstate", "vxcdb",
                                "ACTUATORI2C", "EEPROMI2C",      "KERNELI2C",   "OISI2C",
                                "SENSORI2C",   "ZOOMI2C",        "monitor"};

constexpr const char* kModSwitch = "persist.vendor.camera.cloud.corvanesystem.modswitch";
constexpr const char* kModDisabled = "persist.vendor.camera.cloud.corvanesystem.moddisabledswitch";
constexpr const char* kTxtConfig = "persist.vendor.camera.cloud.corvanesystem.txtconfig";
constexpr const char* kTxtPath = "odm/etc/camera/corvane_mode_config.txt";
constexpr const char* kReader = "com.halvern.corvanesystem.config.so";

struct Decision {
    std::set<std::string> enabled;
    std::string log;
};

// The switches are decided once per process: each scenario is decided in a fresh child, which
// runs in the sysroot as the camera service does and reports back through files.
Decision DecideInChild(TestSysroot& sysroot) {
    int status = RunInChild([&sysroot] {
        ScopedChdir chdir(sysroot.path());
        LogCapture capture;
        CorvaneSystemConfig* config = CorvaneSystemConfig::GetInstance();
        std::ofstream result(sysroot / "enabled.txt");
        for (const char* module : kModules) {
            if (config->IsSubModuleIsEnable(module)) {
                result << module << "\n";
            }
        }
        std::ofstream(sysroot / "log.txt") << capture.Dump();
        return 0;
    });
    EXPECT_TRUE(ChildSucceeded(status));
    Decision decision;
    std::istringstream enabled(sysroot.ReadFile("enabled.txt"));
    for (std::string line; std::getline(enabled, line);) {
        decision.enabled.insert(line);
    }
    decision.log = sysroot.ReadFile("log.txt");
    return decision;
}

bool Logged(const Decision& decision, const std::string& text) {
    return decision.log.find(text) != std::string::npos;
}

TEST(CorvaneSystemConfigTest, EverythingOffWithoutPropertiesOrReader) {
    TestSysroot sysroot;
    Decision decision = DecideInChild(sysroot);
    EXPECT_TRUE(decision.enabled.empty());
    EXPECT_TRUE(Logged(decision, std::string("CorvaneConfigManager dlopen(vendor/lib64/") +
                                     kReader + ") failed: "))
        << decision.log;
}

TEST(CorvaneSystemConfigTest, BitMaskProperty) {
    struct Case {
        const char* modswitch;
        std::set<std::string> expected;
    } cases[] = {
        {"4", {"hookswitch"}},
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
    };
    for (const Case& c : cases) {
        TestSysroot sysroot;
        sysroot.SetProperty(kModSwitch, c.modswitch);
        EXPECT_EQ(DecideInChild(sysroot).enabled, c.expected) << "modswitch " << c.modswitch;
    }
}

TEST(CorvaneSystemConfigTest, DisablingPropertyWinsAndBothLinesAreLogged) {
    TestSysroot sysroot;
    sysroot.SetProperty(kModSwitch, "3");
    sysroot.SetProperty(kModDisabled, "2");
    Decision decision = DecideInChild(sysroot);
    EXPECT_EQ(decision.enabled, std::set<std::string>{"vxcdb"});
    EXPECT_TRUE(Logged(decision, "CorvaneSystemConfig monitr is enabled by property"));
    EXPECT_TRUE(Logged(decision, "CorvaneSystemConfig monitr is disabled by property"));
}

TEST(CorvaneSystemConfigTest, TextConfigurationAndPerModuleProperties) {
    TestSysroot sysroot;
    sysroot.InstallLibrary(kReader);
    sysroot.WriteFile(kTxtPath,
                      "# modules\nvxcdb = true\nmonitr=on\nfirmware = off\nOISI2C = 1\n"
                      "ZOOMI2C = yes\nbroken line\n");
    sysroot.SetProperty(kModDisabled, "1");
    sysroot.SetProperty("persist.vendor.camera.cloud.corvsysw.OISI2C", "3855");
    sysroot.SetProperty("persist.vendor.camera.cloud.corvsysw.SENSORI2C", "61680");
    sysroot.SetProperty("persist.vendor.camera.cloud.corvsysw.ZOOMI2C", "1");
    Decision decision = DecideInChild(sysroot);
    EXPECT_EQ(decision.enabled, (std::set<std::string>{"monitr", "SENSORI2C", "ZOOMI2C"}));
    EXPECT_TRUE(Logged(decision, "vxcdb is enabled by txt config"));
    EXPECT_TRUE(Logged(decision, "vxcdb is disabled by property"));
    EXPECT_TRUE(Logged(decision, "OISI2C is enabled by txt config"));
    EXPECT_TRUE(Logged(decision, "OISI2C is disabled by property"));
    EXPECT_TRUE(Logged(decision, "SENSORI2C is enabled by property"));
}

TEST(CorvaneSystemConfigTest, TxtConfigZeroSkipsTheReader) {
    TestSysroot sysroot;
    sysroot.InstallLibrary(kReader);
    sysroot.WriteFile(kTxtPath, "vxcdb = true\n");
    sysroot.SetProperty(kTxtConfig, "0");
    Decision decision = DecideInChild(sysroot);
    EXPECT_TRUE(decision.enabled.empty());
    EXPECT_FALSE(Logged(decision, "CorvaneConfigManager")) << decision.log;
}

TEST(CorvaneSystemConfigTest, MissingTextFileLeavesThePropertiesToDecide) {
    TestSysroot sysroot;
    sysroot.InstallLibrary(kReader);
    sysroot.SetProperty(kModSwitch, "1");
    EXPECT_EQ(DecideInChild(sysroot).enabled, std::set<std::string>{"vxcdb"});
}

TEST(CorvaneSystemConfigTest, ReaderLackingOneEntryIsRejected) {
    TestSysroot sysroot;
    std::filesystem::copy_file(
        std::string(CORVANE_BUILD_DIR) + "/testlib/libtest_configreader_incomplete.so",
        sysroot / (std::string("vendor/lib64/") + kReader));
    sysroot.WriteFile(kTxtPath, "vxcdb = true\n");
    Decision decision = DecideInChild(sysroot);
    EXPECT_TRUE(decision.enabled.empty());
    // The format text is the tag and the symbol name the message, as the line always read.
    EXPECT_TRUE(Logged(decision, "Failed to load symbol '%s': %s CorvaneConfig_PrintConfig"))
        << decision.log;
    EXPECT_TRUE(Logged(decision, "Library not initialized. Call Initialize() first."));
}

}  // namespace
