#include "core/model/monitor/monitorimpl.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "core/controller/corvanesystem.h"
#include "core/messagecenter/messagecenterclient.h"
#include "tests/support/testsupport.h"

namespace {

using corvanetest::ChildSucceeded;
using corvanetest::LogCapture;
using corvanetest::RunInChild;
using corvanetest::ScopedChdir;
using corvanetest::TestSysroot;

constexpr const char* kHistory = "data/vendor/camera/probe_messages.json";
constexpr const char* kSwitch = "persist.vendor.camera.cloud.corvanesystem.monitor";
constexpr int64_t kT0 = 1700000000000;  // some millisecond of 2023

struct Record {
    std::string name;
    std::string type;
    int64_t time;
    bool success;
    bool operator==(const Record& other) const {
        return name == other.name && type == other.type && time == other.time &&
               success == other.success;
    }
};

std::ostream& operator<<(std::ostream& out, const Record& r) {
    return out << "{" << r.name << ", " << r.type << ", " << r.time << ", "
               << (r.success ? "success" : "fail") << "}";
}

std::string RecordJson(const Record& r) {
    return "{\"sensor_name\":\"" + r.name + "\",\"sensor_type\":\"" + r.type +
           "\",\"probe_time\":" + std::to_string(r.time) + ",\"probe_result\":\"" +
           (r.success ? "success" : "fail") + "\"}";
}

std::string HistoryJson(const std::vector<Record>& records) {
    std::string text = "[";
    for (const Record& r : records) {
        text += (text.size() > 1 ? "," : "") + RecordJson(r);
    }
    return text + "]";
}

Message ProbeMessageOf(const Record& r) {
    Message message("PROBE_MESSAGE");
    message.data["sensor_name"] = MessageData(r.name);
    message.data["sensor_type"] = MessageData(r.type);
    message.data["probe_time"] = MakeInt64Data(static_cast<uint64_t>(r.time));
    message.data["probe_result"] = MakeInt32Data(r.success ? 1 : 0);
    return message;
}

std::vector<Record> ToRecords(const std::vector<ProbeMessage>& messages) {
    std::vector<Record> records;
    for (const ProbeMessage& m : messages) {
        records.push_back({m.sensorName, m.sensorType, m.probeTime, m.probeResult});
    }
    return records;
}

std::string ReplyString(const Message& reply, const char* key) {
    std::string value = "<absent or not a string>";
    GetStringData(reply, key, &value);
    return value;
}

int64_t ReplyInt64(const Message& reply, const char* key) {
    uint64_t value = 0xDEAD;
    GetInt64Data(reply, key, &value);
    return static_cast<int64_t>(value);
}

int64_t NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Runs `body` in a child process, whose failed checks are printed there and fail the test here.
// The bus client and the bus's subscriptions are per process, so every scenario that touches
// them gets a fresh one.
void ExpectInChild(const std::function<void()>& body) {
    int status = RunInChild([&] {
        body();
        return ::testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_TRUE(ChildSucceeded(status)) << "the child's checks failed (above), status " << status;
}

// A sysroot as working directory, as the camera service has "/".
class MonitorTest : public ::testing::Test {
  protected:
    void WriteHistory(const std::vector<Record>& records) {
        m_sysroot.WriteFile(kHistory, HistoryJson(records));
    }

    // The history file's records in file order; fails the test on anything but our format.
    std::vector<Record> History() {
        rapidjson::Document doc;
        doc.Parse(m_sysroot.ReadFile(kHistory).c_str());
        std::vector<Record> records;
        if (doc.HasParseError() || !doc.IsArray()) {
            ADD_FAILURE() << "history is not a JSON array: " << m_sysroot.ReadFile(kHistory);
            return records;
        }
        for (const auto& v : doc.GetArray()) {
            bool wellFormed = v.IsObject() && v.MemberCount() == 4 && v["sensor_name"].IsString() &&
                              v["sensor_type"].IsString() && v["probe_time"].IsInt64() &&
                              v["probe_result"].IsString();
            if (!wellFormed) {
                ADD_FAILURE() << "malformed record in " << m_sysroot.ReadFile(kHistory);
                continue;
            }
            std::string result = v["probe_result"].GetString();
            EXPECT_TRUE(result == "success" || result == "fail") << result;
            records.push_back({v["sensor_name"].GetString(), v["sensor_type"].GetString(),
                               v["probe_time"].GetInt64(), result == "success"});
        }
        return records;
    }

    static void Save(const Record& record) {
        Message reply;
        MonitorImpl::SaveProbeMessage(ProbeMessageOf(record), &reply);
    }

    static Message Ask(const std::string& topic, std::map<std::string, MessageData> data) {
        Message reply;
        MessageCenterClient::GetInstance()->SendMessage(Message(topic, std::move(data)), &reply);
        return reply;
    }

    TestSysroot m_sysroot;
    ScopedChdir m_chdir{m_sysroot.path()};
};

// The same, with the host bus installed where the client looks for it.
class MonitorBusTest : public MonitorTest {
  protected:
    MonitorBusTest() { m_sysroot.InstallLibrary("com.halvern.messagecenter.so"); }
};

// ---- The record store -------------------------------------------------------------------------

TEST_F(MonitorTest, FirstSaveWritesOneCompactRecord) {
    LogCapture capture;
    Save({"imx_wide_i", "wide", kT0 + 123, true});
    EXPECT_EQ(m_sysroot.ReadFile(kHistory),
              "[{\"sensor_name\":\"imx_wide_i\",\"sensor_type\":\"wide\",\"probe_time\":"
              "1700000000123,\"probe_result\":\"success\"}]");
    EXPECT_TRUE(capture.Contains(
        "Failed to read file: data/vendor/camera/probe_messages.json, reset file"));
    EXPECT_TRUE(capture.Contains(
        "Record probe sensor: imx_wide_i, type: wide, probe time: 1700000000123, result: 1"));

    Save({"imx_wide_i", "wide", kT0 + 124, false});
    EXPECT_EQ(History(), (std::vector<Record>{{"imx_wide_i", "wide", kT0 + 124, false},
                                              {"imx_wide_i", "wide", kT0 + 123, true}}));
}

TEST_F(MonitorTest, HundredAndFirstRecordDropsOnlyTheOldestOfItsType) {
    std::vector<Record> wide;
    for (int i = 100; i >= 1; --i) {
        wide.push_back({"w" + std::to_string(i), "wide", kT0 + i, i % 3 != 0});
    }
    const std::vector<Record> others = {{"t2", "tele", kT0 + 50, true},
                                        {"t1", "tele", kT0 + 7, false},
                                        {"plain", "", kT0 + 1, true}};
    std::vector<Record> file = wide;
    file.insert(file.end(), others.begin(), others.end());
    WriteHistory(file);

    Save({"w101", "wide", kT0 + 101, true});

    std::vector<Record> expected = {others[2], others[0], others[1]};  // "" < "tele" < "wide"
    expected.push_back({"w101", "wide", kT0 + 101, true});
    expected.insert(expected.end(), wide.begin(), wide.end() - 1);  // w1 is gone
    EXPECT_EQ(History(), expected);

    // A name without a lens segment forms its own group, with an empty type.
    Save({"imx586", "", kT0 + 2, false});
    EXPECT_EQ(ToRecords(MonitorImpl::GetProbeMessage("", -1)),
              (std::vector<Record>{{"imx586", "", kT0 + 2, false}, others[2]}));
    EXPECT_EQ(MonitorImpl::GetProbeMessage("wide", -1).size(), 100u);
}

TEST_F(MonitorTest, TypesFollowInByteOrder) {
    // Bytes compare unsigned: "\xc3\xa9" (e acute in UTF-8) comes after every ASCII type.
    WriteHistory({{"e", "\xc3\xa9", kT0, true},
                  {"w", "wide", kT0, true},
                  {"W", "Wide", kT0, true},
                  {"t", "tele", kT0, true}});
    Save({"n", "", kT0, true});
    std::vector<std::string> types;
    for (const Record& r : History()) {
        types.push_back(r.type);
    }
    EXPECT_EQ(types, (std::vector<std::string>{"", "Wide", "tele", "wide", "\xc3\xa9"}));
}

TEST_F(MonitorTest, FullTypeKeepsTheNewestArrivalAmongRecordsOfTheSameMillisecond) {
    std::vector<Record> same;
    for (int i = 0; i < 100; ++i) {
        same.push_back({"old" + std::to_string(i), "wide", kT0, true});
    }
    WriteHistory(same);
    Save({"new", "wide", kT0, false});
    std::vector<Record> history = History();
    ASSERT_EQ(history.size(), 100u);
    EXPECT_EQ(history.front().name, "new");
    EXPECT_EQ(history.back().name, "old98");
}

TEST_F(MonitorTest, UnusableHistoryAnswersAsEmptyAndIsReplacedByTheNextSave) {
    const std::string readFailure =
        "Failed to read file: data/vendor/camera/probe_messages.json, reset file";
    struct Case {
        const char* what;
        std::string content;
        std::string saveLog;   // logged by the save, "" for none
        std::string queryLog;  // logged by a query
    };
    const std::string badRecords =
        "[1, \"x\", null, [], {},"
        "{\"sensor_name\":1,\"sensor_type\":\"wide\",\"probe_time\":1,\"probe_result\":\"fail\"},"
        "{\"sensor_name\":\"a\",\"sensor_type\":\"wide\",\"probe_time\":\"1\","
        "\"probe_result\":\"fail\"},"
        "{\"sensor_name\":\"a\",\"sensor_type\":7,\"probe_time\":1,\"probe_result\":\"fail\"},"
        "{\"sensor_name\":\"a\",\"sensor_type\":\"wide\",\"probe_time\":1}]";
    const Case cases[] = {
        {"an object", R"({"sensor_name": "a", "sensor_type": "wide"})",
         "Json is not an array, reset json", "Json is not an array"},
        {"a string", R"("wide")", "Json is not an array, reset json", "Json is not an array"},
        {"garbage", "not json at all [", readFailure, readFailure},
        {"an empty file", "", readFailure, readFailure},
        {"a truncated array", HistoryJson({{"a", "wide", kT0, true}}).substr(0, 30), readFailure,
         readFailure},
        {"deep nesting", std::string(100000, '['), readFailure, readFailure},
        {"over 5 MiB", "[" + std::string(5 * 1024 * 1024, ' ') + "]", readFailure, readFailure},
        {"only malformed records", badRecords, "", ""},
    };
    const Record fresh = {"imx_wide_i", "wide", kT0, true};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        m_sysroot.WriteFile(kHistory, c.content);
        {
            LogCapture capture;
            EXPECT_TRUE(MonitorImpl::GetProbeMessage("wide", -1).empty());
            if (!c.queryLog.empty()) {
                EXPECT_TRUE(capture.Contains(c.queryLog)) << capture.Dump();
            }
        }
        LogCapture capture;
        Save(fresh);
        if (!c.saveLog.empty()) {
            EXPECT_TRUE(capture.Contains(c.saveLog)) << capture.Dump();
        } else {
            EXPECT_FALSE(capture.Contains("reset")) << capture.Dump();
        }
        EXPECT_EQ(History(), std::vector<Record>{fresh});
    }
}

TEST_F(MonitorTest, WellFormedRecordsSurviveBesideMalformedOnes) {
    m_sysroot.WriteFile(kHistory, "[7, " + RecordJson({"t", "tele", kT0 + 5, false}) +
                                      ", {\"sensor_name\":\"x\"}, // a comment\n" +
                                      RecordJson({"w", "wide", kT0 + 9, true}) + ",]");
    Save({"w2", "wide", kT0 + 1, true});
    EXPECT_EQ(History(), (std::vector<Record>{{"t", "tele", kT0 + 5, false},
                                              {"w", "wide", kT0 + 9, true},
                                              {"w2", "wide", kT0 + 1, true}}));
}

TEST_F(MonitorTest, SaveIgnoresWhatIsNotAProbeRecord) {
    const Record r = {"imx_wide_i", "wide", kT0, true};
    struct Case {
        const char* what;
        Message message;
        bool nullReply;
        const char* log;  // expected error line, or null for none at all
    };
    auto without = [&](const char* key) {
        Message m = ProbeMessageOf(r);
        m.data.erase(key);
        return m;
    };
    auto replaced = [&](const char* key, MessageData value) {
        Message m = ProbeMessageOf(r);
        m.data[key] = value;
        return m;
    };
    Message wrongTopic = ProbeMessageOf(r);
    wrongTopic.topic = "PROBE_MESSAGES";
    const Case cases[] = {
        {"wrong topic", wrongTopic, false, "Not right message type"},
        {"null reply", ProbeMessageOf(r), true, "Not right message type"},
        {"no name", without("sensor_name"), false, nullptr},
        {"no type", without("sensor_type"), false, nullptr},
        {"no time", without("probe_time"), false, nullptr},
        {"no result", without("probe_result"), false, nullptr},
        {"time as a string", replaced("probe_time", MessageData("1")), false, "wrong kind"},
        {"result as 64-bit", replaced("probe_result", MakeInt64Data(1)), false, "wrong kind"},
        {"name as an integer", replaced("sensor_name", MakeInt32Data(1)), false, "wrong kind"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        LogCapture capture;
        Message reply;
        MonitorImpl::SaveProbeMessage(c.message, c.nullReply ? nullptr : &reply);
        EXPECT_FALSE(m_sysroot.Exists(kHistory));
        EXPECT_TRUE(reply.topic.empty() && reply.data.empty());
        if (c.log == nullptr) {
            EXPECT_TRUE(capture.Lines().empty()) << capture.Dump();
        } else {
            EXPECT_TRUE(capture.Contains(c.log)) << capture.Dump();
        }
    }
    // A well-formed record leaves the reply untouched too.
    Message reply("keep");
    MonitorImpl::SaveProbeMessage(ProbeMessageOf(r), &reply);
    EXPECT_EQ(reply.topic, "keep");
    EXPECT_TRUE(reply.data.empty());
    EXPECT_EQ(History(), std::vector<Record>{r});
}

TEST_F(MonitorTest, GetProbeMessageGivesTheNewestRecordsOfOneType) {
    const Record w1 = {"a", "wide", kT0 + 1, true};
    const Record w3 = {"b", "wide", kT0 + 3, false};
    const Record w2 = {"c", "wide", kT0 + 2, true};
    const Record t9 = {"d", "tele", kT0 + 9, true};
    WriteHistory({w1, t9, w3, w2});  // out of order, as a hand-edited file may be
    struct Case {
        std::string type;
        int count;
        std::vector<Record> expected;
    };
    const Case cases[] = {
        {"wide", 0, {}},
        {"wide", 1, {w3}},  // the newest, whether it succeeded or not
        {"wide", 2, {w3, w2}},
        {"wide", 3, {w3, w2, w1}},
        {"wide", 100, {w3, w2, w1}},
        {"wide", -1, {w3, w2, w1}},
        {"wide", INT32_MIN, {w3, w2, w1}},
        {"tele", 5, {t9}},
        {"Wide", -1, {}},
        {"", -1, {}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ToRecords(MonitorImpl::GetProbeMessage(c.type, c.count)), c.expected)
            << c.type << " " << c.count;
    }
}

TEST_F(MonitorTest, FailedWriteKeepsTheOldHistoryWhole) {
    const std::vector<Record> old = {{"a", "wide", kT0, true}};
    WriteHistory(old);
    // The new file is written beside the old one and renamed over it; block that path.
    const std::string blocked = std::string(kHistory) + "." + std::to_string(getpid()) + ".tmp";
    std::filesystem::create_directory(m_sysroot / blocked);
    {
        LogCapture capture;
        Save({"b", "wide", kT0 + 1, true});
        EXPECT_TRUE(
            capture.Contains("Failed to write file: data/vendor/camera/probe_messages.json"))
            << capture.Dump();
    }
    EXPECT_EQ(History(), old);

    std::filesystem::remove(m_sysroot / blocked);
    Save({"b", "wide", kT0 + 1, true});
    EXPECT_EQ(History().size(), 2u);
    // Nothing but the history is left behind.
    std::vector<std::string> names;
    for (const auto& entry :
         std::filesystem::directory_iterator(m_sysroot / "data/vendor/camera")) {
        names.push_back(entry.path().filename().string());
    }
    EXPECT_EQ(names, std::vector<std::string>{"probe_messages.json"});
}

TEST_F(MonitorTest, ConcurrentSavesAndQueriesLoseNothingAndSeeNoPartialFile) {
    WriteHistory({});
    LogCapture capture;
    constexpr int kWriters = 4;
    constexpr int kSavesEach = 25;
    std::atomic<bool> writing{true};
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&] {
            while (writing) {
                MonitorImpl::GetProbeMessage("type0", -1);
            }
        });
    }
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([w] {
            for (int i = 0; i < kSavesEach; ++i) {
                Save({"s" + std::to_string(w) + "_" + std::to_string(i), "type" + std::to_string(w),
                      kT0 + i, i % 2 == 0});
            }
        });
    }
    for (auto& thread : writers) {
        thread.join();
    }
    writing = false;
    for (auto& thread : readers) {
        thread.join();
    }
    EXPECT_EQ(History().size(), static_cast<size_t>(kWriters * kSavesEach));
    EXPECT_FALSE(capture.Contains("Failed to read file")) << "a reader saw a partial file";
}

