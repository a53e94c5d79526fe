// The probe history file through the monitor's save and query paths: whatever the file holds
// (corrupt, not an array, records of every shape), a save must leave a well-formed history that
// keeps every well-formed record it may keep, and the queries must answer from it without
// crashing.
//
// Input: a first line "name<TAB>type<TAB>time<TAB>result<TAB>count" (missing fields read as
// empty or 0) describing the probe record to save and the count to query, then the history
// file's bytes.
#include <stdlib.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "core/messagecenter/message.h"
#include "core/model/monitor/monitorimpl.h"
#include "core/model/monitor/probehistory.h"
#include "fuzz/fuzzsupport.h"

namespace {

struct Request {
    std::string name;
    std::string type;
    int64_t time = 0;
    bool result = false;
    int64_t count = 0;
};

Request ParseRequest(const std::string& line) {
    std::vector<std::string> fields;
    size_t start = 0;
    while (fields.size() < 5) {
        size_t tab = line.find('\t', start);
        fields.push_back(line.substr(start, tab == std::string::npos ? tab : tab - start));
        if (tab == std::string::npos) {
            break;
        }
        start = tab + 1;
    }
    fields.resize(5);
    Request request;
    request.name = fields[0];
    request.type = fields[1];
    request.time = strtoll(fields[2].c_str(), nullptr, 10);
    request.result = fields[3] == "1";
    request.count = strtoll(fields[4].c_str(), nullptr, 10);
    return request;
}

bool SameRecord(const ProbeMessage& a, const ProbeMessage& b) {
    return a.sensorName == b.sensorName && a.sensorType == b.sensorType &&
           a.probeTime == b.probeTime && a.probeResult == b.probeResult;
}

// The history after a save: grouped by type in ascending byte order, newest first within a type,
// at most PROBE_HISTORY_MAX_PER_TYPE per type, exactly as many per type as the old file's
// well-formed records and the new one allow, and the new record kept unless its type was already
// full of strictly newer ones.
void CheckSavedHistory(const std::vector<ProbeMessage>& before, bool beforeReadable,
                       const ProbeMessage& saved) {
    std::vector<ProbeMessage> after;
    FUZZ_CHECK(ReadProbeHistory(PROBE_HISTORY_PATH, nullptr, &after) == ProbeHistoryStatus::OK);

    std::map<std::string, size_t> expected;
    size_t newerOfSavedType = 0;
    if (beforeReadable) {
        for (const ProbeMessage& record : before) {
            ++expected[record.sensorType];
            if (record.sensorType == saved.sensorType && record.probeTime > saved.probeTime) {
                ++newerOfSavedType;
            }
        }
    }
    ++expected[saved.sensorType];

    std::map<std::string, size_t> counted;
    bool savedKept = false;
    for (size_t i = 0; i < after.size(); ++i) {
        ++counted[after[i].sensorType];
        savedKept = savedKept || SameRecord(after[i], saved);
        if (i == 0) {
            continue;
        }
        int order = after[i - 1].sensorType.compare(after[i].sensorType);
        FUZZ_CHECK(order <= 0);
        FUZZ_CHECK(order < 0 || after[i - 1].probeTime >= after[i].probeTime);
    }
    for (auto& [type, count] : expected) {
        size_t kept = count < PROBE_HISTORY_MAX_PER_TYPE ? count : PROBE_HISTORY_MAX_PER_TYPE;
        FUZZ_CHECK(counted[type] == kept);
    }
    FUZZ_CHECK(counted.size() == expected.size());
    FUZZ_CHECK(savedKept == (newerOfSavedType < PROBE_HISTORY_MAX_PER_TYPE));
}

void CheckQueries(const Request& request) {
    int count = static_cast<int>(request.count);
    std::vector<ProbeMessage> records = MonitorImpl::GetProbeMessage(request.type, count);
    FUZZ_CHECK(count < 0 || records.size() <= static_cast<size_t>(count));
    for (size_t i = 0; i < records.size(); ++i) {
        FUZZ_CHECK(records[i].sensorType == request.type);
        FUZZ_CHECK(i == 0 || records[i - 1].probeTime >= records[i].probeTime);
    }

    Message last(GET_LAST_PROBE_SENSOR_NAME_TOPIC);
    last.data.emplace(PROBE_KEY_SENSOR_TYPE, MessageData(request.type));
    Message lastReply;
    MonitorImpl::GetLastProbeSuccessSensorName(last, &lastReply);
    FUZZ_CHECK(lastReply.topic == GET_LAST_PROBE_SENSOR_NAME_TOPIC);

    Message most(GET_MOST_PROBE_SENSOR_NAME_TOPIC);
    most.data.emplace(PROBE_KEY_SENSOR_TYPE, MessageData(request.type));
    most.data.emplace(PROBE_KEY_RECORD_COUNT, MakeInt64Data(static_cast<uint64_t>(request.count)));
    Message mostReply;
    MonitorImpl::GetMostProbeSuccessSensorName(most, &mostReply);
    uint64_t tally = 0;
    FUZZ_CHECK(GetInt64Data(mostReply, PROBE_KEY_RECORD_COUNT, &tally));
    FUZZ_CHECK(count < 0 || tally <= static_cast<uint64_t>(count));

    Message type(GET_SENSOR_TYPE_TOPIC);
    type.data.emplace(PROBE_KEY_SENSOR_NAME, MessageData(request.name));
    Message typeReply;
    MonitorImpl::GetSensorType(type, &typeReply);
    FUZZ_CHECK(typeReply.topic == GET_SENSOR_TYPE_TOPIC);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    corvanefuzz::SetUpSysroot();
    corvanefuzz::SilenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    corvanefuzz::InSysroot inSysroot;  // the history path is relative, as on a device
    const char* text = reinterpret_cast<const char*>(data);
    const char* newline = static_cast<const char*>(memchr(text, '\n', size));
    size_t headerSize = newline == nullptr ? size : static_cast<size_t>(newline - text);
    Request request = ParseRequest(std::string(text, headerSize));
    size_t fileStart = newline == nullptr ? size : headerSize + 1;
    corvanefuzz::WriteWholeFile(PROBE_HISTORY_PATH, data + fileStart, size - fileStart);

    std::vector<ProbeMessage> before;
    bool beforeReadable =
        ReadProbeHistory(PROBE_HISTORY_PATH, nullptr, &before) == ProbeHistoryStatus::OK;
    CheckQueries(request);

    ProbeMessage saved{request.name, request.type, request.time, request.result};
    Message message(PROBE_MESSAGE_TOPIC);
    message.data.emplace(PROBE_KEY_SENSOR_NAME, MessageData(saved.sensorName));
    message.data.emplace(PROBE_KEY_SENSOR_TYPE, MessageData(saved.sensorType));
    message.data.emplace(PROBE_KEY_PROBE_TIME,
                         MakeInt64Data(static_cast<uint64_t>(saved.probeTime)));
    message.data.emplace(PROBE_KEY_PROBE_RESULT, MakeInt32Data(saved.probeResult ? 1 : 0));
    Message reply;
    MonitorImpl::SaveProbeMessage(message, &reply);
    FUZZ_CHECK(reply.data.empty());
    CheckSavedHistory(before, beforeReadable, saved);
    CheckQueries(request);
    return 0;
}
