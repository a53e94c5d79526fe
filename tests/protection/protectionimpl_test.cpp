// The protection model without hook groups. The main switch and the log threshold are fixed once
// per process, so every scenario that reads them runs in a child process.
#include "core/model/protection/protectionimpl.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "core/controller/corvanesystem.h"
#include "tests/protection/protectiontest.h"
#include "tests/support/testsupport.h"

namespace {

using namespace corvanetest;

constexpr const char* kRecordSwitch =
    "persist.vendor.camera.cloud.corvanesystem.protection.recordswitch";
constexpr const char* kSecondPrefix = "persist.vendor.camera.corvanesystem.protection.";
constexpr const char* kLogLevel = "persist.vendor.camera.cloud.corvanesys.loglevel";
constexpr const char* kConfigFile = "odm/etc/camera/protection_config.json";
constexpr const char* kKernelFile = "sys/module/camera/parameters/cam_cci_io_protect";
constexpr const char* kDbFile = "data/vendor/camera/protecion.db";

// An unconfigured model (no hook engine), as the controller makes without "hookswitch".
std::unique_ptr<ProtectionImpl, void (*)(Protection*)> NewProtection() {
    return {static_cast<ProtectionImpl*>(Protection::Create(nullptr, -1)), Protection::Destroy};
}

TEST(ProtectionImplTest, SchemeStateAndSwitchFollowTheProperties) {
    struct Row {
        const char* mainSwitch;  // null: property unset
        const char* first;
        const char* second;
        ProtectionScheme scheme;
        int state;
        bool opened;
        bool mainLine;    // "main switch is not turned on" logged
        bool schemeLine;  // "protection scheme: <name> switch is not turned on" logged
    };
    const Row rows[] = {
        {nullptr, nullptr, nullptr, ProtectionScheme::SENSORI2C, 0, false, true, true},
        {"1", "1", nullptr, ProtectionScheme::SENSORI2C, 1, true, false, false},
        {"1", "0", "1", ProtectionScheme::OISI2C, 1, true, false, false},
        {"1", "2", "1", ProtectionScheme::OISI2C, 2, false, false, true},  // the first wins
        // With the main switch off a scheme that is on still reads false.
        {"0", "1", "1", ProtectionScheme::ACTUATORI2C, 1, false, true, false},
    };
    for (const Row& row : rows) {
        std::string name = GetProtectionSchemeString(row.scheme);
        SCOPED_TRACE(testing::Message() << "row " << &row - rows);
        TestSysroot sysroot;
        sysroot.SetProperty(kLogLevel, "3");
        const std::pair<std::string, const char*> properties[] = {
            {kMainSwitch, row.mainSwitch},
            {kSchemePrefix + name, row.first},
            {kSecondPrefix + name, row.second}};
        for (const auto& [property, value] : properties) {
            if (value != nullptr) {  // null leaves the property unset
                sysroot.SetProperty(property, value);
            }
        }
        ExpectInChild([&] {
            auto protection = NewProtection();
            EXPECT_EQ(protection->GetSchemeState(row.scheme), row.state);
            LogCapture capture;
            EXPECT_EQ(protection->IsSwitchOpened(row.scheme), row.opened);
            EXPECT_EQ(capture.Count("main switch is not turned on"), row.mainLine ? 1 : 0);
            EXPECT_EQ(capture.Count("protection scheme: " + name + " switch is not turned on"),
                      row.schemeLine ? 1 : 0);
            // The main switch is read once per process, not per object; the scheme's are live.
            sysroot.SetProperty(kMainSwitch, row.opened ? "0" : "1");
            EXPECT_EQ(NewProtection()->IsSwitchOpened(row.scheme), row.opened);
            sysroot.SetProperty(kSchemePrefix + name, "5");
            EXPECT_FALSE(protection->IsSwitchOpened(row.scheme));
        });
    }
}

using Schemes = std::map<std::string, std::map<std::string, std::vector<std::string>>>;

TEST(ProtectionImplTest, ConfigurationFileGivesTheUsableSchemesOnly) {
    struct Row {
        const char* content;  // the configuration file
        Schemes expected;
        std::vector<std::string> logged;  // lines that must appear
    };
    const std::string deep = std::string(200000, '[') + std::string(200000, ']');
    const Row rows[] = {
        {"protection: on", {}, {"Failed to parse"}},
        {deep.c_str(), {}, {"element 0 is not an object"}},  // deeper than any stack
        // What cannot be used is left out, the rest kept; hand edits (comments, trailing commas)
        // are read; names met again replace the earlier entry; unknown scheme names are kept.
        {R"(// schemes
            [1, {"protection_scheme": 1, "hook_group_list": [{"g": []}]},
             {"protection_scheme": "ZOOMI2C", "hook_group_list": {"g": []}},
             {"protection_scheme": "OISI2C", "hook_group_list": [{"g": ["old"]}]},
             {"protection_scheme": "OISI2C", /* again */ "hook_group_list": [
                1, {"h": ["1"]}, {"h": ["2"], "g2": ["0x0100", "0x0101"], "g1": [],},
                {"text": "0x0100", "mixed": ["0x0100", 256]}]},
             {"protection_scheme": "COUNT", "hook_group_list": []},])",
         {{"OISI2C", {{"h", {"2"}}, {"g1", {}}, {"g2", {"0x0100", "0x0101"}}, {"text", {}}}},
          {"COUNT", {}}},
         {"element 0 is not an object", "element 1 has no string \"protection_scheme\"",
          "protection scheme ZOOMI2C: \"hook_group_list\" is missing or not an array",
          "hook_group_list element 0 is not an object",
          "hook group mixed: argument 1 is not a string, group skipped",
          "protection scheme COUNT is not a known scheme"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.content).substr(0, 40));
        TestSysroot sysroot;
        sysroot.WriteFile(kConfigFile, row.content);
        ExpectInChild([&] {
            LogCapture capture;
            auto protection = NewProtection();
            Schemes schemes;
            for (const auto& [name, config] : protection->GetSchemeConfig()) {
                EXPECT_EQ(config.schemeName, name);
                schemes[name] = config.hookGroupList;
            }
            EXPECT_EQ(schemes, row.expected);
            // Without a hook engine nothing is installed, and the model says so.
            EXPECT_TRUE(capture.Contains("Initialize() InitializeProtectionScheme failed"));
            for (const std::string& line : row.logged) {
                EXPECT_TRUE(capture.Contains(line)) << line << "\n" << capture.Dump();
            }
        });
    }
}

