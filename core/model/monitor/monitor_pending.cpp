// Placeholder until the probe monitor lands: no monitor is created.
#include "core/model/monitor/monitor.h"

Monitor* Monitor::Create() {
    return nullptr;
}

void Monitor::Destroy(Monitor* monitor) {
    delete monitor;
}
