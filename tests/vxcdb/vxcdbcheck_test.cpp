// The configuration checker: every kind of mistake a user makes in a hook-case file or a
// protection configuration is reported at the place to fix, and nothing else is.
#include "tools/vxcdb/vxcdbcheck.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/samplesysroot.h"
#include "tests/support/supervisedservice.h"

namespace {

// A valid hook-case file is three sections of these objects, one section a line (lines 3 to 5).
const std::string kGroup = R"({"group_id": 1, "group_name": "sensor_faults", "case": [1]})";
const std::string kCase =
    R"({"case_id": 1, "case_name": "write_eio", "hook_function": ["sensor_write_fail"]})";
const std::string kHook =
    R"({"hook_id": 1, "hook_name": "sensor_write_fail", "hook_type": 2, "function_type": 1, )"
    R"("source_lib_name": "vendor/lib64/libcorvane_sample_sensor.so", )"
    R"("source_function_symbol": "CameraSensorI2CWrite", )"
    R"("target_lib_name": "vendor/lib64/libcorvane_sample_fault.so", )"
    R"("target_function_symbol": "FaultSensorI2CWriteFail"})";

std::string HookCaseFile(const std::string& groups, const std::string& cases,
                         const std::string& hooks) {
    return "// comments and trailing commas are part of the dialect\n{\n    \"HOOK_GROUP\": [" +
           groups + "],\n    \"HOOK_CASE\": [" + cases + "],\n    \"HOOK_FUNCTION\": [" + hooks +
           "],\n}\n";
}

std::string With(std::string text, const std::string& from, const std::string& to) {
    size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

// Where a problem is (line, and column in characters: where the text to fix starts), and
// fragments of its message ("\n" matches its end).
struct Expected {
    size_t line, column;
    std::vector<std::string> says;
};

class ConfigurationCheck : public ::testing::Test {
  protected:
    void SetUp() override {
        corvanetest::InstallSamples(m_sysroot, "0");
        std::filesystem::copy_file(CORVANE_BUILD_DIR "/testlib/libunresolved_fault.so",
                                   m_sysroot / "vendor/lib64/libunresolved_fault.so");
    }

    corvanetest::TestSysroot m_sysroot;
    corvanetest::TempDir m_files;
};

// Hook-case files, then protection configurations (the device tree's hook-case file holds the
// group "sensor_i2c_guard").
TEST_F(ConfigurationCheck, FindsEachMistakeWhereItIs) {
    const std::string guard = R"({"sensor_i2c_guard": ["0x0100"]})";
    auto scheme = [](const std::string& name, const std::string& groups) {
        return "    {\"protection_scheme\": \"" + name + "\", \"hook_group_list\": [" + groups +
               "]},\n";
    };
    const struct {
        std::string text;
        std::vector<Expected> expected;
    } cases[] = {
        // A missing comma (before the second group).
        {HookCaseFile(kGroup + "\n        " + kGroup, kCase, kHook),
         {{4, 9, {"not valid JSON", "Missing a comma or ']'"}}}},
        // A misspelt key (at the hook, then at the key).
        {HookCaseFile(kGroup, kCase, With(kHook, "target_function_symbol", "target_symbol")),
         {{5, 23, {"hook \"sensor_write_fail\" without \"target_function_symbol\""}},
          {5, 283, {"unknown key \"target_symbol\"", "did you mean \"target_function_symbol\"?"}}}},
        // A misspelt section (at the root, the group's case list, the section's name).
        {With(HookCaseFile(kGroup, kCase, kHook), "HOOK_CASE", "HOOK_CASES"),
         {{2, 1, {"no \"HOOK_CASE\" section"}},
          {3, 76, {"no case has id 1"}},
          {4, 5, {"did you mean \"HOOK_CASE\"?"}}}},
        // Values of the wrong type (at each value).
        {HookCaseFile(
             With(With(kGroup, "\"group_id\": 1", "\"group_id\": \"1\""), "[1]", "[1, null]"),
             kCase, kHook),
         {{3, 33, {"\"group_id\" must be an unsigned 64-bit integer, not the string \"1\""}},
          {3, 81, {"each element of \"case\" must be an unsigned 64-bit integer, not null"}}}},
        // Ids and names given twice (at the second of each).
        {HookCaseFile(kGroup + ", " + kGroup, kCase + ", " + kCase, kHook + ",\n" + kHook),
         {{3, 94, {"group id 1 given twice (first at line 3)"}},
          {3, 111, {"group name \"sensor_faults\" given twice"}},
          {4, 113, {"case id 1 given twice", "replaces the earlier one"}},
          {4, 129, {"case name \"write_eio\" given twice"}},
          {6, 29, {"hook name \"sensor_write_fail\""}}}},
        // A case naming no hook (a group naming no case: the misspelt section above).
        {HookCaseFile(kGroup,
                      With(kCase, "[\"sensor_write_fail\"]",
                           "[\"sensor_write_fail\", \"sensor_wirte_fail\"]"),
                      kHook),
         {{4, 99, {"did you mean \"sensor_write_fail\"?"}}}},
        // A symbol the library does not export.
        {HookCaseFile(kGroup, kCase, With(kHook, "CameraSensorI2CWrite", "CameraSensorI2CWrit")),
         {{5,
           197,
           {"does not export \"CameraSensorI2CWrit\"", "undefined symbol: CameraSensorI2CWrit",
            "did you mean \"CameraSensorI2CWrite\"?"}}}},
        // A library that does not load: where it is named, and why.
        {HookCaseFile(kGroup, kCase, With(kHook, "libcorvane_sample_fault", "libmy_fault")),
         {{5, 240, {"cannot load \"vendor/lib64/libmy_fault.so\": "}}}},
        // A hook type that installs nothing.
        {HookCaseFile(kGroup, kCase, With(kHook, "\"hook_type\": 2", "\"hook_type\": 3")),
         {{5, 85, {"hook_type 3 is not a hook type"}}}},
        // A library calling what nothing provides (the inline-hook functions are provided).
        {HookCaseFile(kGroup, kCase,
                      With(With(kHook, "libcorvane_sample_fault", "libunresolved_fault"),
                           "FaultSensorI2CWriteFail", "FaultUnresolved")),
         {{5,
           240,
           {"neither its libraries nor the camera service provide: "
            "CorvaneFunctionNobodyProvides\n"}}}},
        // Columns count characters, not bytes; a string starts at its unescaped quote.
        {HookCaseFile(kGroup, kCase,
                      With(With(kHook, "CameraSensorI2CWrite", R"(Camera\"SensorI2CWrit)"),
                           "\"hook_id\"", "\"proxy_function_symbol\": \"écrire\", \"hook_id\"")),
         {{5, 232, {"does not export"}}}},
        // A root that is neither.
        {"\n  42\n", {{2, 3, {"the root must be an object"}}}},
        // Nesting beyond the readers' bound (at the 257th bracket).
        {std::string(300, '[') + std::string(300, ']'), {{1, 257, {"nested deeper than 256"}}}},
        // An unknown scheme.
        {"[\n" + scheme("SENSOR_I2C", guard) + "]",
         {{2, 27, {"is not a protection scheme", "did you mean \"SENSORI2C\"?"}}}},
        // A group the hook-case file does not have.
        {"[\n" + scheme("SENSORI2C", R"({"sensor_i2c_gaurd": []})") + "]",
         {{2, 61, {"no hook group \"sensor_i2c_gaurd\"", "did you mean \"sensor_i2c_guard\"?"}}}},
        // Arguments that are not strings (at the argument, the group, the value).
        {"[\n" + scheme("SENSORI2C", R"({"sensor_i2c_guard": ["0x0100", 256]})") +
             scheme("EEPROMI2C", R"({"sensor_i2c_guard": "0x0100"})") + "]",
         {{2, 92, {"argument 2 of hook group \"sensor_i2c_guard\" is 256", "skips the whole"}},
          {3, 61, {"also belongs to scheme \"SENSORI2C\" (line 2)"}},
          {3, 81, {"must be an array of strings, not the string \"0x0100\""}}}},
        // A scheme given twice (at the second name), a misspelt key (at the scheme, the key).
        {"[\n" + scheme("SENSORI2C", guard) + scheme("SENSORI2C", guard) +
             R"(    {"protection_scheme": "OISI2C", "hook_groups": []})" + "\n]",
         {{3, 27, {"scheme \"SENSORI2C\" given twice (first at line 2)"}},
          {4, 5, {"without \"hook_group_list\""}},
          {4, 37, {"did you mean \"hook_group_list\"?"}}}},
    };
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(text.substr(0, 300));
        corvanetest::WriteTextFile(m_files / "checked.json", text);
        vxcdb::CheckResult result =
            vxcdb::CheckConfigurationFile(m_files / "checked.json", m_sysroot.path(), true);
        ASSERT_EQ(result.problems.size(), expected.size());
        for (size_t i = 0; i < expected.size(); ++i) {
            const vxcdb::CheckProblem& problem = result.problems[i];
            EXPECT_EQ(problem.line, expected[i].line) << problem.message;
            EXPECT_EQ(problem.column, expected[i].column) << problem.message;
            for (const std::string& fragment : expected[i].says) {
                EXPECT_NE((problem.message + "\n").find(fragment), std::string::npos)
                    << problem.message << "\nlacks: " << fragment;
            }
        }
    }
}

// The command line, what a script sees: the shipped samples are clean, and only a clean file
// exits with 0. CORVANE_SYSROOT (set by the device tree) stands in for --sysroot when it is not
// given; the protection configuration's group names are checked against the tree's hook cases.
TEST_F(ConfigurationCheck, ExitsZeroOnlyForACleanFile) {
    corvanetest::InstallSamples(m_sysroot, "0", true);
    const std::string sample = corvanetest::SourceDir() + "/host/samples/etc/";
    const std::string broken = m_files / "broken.json";
    corvanetest::WriteTextFile(broken, "\n  42\n");
    const struct {
        std::vector<std::string> arguments;
        int exitCode;
        std::string output;
    } cases[] = {
        {{"--sysroot", m_sysroot.path(), sample + "corvanesystem_hook_case.json"},
         0,
         "(hook-case file): no problems found"},
        {{sample + "protection_config.json"}, 0, "(protection configuration): no problems found"},
        {{broken}, 1, broken + ":2:3: the root must be an object"},
        {{m_files / "absent.json"}, 1, "absent.json: the file cannot be read"},
        {{}, 2, "--check needs the file to check"},
    };
    for (const auto& each : cases) {
        std::vector<std::string> words = {corvanetest::BinDir() + "/vxcdb", "--check"};
        words.insert(words.end(), each.arguments.begin(), each.arguments.end());
        corvanetest::ProgramOutput run = corvanetest::RunProgram(words);
        EXPECT_EQ(run.exitCode, each.exitCode) << run.output;
        EXPECT_NE(run.output.find(each.output), std::string::npos) << run.output;
        EXPECT_EQ(run.output.find("note:"), std::string::npos) << run.output;
    }
}

}  // namespace