// Each report is one line of key=value fields in the host's report file, its text escaped. The
// record switch makes a database, which the first record removes: its insert names a column the
// table does not have, by design.
TEST(ProtectionImplTest, CallbacksAreReportedByTypeAndTheFirstRecordRemovesTheDatabase) {
    const std::pair<const char*, const char*> rows[] = {
        {"CallbackMessageType::Protection", "SENSORI2C/256/p"},
        {"CallbackMessageType::Error", "SENSORI2C/256/e"},
        {"CallbackMessageType::both", ""},
    };
    TestSysroot sysroot;
    sysroot.SetProperty(kRecordSwitch, "1");
    ExpectInChild([&] {
        auto protection = NewProtection();
        ASSERT_TRUE(sysroot.Exists(kDbFile));
        CallbackMessage message{1, -1, 4294967295u, "a\tb\nc\\d\re", "CallbackMessageType::Both"};
        EXPECT_EQ(protection->RecordProtectionFunctionCallback(message), 0);
        EXPECT_FALSE(sysroot.Exists(kDbFile));
        const std::string fields =
            "property=5\tname=a\\\\tb\\\\nc\\\\\\\\d\\\\re\tdevice=6\t"
            "value=4294967295\tkind=[pe]\tmessage=2\tcount=1\terror=2\n";
        const std::string time = "time=\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}\tpid=" +
                                 std::to_string(getpid()) + "\t";
        std::string text = sysroot.ReadFile(kBigDataReportFile);
        EXPECT_TRUE(std::regex_match(text, std::regex(time + fields + time + fields))) << text;
        for (const auto& [type, reports] : rows) {
            SCOPED_TRACE(type);
            std::filesystem::remove(sysroot / kBigDataReportFile);
            protection->RecordProtectionFunctionCallback({7, -1, 0x0100, "SENSORI2C", type});
            EXPECT_EQ(ReportSummary(sysroot / kBigDataReportFile), reports);
        }
        // A report that cannot be written is logged; the callback goes on.
        std::filesystem::remove_all(sysroot / "data");
        LogCapture capture;
        EXPECT_EQ(protection->RecordProtectionFunctionCallback(message), 0);
        EXPECT_TRUE(capture.Contains("big data report not written to " +
                                     (sysroot / kBigDataReportFile) + ": No such file"));
    });
}

// The kernel scheme has no hook group: the controller writes its switch to the camera module.
TEST(ProtectionImplTest, KernelSchemeIsWrittenToTheCameraModuleThroughTheController) {
    const struct {
        const char* mainSwitch;
        ProtectionScheme scheme;  // passed to ProtectionConfig, its own switch on
        const char* after;        // the file holds "x" before
    } rows[] = {
        {"1", ProtectionScheme::KERNELI2C, "1"},
        {"0", ProtectionScheme::KERNELI2C, "0"},
        {"1", ProtectionScheme::SENSORI2C, "x"},  // other schemes: nothing
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "row " << &row - rows);
        TestSysroot sysroot;
        sysroot.SetProperty(kMainSwitch, row.mainSwitch);
        sysroot.SetProperty(kSchemePrefix + GetProtectionSchemeString(row.scheme), "1");
        sysroot.WriteFile(kKernelFile, "x");
        ExpectInChild([&] {
            CorvaneSystem* system = CorvaneSystemGetInstance();
            LogCapture capture;
            system->ProtectionConfig(row.scheme, {"ignored"});
            EXPECT_EQ(sysroot.ReadFile(kKernelFile), row.after);
            EXPECT_EQ(capture.Contains(std::string("set cam_cci_io_protect: ") + row.after),
                      row.scheme == ProtectionScheme::KERNELI2C);
        });
    }
    // Called directly, only 0 and 1 are written, and a missing file is not created.
    TestSysroot sysroot;
    sysroot.WriteFile(kKernelFile, "0");
    SetKernelI2CProtectionCode(2);
    EXPECT_EQ(sysroot.ReadFile(kKernelFile), "0");
    LogCapture capture;
    std::filesystem::remove(sysroot / kKernelFile);
    SetKernelI2CProtectionCode(1);
    EXPECT_TRUE(capture.Contains(
        "[CORVANESYS] Failed to open /sys/module/camera/parameters/cam_cci_io_protect: "
        "errnoStr: No such file or directory"))
        << capture.Dump();
    EXPECT_FALSE(sysroot.Exists(kKernelFile));  // never created: it belongs to the kernel
}

}  // namespace