// ---- The switch -------------------------------------------------------------------------------

TEST_F(MonitorTest, RecordingFollowsTheLowestBitOfTheSwitchReadAtConstruction) {
    ExpectInChild([this] {
        struct Case {
            const char* value;  // nullptr: unset
            bool records;
        };
        const Case cases[] = {{nullptr, false}, {"0", false},   {"1", true},  {"2", false},
                              {"3", true},      {"0x11", true}, {"-1", true}, {"abc", false}};
        for (const Case& c : cases) {
            SCOPED_TRACE(c.value == nullptr ? "unset" : c.value);
            m_sysroot.ClearProperties();
            if (c.value != nullptr) {
                m_sysroot.SetProperty(kSwitch, c.value);
            }
            std::filesystem::remove(m_sysroot / kHistory);
            Monitor* monitor = Monitor::Create();
            int64_t before = NowMs();
            monitor->RecordProbeMessage("imx_tele5x_ii", true);
            int64_t after = NowMs();
            Monitor::Destroy(monitor);
            ASSERT_EQ(m_sysroot.Exists(kHistory), c.records);
            if (c.records) {
                std::vector<Record> history = History();
                ASSERT_EQ(history.size(), 1u);
                EXPECT_EQ(history[0].name, "imx_tele5x_ii");
                EXPECT_EQ(history[0].type, "tele5x");
                EXPECT_TRUE(history[0].success);
                EXPECT_GE(history[0].time, before);
                EXPECT_LE(history[0].time, after);
            }
        }
        // Read once: changing the property afterwards changes nothing for that monitor.
        m_sysroot.SetProperty(kSwitch, "1");
        Monitor* on = Monitor::Create();
        m_sysroot.SetProperty(kSwitch, "0");
        Monitor* off = Monitor::Create();
        m_sysroot.SetProperty(kSwitch, "1");
        std::filesystem::remove(m_sysroot / kHistory);
        off->RecordProbeMessage("imx_wide_i", false);
        EXPECT_FALSE(m_sysroot.Exists(kHistory));
        on->RecordProbeMessage("imx_wide_i", false);
        EXPECT_EQ(History(),
                  (std::vector<Record>{{"imx_wide_i", "wide", History()[0].time, false}}));
        Monitor::Destroy(on);
        Monitor::Destroy(off);
        Monitor::Destroy(nullptr);
    });
}

