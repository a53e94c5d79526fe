// Sample fault functions (they make the sensor library's calls fail) and guard functions (they
// refuse dangerous calls and let the others through). Each reports that it ran: fault functions
// through NotifyHookMessage with their hook's name, guards through ProtectionCallback.
//
// The controller is reached through the exported CorvaneSystemGetInstance of the process, found
// at run time, so this library never loads a second copy of the core library.
#include <dlfcn.h>
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "core/controller/corvanesystem.h"
#include "host/samplesensor/samplesensor.h"

#define SAMPLE_FAULT_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

CorvaneSystem* Controller() {
    using GetInstanceFunction = CorvaneSystem* (*)();
    auto getInstance =
        reinterpret_cast<GetInstanceFunction>(dlsym(RTLD_DEFAULT, "CorvaneSystemGetInstance"));
    return getInstance == nullptr ? nullptr : getInstance();
}

void ReportExecuted(const char* hookName) {
    if (CorvaneSystem* system = Controller()) {
        system->NotifyHookMessage({hookName, HOOK_MESSAGE_EXECUTED});
    }
}

// Registers a guard protects: its hook group's arguments, as numbers with any base ("0x0100").
bool IsProtectedRegister(const char* groupName, uint16_t reg) {
    CorvaneSystem* system = Controller();
    if (system == nullptr) {
        return false;
    }
    for (const std::string& argument : system->GetHookArguments(groupName)) {
        char* end = nullptr;
        unsigned long value = strtoul(argument.c_str(), &end, 0);
        if (end != argument.c_str() && value == reg) {
            return true;
        }
    }
    return false;
}

}  // namespace

// Hook "sensor_i2c_write_fail": every register write fails with an I/O error.
SAMPLE_FAULT_EXPORT int FaultSensorI2CWriteFail(uint16_t, uint16_t, uint16_t) {
    ReportExecuted("sensor_i2c_write_fail");
    return -EIO;
}

// Hook "sensor_i2c_read_fail": every register read fails with an I/O error.
SAMPLE_FAULT_EXPORT int FaultSensorI2CReadFail(uint16_t, uint16_t, uint16_t*) {
    ReportExecuted("sensor_i2c_read_fail");
    return -EIO;
}

// Hook "eeprom_read_corrupt": the read succeeds but every byte reads 0xFF.
SAMPLE_FAULT_EXPORT int FaultEepromReadCorrupt(uint32_t, uint8_t* buffer, uint32_t length) {
    ReportExecuted("eeprom_read_corrupt");
    if (buffer == nullptr) {
        return -EINVAL;
    }
    memset(buffer, 0xFF, length);
    return static_cast<int>(length);
}

// Hook "actuator_move_timeout": the actuator never answers.
SAMPLE_FAULT_EXPORT int FaultActuatorMoveTimeout(int32_t) {
    ReportExecuted("actuator_move_timeout");
    return -ETIMEDOUT;
}

// Hook "ois_enable_fail": the OIS cannot be switched.
SAMPLE_FAULT_EXPORT int FaultOisEnableFail(int) {
    ReportExecuted("ois_enable_fail");
    return -EIO;
}

// Guard of group "sensor_i2c_guard": writes to the registers named by the group's arguments are
// refused and reported; every other write goes to the bus.
SAMPLE_FAULT_EXPORT int GuardSensorI2CWrite(uint16_t slaveAddress, uint16_t reg, uint16_t value) {
    ReportExecuted("sensor_i2c_write_guard");
    if (IsProtectedRegister("sensor_i2c_guard", reg)) {
        if (CorvaneSystem* system = Controller()) {
            system->ProtectionCallback({1, -EPERM, reg, "SENSORI2C", CALLBACK_MESSAGE_TYPE_BOTH});
        }
        return -EPERM;
    }
    return CameraSensorBusWrite(slaveAddress, reg, value);
}
