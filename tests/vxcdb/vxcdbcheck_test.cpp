// The configuration checker: every kind of mistake a user makes in a hook-case file or a
// protection configuration is reported at the place to fix, and nothing else is.
#include "tools/vxcdb/vxcdbcheck.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/samplesysroot.h"
#include "tests/support/testsupport.h"

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
    return "// comments and trailing commas are part of the dialect\n{\n"
           "    \"HOOK_GROUP\": [" +
           groups +
           "],\n"
           "    \"HOOK_CASE\": [" +
           cases +
           "],\n"
           "    \"HOOK_FUNCTION\": [" +
           hooks + "],\n}\n";
}

std::string With(std::string text, const std::string& from, const std::string& to) {
    size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

std::string Repeat(const std::string& text, int count) {
    std::string repeated;
    for (int i = 0; i < count; ++i) {
        repeated += text;
    }
    return repeated;
}

struct Expected {
    std::string at;  // the text the problem points at (its nth occurrence in the file)
    int nth;
    std::vector<std::string> says;  // fragments of the message; "\n" matches its end
};

// Line and column (in characters) of the nth occurrence of `at` in `text`.
std::pair<size_t, size_t> PlaceOf(const std::string& text, const std::string& at, int nth) {
    size_t offset = std::string::npos;
    for (int i = 0; i < nth; ++i) {
        offset = text.find(at, offset == std::string::npos ? 0 : offset + 1);
    }
    EXPECT_NE(offset, std::string::npos) << at << " #" << nth;
    size_t line = 1, column = 1;
    for (size_t i = 0; i < offset && i < text.size(); ++i) {
        if (text[i] == '\n') {
            ++line;
            column = 1;
        } else if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            ++column;
        }
    }
    return {line, column};
}

class ConfigurationCheck : public ::testing::Test {
  protected:
    void SetUp() override {
        corvanetest::InstallSamples(m_sysroot, "0");
        std::filesystem::copy_file(CORVANE_BUILD_DIR "/testlib/libunresolved_fault.so",
                                   m_sysroot / "vendor/lib64/libunresolved_fault.so");
    }

    vxcdb::CheckResult Check(const std::string& text) {
        corvanetest::WriteTextFile(m_files / "checked.json", text);
        return vxcdb::CheckConfigurationFile(m_files / "checked.json", m_sysroot.path(), true);
    }

    void ExpectProblems(const std::string& name, const std::string& text,
                        const std::vector<Expected>& expected) {
        SCOPED_TRACE(name);
        vxcdb::CheckResult result = Check(text);
        ASSERT_EQ(result.problems.size(), expected.size());
        for (size_t i = 0; i < expected.size(); ++i) {
            const vxcdb::CheckProblem& problem = result.problems[i];
            std::pair<size_t, size_t> place = PlaceOf(text, expected[i].at, expected[i].nth);
            EXPECT_EQ(problem.line, place.first) << problem.message;
            EXPECT_EQ(problem.column, place.second) << problem.message;
            for (const std::string& fragment : expected[i].says) {
                EXPECT_NE((problem.message + "\n").find(fragment), std::string::npos)
                    << problem.message << "\nlacks: " << fragment;
            }
        }
    }

    corvanetest::TestSysroot m_sysroot;
    corvanetest::TempDir m_files;
};

