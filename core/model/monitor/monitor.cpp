#include "core/model/monitor/monitor.h"

#include "core/model/monitor/monitorimpl.h"

Monitor* Monitor::Create() {
    return new MonitorImpl();
}

void Monitor::Destroy(Monitor* monitor) {
    delete monitor;
}