TEST_F(MonitorTest, MonitorWithoutABusStillRecords) {
    m_sysroot.SetProperty(kSwitch, "1");
    ExpectInChild([this] {
        LogCapture capture;
        Monitor* monitor = Monitor::Create();
        EXPECT_EQ(capture.Count("m_pMessageCenterSubscribeFuncPtr is NULL", "[MESSAGECENTER]"), 4)
            << capture.Dump();
        monitor->RecordProbeMessage("hi846_front_iii", true);
        EXPECT_EQ(History().size(), 1u);
        Monitor::Destroy(monitor);
    });
}

// ---- Queries on the bus -----------------------------------------------------------------------

TEST_F(MonitorBusTest, LastSuccessAnswersWhetherTheNewestProbeOfTheTypeSucceeded) {
    WriteHistory({{"older_ok", "wide", kT0 + 1, true},
                  {"newest_failed", "wide", kT0 + 2, false},
                  {"tele_ok", "tele", kT0 + 5, true},
                  {"tele_older_failed", "tele", kT0 + 4, false}});
    ExpectInChild([] {
        std::unique_ptr<Monitor, void (*)(Monitor*)> monitor(Monitor::Create(), Monitor::Destroy);
        struct Case {
            const char* type;  // nullptr: no "sensor_type" in the request
            std::string name;
        };
        const Case cases[] = {{"wide", ""}, {"tele", "tele_ok"}, {"front", ""}, {nullptr, ""}};
        for (const Case& c : cases) {
            SCOPED_TRACE(c.type == nullptr ? "no type" : c.type);
            std::map<std::string, MessageData> request;
            if (c.type != nullptr) {
                request["sensor_type"] = MessageData(c.type);
            }
            Message reply = Ask("GET_LAST_PROBE_SENSOR_NAME", request);
            EXPECT_EQ(reply.topic, "GET_LAST_PROBE_SENSOR_NAME");
            EXPECT_EQ(ReplyString(reply, "sensor_name"), c.name);
        }
    });
}

