#include "core/model/monitor/probehistory.h"

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "core/controller/corvanesystemlog.h"
#include "utils/json/jsonhelper.h"

namespace {

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

// The four members of a well-formed record, found in one pass over the object.
struct RecordMembers {
    const rapidjson::Value* name = nullptr;
    const rapidjson::Value* type = nullptr;
    const rapidjson::Value* time = nullptr;
    const rapidjson::Value* result = nullptr;
};

bool IsKey(const rapidjson::Value& name, const std::string& key) {
    return name.GetStringLength() == key.size() &&
           memcmp(name.GetString(), key.data(), key.size()) == 0;
}

bool FindRecordMembers(const rapidjson::Value& value, RecordMembers* members) {
    if (!value.IsObject()) {
        return false;
    }
    static const std::string nameKey = PROBE_KEY_SENSOR_NAME;
    static const std::string typeKey = PROBE_KEY_SENSOR_TYPE;
    static const std::string timeKey = PROBE_KEY_PROBE_TIME;
    static const std::string resultKey = PROBE_KEY_PROBE_RESULT;
    *members = RecordMembers();
    for (const auto& member : value.GetObject()) {
        if (IsKey(member.name, nameKey)) {
            members->name = &member.value;
        } else if (IsKey(member.name, typeKey)) {
            members->type = &member.value;
        } else if (IsKey(member.name, timeKey)) {
            members->time = &member.value;
        } else if (IsKey(member.name, resultKey)) {
            members->result = &member.value;
        }
    }
    return members->name != nullptr && members->name->IsString() && members->type != nullptr &&
           members->type->IsString() && members->time != nullptr && members->time->IsNumber() &&
           members->result != nullptr && members->result->IsString();
}

bool HasType(const rapidjson::Value& type, const std::string& wanted) {
    return type.GetStringLength() == wanted.size() &&
           memcmp(type.GetString(), wanted.data(), wanted.size()) == 0;
}

// The text stays owned by the record, which outlives the document that refers to it.
rapidjson::Value StringReference(const std::string& text) {
    return rapidjson::Value(rapidjson::StringRef(text.data(), text.size()));
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
    RecordMembers members;
    for (const rapidjson::Value& value : doc.GetArray()) {
        if (!FindRecordMembers(value, &members) ||
            (sensorType != nullptr && !HasType(*members.type, *sensorType))) {
            continue;
        }
        records->push_back({StringOf(*members.name), StringOf(*members.type), TimeOf(*members.time),
                            StringOf(*members.result) == PROBE_RESULT_SUCCESS});
    }
    return ProbeHistoryStatus::OK;
}

void SortNewestFirst(std::vector<ProbeMessage>& records) {
    std::stable_sort(
        records.begin(), records.end(),
        [](const ProbeMessage& a, const ProbeMessage& b) { return a.probeTime > b.probeTime; });
}

std::vector<ProbeMessage> RegroupProbeHistory(std::vector<ProbeMessage> records) {
    // Sorted by address (records are large to move): by type in byte order (std::string compares
    // as unsigned bytes), then newest first, equal times keeping their order.
    std::vector<ProbeMessage*> order;
    order.reserve(records.size());
    for (ProbeMessage& record : records) {
        order.push_back(&record);
    }
    std::stable_sort(order.begin(), order.end(), [](const ProbeMessage* a, const ProbeMessage* b) {
        int byType = a->sensorType.compare(b->sensorType);
        return byType != 0 ? byType < 0 : a->probeTime > b->probeTime;
    });
    std::vector<ProbeMessage> regrouped;
    regrouped.reserve(records.size());
    size_t inGroup = 0;
    for (ProbeMessage* record : order) {
        bool sameGroup = !regrouped.empty() && record->sensorType == regrouped.back().sensorType;
        inGroup = sameGroup ? inGroup + 1 : 0;
        if (inGroup < PROBE_HISTORY_MAX_PER_TYPE) {
            regrouped.push_back(std::move(*record));
        }
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
                         StringReference(record.sensorName), alloc);
        object.AddMember(rapidjson::StringRef(PROBE_KEY_SENSOR_TYPE),
                         StringReference(record.sensorType), alloc);
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
