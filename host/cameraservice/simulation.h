// The parts of a camera service a host simulates around the library: a camera pipeline calling
// the sample sensor library, the firmware side of fault injection, and sensor probes.
#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

class CorvaneSystem;
class HostBus;

// Threads calling the sample sensor library at a steady rate, so that an injected fault is
// really hit. Each call whose result changes is printed (a fault shows the moment it bites).
class CameraPipeline {
  public:
    // `sensorLibrary` relative to the working directory; `periodMs` between two rounds.
    bool Start(const std::string& sensorLibrary, int periodMs, std::string* error);
    void Stop();
    ~CameraPipeline() { Stop(); }

  private:
    std::atomic<bool> m_running{false};
    std::vector<std::thread> m_threads;
};

// The firmware side: answers every injection on "dynamic" with a "FaultInjectAck" carrying
// FIRMWARE_ACK_STATUS, and asks "bootinject" for the pending commands when it boots.
constexpr unsigned int FIRMWARE_ACK_STATUS = 0x01;  // "fault armed"
bool StartFirmwareSimulator(const HostBus& bus);
void BootFirmware(const HostBus& bus);

// Reports a few sensor probes through the controller and asks the monitor's three queries.
void SimulateSensorProbes(CorvaneSystem* system, const HostBus& bus);