TEST_F(MonitorBusTest, MostSuccessCountsSuccessesAmongTheNewestRecords) {
    // Newest first: A ok, B ok, A fail, B ok, A ok, then an older B ok.
    WriteHistory({{"B", "wide", kT0 + 0, true},
                  {"A", "wide", kT0 + 1, true},
                  {"B", "wide", kT0 + 2, true},
                  {"A", "wide", kT0 + 3, false},
                  {"B", "wide", kT0 + 4, true},
                  {"A", "wide", kT0 + 5, true},
                  {"Z", "tele", kT0 + 9, true}});
    ExpectInChild([] {
        std::unique_ptr<Monitor, void (*)(Monitor*)> monitor(Monitor::Create(), Monitor::Destroy);
        struct Case {
            const char* what;
            bool withCount;
            uint64_t count;
            std::string name;
            int64_t tally;
        };
        const Case cases[] = {
            {"count 5: A and B tie at 2, the smaller name wins", true, 5, "A", 2},
            {"count 4: B 2, A 1", true, 4, "B", 2},
            {"count 3: tie at 1", true, 3, "A", 1},
            {"count 1", true, 1, "A", 1},
            {"count 0", true, 0, "", 0},
            {"no count", false, 0, "", 0},
            {"count -1 takes every record", true, UINT64_MAX, "B", 3},
            {"count narrowed to int: 2^32 + 4 is 4", true, (1ull << 32) + 4, "B", 2},
        };
        for (const Case& c : cases) {
            SCOPED_TRACE(c.what);
            std::map<std::string, MessageData> request = {{"sensor_type", MessageData("wide")}};
            if (c.withCount) {
                request["record_count"] = MakeInt64Data(c.count);
            }
            Message reply = Ask("GET_MOST_PROBE_SENSOR_NAME", request);
            EXPECT_EQ(reply.topic, "GET_MOST_PROBE_SENSOR_NAME");
            EXPECT_EQ(ReplyString(reply, "sensor_name"), c.name);
            EXPECT_EQ(ReplyInt64(reply, "record_count"), c.tally);
        }
    });
}

