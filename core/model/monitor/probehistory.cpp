#include "core/model/monitor/probehistory.h"

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <utility>

#include "core/controller/corvanesystemlog.h"
#include "utils/json/jsonhelper.h"

namespace {

const rapidjson::Value* FindMember(const rapidjson::Value& object, const char* key) {
    auto it = object.FindMember(key);
    return it == object.MemberEnd() ? nullptr : &it->value;
}

std::string StringOf(const rapidjson::Value& value) {
    return std::string(value.GetString(), value.GetStringLength());
}

int64_t TimeOf(const rapidjson::Value& value) {
    if (value.IsInt64()) {
        return value.GetInt64();
    }
    if (value.IsUint64()) {
        return INT64_MAX;
    }
    // Only a hand-edited file holds a fraction or an exponent here.
    double time = value.GetDouble();
    if (time >= 9.2e18) {
        return INT64_MAX;
    }
    if (time <= -9.2e18) {
        return INT64_MIN;
    }
    return static_cast<int64_t>(time);
}

// Fills `record` from `value` when it is a well-formed record; false otherwise.
bool ParseRecord(const rapidjson::Value& value, ProbeMessage* record) {
    if (!value.IsObject()) {
        return false;
    }
    const rapidjson::Value* name = FindMember(value, PROBE_KEY_SENSOR_NAME);
    const rapidjson::Value* type = FindMember(value, PROBE_KEY_SENSOR_TYPE);
    const rapidjson::Value* time = FindMember(value, PROBE_KEY_PROBE_TIME);
    const rapidjson::Value* result = FindMember(value, PROBE_KEY_PROBE_RESULT);
    if (name == nullptr || !name->IsString() || type == nullptr || !type->IsString() ||
        time == nullptr || !time->IsNumber() || result == nullptr || !result->IsString()) {
        return false;
    }
    record->sensorName = StringOf(*name);
    record->sensorType = StringOf(*type);
    record->probeTime = TimeOf(*time);
    record->probeResult = StringOf(*result) == PROBE_RESULT_SUCCESS;
    return true;
}

rapidjson::Value StringValue(const std::string& text, rapidjson::Document::AllocatorType& alloc) {
    return rapidjson::Value(text.data(), static_cast<rapidjson::SizeType>(text.size()), alloc);
}

}  // namespace

ProbeHistoryStatus ReadProbeHistory(const std::string& path, const std::string* sensorType,
                                    std::vector<ProbeMessage>* records) {
    rapidjson::Document doc;
    if (ReadJsonFile(path, doc) != JSON_FILE_OK) {
        return ProbeHistoryStatus::UNREADABLE;
    }
    if (!doc.IsArray()) {
        return ProbeHistoryStatus::NOT_ARRAY;
    }
    records->reserve(records->size() + doc.Size());
    ProbeMessage record;
    for (const rapidjson::Value& value : doc.GetArray()) {
        if (ParseRecord(value, &record) &&
            (sensorType == nullptr || record.sensorType == *sensorType)) {
            records->push_back(std::move(record));
        }
    }
    return ProbeHistoryStatus::OK;
}

void SortNewestFirst(std::vector<ProbeMessage>& records) {
    std::stable_sort(
        records.begin(), records.end(),
        [](const ProbeMessage& a, const ProbeMessage& b) { return a.probeTime > b.probeTime; });
}

std::vector<ProbeMessage> RegroupProbeHistory(std::vector<ProbeMessage> records) {
    // std::string compares as unsigned bytes: the groups come out in byte order.
    std::map<std::string, std::vector<ProbeMessage>> groups;
    for (ProbeMessage& record : records) {
        groups[record.sensorType].push_back(std::move(record));
    }
    std::vector<ProbeMessage> regrouped;
    regrouped.reserve(records.size());
    for (auto& group : groups) {
        std::vector<ProbeMessage>& members = group.second;
        SortNewestFirst(members);
        if (members.size() > PROBE_HISTORY_MAX_PER_TYPE) {
            members.resize(PROBE_HISTORY_MAX_PER_TYPE);
        }
        std::move(members.begin(), members.end(), std::back_inserter(regrouped));
    }
    return regrouped;
}

bool WriteProbeHistory(const std::string& path, const std::vector<ProbeMessage>& records) {
    rapidjson::Document doc(rapidjson::kArrayType);
    rapidjson::Document::AllocatorType& alloc = doc.GetAllocator();
    doc.Reserve(static_cast<rapidjson::SizeType>(records.size()), alloc);
    for (const ProbeMessage& record : records) {
        rapidjson::Value object(rapidjson::kObjectType);
        object.AddMember(rapidjson::StringRef(PROBE_KEY_SENSOR_NAME),
                         StringValue(record.sensorName, alloc), alloc);
        object.AddMember(rapidjson::StringRef(PROBE_KEY_SENSOR_TYPE),
                         StringValue(record.sensorType, alloc), alloc);
        object.AddMember(rapidjson::StringRef(PROBE_KEY_PROBE_TIME),
                         rapidjson::Value(record.probeTime), alloc);
        object.AddMember(
            rapidjson::StringRef(PROBE_KEY_PROBE_RESULT),
            rapidjson::StringRef(record.probeResult ? PROBE_RESULT_SUCCESS : PROBE_RESULT_FAIL),
            alloc);
        doc.PushBack(object, alloc);
    }
    // The process id keeps two processes (a restarting service and its successor) off each
    // other's temporary file; within a process the monitor serialises its saves.
    std::string temporary = path + "." + std::to_string(getpid()) + ".tmp";
    if (WriteJsonFile(temporary, doc) != JSON_FILE_OK) {
        unlink(temporary.c_str());
        return false;
    }
    if (rename(temporary.c_str(), path.c_str()) != 0) {
        CORVANE_LOGE("Error: could not replace %s: %s", path.c_str(), strerror(errno));
        unlink(temporary.c_str());
        return false;
    }
    return true;
}
