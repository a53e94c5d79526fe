// The probe monitor: keeps image-sensor probe results in a bounded history file and answers
// questions about them on the message bus. The controller creates one when the "monitr"
// sub-module is on and forwards the host's probe reports to it.
#pragma once

#include <string>

class Monitor {
  public:
    virtual ~Monitor() = default;
    // Records one probe of `sensorName`; a no-op unless the monitor switch property is odd.
    virtual void RecordProbeMessage(std::string sensorName, bool result) = 0;

    // A new monitor, subscribed to its bus topics (never null).
    static Monitor* Create();
    // Deletes `monitor`; null is ignored. Its bus subscriptions stay in place.
    static void Destroy(Monitor* monitor);
};
