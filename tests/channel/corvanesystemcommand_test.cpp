// Command dispatch through real frames on a real controller (every sub-module off, so no hook
// engine): the answers and error texts, several commands in one request, signals; and the fixed
// frame: what is framed, what is refused, and which frames can be read at all.
#include <limits.h>
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

TEST_F(CommandDispatch, EveryCommandAnswersAsUsersExpect) {
    const Entries unknownModule = ErrorEntries("Unknown module");
    Entries threeUnknown;
    for (int i = 0; i < 3; ++i) {
        threeUnknown.insert(threeUnknown.end(), unknownModule.begin(), unknownModule.end());
    }
    const struct {
        Entries commands;
        Entries expected;
        std::string module = "corvane";
    } cases[] = {
        {{{"help", {"anything"}}}, {{"type", {"string"}}, {"help", {kExpectedHelp}}}},
        {{{"help", {}}}, ErrorEntries("Missing command arguments")},
        {{{"inject", {}}}, ErrorEntries("Missing command arguments")},
        {{{"foo", {"x"}}}, ErrorEntries("Unknown command: foo")},
        {{{"", {"x"}}}, ErrorEntries("Unknown command: ")},
        // Another module: one error per command.
        {{{"help", {"x"}}, {"inject", {"query"}}, {"foo", {}}}, threeUnknown, "camera"},
        {{{"signal", {"0"}}}, ErrorEntries("Signal value is out of valid range (1-64)")},
        {{{"signal", {"65"}}}, ErrorEntries("Signal value is out of valid range (1-64)")},
        {{{"signal", {"-3"}}}, ErrorEntries("Signal value is out of valid range (1-64)")},
        {{{"signal", {"abc"}}}, ErrorEntries("Invalid signal parameter: not a number")},
        {{{"signal", {"99999999999"}}}, ErrorEntries("Signal parameter is out of integer range")},
        {{{"signal", {"1", "2"}}}, ErrorEntries("Signal command requires exactly one argument")},
        // Signals other than 1 and 6 are only logged (raising 2 or 15 would end this test).
        {{{"signal", {"2"}}}, {}},
        {{{"signal", {"15"}}}, {}},
        {{{"signal", {"64"}}}, {}},
        {{{"inject", {"status"}}}, ErrorEntries("Missing status parameters")},
        {{{"inject", {"status", "1", "x"}}}, ErrorEntries("Invalid numeric parameter: x")},
        {{{"inject", {"status", "1", "2x"}}}, ErrorEntries("Invalid numeric parameter: 2x")},
        {{{"inject", {"status", "99999999999", "1"}}},
         ErrorEntries("Invalid numeric parameter: 99999999999")},
        {{{"inject", {"status", "1", "2", "3", "4"}}},
         ErrorEntries("Invalid status parameters format")},
        {{{"inject", {"firmware", "0", "1", "2"}}},
         ErrorEntries("Firmware command requires at least 4 parameters")},
        // Without a hook engine the tables are empty, injecting is refused, but clear answers.
        {{{"inject", {"firmware", "0", "1", "2", "3"}}},
         ErrorEntries("Hook operation not initialized")},
        {{{"inject", {"sensor_group"}}}, ErrorEntries("Hook operation not initialized")},
        {{{"inject", {"sensor_group", "arg"}}}, ErrorEntries("Hook operation not initialized")},
        {{{"inject", {"query"}}}, {}},
        {{{"inject", {"result"}}}, {}},
        {{{"inject", {"result", "group"}}}, {}},
        {{{"inject", {"status", "group"}}}, {}},
        {{{"inject", {"status", "1", "2", "3"}}}, {}},
        {{{"inject", {"kernel", "anything"}}}, {}},
        {{{"inject", {"clear"}}}, TableEntries("result", {"<cleared>"})},
        {{{"dumpimagesensormoduledata", {}}},
         {{"type", {"string"}}, {"message", {"image sensor module data dump requested"}}},
         "debug"},
        {{{"dump", {}}}, ErrorEntries("Unknown command: dump"), "debug"},
    };
    corvanetest::LogCapture log;
    for (const auto& c : cases) {
        EXPECT_EQ(m_controller.Run(c.commands, c.module), c.expected)
            << c.module << " " << ::testing::PrintToString(c.commands);
    }
    EXPECT_TRUE(log.Contains("error signal type: 15")) << log.Dump();
}

