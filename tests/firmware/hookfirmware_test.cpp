// Firmware fault injection through the real bus and real database files. The engine, its
// subscriptions and the bus client are per process: each scenario runs in its own child.
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "core/messagecenter/messagecenterclient.h"
#include "core/model/hook/hookoperation.h"
#include "tests/support/samplesysroot.h"

namespace {

using namespace corvanetest;

// "topic key=value ...", every value as it was stored (bytes separated by spaces).
std::string Describe(const Message& message) {
    std::string text = message.topic;
    for (const auto& [key, data] : message.data) {
        uint32_t int32 = 0;
        std::string string;
        std::vector<unsigned char> bytes;
        text += " " + key + "=";
        if (GetInt32Data(data, &int32)) {
            text += std::to_string(int32);
        } else if (GetStringData(data, &string)) {
            text += string;
        } else if (GetBytesData(data, &bytes)) {
            for (size_t i = 0; i < bytes.size(); ++i) {
                text += (i == 0 ? "" : " ") + std::to_string(bytes[i]);
            }
        }
    }
    return text;
}

std::mutex g_mutex;
std::vector<std::string> g_dynamic;  // what the firmware side received, described

void RecordDynamic(Message request, Message*) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_dynamic.push_back(Describe(request));
}

std::vector<std::string> Received() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_dynamic;
}

// The engine of the process, with a recorder standing in for the firmware side.
HookOperation* Engine() {
    MessageCenterClient::GetInstance()->Subscribe("dynamic", RecordDynamic);
    return HookOperation::GetInstance();
}

// Pending commands survive a restart: they are replayed when the firmware boots.
TEST(HookFirmwareTest, CommandsAreStoredPerTripleSentAcknowledgedReplayedAndCleared) {
    TestSysroot sysroot;
    // The bus and the firmware sub-module on; case 2 holds the hook with id 3.
    sysroot.InstallLibrary("com.halvern.messagecenter.so");
    sysroot.SetProperty(kModSwitchProperty, "0x10");
    sysroot.WriteFile(kHookCaseFile, R"({
        "HOOK_CASE": [{"case_id": 2, "case_name": "sensor2", "hook_function": ["fw_hook"]}],
        "HOOK_GROUP": [{"group_id": 1, "group_name": "fw", "case": [2]}],
        "HOOK_FUNCTION": [{"hook_id": 3, "hook_name": "fw_hook", "hook_type": 3}]})");
    ExpectInChild([&] {
        HookOperation* engine = Engine();
        EXPECT_EQ(engine->ProcessCmds(HookFw{3, 1, 2, 3, "x"}), 0);  // unknown: not sent
        EXPECT_EQ(engine->ProcessCmds(HookFw{0, 1, 2, 3, "first"}), 0);
        EXPECT_EQ(engine->ProcessCmds(HookFw{0, 1, 2, 3, "second"}), 0);
        EXPECT_EQ(Sql(sysroot / kHookDbFile, "select * from hook_firmware"), "1|2|3|second\n");

        // Of each acknowledgement value only the low 8 bits count.
        Message ack("FaultInjectAck", {{"cameraid", MakeInt32Data(0x101)},
                                       {"SensorId", MakeInt32Data(2)},
                                       {"InterfaceID", MakeInt32Data(3)},
                                       {"status", MakeInt32Data(0x10)}});
        Message reply;
        MessageCenterClient::GetInstance()->SendMessage(ack, &reply);
        EXPECT_TRUE(engine->IsHookStatus("fw_hook"));
        EXPECT_EQ(Sql(sysroot / kHookDbFile, "select * from fault_inject_ack"),
                  "fw_hook|1|2|3|0x10\n");

        // Removing the command also deletes its acknowledgement.
        EXPECT_EQ(engine->ProcessCmds(HookFw{1, 1, 2, 3, "second"}), 0);
        EXPECT_EQ(Sql(sysroot / kHookDbFile, "select count(*) from fault_inject_ack"), "0\n");
        EXPECT_EQ(engine->ProcessCmds(HookFw{0, 4, 5, 6, "q"}), 0);
        EXPECT_EQ(engine->ProcessCmds(HookFw{0, 7, 8, 9, "r"}), 0);
        EXPECT_EQ(Received(),
                  (std::vector<std::string>{
                      "dynamic param=first payload=0 1 2 3", "dynamic param=second payload=0 1 2 3",
                      "dynamic length=4 param=second payload=1 1 2 3",
                      "dynamic param=q payload=0 4 5 6", "dynamic param=r payload=0 7 8 9"}));
    });
    ExpectInChild([&] {
        HookOperation* engine = Engine();
        Message reply;
        MessageCenterClient::GetInstance()->SendMessage(
            Message("bootinject", {{"payload", MessageData("boot")}}), &reply);
        EXPECT_EQ(Describe(reply),
                  "bootInjectAck length=6 param_0=q param_1=r payload=4 5 6 7 8 9");
        // Clearing empties the table.
        EXPECT_EQ(engine->ProcessCmds(HookFw{2, 0, 0, 0, ""}), 0);
        EXPECT_EQ(Sql(sysroot / kHookDbFile, "select count(*) from hook_firmware"), "0\n");
        EXPECT_EQ(Received(), std::vector<std::string>{"dynamic length=4 payload=2 0 0 0"});
    });
}

}  // namespace
