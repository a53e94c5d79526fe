// Command dispatch through real frames on a real controller: the answers and error texts with
// no hook engine (every sub-module off), the tables answered from a stand-in engine and what is
// asked of it, and the fixed frame: what is framed, what is refused, what can be read at all.
#include <limits.h>

#include "tests/channel/channeltestutil.h"

namespace {

using namespace channeltest;

using CommandDispatch = ChannelTest;

TEST_F(CommandDispatch, EveryCommandAnswersAsUsersExpect) {
    const Entries unknown = ErrorEntries("Unknown module");
    Entries twoUnknown = unknown;
    twoUnknown.insert(twoUnknown.end(), unknown.begin(), unknown.end());
    const Entries outOfRange = ErrorEntries("Signal value is out of valid range (1-64)");
    const Entries noEngine = ErrorEntries("Hook operation not initialized");
    const struct {
        Entries commands;
        Entries expected;
        std::string module = "corvane";
    } cases[] = {
        {{{"help", {}}}, ErrorEntries("Missing command arguments")},
        // Another module: one error per command.
        {{{"help", {"x"}}, {"foo", {}}}, twoUnknown, "camera"},
        {{{"signal", {"0"}}}, outOfRange},
        {{{"signal", {"65"}}}, outOfRange},
        {{{"signal", {"abc"}}}, ErrorEntries("Invalid signal parameter: not a number")},
        {{{"signal", {"99999999999"}}}, ErrorEntries("Signal parameter is out of integer range")},
        {{{"signal", {"1", "2"}}}, ErrorEntries("Signal command requires exactly one argument")},
        // Signals other than 1 and 6 are only logged (raising 64 would end this test).
        {{{"signal", {"64"}}}, {}},
        {{{"inject", {"status"}}}, ErrorEntries("Missing status parameters")},
        {{{"inject", {"status", "1", "2x"}}}, ErrorEntries("Invalid numeric parameter: 2x")},
        {{{"inject", {"status", "1", "2", "3", "4"}}},
         ErrorEntries("Invalid status parameters format")},
        {{{"inject", {"firmware", "0", "1", "2"}}},
         ErrorEntries("Firmware command requires at least 4 parameters")},
        // Without a hook engine the tables are empty, injecting is refused, but clear answers.
        // (Help, unknown commands and the dump, as the tool shows them: vxcdb_test.cpp.)
        {{{"inject", {"firmware", "0", "1", "2", "3"}}}, noEngine},
        {{{"inject", {"sensor_group"}}}, noEngine},
        {{{"inject", {"query"}}}, {}},
        {{{"inject", {"result"}}}, {}},
        {{{"inject", {"result", "group"}}}, {}},
        {{{"inject", {"status", "group"}}}, {}},
        {{{"inject", {"status", "1", "2", "3"}}}, {}},
        {{{"inject", {"kernel", "anything"}}}, {}},
        {{{"inject", {"clear"}}}, TableEntries("result", {"<cleared>"})},
        {{{"dump", {}}}, ErrorEntries("Unknown command: dump"), "debug"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Run(c.commands, c.module), c.expected)
            << c.module << " " << ::testing::PrintToString(c.commands);
    }
    EXPECT_TRUE(m_log.Contains("error signal type: 64")) << m_log.Dump();
    // The controller's methods live in several source files; their lines all name the main one.
    int lines = 0;
    for (const corvanetest::LogLine& line : m_log.Lines()) {
        if (line.tag == "[CORVANESYS]") {
            ++lines;
            EXPECT_EQ(line.message.rfind("corvanesystem.cpp:", 0), 0u) << line.message;
        }
    }
    EXPECT_GT(lines, 10);
}

// The tables of a stand-in engine's state, and what the commands ask of the engine.
TEST_F(CommandDispatch, EngineCommandsAnswerWithTheirTables) {
    CorvaneSystemImplTestPeer::SetHookOperation(m_system, &m_engine);
    // One case in two groups: one row per relationship, duplicates kept, in the engine's order.
    m_engine.relations = {{0, "g", 2, "caseB", "i2c_read", "<Successfully hooked>", true},
                          {1, "other", 2, "caseB", "i2c_read", "<Successfully hooked>", true},
                          {0, "g", 3, "caseC", "i2c_write", "", false},
                          {0, "g", 5, "caseE", "unnumbered", "", false}};
    m_engine.readyGroups = {"g", "other"};
    m_engine.executedGroups = {"other"};
    m_engine.hookIds = {{"i2c_read", {2, 3}}, {"i2c_write", {3, 7}}};
    m_engine.acks = {{"i2c_read", "0", "2", "3", "0x10"},
                     {"i2c_read", "1", "2", "3", ""},
                     {"spi_write", "0", "2", "3", "0x01"}};
    const std::string group = "group name,result,executed";
    const std::string status = "hook name,camera id,sensor id,interface id,status";
    const std::string groupStatus = "group name," + status;
    auto refused = [](const std::string& field, const std::string& value) {
        return ErrorEntries("Invalid firmware parameters: " + field +
                            " must be a number from 0 to 255, got '" + value + "'");
    };
    const Entries executed = MessageEntries("command executed successfully");
    Entries injected = MessageEntries("Hook group executed successfully");
    injected.push_back({"type", {"list"}});
    injected.push_back({group, {"g,<Successfully hooked>,<not executed>"}});
    const std::vector<std::pair<std::vector<std::string>, Entries>> rows = {
        // (The query table, as the tool shows it: vxcdb_test.cpp.)
        {{"result"},
         TableEntries("group name,hook case,hook name,result,executed",
                      {"g,caseB,i2c_read,<Successfully hooked>,<executed>",
                       "other,caseB,i2c_read,<Successfully hooked>,<executed>",
                       "g,caseC,i2c_write,<unhook>,<not executed>",
                       "g,caseE,unnumbered,<unhook>,<not executed>"})},
        {{"result", "other", "ignored"},
         TableEntries(group, {"other,<Successfully hooked>,<executed>"})},
        {{"result", "missing"}, TableEntries(group, {"missing,<unhook>,<not executed>"})},
        // The group is injected, then judged: a name the engine does not know is not ready.
        {{"g", "a1", "a2"}, injected},
        {{"missing"}, ErrorEntries("Hook group not ready: missing")},
        {{"status", "1", "2", "3"}, TableEntries(status, {"i2c_read,1,2,3,<unkonwn>"})},
        // Two numbers: every camera module.
        {{"status", "2", "3"},
         TableEntries(status, {"i2c_read,0,2,3,0x10", "i2c_read,1,2,3,<unkonwn>"})},
        // Ids are bytes: 258 and 259 address sensor 2, interface 3.
        {{"status", "0", "258", "259"}, TableEntries(status, {"i2c_read,0,2,3,0x10"})},
        // Nothing found: what was asked, with the unknown cells marked.
        {{"status", "5", "2", "3"}, TableEntries(status, {"i2c_read,5,2,3,<not find>"})},
        {{"status", "9", "9"}, TableEntries(status, {"<unkonwn>,<unkonwn>,9,9,<not find>"})},
        // A group's hooks, each at its (case id, hook id) when these are bytes.
        {{"status", "g"},
         TableEntries(groupStatus, {"g,i2c_read,0,2,3,0x10", "g,i2c_read,1,2,3,<unkonwn>",
                                    "g,i2c_write,<unkonwn>,3,7,<not find>",
                                    "g,unnumbered,<unkonwn>,<unkonwn>,<unkonwn>,<not find>"})},
        {{"status", "none"},
         TableEntries(groupStatus, {"none,<unkonwn>,<unkonwn>,<unkonwn>,<unkonwn>,<not find>"})},
        // Every firmware field is a byte; a cmd id the engine does not act on is its to ignore.
        {{"firmware", "1", "2", "3", "4", "delay", "100"}, executed},
        {{"firmware", "+3", "255", "0", "9"}, executed},
        {{"firmware", "x", "0", "0", "0"}, refused("cmd id", "x")},
        {{"firmware", "0", "256", "0", "0"}, refused("camera module id", "256")},
        {{"firmware", "0", "0", "-1", "0"}, refused("subdevice id", "-1")},
        {{"firmware", "0", "0", "0", " 7"}, refused("interface id", " 7")},
        {{"clear"}, TableEntries("result", {"<cleared>"})},
    };
    for (const auto& [arguments, expected] : rows) {
        EXPECT_EQ(Run({{"inject", arguments}}), expected) << ::testing::PrintToString(arguments);
    }
    m_engine.doHookGroupResult = -2;
    EXPECT_EQ(Run({{"inject", {"g"}}}), ErrorEntries("Hook failed with code: -2"));
    using Injection = std::pair<std::string, std::vector<std::string>>;
    EXPECT_EQ(m_engine.injected,
              (std::vector<Injection>{{"g", {"a1", "a2"}}, {"missing", {}}, {"g", {}}}));
    EXPECT_EQ(m_engine.processed,
              (std::vector<HookFw>{{1, 2, 3, 4, "delay 100"}, {3, 255, 0, 9, ""}}));
    EXPECT_EQ(m_engine.unhookAllCalls, 1);
}

// A message that serialises to exactly `size` bytes (field 4 with a two-byte length prefix).
VXCDBMessage MessageOfSize(size_t size) {
    VXCDBMessage message;
    message.set_descriptions(std::string(size - 3, 'x'));
    EXPECT_EQ(message.ByteSizeLong(), size);
    return message;
}

// Replies of up to 4095 bytes are framed; 4096 bytes would still fit the payload field, yet it is
// refused and the frame left as it was, while a request may fill the whole field. What cannot be
// answered in a frame is told by the result code; a request that does not decode (a payload
// length outside the payload field, bytes that are not a message) is answered with an error of
// its own.
TEST_F(CommandDispatch, FramesThatCannotBeAnswered) {
    VXCDBMessage largest = MessageOfSize(4095);
    VXCDBMessageString response = {};
    ASSERT_EQ(m_system->FormatSocketMsg(largest, &response), 0);
    EXPECT_EQ(response.payloadLen, 4095);
    EXPECT_EQ(std::string(response.payload, 4096), largest.SerializeAsString() + '\0');
    VXCDBMessage full = MessageOfSize(4096);
    memset(&response, 0x5A, sizeof(response));
    const VXCDBMessageString before = response;
    EXPECT_EQ(m_system->FormatSocketMsg(full, &response), 4);
    EXPECT_EQ(memcmp(&before, &response, sizeof(response)), 0);
    EXPECT_TRUE(m_log.Contains("payload size 4096 exceeds the max payload size 4096"))
        << m_log.Dump();
    VXCDBMessage decoded;
    EXPECT_TRUE(DecodeVXCDBMessage(Frame(full), &decoded));

    VXCDBMessageString request = Frame(Request("corvane", {{"help", {"x"}}}));
    EXPECT_EQ(m_system->ExecuteCommand(nullptr, &response), 5);
    EXPECT_EQ(m_system->ExecuteCommand(&request, nullptr), 5);
    EXPECT_TRUE(
        m_log.Contains("Failed to execute command, pRecvMsgString or pFeedbackMsgString is null"));
    // Six errors carry six copies of the help text: more than a frame holds. (The frame stays
    // empty, which the tool reads as an empty reply: vxcdb_test.cpp.)
    request = Frame(Request("corvane", Entries(6, {"foo", {"x"}})));
    EXPECT_EQ(m_system->ExecuteCommand(&request, &response), 4);

    for (int32_t length : {-1, INT_MIN, 4097, INT_MAX, 1}) {
        request.payloadLen = length;
        request.payload[0] = length == 1 ? '\x0f' : request.payload[0];  // an invalid wire type
        VXCDBMessage reply = Execute(request);
        EXPECT_EQ(EntriesOf(reply), ErrorEntries("command is error")) << length;
        EXPECT_FALSE(reply.has_modulename());
    }
    VXCDBMessage reply = Execute(Frame(Request("debug", {}, VXCDBMessage::DEBUG)));
    EXPECT_EQ(reply.modulename(), "debug");
    EXPECT_EQ(reply.moduletype(), VXCDBMessage::DEBUG);
    EXPECT_EQ(reply.cmds_size(), 0);
}

}  // namespace
