// The probe store and its bus queries. The bus client, its subscriptions and the controller are
// per process: scenarios that touch them run in a child.
#include "core/model/monitor/monitorimpl.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <optional>
#include <thread>

#include "core/controller/corvanesystem.h"
#include "core/messagecenter/messagecenterclient.h"
#include "core/model/monitor/probehistory.h"
#include "tests/support/testsupport.h"

namespace {

using namespace corvanetest;

constexpr const char* kHistory = "data/vendor/camera/probe_messages.json";
constexpr const char* kSwitch = "persist.vendor.camera.cloud.corvanesystem.monitor";

ProbeMessage P(const std::string& name, const std::string& type, int64_t time, bool ok) {
    return {name, type, time, ok};
}

// "name/type/time/ok name/type/time/fail ...": readable when an expectation fails.
std::string Text(const std::vector<ProbeMessage>& records) {
    std::string text;
    for (const ProbeMessage& r : records) {
        text += (text.empty() ? "" : " ") + r.sensorName + "/" + r.sensorType + "/" +
                std::to_string(r.probeTime) + (r.probeResult ? "/ok" : "/fail");
    }
    return text;
}

Message ProbeRequest(const ProbeMessage& r) {
    return Message("PROBE_MESSAGE", {{"sensor_name", MessageData(r.sensorName)},
                                     {"sensor_type", MessageData(r.sensorType)},
                                     {"probe_time", MakeInt64Data(r.probeTime)},
                                     {"probe_result", MakeInt32Data(r.probeResult ? 1 : 0)}});
}

// A sysroot as working directory, as the camera service has "/".
class MonitorTest : public ::testing::Test {
  protected:
    static void Save(const std::vector<ProbeMessage>& records) {
        for (const ProbeMessage& record : records) {
            Message reply;
            MonitorImpl::SaveProbeMessage(ProbeRequest(record), &reply);
        }
    }
    // The file's records in file order (the exact text is checked once, below).
    static std::string History() {
        std::vector<ProbeMessage> records;
        EXPECT_EQ(ReadProbeHistory(kHistory, nullptr, &records), ProbeHistoryStatus::OK);
        return Text(records);
    }
    // Asks over the bus with a reply that holds `reply` to begin with.
    static Message Ask(const std::string& topic, std::map<std::string, MessageData> data,
                       Message reply = Message()) {
        MessageCenterClient::GetInstance()->SendMessage(Message(topic, std::move(data)), &reply);
        return reply;
    }
    static std::string Name(const Message& reply, const char* key = "sensor_name") {
        std::string value = "<none>";
        GetStringData(reply, key, &value);
        return value;
    }

