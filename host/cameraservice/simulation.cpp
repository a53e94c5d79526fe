#include "host/cameraservice/simulation.h"

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include <chrono>
#include <functional>

#include "core/controller/corvanesystem.h"
#include "host/cameraservice/hostbus.h"

namespace {

const HostBus* g_bus = nullptr;  // the firmware simulator's bus, set once at start

struct PipelineCall {
    const char* name;
    std::function<int()> call;
    int last = 0;
};

void RunCalls(std::atomic<bool>& running, std::vector<PipelineCall> calls, int periodMs) {
    while (running.load()) {
        for (PipelineCall& entry : calls) {
            int result = entry.call();
            if (result != entry.last) {
                fprintf(stderr, "pipeline: %s -> %d%s%s\n", entry.name, result,
                        result < 0 ? " " : "", result < 0 ? strerror(-result) : "");
                entry.last = result;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(periodMs));
    }
}

template <typename Function>
Function Symbol(void* library, const char* name) {
    return reinterpret_cast<Function>(dlsym(library, name));
}

void OnDynamic(Message request, Message*) {
    std::vector<unsigned char> payload;
    if (!GetBytesData(request, "payload", &payload) || payload.size() < 4) {
        fprintf(stderr, "firmware: malformed \"dynamic\" request\n");
        return;
    }
    std::string param;
    GetStringData(request, "param", &param);
    fprintf(stderr, "firmware: command %u camera %u sensor %u interface %u param \"%s\"\n",
            payload[0], payload[1], payload[2], payload[3], param.c_str());
    if (payload[0] != 0 || g_bus == nullptr) {
        return;  // removals and clears need no answer
    }
    // Answered later, from the bus's own thread, as a real firmware answers.
    Message ack("FaultInjectAck");
    ack.data["cameraid"] = MakeInt32Data(payload[1]);
    ack.data["SensorId"] = MakeInt32Data(payload[2]);
    ack.data["InterfaceID"] = MakeInt32Data(payload[3]);
    ack.data["status"] = MakeInt32Data(FIRMWARE_ACK_STATUS);
    g_bus->SendAsync(ack);
}

std::string Text(const Message& message, const char* key) {
    std::string value;
    GetStringData(message, key, &value);
    return value;
}

}  // namespace

bool CameraPipeline::Start(const std::string& sensorLibrary, int periodMs, std::string* error) {
    void* library = dlopen(sensorLibrary.c_str(), RTLD_NOW);
    if (library == nullptr) {
        *error = dlerror();
        return false;
    }
    auto write = Symbol<int (*)(uint16_t, uint16_t, uint16_t)>(library, "CameraSensorI2CWrite");
    auto read = Symbol<int (*)(uint16_t, uint16_t, uint16_t*)>(library, "CameraSensorI2CRead");
    auto eeprom = Symbol<int (*)(uint32_t, uint8_t*, uint32_t)>(library, "CameraEepromRead");
    auto move = Symbol<int (*)(int32_t)>(library, "CameraActuatorMove");
    auto ois = Symbol<int (*)(int)>(library, "CameraOisEnable");
    if (!write || !read || !eeprom || !move || !ois) {
        *error = sensorLibrary + " lacks a sample sensor function";
        return false;
    }
    m_running = true;
    // Register 0x0100 is among those the sample protection scheme guards.
    m_threads.emplace_back(
        RunCalls, std::ref(m_running),
        std::vector<PipelineCall>{
            {"CameraSensorI2CWrite(0x10, 0x0100)", [=] { return write(0x10, 0x0100, 1); }},
            {"CameraSensorI2CWrite(0x10, 0x0042)", [=] { return write(0x10, 0x42, 7); }},
            {"CameraSensorI2CRead(0x10, 0x0042)",
             [=] {
                 uint16_t value = 0;
                 return read(0x10, 0x42, &value);
             }},
        },
        periodMs);
    m_threads.emplace_back(RunCalls, std::ref(m_running),
                           std::vector<PipelineCall>{
                               {"CameraEepromRead(0, 16)",
                                [=] {
                                    uint8_t buffer[16];
                                    int count = eeprom(0, buffer, sizeof(buffer));
                                    // A corrupt read is a failure the pipeline notices.
                                    return count > 0 && buffer[1] != 1 ? -74 : count;
                                }},
                               {"CameraActuatorMove(512)", [=] { return move(512); }},
                               {"CameraOisEnable(1)", [=] { return ois(1); }},
                           },
                           periodMs);
    return true;
}

void CameraPipeline::Stop() {
    m_running = false;
    for (std::thread& thread : m_threads) {
        thread.join();
    }
    m_threads.clear();
}

bool StartFirmwareSimulator(const HostBus& bus) {
    g_bus = &bus;
    return bus.Subscribe("dynamic", OnDynamic);
}

void BootFirmware(const HostBus& bus) {
    Message request("bootinject");
    request.data["payload"] = MessageData("camera firmware boot");
    Message reply = bus.Send(request);
    uint32_t length = 0;
    GetInt32Data(reply, "length", &length);
    fprintf(stderr, "firmware: boot, %u pending command byte(s) replayed (%s)\n", length,
            reply.topic.empty() ? "no answer" : reply.topic.c_str());
    for (uint32_t i = 0; i < length / 3; ++i) {
        fprintf(stderr, "firmware: pending command %u param \"%s\"\n", i,
                Text(reply, ("param_" + std::to_string(i)).c_str()).c_str());
    }
}

void SimulateSensorProbes(CorvaneSystem* system, const HostBus& bus) {
    const std::pair<const char*, bool> probes[] = {
        {"imx766_wide_i", true},   {"ov64b_tele5x_ii", true}, {"s5k3p9_front_i", false},
        {"gc5035_wide_ii", false}, {"imx766_wide_i", true},   {"s5k3p9_front_i", true},
        {"ov08a10_ultra_i", true},
    };
    for (const auto& probe : probes) {
        system->RecordProbeMessage(probe.first, probe.second);
    }
    Message last("GET_LAST_PROBE_SENSOR_NAME");
    last.data["sensor_type"] = MessageData("wide");
    fprintf(stderr, "probe: last successful wide sensor: \"%s\"\n",
            Text(bus.Send(last), "sensor_name").c_str());

    Message most("GET_MOST_PROBE_SENSOR_NAME");
    most.data["sensor_type"] = MessageData("wide");
    most.data["record_count"] = MakeInt64Data(10);
    Message mostReply = bus.Send(most);
    uint64_t count = 0;
    GetInt64Data(mostReply, "record_count", &count);
    fprintf(stderr, "probe: most successful wide sensor: \"%s\" (%llu successes)\n",
            Text(mostReply, "sensor_name").c_str(), static_cast<unsigned long long>(count));

    Message type("GET_SENSOR_TYPE");
    type.data["sensor_name"] = MessageData("ov64b_tele5x_ii");
    fprintf(stderr, "probe: sensor type of ov64b_tele5x_ii: \"%s\"\n",
            Text(bus.Send(type), "sensor_type").c_str());
}
