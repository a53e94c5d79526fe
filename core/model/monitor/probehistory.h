// The probe history file: one JSON array of records
//   {"sensor_name": string, "sensor_type": string, "probe_time": integer ms, "probe_result":
//    "success" | "fail"}
// grouped by type in ascending byte order, newest first within a type, at most
// PROBE_HISTORY_MAX_PER_TYPE records per type. These functions hold no state and no lock; the
// monitor decides who reads and writes when.
#pragma once

#include <stddef.h>

#include <string>
#include <vector>

#include "core/model/monitor/probemessage.h"

// Relative on purpose: the camera service runs with "/" as its working directory, and a host
// standing in for it changes into its sysroot first. Never pass it through DevicePath.
constexpr const char* PROBE_HISTORY_PATH = "data/vendor/camera/probe_messages.json";
constexpr size_t PROBE_HISTORY_MAX_PER_TYPE = 100;

enum class ProbeHistoryStatus {
    OK,
    UNREADABLE,  // missing, unreadable, malformed, over the size limit
    NOT_ARRAY,   // valid JSON whose root is not an array
};

// Appends to `records`, in file order, every well-formed record of the file (of type
// `*sensorType` only, when it is not null). A record is well-formed when it is an object whose
// name, type and result are strings and whose time is a number; anything else is skipped. A time
// that is not an integer is truncated, one beyond 64 bits clamped. Nothing is appended unless the
// status is OK.
ProbeHistoryStatus ReadProbeHistory(const std::string& path, const std::string* sensorType,
                                    std::vector<ProbeMessage>* records);

// Sorts newest first; records of equal time keep their relative order.
void SortNewestFirst(std::vector<ProbeMessage>& records);

// Returns the records in file order: grouped by type in ascending byte order, each group newest
// first (equal times keep their relative order), each cut to its PROBE_HISTORY_MAX_PER_TYPE
// newest.
std::vector<ProbeMessage> RegroupProbeHistory(std::vector<ProbeMessage> records);

// Replaces the file with `records`, in this order, through a temporary sibling that is renamed
// over it: a reader sees the old file or the new one, never a part, and a failed write leaves the
// old file whole. False (logged) when the new file could not be written.
bool WriteProbeHistory(const std::string& path, const std::vector<ProbeMessage>& records);
