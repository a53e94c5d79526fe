// The vxcdb program against a real server: what it prints and how it exits.
#include <rapidjson/document.h>

#include "tests/channel/channeltestutil.h"

namespace {

using namespace channeltest;

struct ToolRun {
    int exitCode = -1;
    std::string out, err;
};

ToolRun RunVxcdb(std::vector<std::string> arguments) {
    corvanetest::TempDir dir;
    // The shell only parts the two streams; its $0 is the error file.
    arguments.insert(arguments.begin(), {"sh", "-c", "exec \"$@\" 2>\"$0\"", dir / "err",
                                         corvanetest::BinDir() + "/vxcdb"});
    corvanetest::ProgramOutput run = corvanetest::RunProgram(arguments);
    return {run.exitCode, run.output, corvanetest::ReadTextFile(dir / "err")};
}

// Runs the tool against a fresh server whose stand-in engine was prepared beforehand; the server
// has stopped (its threads have finished) when this returns, so the engine's record can be read.
ToolRun RunServed(FakeHookOperation& engine, std::vector<std::string> arguments) {
    corvanetest::TempDir dir;
    const std::string path = dir / "s";
    Controller controller(&engine);
    ServerPtr server = StartServer(path, controller.get());
    EXPECT_TRUE(WaitConnectable(path));
    arguments.insert(arguments.begin(), {"--socket", path});
    return RunVxcdb(arguments);
}

class VxcdbTool : public ::testing::Test {
  protected:
    corvanetest::TestSysroot m_sysroot;
    FakeHookOperation m_engine;
};

// What a user sees: the exit code, the standard output and the standard error (or a part of it).
TEST_F(VxcdbTool, PrintsAnswersAndErrorsWhereUsersLookForThem) {
    using Injection = std::pair<std::string, std::vector<std::string>>;
    const struct {
        std::vector<std::vector<std::string>> relations;  // group, case, hook
        std::vector<std::string> arguments;
        int exitCode;
        std::string out, err;
        std::vector<Injection> injected = {};
    } cases[] = {
        {{}, {"corvane", "--help"}, 0, kExpectedHelp, ""},
        {{},
         {"corvane", "--inject", "query"},
         0,
         "group name  hook case  hook name\n"
         "----------  ---------  ---------\n"
         "(no rows)\n",
         ""},
        // Columns as wide as their widest cell, headers centred.
        {{{"sensor", "probe_fail", "i2c_read"}, {"eeprom_group", "crc", "eeprom_read_long_name"}},
         {"corvane", "--inject", "query"},
         0,
         " group name   hook case         hook name\n"
         "------------  ----------  ---------------------\n"
         "sensor        probe_fail  i2c_read\n"
         "eeprom_group  crc         eeprom_read_long_name\n",
         ""},
        // Several options are one request, answered in order; quoted words stay one argument.
        {{},
         {"corvane", "--inject", "g", "arg one", "--inject", "clear"},
         0,
         "Hook group executed successfully\n"
         "group name         result             executed\n"
         "----------  ---------------------  --------------\n"
         "g           <Successfully hooked>  <not executed>\n"
         " result\n"
         "---------\n"
         "<cleared>\n",
         "",
         {{"g", {"arg one"}}}},
        // Errors go to the error stream, the help text once after them.
        {{},
         {"corvane", "--foo", "x", "--signal", "0", "--inject", "clear"},
         1,
         " result\n---------\n<cleared>\n",
         "error: Unknown command: foo\n"
         "error: Signal value is out of valid range (1-64)\n\n" +
             kExpectedHelp},
        // A mistyped module is answered by the service itself.
        {{}, {"camera", "--help"}, 1, "", "error: Unknown module\n\n" + kExpectedHelp},
        // The debug module answers with two frames; the first is the reply.
        {{},
         {"debug", "--dumpimagesensormoduledata"},
         0,
         "image sensor module data dump requested\n",
         ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.arguments));
        FakeHookOperation engine;
        for (const auto& relation : c.relations) {
            engine.relations.push_back({0, relation[0], 1, relation[1], relation[2], "", false});
        }
        engine.readyGroups = {"g"};
        ToolRun run = RunServed(engine, c.arguments);
        EXPECT_EQ(run.exitCode, c.exitCode);
        EXPECT_EQ(run.out, c.out);
        EXPECT_NE(run.err.find(c.err), std::string::npos) << run.err;
        EXPECT_EQ(run.err.empty(), c.err.empty()) << run.err;
        EXPECT_EQ(engine.injected, c.injected);
    }
}

