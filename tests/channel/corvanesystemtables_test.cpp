// The commands that need the hook engine, through real frames on a real controller whose engine
// is a stand-in: the tables they answer with and what they ask of the engine.
#include <map>
#include <regex>

#include "tests/channel/channeltestutil.h"

namespace {

using namespace channeltest;

class EngineCommands : public ::testing::Test {
  protected:
    Entries Inject(const std::vector<std::string>& arguments) {
        return m_controller.Run({{"inject", arguments}});
    }

    corvanetest::TestSysroot m_sysroot;
    FakeHookOperation m_engine;
    Controller m_controller{&m_engine};
};

TEST_F(EngineCommands, QueryAndResultListEveryRelationshipInEngineOrder) {
    // Two groups sharing one case: one row per relationship, duplicates kept.
    m_engine.AddRelation("g1", 1, "caseA", "hook_open", "<Successfully hooked>", true);
    m_engine.AddRelation("g2", 1, "caseA", "hook_open", "<Successfully hooked>", true);
    m_engine.AddRelation("g2", 2, "caseB", "hook_read");  // never installed

    EXPECT_EQ(Inject({"query"}),
              TableEntries("group name,hook case,hook name",
                           {"g1,caseA,hook_open", "g2,caseA,hook_open", "g2,caseB,hook_read"}));
    EXPECT_EQ(Inject({"result"}),
              TableEntries("group name,hook case,hook name,result,executed",
                           {"g1,caseA,hook_open,<Successfully hooked>,<executed>",
                            "g2,caseA,hook_open,<Successfully hooked>,<executed>",
                            "g2,caseB,hook_read,<unhook>,<not executed>"}));
    m_engine.relations.clear();
    EXPECT_EQ(Inject({"query"}), TableEntries("group name,hook case,hook name", {}));
}

TEST_F(EngineCommands, GroupResultShowsReadinessAndExecution) {
    m_engine.readyGroups = {"ready", "both"};
    m_engine.executedGroups = {"both"};
    const std::string header = "group name,result,executed";
    EXPECT_EQ(Inject({"result", "ready", "ignored"}),
              TableEntries(header, {"ready,<Successfully hooked>,<not executed>"}));
    EXPECT_EQ(Inject({"result", "both"}),
              TableEntries(header, {"both,<Successfully hooked>,<executed>"}));
    EXPECT_EQ(Inject({"result", "missing"}),
              TableEntries(header, {"missing,<unhook>,<not executed>"}));
}

TEST_F(EngineCommands, ClearRemovesEveryInjectionFirst) {
    EXPECT_EQ(Inject({"clear"}), TableEntries("result", {"<cleared>"}));
    EXPECT_EQ(m_engine.unhookAllCalls, 1);
}

TEST_F(EngineCommands, HookGroupIsInjectedThenJudged) {
    m_engine.readyAfterInject = {"sensor_group"};
    Entries expected = {{"type", {"string"}}, {"message", {"Hook group executed successfully"}}};
    Entries table = TableEntries("group name,result,executed",
                                 {"sensor_group,<Successfully hooked>,<not executed>"});
    expected.insert(expected.end(), table.begin(), table.end());
    EXPECT_EQ(Inject({"sensor_group", "a1", "a2"}), expected);
    using Injection = std::pair<std::string, std::vector<std::string>>;
    EXPECT_EQ(m_engine.injected, (std::vector<Injection>{{"sensor_group", {"a1", "a2"}}}));

    // A name the engine does not know is injected (a no-op there) and stays not ready.
    EXPECT_EQ(Inject({"no_such_group"}), ErrorEntries("Hook group not ready: no_such_group"));
    m_engine.doHookGroupResult = 7;
    EXPECT_EQ(Inject({"sensor_group"}), ErrorEntries("Hook failed with code: 7"));
    m_engine.doHookGroupResult = -2;
    EXPECT_EQ(Inject({"sensor_group"}), ErrorEntries("Hook failed with code: -2"));
}

TEST_F(EngineCommands, StatusOfOneAddress) {
    m_engine.hookIds = {{"i2c_read", {2, 3}}};
    m_engine.acks = {{"i2c_read", "0", "2", "3", "0x10"},
                     {"i2c_read", "1", "2", "3", ""},
                     {"other", "0", "2", "3", "0x01"}};
    const std::string header = "hook name,camera id,sensor id,interface id,status";
    const std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> cases = {
        {{"1", "2", "3"}, {"i2c_read,1,2,3,<unkonwn>"}},
        // Two numbers: every camera module.
        {{"2", "3"}, {"i2c_read,0,2,3,0x10", "i2c_read,1,2,3,<unkonwn>"}},
        // Ids are bytes: 258 and 259 address sensor 2, interface 3.
        {{"0", "258", "259"}, {"i2c_read,0,2,3,0x10"}},
        // Nothing found: what was asked, with the unknown cells marked.
        {{"5", "2", "3"}, {"i2c_read,5,2,3,<not find>"}},
        {{"9", "9"}, {"<unkonwn>,<unkonwn>,9,9,<not find>"}},
    };
    for (const auto& [numbers, rows] : cases) {
        std::vector<std::string> arguments = {"status"};
        arguments.insert(arguments.end(), numbers.begin(), numbers.end());
        EXPECT_EQ(Inject(arguments), TableEntries(header, rows))
            << ::testing::PrintToString(numbers);
    }
}

TEST_F(EngineCommands, StatusOfAGroupFollowsItsHooks) {
    m_engine.AddRelation("g", 2, "caseB", "i2c_read");
    m_engine.AddRelation("other", 4, "caseD", "spi_write");
    m_engine.AddRelation("g", 3, "caseC", "i2c_write");
    m_engine.AddRelation("g", 5, "caseE", "unnumbered");
    m_engine.hookIds = {{"i2c_read", {2, 1}}, {"i2c_write", {3, 7}}};
    m_engine.acks = {{"i2c_read", "0", "2", "1", "0x10"}, {"i2c_read", "1", "2", "1", "0x20"}};
    const std::string header = "group name,hook name,camera id,sensor id,interface id,status";

    EXPECT_EQ(Inject({"status", "g"}),
              TableEntries(header, {
                                       "g,i2c_read,0,2,1,0x10",
                                       "g,i2c_read,1,2,1,0x20",
                                       "g,i2c_write,<unkonwn>,3,7,<not find>",
                                       "g,unnumbered,<unkonwn>,<unkonwn>,<unkonwn>,<not find>",
                                   }));
    EXPECT_EQ(Inject({"status", "empty"}),
              TableEntries(header, {"empty,<unkonwn>,<unkonwn>,<unkonwn>,<unkonwn>,<not find>"}));
}

TEST_F(EngineCommands, FirmwareCommandIsHandedToTheEngineWhenEveryFieldIsAByte) {
    const Entries executed = {{"type", {"string"}}, {"message", {"command executed successfully"}}};
    EXPECT_EQ(Inject({"firmware", "1", "2", "3", "4", "delay", "100"}), executed);
    EXPECT_EQ(Inject({"firmware", "0", "255", "0", "9"}), executed);
    // A cmd id the engine does not act on is still its to ignore.
    EXPECT_EQ(Inject({"firmware", "3", "0", "0", "0"}), executed);
    EXPECT_EQ(Inject({"firmware", "+255", "0", "0", "0"}), executed);

    const std::vector<std::pair<std::vector<std::string>, std::string>> refused = {
        {{"x", "0", "0", "0"}, "cmd id must be a number from 0 to 255, got 'x'"},
        {{"256", "0", "0", "0"}, "cmd id must be a number from 0 to 255, got '256'"},
        {{"0", "256", "0", "0"}, "camera module id must be a number from 0 to 255, got '256'"},
        {{"0", "0", "-1", "0"}, "subdevice id must be a number from 0 to 255, got '-1'"},
        {{"0", "0", "0", "1.5"}, "interface id must be a number from 0 to 255, got '1.5'"},
        {{"0", "0", "0", " 7"}, "interface id must be a number from 0 to 255, got ' 7'"},
        {{"0", "0", "0", ""}, "interface id must be a number from 0 to 255, got ''"},
    };
    for (const auto& [numbers, detail] : refused) {
        std::vector<std::string> arguments = {"firmware"};
        arguments.insert(arguments.end(), numbers.begin(), numbers.end());
        EXPECT_EQ(Inject(arguments), ErrorEntries("Invalid firmware parameters: " + detail));
    }
    EXPECT_EQ(
        m_engine.processed,
        (std::vector<HookFw>{
            {1, 2, 3, 4, "delay 100"}, {0, 255, 0, 9, ""}, {3, 0, 0, 0, ""}, {255, 0, 0, 0, ""}}));
}

// The controller's methods are written in several source files; their lines all name the main
// one, each with its real line number.
TEST_F(EngineCommands, ControllerLinesNameOneSourceFile) {
    corvanetest::LogCapture log;
    Inject({"result"});
    std::map<std::string, int> lineOf;
    const std::regex shape(R"(corvanesystem\.cpp:([0-9]+) (\w+\(\) .*))");
    for (const corvanetest::LogLine& line : log.Lines()) {
        std::smatch match;
        if (line.tag == "[CORVANESYS]" && std::regex_match(line.message, match, shape)) {
            lineOf[match[2]] = std::stoi(match[1]);
        }
    }
    for (const char* text :
         {"ExecuteCommand() Receive moduleType 0", "ExecuteCommand() Receive moduleName corvane",
          "HandleInjectCommand() subArgs size is 1",
          "SetResultVXCDBMessage() hookRelationship size: 0"}) {
        EXPECT_EQ(lineOf.count(text), 1u) << text << "\n" << log.Dump();
    }
    EXPECT_EQ(lineOf["ExecuteCommand() Receive moduleName corvane"],
              lineOf["ExecuteCommand() Receive moduleType 0"] + 1);
}

}  // namespace