TEST_F(MonitorBusTest, SensorTypeAnswersTheLensClassOfAName) {
    ExpectInChild([] {
        std::unique_ptr<Monitor, void (*)(Monitor*)> monitor(Monitor::Create(), Monitor::Destroy);
        for (const auto& [name, type] : std::vector<std::pair<std::string, std::string>>{
                 {"hi846_front_iii", "front"}, {"imx586", ""}, {"s5k_tele3x_ii", "tele3x"}}) {
            Message reply = Ask("GET_SENSOR_TYPE", {{"sensor_name", MessageData(name)}});
            EXPECT_EQ(reply.topic, "GET_SENSOR_TYPE") << name;
            EXPECT_EQ(ReplyString(reply, "sensor_type"), type) << name;
        }
        // Without a name (or under another topic, when called directly) nothing is answered.
        LogCapture capture;
        Message reply = Ask("GET_SENSOR_TYPE", {{"sensor_type", MessageData("wide")}});
        EXPECT_TRUE(reply.topic.empty() && reply.data.empty());
        MonitorImpl::GetSensorType(Message("GET_TYPE", {{"sensor_name", MessageData("a_wide_i")}}),
                                   &reply);
        EXPECT_TRUE(reply.topic.empty() && reply.data.empty());
        EXPECT_EQ(capture.Count("Not right message"), 2) << capture.Dump();
    });
}