TEST_F(VxcdbTool, JsonIsForScripts) {
    m_engine.relations = {{0, "g,1", 1, "c", "h", "", false}};  // a comma in a cell adds a column
    ToolRun run = RunServed(m_engine, {"--json", "corvane", "--inject", "query", "--signal", "0"});
    EXPECT_EQ(run.exitCode, 1);
    rapidjson::Document json, expected;
    ASSERT_FALSE(json.Parse(run.out.c_str()).HasParseError()) << run.out;
    expected.Parse(R"json({"module": "corvane", "moduleType": "CORVANE", "ok": false, "items": [
        {"type": "list", "columns": ["group name", "hook case", "hook name"],
         "rows": [["g", "1", "c", "h"]]},
        {"type": "string", "key": "error",
         "values": ["Signal value is out of valid range (1-64)", "the help text"]}]})json");
    expected["items"][1]["values"][1].SetString(kExpectedHelp.c_str(), kExpectedHelp.size());
    EXPECT_TRUE(json == expected) << run.out;
}

TEST_F(VxcdbTool, FailuresHaveTheirOwnExitCodes) {
    // An answer too large for one frame comes as an empty reply.
    for (int i = 0; i < 200; ++i) {
        m_engine.relations.push_back(
            {0, "group_" + std::to_string(i), 1, "case", "hook", "", false});
    }
    ToolRun run = RunServed(m_engine, {"corvane", "--inject", "query"});
    EXPECT_EQ(run.exitCode, 5);
    EXPECT_NE(run.err.find("empty reply"), std::string::npos) << run.err;

    corvanetest::TempDir dir;
    run = RunVxcdb({"--socket", dir / "nothing", "corvane", "--help"});
    EXPECT_EQ(run.exitCode, 3);
    EXPECT_NE(run.err.find("cannot connect"), std::string::npos) << run.err;

    // A server that never answers, as it does for a request it cannot read: its connection
    // is accepted by the kernel and left unread.
    std::string path = dir / "silent";
    sockaddr_un address = {AF_UNIX, {}};
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(listener, 4), 0);
    run = RunVxcdb({"--timeout", "0.2", "--socket", path, "corvane", "--help"});
    EXPECT_EQ(run.exitCode, 4);
    EXPECT_NE(run.err.find("no reply"), std::string::npos) << run.err;
    close(listener);

    const std::vector<std::vector<std::string>> mistakes = {
        {"corvane"},  {"corvane", "inject", "query"},     {"--timeout", "0", "corvane", "--help"},
        {"--socket"}, {"--verbose", "corvane", "--help"},
    };
    for (const auto& arguments : mistakes) {
        run = RunVxcdb(arguments);
        EXPECT_EQ(run.exitCode, 2) << ::testing::PrintToString(arguments);
        EXPECT_NE(run.err.find("Try 'vxcdb --help'"), std::string::npos) << run.err;
    }
    run = RunVxcdb({"--help"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.out.rfind("Usage: vxcdb", 0), 0u) << run.out;
}

// Alone: the switches are decided once per process.
TEST(VxcdbToolAlone, SwitchedOnControllerServesTheDefaultSocketUntilDestroyed) {
    corvanetest::ExpectInChild([] {
        corvanetest::TestSysroot sysroot;
        sysroot.SetProperty("persist.vendor.camera.cloud.corvanesystem.modswitch", "1");
        CorvaneSystem* system = CorvaneSystem::Create();
        const std::string path = sysroot / "data/vendor/camera/vxcdb_socket";
        EXPECT_TRUE(WaitConnectable(path));
        // Words after a lone "--" are arguments even when they look like options.
        ToolRun run = RunVxcdb({"corvane", "--signal", "--", "--5"});
        CorvaneSystem::Destroy(system);
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_NE(run.err.find("Invalid signal parameter: not a number"), std::string::npos);
        EXPECT_FALSE(ClientSocket(path).connected());
    });
}

}  // namespace
