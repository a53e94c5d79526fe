// The big-data reporting library: the camera stack tells the device's statistics service about
// events worth counting (here: what the protection schemes refused or saw fail). On a device the
// vendor's library implements it; on a host, platform/host/bigdata.cpp appends every report to a
// file of the sysroot. Reports are fire-and-forget: callers ignore the result.
#pragma once

#include <stdint.h>

#include <string>

// The library's codes. Only the values this system sends are declared; the numbers are the
// library's and must not change.
enum class BDPropertyType : int32_t {
    PROTECTION = 5,  // a protection scheme reported something
};

enum class BDDeviceType : int32_t {
    CAMERA = 6,
};

enum class CVBDMessageType : int32_t {
    EVENT = 2,  // one occurrence, counted by the service
};

enum class BDErrorType : int32_t {
    I2C = 2,  // camera bus traffic
};

// Report kinds: the string argument of SendMessage.
constexpr const char* BIGDATA_KIND_PROTECTION = "p";
constexpr const char* BIGDATA_KIND_ERROR = "e";

class CorvaneSystemBigData {
  public:
    // One report. `name` and `value` describe what happened (a scheme's report name and value),
    // `kind` is "p" (protection) or "e" (error), `count` the number of occurrences it stands
    // for. Returns 0 when the report was handed over, a negative errno otherwise.
    static int SendMessage(BDPropertyType propertyType, const std::string& name,
                           BDDeviceType deviceType, uint32_t value, const std::string& kind,
                           CVBDMessageType messageType, uint32_t count, BDErrorType errorType);
};
