// The vxcdb program against a real server: what it prints and how it exits.
#include <rapidjson/document.h>

#include "core/messagecenter/messagecenterclient.h"
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

class VxcdbTool : public ChannelTest {
  protected:
    // Runs the tool against a fresh server with `engine` in place; the server has stopped (its
    // threads have finished) when this returns, so the engine's record can be read.
    ToolRun RunServed(FakeHookOperation& engine, std::vector<std::string> arguments) {
        CorvaneSystemImplTestPeer::SetHookOperation(m_system, &engine);
        const std::string path = m_sysroot / "s";
        ServerPtr server = StartServer(path, m_system);
        EXPECT_TRUE(WaitConnectable(path));
        arguments.insert(arguments.begin(), {"--socket", path});
        return RunVxcdb(arguments);
    }
};

// What a user sees: the exit code, the standard output and the standard error (or a part of it).
// Each failure has its exit code.
TEST_F(VxcdbTool, PrintsAnswersAndErrorsWhereUsersLookForThem) {
    // A server that never answers, as it does for a request it cannot read: its connection is
    // accepted by the kernel and left unread.
    const std::string silent = m_sysroot / "silent";
    ScopedFd listener(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address = AddressOf(silent);
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(listener.get(), 4), 0);
    const struct {
        std::vector<std::vector<std::string>> relations;  // group, case, hook
        std::vector<std::string> arguments;
        int exitCode;
        std::string out, err;
        decltype(FakeHookOperation::injected) injected = {};
    } cases[] = {
        {{}, {"corvane", "--help"}, 0, kExpectedHelp, ""},
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
         {"corvane", "--inject", "query", "--inject", "g", "arg one", "--inject", "clear"},
         0,
         "group name  hook case  hook name\n"
         "----------  ---------  ---------\n"
         "(no rows)\n"
         "Hook group executed successfully\n"
         "group name         result             executed\n"
         "----------  ---------------------  --------------\n"
         "g           <Successfully hooked>  <not executed>\n"
         " result\n"
         "---------\n"
         "<cleared>\n",
         "",
         {{"g", {"arg one"}}}},
        // Errors go to the error stream, the help text once after them. Words after a lone "--"
        // are arguments even when they look like options.
        {{},
         {"corvane", "--foo", "x", "--inject", "clear", "--signal", "--", "--5"},
         1,
         " result\n---------\n<cleared>\n",
         "error: Unknown command: foo\n"
         "error: Invalid signal parameter: not a number\n\n" +
             kExpectedHelp},
        // Mistakes in the command line are the tool's to tell, with exit code 2.
        {{}, {"corvane"}, 2, "", "Try 'vxcdb --help'"},
        {{}, {"corvane", "inject", "query"}, 2, "", "Try 'vxcdb --help'"},
        {{}, {"--timeout", "0", "corvane", "--help"}, 2, "", "Try 'vxcdb --help'"},
        {{}, {"--socket"}, 2, "", "Try 'vxcdb --help'"},
        {{}, {"--verbose", "corvane", "--help"}, 2, "", "Try 'vxcdb --help'"},
        // Six errors, each with the help text: an answer too large for one frame comes empty.
        {{}, {"corvane", "--a", "--b", "--c", "--d", "--e", "--f"}, 5, "", "empty reply"},
        {{}, {"--socket", m_sysroot / "nothing", "corvane", "--help"}, 3, "", "cannot connect"},
        {{}, {"--timeout", "0.2", "--socket", silent, "corvane", "--help"}, 4, "", "no reply"},
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
    ToolRun run = RunVxcdb({"--help"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.out.rfind("Usage: vxcdb", 0), 0u) << run.out;
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

std::vector<Message> g_dumpRequests;

// Alone: the switches and the bus client are decided once per process. A switched-on controller
// serves the default socket until destroyed; a dump request goes out on the bus, with its words.
TEST(VxcdbToolAlone, SwitchedOnControllerServesTheDefaultSocketUntilDestroyed) {
    corvanetest::ExpectInChild([] {
        corvanetest::TestSysroot sysroot;
        sysroot.InstallLibrary("com.halvern.messagecenter.so");
        sysroot.SetProperty("persist.vendor.camera.cloud.corvanesystem.modswitch", "1");
        MessageCenterClient::GetInstance()->Subscribe(
            "DUMP_IMAGE_SENSOR_MODULE_DATA",
            [](Message request, Message*) { g_dumpRequests.push_back(request); });
        CorvaneSystem* system = CorvaneSystem::Create();
        const std::string path = sysroot / "data/vendor/camera/vxcdb_socket";
        EXPECT_TRUE(WaitConnectable(path));
        EXPECT_EQ(RunVxcdb({"debug", "--dumpimagesensormoduledata"}).exitCode, 0);
        EXPECT_EQ(RunVxcdb({"debug", "--dumpimagesensormoduledata", "sensor", "0"}).exitCode, 0);
        CorvaneSystem::Destroy(system);  // its connection threads have ended
        EXPECT_FALSE(ClientSocket().Connect(path));
        ASSERT_EQ(g_dumpRequests.size(), 2u);
        std::string command, param;
        EXPECT_TRUE(GetStringData(g_dumpRequests[0], "command", &command));
        EXPECT_EQ(command, "dumpimagesensormoduledata");
        EXPECT_EQ(g_dumpRequests[0].data.count("param"), 0u);
        EXPECT_TRUE(GetStringData(g_dumpRequests[1], "param", &param));
        EXPECT_EQ(param, "sensor 0");
    });
}

}  // namespace