TEST_F(MonitorBusTest, ProbeMessagesOnTheBusAreStoredOnlyWhenTheSenderWaitsForAReply) {
    ExpectInChild([this] {
        std::unique_ptr<Monitor, void (*)(Monitor*)> monitor(Monitor::Create(), Monitor::Destroy);
        const Record r = {"imx_wide_i", "wide", kT0, false};
        LogCapture capture;
        MessageCenterClient::GetInstance()->SendMessage(ProbeMessageOf(r), nullptr);
        EXPECT_FALSE(m_sysroot.Exists(kHistory));
        EXPECT_TRUE(capture.Contains("Not right message type"));

        Message reply;
        MessageCenterClient::GetInstance()->SendMessage(ProbeMessageOf(r), &reply);
        EXPECT_TRUE(reply.topic.empty() && reply.data.empty());
        EXPECT_EQ(History(), std::vector<Record>{r});
    });
}

TEST_F(MonitorBusTest, QueriesWithoutAReplyAnswerNothingAndRepliesKeepOtherEntries) {
    WriteHistory({{"A", "wide", kT0, true}});
    ExpectInChild([] {
        std::unique_ptr<Monitor, void (*)(Monitor*)> monitor(Monitor::Create(), Monitor::Destroy);
        MessageCenterClient* bus = MessageCenterClient::GetInstance();
        bus->SendMessage(
            Message("GET_LAST_PROBE_SENSOR_NAME", {{"sensor_type", MessageData("wide")}}), nullptr);
        bus->SendMessage(
            Message("GET_MOST_PROBE_SENSOR_NAME",
                    {{"sensor_type", MessageData("wide")}, {"record_count", MakeInt64Data(5)}}),
            nullptr);
        bus->SendMessage(Message("GET_SENSOR_TYPE", {{"sensor_name", MessageData("a_wide_i")}}),
                         nullptr);

        // A reply that already holds entries keeps them; the answer's keys are overwritten.
        Message reply("SOMETHING", {{"other", MessageData("kept")}});
        unsigned char bytes[] = {1, 2, 3};
        reply.data["sensor_name"].Set(bytes, sizeof(bytes));
        bus->SendMessage(
            Message("GET_LAST_PROBE_SENSOR_NAME", {{"sensor_type", MessageData("wide")}}), &reply);
        EXPECT_EQ(reply.topic, "GET_LAST_PROBE_SENSOR_NAME");
        EXPECT_EQ(ReplyString(reply, "other"), "kept");
        EXPECT_EQ(ReplyString(reply, "sensor_name"), "A");
        EXPECT_EQ(reply.data.size(), 2u);
    });
}

