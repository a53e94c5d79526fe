#include "core/controller/corvanesystemconfig.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>

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

using Lines = std::vector<std::string>;

// The switches are decided once per process: each scenario is decided and checked in a fresh
// child, which runs in the sysroot as the camera service does.
void ExpectDecision(const TestSysroot& sysroot, const std::set<std::string>& expected,
                    const Lines& logged = {}, const Lines& notLogged = {}) {
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
        for (const std::string& line : notLogged) {
            EXPECT_EQ(log.find(line), std::string::npos) << line << "\n" << log;
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
    ExpectDecision(sysroot, {"monitr", "SENSORI2C", "ZOOMI2C"},
                   {"vxcdb is enabled by txt config", "vxcdb is disabled by property",
                    "OISI2C is enabled by txt config", "OISI2C is disabled by property",
                    "SENSORI2C is enabled by property"});
}

// Without the text file the properties decide; txtconfig 0 leaves the reader unloaded.
TEST(CorvaneSystemConfigTest, TheReaderIsSkippedWithoutTextFileOrWithTxtConfigZero) {
    TestSysroot sysroot;
    sysroot.InstallLibrary(kReader);
    sysroot.SetProperty(kModSwitch, "1");
    ExpectDecision(sysroot, {"vxcdb"});
    sysroot.WriteFile(kTxtPath, "monitr = true\n");
    sysroot.SetProperty(kTxtConfig, "0");
    ExpectDecision(sysroot, {"vxcdb"}, {}, {"CorvaneConfigManager"});
}

TEST(CorvaneSystemConfigTest, ReaderLackingOneEntryIsRejected) {
    TestSysroot sysroot;
    std::filesystem::copy_file(
        std::string(CORVANE_BUILD_DIR) + "/testlib/libtest_configreader_incomplete.so",
        sysroot / (std::string("vendor/lib64/") + kReader));
    sysroot.WriteFile(kTxtPath, "vxcdb = true\n");
    // The format text is the tag and the symbol name the message, as the line always read.
    ExpectDecision(sysroot, {},
                   {"Failed to load symbol '%s': %s CorvaneConfig_PrintConfig",
                    "Library not initialized. Call Initialize() first."});
}

}  // namespace
