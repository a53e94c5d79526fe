// Absolute device paths ("/odm/...", "/data/...", "/sys/...") go through DevicePath so that a
// host can run the library against a sysroot: when CORVANE_SYSROOT is set it is put in front.
// On a device the path is returned unchanged. Relative paths are never touched: the camera
// service runs in "/", and a host process standing in for it changes into the sysroot.
#pragma once

#include <string>

std::string DevicePath(const std::string& path);
