// One image-sensor probe result, as kept in the history file and carried on the bus.
#pragma once

#include <stdint.h>

#include <string>

// Keys shared by the history file's records and the bus messages of the monitor.
constexpr const char* PROBE_KEY_SENSOR_NAME = "sensor_name";
constexpr const char* PROBE_KEY_SENSOR_TYPE = "sensor_type";
constexpr const char* PROBE_KEY_PROBE_TIME = "probe_time";
constexpr const char* PROBE_KEY_PROBE_RESULT = "probe_result";
constexpr const char* PROBE_KEY_RECORD_COUNT = "record_count";

// The two texts of "probe_result" in the file; anything but the first reads as a failure.
constexpr const char* PROBE_RESULT_SUCCESS = "success";
constexpr const char* PROBE_RESULT_FAIL = "fail";

struct ProbeMessage {
    std::string sensorName;
    std::string sensorType;  // lens class derived from the name, possibly empty
    int64_t probeTime = 0;   // milliseconds since the Unix epoch
    bool probeResult = false;
};