TEST_F(CommandDispatch, EmptyOrUnreadableRequests) {
    VXCDBMessage reply = m_controller.Execute(Frame(Request("debug", {}, VXCDBMessage::DEBUG)));
    EXPECT_EQ(reply.modulename(), "debug");
    EXPECT_EQ(reply.moduletype(), VXCDBMessage::DEBUG);
    EXPECT_EQ(reply.cmds_size(), 0);

    // Which frames cannot be decoded is the frame tests' business; here, how they are answered.
    VXCDBMessageString frame = Frame(Request("corvane", {{"help", {"x"}}}));
    frame.payloadLen = 4097;
    reply = m_controller.Execute(frame);
    EXPECT_EQ(EntriesOf(reply), ErrorEntries("command is error"));
    EXPECT_FALSE(reply.has_modulename());
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
    VXCDBMessageString request = Frame(Request("corvane", Entries(6, Command{"foo", {"x"}})));
    memset(&response, 0x5A, sizeof(response));
    EXPECT_EQ(m_controller.get()->ExecuteCommand(&request, &response), 4);
    const char* bytes = reinterpret_cast<const char*>(&response);
    EXPECT_TRUE(std::all_of(bytes, bytes + sizeof(response), [](char c) { return c == 0; }));
}

TEST_F(CommandDispatch, SignalSixAbortsTheProcess) {
    int status = corvanetest::RunInChild([this] {
        m_controller.Run({{"signal", {"6"}}});
        return 0;  // not reached when the signal was raised
    });
    ASSERT_TRUE(WIFSIGNALED(status)) << "status " << status;
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
}

std::vector<Message> g_dumpRequests;

TEST(DebugDump, RequestGoesOutOnTheBus) {
    // The bus client is decided once per process: a child of its own.
    int status = corvanetest::RunInChild([] {
        corvanetest::TestSysroot sysroot;
        sysroot.InstallLibrary("com.halvern.messagecenter.so");
        MessageCenterClient::GetInstance()->Subscribe(
            "DUMP_IMAGE_SENSOR_MODULE_DATA",
            [](Message request, Message*) { g_dumpRequests.push_back(request); });
        Controller controller;
        controller.Run({{"dumpimagesensormoduledata", {}}}, "debug");
        controller.Run({{"dumpimagesensormoduledata", {"sensor", "0"}}}, "debug");
        std::string command, param;
        bool bare =
            g_dumpRequests.size() == 2 && GetStringData(g_dumpRequests[0], "command", &command) &&
            command == "dumpimagesensormoduledata" && g_dumpRequests[0].data.count("param") == 0;
        bool withArguments = g_dumpRequests.size() == 2 &&
                             GetStringData(g_dumpRequests[1], "param", &param) &&
                             param == "sensor 0";
        return (bare ? 0 : 1) | (withArguments ? 0 : 2);
    });
    EXPECT_TRUE(corvanetest::ChildSucceeded(status)) << "status " << status;
}

// A message that serialises to exactly `size` bytes (field 4 with a two-byte length prefix).
VXCDBMessage MessageOfSize(size_t size) {
    VXCDBMessage message;
    message.set_descriptions(std::string(size - 3, 'x'));
    EXPECT_EQ(message.ByteSizeLong(), size);
    return message;
}

TEST(VXCDBFrame, RepliesUpTo4095BytesAreFramedAnd4096IsRefused) {
    corvanetest::TestSysroot sysroot;
    corvanetest::LogCapture log;
    CorvaneSystemImpl system;

    VXCDBMessage largest = MessageOfSize(4095);
    VXCDBMessageString frame;
    memset(&frame, 0, sizeof(frame));
    ASSERT_EQ(system.FormatSocketMsg(largest, &frame), 0);
    EXPECT_EQ(frame.payloadLen, 4095);
    EXPECT_EQ(std::string(frame.payload, 4095), largest.SerializeAsString());
    EXPECT_EQ(frame.payload[4095], 0);

    // One byte more would still fit the payload field; it is refused all the same, and the
    // frame is left as it was.
    VXCDBMessage tooLarge = MessageOfSize(4096);
    memset(&frame, 0x5A, sizeof(frame));
    VXCDBMessageString before = frame;
    EXPECT_EQ(system.FormatSocketMsg(tooLarge, &frame), 4);
    EXPECT_EQ(memcmp(&before, &frame, sizeof(frame)), 0);
    EXPECT_TRUE(log.Contains("payload size 4096 exceeds the max payload size 4096")) << log.Dump();
}

TEST(VXCDBFrame, PayloadLengthOutsideThePayloadFieldDoesNotParse) {
    VXCDBMessage full = MessageOfSize(4096);
    VXCDBMessageString frame = Frame(full);
    VXCDBMessage decoded;
    ASSERT_EQ(frame.payloadLen, 4096);
    EXPECT_TRUE(DecodeVXCDBMessage(frame, &decoded)) << "a request may fill the whole field";

    for (int32_t length : {-1, INT_MIN, 4097, INT_MAX}) {
        frame.payloadLen = length;
        EXPECT_FALSE(DecodeVXCDBMessage(frame, &decoded)) << "payloadLen " << length;
    }
    // Bytes that are not a message: a field with an invalid wire type.
    VXCDBMessageString garbage = Frame(VXCDBMessage());
    garbage.payload[0] = '\x0f';
    garbage.payloadLen = 1;
    EXPECT_FALSE(DecodeVXCDBMessage(garbage, &decoded));
}

}  // namespace
