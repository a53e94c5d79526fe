// The probe monitor: keeps image-sensor probe results and answers queries on the bus.
#pragma once

#include <string>

class Monitor {
  public:
    virtual ~Monitor() = default;
    virtual void RecordProbeMessage(std::string sensorName, bool result) = 0;

    static Monitor* Create();
    static void Destroy(Monitor* monitor);
};