    TestSysroot m_sysroot;
    corvanetest::ScopedChdir m_chdir{m_sysroot.path()};
};

TEST_F(MonitorTest, FullTypeDropsOnlyItsOldestAndTypesFollowInByteOrder) {
    // Unsigned bytes: "\xc3\xa9" (e acute) after every ASCII type, "Wide" before "tele".
    std::vector<ProbeMessage> file = {P("e", "\xc3\xa9", 7, true), P("t", "tele", 3, false),
                                      P("T", "Wide", 9, true), P("n", "", 1, true)};
    for (int t = 1; t <= 101; ++t) {
        file.push_back({"w" + std::to_string(t), "wide", t, t == 101 || t % 3 != 0});
    }
    Save(file);

    const std::vector<ProbeMessage> wide(file.rbegin(), file.rend() - 5);  // newest first, no w1
    EXPECT_EQ(History(), "n//1/ok T/Wide/9/ok t/tele/3/fail " + Text(wide) + " e/\xc3\xa9/7/ok");

    // Within one millisecond the newest arrival counts as newest: a full type keeps it.
    Save({P("late", "wide", 2, false)});
    std::vector<ProbeMessage> kept = MonitorImpl::GetProbeMessage("wide", -1);
    ASSERT_EQ(kept.size(), 100u);
    EXPECT_EQ(Text({kept[98], kept[99]}), "w3/wide/3/fail late/wide/2/fail");
    // A count takes the newest of one type; zero none, a negative one or more than there are all.
    const std::pair<int, size_t> counts[] = {{0, 0}, {2, 2}, {INT32_MIN, 100}, {150, 100}};
    for (const auto& [count, expected] : counts) {
        EXPECT_EQ(MonitorImpl::GetProbeMessage("wide", count).size(), expected) << count;
    }
    EXPECT_EQ(Text(MonitorImpl::GetProbeMessage("wide", 1)), "w101/wide/101/ok");
}

TEST_F(MonitorTest, UnusableHistoryAnswersAsEmptyAndIsReplacedByTheNextSave) {
    m_sysroot.WriteFile(kHistory, R"({"sensor_name": "a"})");
    EXPECT_TRUE(MonitorImpl::GetProbeMessage("wide", -1).empty());
    LogCapture capture;
    Save({P("new", "wide", 9, true)});
    EXPECT_EQ(History(), "new/wide/9/ok");
    // Malformed elements are skipped; hand edits (comments, trailing commas) are read.
    m_sysroot.WriteFile(
        kHistory,
        R"([1, "x", null, {}, {"sensor_name":1,"sensor_type":"wide","probe_time":1,)"
        R"("probe_result":"fail"}, {"sensor_name":"a","sensor_type":"wide","probe_time":"1",)"
        R"("probe_result":"fail"}, {"sensor_name":"a","sensor_type":"wide","probe_time":1},)"
        "// note\n"
        R"({"sensor_name":"kept","sensor_type":"wide","probe_time":5,"probe_result":"success"},])");
    Save({P("new", "wide", 9, true)});
    EXPECT_EQ(History(), "new/wide/9/ok kept/wide/5/ok");
    EXPECT_EQ(capture.Count("reset"), 1) << capture.Dump();  // the first file's only
    EXPECT_TRUE(capture.Contains("Json is not an array, reset json"));
}

TEST_F(MonitorTest, SavesOnlyProbeRecordsCompactlyAndAFailedWriteKeepsTheOldHistoryWhole) {
    const ProbeMessage r = P("imx_wide_i", "wide", 1700000000123, true);
    Message wrongTopic = ProbeRequest(r), noTime = ProbeRequest(r), timeAsText = ProbeRequest(r);
    wrongTopic.topic = "PROBE_MESSAGES";
    noTime.data.erase("probe_time");
    timeAsText.data["probe_time"] = MessageData("1");
    Message reply("untouched");
    const struct {
        Message message;
        Message* reply;
        const char* log;  // "": no line at all
    } cases[] = {{wrongTopic, &reply, "Not right message type"},
                 {ProbeRequest(r), nullptr, "Not right message type"},  // senders rely on the reply
                 {noTime, &reply, ""},
                 {timeAsText, &reply, "wrong kind"}};
    for (const auto& c : cases) {
        LogCapture capture;
        MonitorImpl::SaveProbeMessage(c.message, c.reply);
        EXPECT_EQ(capture.Count(c.log), *c.log ? 1 : 0) << capture.Dump();
    }
    EXPECT_FALSE(m_sysroot.Exists(kHistory));
    LogCapture capture;
    MonitorImpl::SaveProbeMessage(ProbeRequest(r), &reply);
    EXPECT_TRUE(reply.topic == "untouched" && reply.data.empty());
    // No file yet.
    EXPECT_EQ(capture.Count("Failed to read file: " + std::string(kHistory) + ", reset file"), 1);
    EXPECT_EQ(m_sysroot.ReadFile(kHistory),
              R"([{"sensor_name":"imx_wide_i","sensor_type":"wide","probe_time":1700000000123,)"
              R"("probe_result":"success"}])");
    // The new file is written beside the old one, then renamed over it: block that path.
    std::filesystem::create_directory(m_sysroot / kHistory + "." + std::to_string(getpid()) +
                                      ".tmp");
    Save({P("new", "wide", 2, false)});
    EXPECT_TRUE(capture.Contains("Failed to write file: data/vendor/camera/probe_messages.json"));
    EXPECT_EQ(History(), "imx_wide_i/wide/1700000000123/ok");
}

// Saves come from bus threads and the host's thread at once; queries read beside them. The
// sanitizer build runs this for data races too.
TEST_F(MonitorTest, ConcurrentSavesLoseNothingAndQueriesNeverSeeAPartialFile) {
    m_sysroot.WriteFile(kHistory, "[]");
    LogCapture capture;
    std::atomic<bool> saving{true};
    std::thread reader([&] {
        while (saving) {
            MonitorImpl::GetProbeMessage("t0", -1);
        }
    });
    std::vector<std::thread> writers;
    for (const char* type : {"t0", "t1", "t2"}) {
        writers.emplace_back([type] {
            for (int i = 0; i < 25; ++i) {
                Save({P("s" + std::to_string(i), type, i, true)});
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    saving = false;
    reader.join();
    for (const char* type : {"t0", "t1", "t2"}) {
        EXPECT_EQ(MonitorImpl::GetProbeMessage(type, -1).size(), 25u) << type;
    }
    EXPECT_FALSE(capture.Contains("Failed to read file"));
}

TEST_F(MonitorTest, ControllerRecordsWhenMonitrIsOnAndTheSwitchIsOddAtConstruction) {
    const struct {
        const char* modswitch;  // bit 0x2 is "monitr"
        const char* monitorSwitch;
        bool records;
    } rows[] = {{"2", "3", true}, {"2", "2", false}, {"0", "1", false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.modswitch) + " " + row.monitorSwitch);
        m_sysroot.SetProperty("persist.vendor.camera.cloud.corvanesystem.modswitch", row.modswitch);
        m_sysroot.SetProperty(kSwitch, row.monitorSwitch);
        std::filesystem::remove(m_sysroot / kHistory);
        ExpectInChild([&] {
            CorvaneSystem* system = CorvaneSystemGetInstance();
            m_sysroot.SetProperty(kSwitch, row.records ? "0" : "1");  // read at construction only
            system->RecordProbeMessage("imx_tele5x_ii", true);
            std::vector<ProbeMessage> stored = MonitorImpl::GetProbeMessage("tele5x", -1);
            ASSERT_EQ(stored.size(), row.records ? 1u : 0u);
            if (row.records) {
                EXPECT_EQ(stored[0].sensorName, "imx_tele5x_ii");
                EXPECT_NEAR(static_cast<double>(stored[0].probeTime),
                            static_cast<double>(time(nullptr)) * 1000, 5000);
            }
        });
    }
}

TEST_F(MonitorTest, QueriesAnswerOverTheBus) {
    m_sysroot.InstallLibrary("com.halvern.messagecenter.so");
    // Newest first per type: wide A ok, B ok, A fail, B ok, A ok, B ok; tele: fail, then ok.
    Save({P("B", "wide", 0, true), P("A", "wide", 1, true), P("B", "wide", 2, true),
          P("A", "wide", 3, false), P("B", "wide", 4, true), P("A", "wide", 5, true),
          P("T", "tele", 8, true), P("U", "tele", 9, false)});
    ExpectInChild([] {
        Monitor::Destroy(Monitor::Create());  // the subscriptions outlive the monitor
        // The answer is added to what the reply holds, its own keys replaced. The newest tele
        // probe failed: no name.
        const Message held("OTHER",
                           {{"other", MessageData("kept")}, {"sensor_name", MessageData("B")}});
        for (const auto& [type, name] :
             std::map<std::string, std::string>{{"wide", "A"}, {"tele", ""}, {"front", ""}}) {
            Message reply =
                Ask("GET_LAST_PROBE_SENSOR_NAME", {{"sensor_type", MessageData(type)}}, held);
            EXPECT_EQ(reply.topic + " " + Name(reply, "other") + " " + Name(reply),
                      "GET_LAST_PROBE_SENSOR_NAME kept " + name)
                << type;
        }
        // A and B tie among the newest five: the smallest name. No count asks for no record,
        // -1 for every record.
        const std::pair<std::optional<uint64_t>, std::string> most[] = {
            {5, "A 2"}, {std::nullopt, " 0"}, {UINT64_MAX, "B 3"}};
        for (const auto& [count, answer] : most) {
            std::map<std::string, MessageData> request = {{"sensor_type", MessageData("wide")}};
            if (count) {
                request["record_count"] = MakeInt64Data(*count);
            }
            Message reply = Ask("GET_MOST_PROBE_SENSOR_NAME", request);
            uint64_t tally = 99;
            GetInt64Data(reply, "record_count", &tally);
            EXPECT_EQ(reply.topic + " " + Name(reply) + " " + std::to_string(tally),
                      "GET_MOST_PROBE_SENSOR_NAME " + answer);
        }
        LogCapture capture;
        EXPECT_TRUE(Ask("GET_SENSOR_TYPE", {{"sensor_type", MessageData("x")}}).topic.empty());
        EXPECT_TRUE(capture.Contains("Not right message"));

        // A query without a reply answers nothing; probes arrive over the bus too.
        MessageCenterClient::GetInstance()->SendMessage(Message("GET_MOST_PROBE_SENSOR_NAME", {}),
                                                        nullptr);
        Ask("PROBE_MESSAGE", ProbeRequest(P("C", "front", 9, true)).data);
        EXPECT_EQ(Text(MonitorImpl::GetProbeMessage("front", -1)), "C/front/9/ok");
    });
}

}  // namespace
