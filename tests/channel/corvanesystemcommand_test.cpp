// Command dispatch through real frames on a real controller (every sub-module off, so no hook
// engine): the error texts, the help text, several commands in one request, signals.
#include <signal.h>
#include <sys/wait.h>

#include "core/messagecenter/messagecenterclient.h"
#include "tests/channel/channeltestutil.h"

namespace {

using namespace channeltest;

class CommandDispatch : public ::testing::Test {
  protected:
    corvanetest::TestSysroot m_sysroot;
    Controller m_controller;
};

TEST_F(CommandDispatch, HelpTextIsTheKnownSevenLines) {
    EXPECT_EQ(std::string(CorvaneSystemImpl::kHelpText), kExpectedHelp);
    EXPECT_EQ(kExpectedHelp.size(), 700u);
    EXPECT_EQ(std::count(kExpectedHelp.begin(), kExpectedHelp.end(), '\n'), 7);
    EXPECT_EQ(m_controller.Run({{"help", {"anything"}}}),
              (Entries{{"type", {"string"}}, {"help", {kExpectedHelp}}}));
}

struct ErrorCase {
    std::vector<Command> commands;
    std::string error;
};

TEST_F(CommandDispatch, UserErrorsAnswerWithTheirTextAndTheHelp) {
    const std::vector<ErrorCase> cases = {
        {{{"help", {}}}, "Missing command arguments"},
        {{{"inject", {}}}, "Missing command arguments"},
        {{{"foo", {"x"}}}, "Unknown command: foo"},
        {{{"", {"x"}}}, "Unknown command: "},
        {{{"signal", {"0"}}}, "Signal value is out of valid range (1-64)"},
        {{{"signal", {"65"}}}, "Signal value is out of valid range (1-64)"},
        {{{"signal", {"-3"}}}, "Signal value is out of valid range (1-64)"},
        {{{"signal", {"abc"}}}, "Invalid signal parameter: not a number"},
        {{{"signal", {"99999999999"}}}, "Signal parameter is out of integer range"},
        {{{"signal", {"1", "2"}}}, "Signal command requires exactly one argument"},
        {{{"inject", {"status"}}}, "Missing status parameters"},
        {{{"inject", {"status", "1", "x"}}}, "Invalid numeric parameter: x"},
        {{{"inject", {"status", "1", "2x"}}}, "Invalid numeric parameter: 2x"},
        {{{"inject", {"status", "99999999999", "1"}}}, "Invalid numeric parameter: 99999999999"},
        {{{"inject", {"status", "1", "2", "3", "4"}}}, "Invalid status parameters format"},
        {{{"inject", {"firmware", "0", "1", "2"}}},
         "Firmware command requires at least 4 parameters"},
        {{{"inject", {"firmware", "0", "1", "2", "3"}}}, "Hook operation not initialized"},
        {{{"inject", {"sensor_group"}}}, "Hook operation not initialized"},
        {{{"inject", {"sensor_group", "arg"}}}, "Hook operation not initialized"},
    };
    for (const ErrorCase& c : cases) {
        std::string shown = c.commands[0].first;
        for (const std::string& argument : c.commands[0].second) {
            shown += " " + argument;
        }
        EXPECT_EQ(m_controller.Run(c.commands), ErrorEntries(c.error)) << shown;
    }
}

TEST_F(CommandDispatch, UnknownModuleIsReportedOncePerCommand) {
    Entries expected;
    for (int i = 0; i < 3; ++i) {
        Entries one = ErrorEntries("Unknown module");
        expected.insert(expected.end(), one.begin(), one.end());
    }
    EXPECT_EQ(m_controller.Run({{"help", {"x"}}, {"inject", {"query"}}, {"foo", {}}}, "camera"),
              expected);
}

TEST_F(CommandDispatch, ReplyCopiesModuleAndAnswersCommandsInOrder) {
    VXCDBMessage reply = m_controller.Execute(
        Frame(Request("corvane", {{"inject", {"clear"}}, {"signal", {"0"}}, {"help", {"x"}}})));
    EXPECT_EQ(reply.modulename(), "corvane");
    EXPECT_EQ(reply.moduletype(), VXCDBMessage::CORVANE);
    Entries expected = TableEntries("result", {"<cleared>"});
    Entries error = ErrorEntries("Signal value is out of valid range (1-64)");
    expected.insert(expected.end(), error.begin(), error.end());
    expected.push_back({"type", {"string"}});
    expected.push_back({"help", {kExpectedHelp}});
    EXPECT_EQ(EntriesOf(reply), expected);
}

TEST_F(CommandDispatch, RequestWithoutCommandsGetsAnEmptyReplyNamingItsModule) {
    VXCDBMessage reply = m_controller.Execute(Frame(Request("debug", {}, VXCDBMessage::DEBUG)));
    EXPECT_TRUE(reply.has_modulename());
    EXPECT_EQ(reply.modulename(), "debug");
    EXPECT_EQ(reply.moduletype(), VXCDBMessage::DEBUG);
    EXPECT_EQ(reply.cmds_size(), 0);
}

TEST_F(CommandDispatch, WithoutHookEngineTablesAreEmptyButClearAnswers) {
    corvanetest::LogCapture log;
    EXPECT_EQ(m_controller.Run({{"inject", {"query"}}}), Entries{});
    EXPECT_EQ(m_controller.Run({{"inject", {"result"}}}), Entries{});
    EXPECT_EQ(m_controller.Run({{"inject", {"result", "group"}}}), Entries{});
    EXPECT_EQ(m_controller.Run({{"inject", {"status", "group"}}}), Entries{});
    EXPECT_EQ(m_controller.Run({{"inject", {"status", "1", "2", "3"}}}), Entries{});
    EXPECT_EQ(log.Count("m_pHookOperation addr: 0x"), 2) << log.Dump();
    EXPECT_EQ(m_controller.Run({{"inject", {"kernel", "anything"}}}), Entries{});
    EXPECT_EQ(m_controller.Run({{"inject", {"clear"}}}), TableEntries("result", {"<cleared>"}));
}

TEST_F(CommandDispatch, UnreadableRequestsAnswerCommandIsError) {
    VXCDBMessageString frame = Frame(Request("corvane", {{"help", {"x"}}}));
    for (int32_t length : {-1, 4097}) {
        frame.payloadLen = length;
        VXCDBMessage reply = m_controller.Execute(frame);
        EXPECT_EQ(EntriesOf(reply), ErrorEntries("command is error")) << length;
        EXPECT_FALSE(reply.has_modulename());
    }
    VXCDBMessageString garbage = Frame(VXCDBMessage());
    garbage.payload[0] = '\x0f';
    garbage.payloadLen = 1;
    EXPECT_EQ(EntriesOf(m_controller.Execute(garbage)), ErrorEntries("command is error"));
}

TEST_F(CommandDispatch, NullFramesAndOversizedRepliesAreReportedByResultCode) {
    corvanetest::LogCapture log;
    VXCDBMessageString frame = Frame(Request("corvane", {{"help", {"x"}}}));
    VXCDBMessageString response;
    EXPECT_EQ(m_controller.get()->ExecuteCommand(nullptr, &response), 5);
    EXPECT_EQ(m_controller.get()->ExecuteCommand(&frame, nullptr), 5);
    EXPECT_TRUE(
        log.Contains("Failed to execute command, pRecvMsgString or pFeedbackMsgString is null"));

    // Six errors carry six copies of the help text: more than one frame holds. The reply frame
    // stays all zero, which the tool reads as an empty reply.
    std::vector<Command> many(6, Command{"foo", {"x"}});
    VXCDBMessageString request = Frame(Request("corvane", many));
    memset(&response, 0x5A, sizeof(response));
    EXPECT_EQ(m_controller.get()->ExecuteCommand(&request, &response), 4);
    const char* bytes = reinterpret_cast<const char*>(&response);
    EXPECT_TRUE(std::all_of(bytes, bytes + sizeof(response), [](char c) { return c == 0; }));
}

TEST_F(CommandDispatch, SignalsOutsideOneAndSixAreOnlyLogged) {
    corvanetest::LogCapture log;
    EXPECT_EQ(m_controller.Run({{"signal", {"5"}}}), Entries{});
    EXPECT_TRUE(log.Contains("error signal type: 5")) << log.Dump();
    EXPECT_EQ(m_controller.Run({{"signal", {"64"}}}), Entries{});
    EXPECT_TRUE(log.Contains("error signal type: 64"));
}

TEST_F(CommandDispatch, SignalSixAbortsTheProcess) {
    int status = corvanetest::RunInChild([this] {
        m_controller.Run({{"signal", {"6"}}});
        return 0;  // not reached when the signal was raised
    });
    ASSERT_TRUE(WIFSIGNALED(status)) << "status " << status;
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
}

TEST_F(CommandDispatch, DebugModuleDumpsAndRejectsOtherCommands) {
    corvanetest::LogCapture log;
    EXPECT_EQ(
        m_controller.Run({{"dumpimagesensormoduledata", {}}}, "debug"),
        (Entries{{"type", {"string"}}, {"message", {"image sensor module data dump requested"}}}));
    EXPECT_TRUE(log.Contains("command is dump"));
    EXPECT_EQ(m_controller.Run({{"dump", {}}}, "debug"), ErrorEntries("Unknown command: dump"));
}

Message g_dumpRequest;
int g_dumpRequests = 0;

void DumpListener(Message request, Message*) {
    g_dumpRequest = request;
    ++g_dumpRequests;
}

TEST(DebugDump, RequestGoesOutOnTheBus) {
    // The bus client is decided once per process: a child of its own.
    int status = corvanetest::RunInChild([] {
        corvanetest::TestSysroot sysroot;
        sysroot.InstallLibrary("com.halvern.messagecenter.so");
        MessageCenterClient::GetInstance()->Subscribe("DUMP_IMAGE_SENSOR_MODULE_DATA",
                                                      DumpListener);
        Controller controller;
        std::string command, param;
        controller.Run({{"dumpimagesensormoduledata", {}}}, "debug");
        bool bare = g_dumpRequests == 1 && GetStringData(g_dumpRequest, "command", &command) &&
                    command == "dumpimagesensormoduledata" &&
                    g_dumpRequest.data.count("param") == 0;
        controller.Run({{"dumpimagesensormoduledata", {"sensor", "0"}}}, "debug");
        bool withArguments = g_dumpRequests == 2 && GetStringData(g_dumpRequest, "param", &param) &&
                             param == "sensor 0";
        return (bare ? 0 : 1) | (withArguments ? 0 : 2);
    });
    EXPECT_TRUE(corvanetest::ChildSucceeded(status)) << "status " << status;
}

}  // namespace
