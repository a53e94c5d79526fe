// The lens class of an image sensor, derived from its name: the word of the first segment
// "_<class>_<i...>" where the class is ultra, wide, tele (optionally followed by digits and an
// "x"), front, depth or macro. "imx_tele5x_ii" is "tele5x"; a name without such a segment has the
// empty class. Thread-safe; the pattern is compiled once per process.
#pragma once

#include <stddef.h>

#include <string>

// Longest run of "i" or of digits a name may hold for its class to be derived. The matcher
// recurses once per repeated character, so an absurd name (tens of thousands of "i") would
// overflow the stack of the bus thread asking; real names have runs of a few characters.
constexpr size_t SENSOR_NAME_MAX_REPEAT_RUN = 128;

// The lens class of `sensorName`, or "" when it has none (or breaks the run limit, logged).
std::string GetSensorTypeFromName(const std::string& sensorName);
