#include "core/model/monitor/monitorimpl.h"

#include <cutils/properties.h>

#include <chrono>
#include <exception>
#include <map>
#include <mutex>
#include <utility>

#include "core/controller/corvanesystemlog.h"
#include "core/messagecenter/messagecenterclient.h"
#include "core/model/monitor/probehistory.h"
#include "core/model/monitor/sensortype.h"

namespace {

// Serialises the read-modify-write of the history file within the process, so two saves at once
// (a bus thread and the host's thread) cannot drop each other's record. Queries do not take it:
// the file is replaced atomically, so they see it before or after a save.
std::mutex g_saveMutex;

// Runs a handler's body; nothing may escape into the bus library or the host.
template <typename Body>
void RunGuarded(const char* handler, Body&& body) {
    try {
        body();
    } catch (const std::exception& error) {
        CORVANE_LOGE("%s failed: %s", handler, error.what());
    } catch (...) {
        CORVANE_LOGE("%s failed: unknown exception", handler);
    }
}

// Adds or replaces one entry of a reply. The old entry is removed first, so that a byte buffer it
// may have held is freed rather than kept behind a string.
void SetReplyData(Message* reply, const char* key, MessageData value) {
    reply->data.erase(key);
    reply->data.emplace(key, std::move(value));
}

std::string RequestString(const Message& request, const char* key) {
    std::string value;
    GetStringData(request, key, &value);  // absent or not a string: empty
    return value;
}

int64_t NowMilliseconds() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

MonitorImpl::MonitorImpl() {
    m_monitorSwitch = property_get_int32(MONITOR_SWITCH_PROPERTY, 0);
    MessageCenterClient* bus = MessageCenterClient::GetInstance();
    bus->Subscribe(PROBE_MESSAGE_TOPIC, &MonitorImpl::SaveProbeMessage);
    bus->Subscribe(GET_LAST_PROBE_SENSOR_NAME_TOPIC, &MonitorImpl::GetLastProbeSuccessSensorName);
    bus->Subscribe(GET_MOST_PROBE_SENSOR_NAME_TOPIC, &MonitorImpl::GetMostProbeSuccessSensorName);
    bus->Subscribe(GET_SENSOR_TYPE_TOPIC, &MonitorImpl::GetSensorType);
}

MonitorImpl::~MonitorImpl() = default;

void MonitorImpl::RecordProbeMessage(std::string sensorName, bool result) {
    if ((m_monitorSwitch & 1) == 0) {
        return;
    }
    RunGuarded("RecordProbeMessage", [&] {
        std::string sensorType = GetSensorTypeFromName(sensorName);
        Message message(PROBE_MESSAGE_TOPIC);
        message.data.emplace(PROBE_KEY_SENSOR_NAME, MessageData(std::move(sensorName)));
        message.data.emplace(PROBE_KEY_SENSOR_TYPE, MessageData(std::move(sensorType)));
        message.data.emplace(PROBE_KEY_PROBE_TIME,
                             MakeInt64Data(static_cast<uint64_t>(NowMilliseconds())));
        message.data.emplace(PROBE_KEY_PROBE_RESULT, MakeInt32Data(result ? 1 : 0));
        Message reply;
        SaveProbeMessage(std::move(message), &reply);
    });
}

void MonitorImpl::SaveProbeMessage(Message message, Message* reply) {
    RunGuarded("SaveProbeMessage", [&] { SaveProbeRecord(message, reply); });
}

void MonitorImpl::SaveProbeRecord(const Message& message, Message* reply) {
    if (message.topic != PROBE_MESSAGE_TOPIC || reply == nullptr) {
        CORVANE_LOGE("Not right message type");
        return;
    }
    for (const char* key : {PROBE_KEY_SENSOR_NAME, PROBE_KEY_PROBE_TIME, PROBE_KEY_PROBE_RESULT,
                            PROBE_KEY_SENSOR_TYPE}) {
        if (message.data.count(key) == 0) {
            return;
        }
    }
    ProbeMessage record;
    uint64_t time = 0;
    uint32_t result = 0;
    if (!GetStringData(message, PROBE_KEY_SENSOR_NAME, &record.sensorName) ||
        !GetStringData(message, PROBE_KEY_SENSOR_TYPE, &record.sensorType) ||
        !GetInt64Data(message, PROBE_KEY_PROBE_TIME, &time) ||
        !GetInt32Data(message, PROBE_KEY_PROBE_RESULT, &result)) {
        // Not a record of ours: the names and the type must be strings, the time a 64-bit and
        // the result a 32-bit integer.
        CORVANE_LOGE("Probe message holds a value of the wrong kind, not recorded");
        return;
    }
    record.probeTime = static_cast<int64_t>(time);
    record.probeResult = result != 0;

    std::lock_guard<std::mutex> lock(g_saveMutex);
    // The new record goes first: among records of the same millisecond the newest arrival
    // stays first, so it is never the one cut when its type is full.
    std::vector<ProbeMessage> records{record};
    switch (ReadProbeHistory(PROBE_HISTORY_PATH, nullptr, &records)) {
        case ProbeHistoryStatus::OK:
            break;
        case ProbeHistoryStatus::UNREADABLE:
            CORVANE_LOGE("Failed to read file: %s, reset file", PROBE_HISTORY_PATH);
            break;
        case ProbeHistoryStatus::NOT_ARRAY:
            CORVANE_LOGE("Json is not an array, reset json");
            break;
    }
    records = RegroupProbeHistory(std::move(records));
    CORVANE_LOGI("Record probe sensor: %s, type: %s, probe time: %lld, result: %d",
                 record.sensorName.c_str(), record.sensorType.c_str(),
                 static_cast<long long>(record.probeTime), record.probeResult ? 1 : 0);
    if (!WriteProbeHistory(PROBE_HISTORY_PATH, records)) {
        CORVANE_LOGE("Failed to write file: %s", PROBE_HISTORY_PATH);
    }
}

std::vector<ProbeMessage> MonitorImpl::GetProbeMessage(const std::string& sensorType, int count) {
    std::vector<ProbeMessage> records;
    switch (ReadProbeHistory(PROBE_HISTORY_PATH, &sensorType, &records)) {
        case ProbeHistoryStatus::OK:
            break;
        case ProbeHistoryStatus::UNREADABLE:
            CORVANE_LOGE("Failed to read file: %s, reset file", PROBE_HISTORY_PATH);
            break;
        case ProbeHistoryStatus::NOT_ARRAY:
            CORVANE_LOGE("Json is not an array");
            break;
    }
    for (const ProbeMessage& record : records) {
        CORVANE_LOGD("sensor name: %s, type: %s, timestamp: %lld, result: %d",
                     record.sensorName.c_str(), record.sensorType.c_str(),
                     static_cast<long long>(record.probeTime), record.probeResult ? 1 : 0);
    }
    SortNewestFirst(records);
    // A negative count keeps everything.
    if (count >= 0 && static_cast<size_t>(count) < records.size()) {
        records.resize(static_cast<size_t>(count));
    }
    return records;
}

void MonitorImpl::GetLastProbeSuccessSensorName(Message message, Message* reply) {
    RunGuarded("GetLastProbeSuccessSensorName", [&] {
        // Only the single newest record is looked at, deliberately: the question is whether the
        // latest probe of the type succeeded (and with which sensor), not which one last did.
        std::vector<ProbeMessage> records =
            GetProbeMessage(RequestString(message, PROBE_KEY_SENSOR_TYPE), 1);
        std::string name;
        for (const ProbeMessage& record : records) {
            if (record.probeResult) {
                name = record.sensorName;
            }
        }
        if (reply != nullptr) {
            reply->topic = GET_LAST_PROBE_SENSOR_NAME_TOPIC;
            SetReplyData(reply, PROBE_KEY_SENSOR_NAME, MessageData(name));
        }
    });
}

void MonitorImpl::GetMostProbeSuccessSensorName(Message message, Message* reply) {
    RunGuarded("GetMostProbeSuccessSensorName", [&] {
        uint64_t requested = 0;  // absent: no records at all
        GetInt64Data(message, PROBE_KEY_RECORD_COUNT, &requested);
        // Narrowed as the count is an int: -1 (or 0xFFFFFFFF) asks for every record.
        int count = static_cast<int>(requested);
        std::vector<ProbeMessage> records =
            GetProbeMessage(RequestString(message, PROBE_KEY_SENSOR_TYPE), count);
        std::map<std::string, uint64_t> successes;  // failed probes are not entered at all
        for (const ProbeMessage& record : records) {
            if (record.probeResult) {
                ++successes[record.sensorName];
            }
        }
        // Names in ascending byte order, replaced only by a strictly larger tally: ties go to the
        // smallest name.
        std::string name;
        uint64_t tally = 0;
        for (const auto& entry : successes) {
            if (entry.second > tally) {
                name = entry.first;
                tally = entry.second;
            }
        }
        if (reply != nullptr) {
            reply->topic = GET_MOST_PROBE_SENSOR_NAME_TOPIC;
            SetReplyData(reply, PROBE_KEY_SENSOR_NAME, MessageData(name));
            SetReplyData(reply, PROBE_KEY_RECORD_COUNT, MakeInt64Data(tally));
        }
    });
}

void MonitorImpl::GetSensorType(Message message, Message* reply) {
    RunGuarded("GetSensorType", [&] {
        if (message.topic != GET_SENSOR_TYPE_TOPIC ||
            message.data.count(PROBE_KEY_SENSOR_NAME) == 0) {
            CORVANE_LOGE("Not right message");
            return;
        }
        std::string type = GetSensorTypeFromName(RequestString(message, PROBE_KEY_SENSOR_NAME));
        if (reply != nullptr) {
            reply->topic = GET_SENSOR_TYPE_TOPIC;
            SetReplyData(reply, PROBE_KEY_SENSOR_TYPE, MessageData(type));
        }
    });
}
