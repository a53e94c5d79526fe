#include "core/model/monitor/sensortype.h"

#include <ctype.h>

#include <regex>

#include "core/controller/corvanesystemlog.h"

namespace {

// The first capture group is the class; the second (the "i" count) is not used.
constexpr const char* SENSOR_TYPE_PATTERN = "_(ultra|wide|tele\\d*x?|front|depth|macro)_(i+)";

const std::regex& SensorTypeRegex() {
    // Compiled once; matching with a const regex is safe from any number of threads.
    static const std::regex pattern(SENSOR_TYPE_PATTERN, std::regex::ECMAScript);
    return pattern;
}

// Length of the longest run of "i" or of digits: the only characters the pattern repeats.
size_t LongestRepeatRun(const std::string& text) {
    size_t longest = 0;
    size_t run = 0;
    char runKind = '\0';
    for (char c : text) {
        char kind = c == 'i' ? 'i' : (isdigit(static_cast<unsigned char>(c)) ? '0' : '\0');
        run = (kind != '\0' && kind == runKind) ? run + 1 : (kind != '\0' ? 1 : 0);
        runKind = kind;
        if (run > longest) {
            longest = run;
        }
    }
    return longest;
}

}  // namespace

std::string GetSensorTypeFromName(const std::string& sensorName) {
    size_t run = LongestRepeatRun(sensorName);
    if (run > SENSOR_NAME_MAX_REPEAT_RUN) {
        CORVANE_LOGE("Sensor name holds a run of %zu repeated characters (limit %zu), no type", run,
                     SENSOR_NAME_MAX_REPEAT_RUN);
        return "";
    }
    std::smatch match;
    if (!std::regex_search(sensorName, match, SensorTypeRegex())) {
        return "";
    }
    return match[1].str();
}