TEST_F(ConfigurationCheck, FindsEachMistakeInAHookCaseFileWhereItIs) {
    const struct {
        const char* name;
        std::string text;
        std::vector<Expected> expected;
    } cases[] = {
        {"a missing comma",
         HookCaseFile(kGroup + "\n        " + kGroup, kCase, kHook),
         {{"{\"group_id\"", 2, {"not valid JSON", "Missing a comma or ']'"}}}},
        {"a misspelt key",
         HookCaseFile(kGroup, kCase, With(kHook, "target_function_symbol", "target_symbol")),
         {{"{\"hook_id\"", 1, {"hook \"sensor_write_fail\" without \"target_function_symbol\""}},
          {"\"target_symbol\"",
           1,
           {"unknown key \"target_symbol\"", "did you mean \"target_function_symbol\"?"}}}},
        {"a misspelt section",
         With(HookCaseFile(kGroup, kCase, kHook), "HOOK_CASE", "HOOK_CASES"),
         {{"{\n    \"HOOK_GROUP\"", 1, {"no \"HOOK_CASE\" section"}},
          {"1]}", 1, {"no case has id 1"}},
          {"\"HOOK_CASES\"", 1, {"did you mean \"HOOK_CASE\"?"}}}},
        {"values of the wrong type",
         HookCaseFile(
             With(With(kGroup, "\"group_id\": 1", "\"group_id\": \"1\""), "[1]", "[1, null]"),
             kCase, With(kHook, "\"function_type\": 1", "\"function_type\": 1.5")),
         {{"\"1\"", 1, {"\"group_id\" must be an unsigned 64-bit integer, not the string \"1\""}},
          {"null", 1, {"each element of \"case\" must be an unsigned 64-bit integer, not null"}},
          {"1.5", 1, {"\"function_type\" must be a 32-bit integer, not 1.5"}}}},
        {"ids and names given twice",
         HookCaseFile(kGroup + ", " + kGroup, kCase + ", " + kCase, kHook + ",\n" + kHook),
         {{"1, \"group_name\"", 2, {"group id 1 given twice (first at line 3)"}},
          {"\"sensor_faults\"", 2, {"group name \"sensor_faults\" given twice"}},
          {"1, \"case_name\"", 2, {"case id 1 given twice", "replaces the earlier one"}},
          {"\"write_eio\"", 2, {"case name \"write_eio\" given twice"}},
          {"\"sensor_write_fail\", \"hook_type\"", 2, {"hook name \"sensor_write_fail\""}}}},
        {"a group naming no case, a case naming no hook",
         HookCaseFile(With(kGroup, "[1]", "[1, 7]"),
                      With(kCase, "[\"sensor_write_fail\"]",
                           "[\"sensor_write_fail\", \"sensor_wirte_fail\"]"),
                      kHook),
         {{"7]", 1, {"no case has id 7"}},
          {"\"sensor_wirte_fail\"", 1, {"did you mean \"sensor_write_fail\"?"}}}},
        {"a library that does not load",
         HookCaseFile(kGroup, kCase, With(kHook, "libcorvane_sample_fault", "libmy_fault")),
         {{"\"vendor/lib64/libmy_fault.so\"",
           1,
           {"cannot load \"vendor/lib64/libmy_fault.so\"",
            "libmy_fault.so: cannot open shared object file"}}}},
        {"a symbol the library does not export",
         HookCaseFile(kGroup, kCase, With(kHook, "CameraSensorI2CWrite", "CameraSensorI2CWrit")),
         {{"\"CameraSensorI2CWrit\"",
           1,
           {"does not export \"CameraSensorI2CWrit\"", "undefined symbol: CameraSensorI2CWrit",
            "did you mean \"CameraSensorI2CWrite\"?"}}}},
        {"a hook type that installs nothing",
         HookCaseFile(kGroup, kCase, With(kHook, "\"hook_type\": 2", "\"hook_type\": 3")),
         {{"3, \"function_type\"", 1, {"hook_type 3 is not a hook type"}}}},
        {"a library calling what nothing provides (the inline-hook functions are provided)",
         HookCaseFile(kGroup, kCase,
                      With(With(kHook, "libcorvane_sample_fault", "libunresolved_fault"),
                           "FaultSensorI2CWriteFail", "FaultUnresolved")),
         {{"\"vendor/lib64/libunresolved_fault.so\"",
           1,
           {"neither its libraries nor the camera service provide: "
            "CorvaneFunctionNobodyProvides\n"}}}},
        {"columns count characters, not bytes; a string starts at its unescaped quote",
         HookCaseFile(kGroup, kCase,
                      With(With(kHook, "CameraSensorI2CWrite", R"(Camera\"SensorI2CWrit)"),
                           "\"hook_id\"", "\"proxy_function_symbol\": \"écrire\", \"hook_id\"")),
         {{R"("Camera\"SensorI2CWrit")", 1, {"does not export"}}}},
        {"a root that is neither", "\n  42\n", {{"42", 1, {"the root must be an object"}}}},
        {"nesting beyond the readers' bound",
         "[" + Repeat("[", 299) + Repeat("]", 300),
         {{"[", 257, {"nested deeper than 256 levels"}}}},
    };
    for (const auto& each : cases) {
        ExpectProblems(each.name, each.text, each.expected);
    }
}

TEST_F(ConfigurationCheck, FindsEachMistakeInAProtectionConfigurationWhereItIs) {
    // The sample hook-case file of the device tree holds the group "sensor_i2c_guard".
    const std::string guard = R"({"sensor_i2c_guard": ["0x0100"]})";
    auto scheme = [](const std::string& name, const std::string& groups) {
        return "    {\"protection_scheme\": \"" + name + "\", \"hook_group_list\": [" + groups +
               "]},\n";
    };
    const struct {
        const char* name;
        std::string text;
        std::vector<Expected> expected;
    } cases[] = {
        {"an unknown scheme",
         "[\n" + scheme("SENSOR_I2C", guard) + "]",
         {{"\"SENSOR_I2C\"", 1, {"is not a protection scheme", "did you mean \"SENSORI2C\"?"}}}},
        {"a group the hook-case file does not have",
         "[\n" + scheme("SENSORI2C", R"({"sensor_i2c_gaurd": []})") + "]",
         {{"\"sensor_i2c_gaurd\"",
           1,
           {"no hook group \"sensor_i2c_gaurd\"", "did you mean \"sensor_i2c_guard\"?"}}}},
        {"arguments that are not strings",
         "[\n" + scheme("SENSORI2C", R"({"sensor_i2c_guard": ["0x0100", 256]})") +
             scheme("EEPROMI2C", R"({"sensor_i2c_guard": "0x0100"})") + "]",
         {{"256", 1, {"argument 2 of hook group \"sensor_i2c_guard\" is 256", "skips the whole"}},
          {"\"sensor_i2c_guard\": \"", 1, {"also belongs to scheme \"SENSORI2C\" (line 2)"}},
          {"\"0x0100\"}", 1, {"must be an array of strings, not the string \"0x0100\""}}}},
        {"a scheme given twice, a misspelt key",
         "[\n" + scheme("SENSORI2C", guard) + scheme("SENSORI2C", guard) +
             R"(    {"protection_scheme": "OISI2C", "hook_groups": []})" + "\n]",
         {{"\"SENSORI2C\"", 2, {"scheme \"SENSORI2C\" given twice (first at line 2)"}},
          {"{\"protection_scheme\": \"OISI2C\"", 1, {"without \"hook_group_list\""}},
          {"\"hook_groups\"", 1, {"did you mean \"hook_group_list\"?"}}}},
    };
    for (const auto& each : cases) {
        ExpectProblems(each.name, each.text, each.expected);
    }
}

TEST_F(ConfigurationCheck, ShippedSamplesAreClean) {
    corvanetest::InstallSamples(m_sysroot, "0", true);
    for (const char* file : {"corvanesystem_hook_case.json", "protection_config.json"}) {
        vxcdb::CheckResult result = vxcdb::CheckConfigurationFile(
            corvanetest::SourceDir() + "/host/samples/etc/" + file, m_sysroot.path(), true);
        EXPECT_FALSE(result.kind.empty()) << file;
        EXPECT_TRUE(result.problems.empty()) << file << ": " << result.problems[0].message;
        EXPECT_TRUE(result.notes.empty()) << file;  // group names were checked too
    }
}

// The command line: what a script sees. CORVANE_SYSROOT (set by the device tree) stands in for
// --sysroot when it is not given.
TEST_F(ConfigurationCheck, ExitsZeroOnlyForACleanFile) {
    const std::string sample = corvanetest::SourceDir() + "/host/samples/etc/";
    corvanetest::WriteTextFile(
        m_files / "broken.json",
        HookCaseFile(kGroup, kCase, With(kHook, "libcorvane_sample_fault", "libmy_fault")));
    const struct {
        std::string arguments;
        int exitCode;
        std::string output;
    } cases[] = {
        {"--check --sysroot " + m_sysroot.path() + " " + sample + "corvanesystem_hook_case.json", 0,
         "(hook-case file): no problems found"},
        {"--check " + sample + "corvanesystem_hook_case.json", 0, "no problems found"},
        {"--check " + m_files / "broken.json", 1, m_files / "broken.json:5:"},
        {"--check " + m_files / "absent.json", 1, "absent.json: the file cannot be read"},
        {"--check", 2, "--check needs the file to check"},
    };
    for (const auto& each : cases) {
        std::string command = corvanetest::BinDir() + "/vxcdb " + each.arguments + " 2>&1";
        FILE* pipe = popen(command.c_str(), "r");
        ASSERT_NE(pipe, nullptr);
        std::string output;
        char buffer[4096];
        for (size_t count; (count = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
            output.append(buffer, count);
        }
        int status = pclose(pipe);
        ASSERT_TRUE(WIFEXITED(status)) << command;
        EXPECT_EQ(WEXITSTATUS(status), each.exitCode) << command << "\n" << output;
        EXPECT_NE(output.find(each.output), std::string::npos) << command << "\n" << output;
    }
}

}  // namespace