TEST_F(MonitorBusTest, SubscriptionsOutliveTheMonitor) {
    WriteHistory({{"A", "wide", kT0, true}});
    ExpectInChild([] {
        Monitor::Destroy(Monitor::Create());
        Message reply = Ask("GET_LAST_PROBE_SENSOR_NAME", {{"sensor_type", MessageData("wide")}});
        EXPECT_EQ(ReplyString(reply, "sensor_name"), "A");
    });
}

TEST_F(MonitorBusTest, ControllerForwardsProbeReportsToTheMonitor) {
    m_sysroot.SetProperty("persist.vendor.camera.cloud.corvanesystem.modswitch", "2");  // monitr
    m_sysroot.SetProperty(kSwitch, "1");
    ExpectInChild([this] {
        CorvaneSystem* system = CorvaneSystemGetInstance();
        system->RecordProbeMessage("s5k_tele5x_ii", true);
        system->RecordProbeMessage("hi846_front_iii", false);
        Message last = Ask("GET_LAST_PROBE_SENSOR_NAME", {{"sensor_type", MessageData("tele5x")}});
        EXPECT_EQ(ReplyString(last, "sensor_name"), "s5k_tele5x_ii");
        Message most = Ask("GET_MOST_PROBE_SENSOR_NAME", {{"sensor_type", MessageData("front")},
                                                          {"record_count", MakeInt64Data(10)}});
        EXPECT_EQ(ReplyString(most, "sensor_name"), "");
        EXPECT_EQ(ReplyInt64(most, "record_count"), 0);
        EXPECT_EQ(History().size(), 2u);
    });
    // Without "monitr" the controller has no monitor: reports are dropped, nobody answers.
    m_sysroot.SetProperty("persist.vendor.camera.cloud.corvanesystem.modswitch", "0");
    std::filesystem::remove(m_sysroot / kHistory);
    ExpectInChild([this] {
        CorvaneSystemGetInstance()->RecordProbeMessage("s5k_tele5x_ii", true);
        EXPECT_FALSE(m_sysroot.Exists(kHistory));
        Message reply = Ask("GET_SENSOR_TYPE", {{"sensor_name", MessageData("s5k_tele5x_ii")}});
        EXPECT_TRUE(reply.topic.empty());
    });
}

}  // namespace
