// On a device every path is the device's own: nothing is put in front of it.
#include "platform/devicepath.h"

std::string DevicePath(const std::string& path) {
    return path;
}
