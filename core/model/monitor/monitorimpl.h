// The probe monitor behind Monitor. Probe results arrive from the host (RecordProbeMessage) and on
// the bus ("PROBE_MESSAGE"); every result is stored at once in the history file, which is the
// monitor's only state. Three bus queries read it back. The handlers are static so that the bus
// can call them without an object: they work whether or not a monitor still exists.
//
// Guarantees: nothing here throws or crashes on a bad file or a bad message. A missing, corrupt,
// oversized or non-array history file answers as empty and is replaced by the next save. Saves
// within one process are serialised and the file is replaced atomically, so no record is lost to
// a concurrent save and queries never see a partly written file.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "core/messagecenter/message.h"
#include "core/model/monitor/monitor.h"
#include "core/model/monitor/probemessage.h"

// Bus topics of the monitor: one record to store, and three queries.
constexpr const char* PROBE_MESSAGE_TOPIC = "PROBE_MESSAGE";
constexpr const char* GET_LAST_PROBE_SENSOR_NAME_TOPIC = "GET_LAST_PROBE_SENSOR_NAME";
constexpr const char* GET_MOST_PROBE_SENSOR_NAME_TOPIC = "GET_MOST_PROBE_SENSOR_NAME";
constexpr const char* GET_SENSOR_TYPE_TOPIC = "GET_SENSOR_TYPE";

// Property whose lowest bit turns recording through RecordProbeMessage on (read once per monitor).
constexpr const char* MONITOR_SWITCH_PROPERTY = "persist.vendor.camera.cloud.corvanesystem.monitor";

class MonitorImpl : public Monitor {
  public:
    // Reads the switch and subscribes the four topics, whatever the switch says.
    MonitorImpl();
    // Leaves the subscriptions in place on purpose: the handlers need no object, and other
    // components keep asking after the monitor is gone.
    ~MonitorImpl() override;

    void RecordProbeMessage(std::string sensorName, bool result) override;

    // "PROBE_MESSAGE": stores one record. Needs a non-null reply (left untouched), so a bus sender
    // that passes none is ignored.
    static void SaveProbeMessage(Message message, Message* reply);
    // "GET_LAST_PROBE_SENSOR_NAME": the name of the newest probe of "sensor_type" when it
    // succeeded, else "".
    static void GetLastProbeSuccessSensorName(Message message, Message* reply);
    // "GET_MOST_PROBE_SENSOR_NAME": among the newest "record_count" probes of "sensor_type", the
    // name with the most successes (ties: smallest name) and that count.
    static void GetMostProbeSuccessSensorName(Message message, Message* reply);
    // "GET_SENSOR_TYPE": the lens class of "sensor_name".
    static void GetSensorType(Message message, Message* reply);

    // The newest `count` records of `sensorType`, newest first: 0 gives none, a negative count
    // all of them.
    static std::vector<ProbeMessage> GetProbeMessage(const std::string& sensorType, int count);

  private:
    static void SaveProbeRecord(const Message& message, Message* reply);

    int32_t m_monitorSwitch = 0;
};
