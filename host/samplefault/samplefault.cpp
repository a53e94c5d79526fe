// Sample fault functions (they make the sensor library's calls fail) and guard functions (they
// refuse dangerous calls and let the others through). Each reports that it ran: fault functions
// through NotifyHookMessage with their hook's name, guards through ProtectionCallback.
//
// They are installed by the inline-hook library in shared mode, so each follows its rules: it
// pops its frame before returning (SHADOWHOOK_STACK_SCOPE), or it would run once per thread and
// then never again; it reaches what it replaced only through SHADOWHOOK_CALL_PREV, which also
// runs any other replacement chained on the function.
//
// The controller is reached through the exported CorvaneSystemGetInstance of the process, found
// at run time, so this library never loads a second copy of the core library.
#include <dlfcn.h>
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <string>
#include <vector>

#include "core/controller/corvanesystem.h"
#include "host/samplesensor/samplesensor.h"
#include "shadowhook.h"

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

// A hook group's arguments read as numbers with any base ("0x0100"); words that are not numbers
// are left out.
std::vector<unsigned long> NumericArguments(const char* groupName) {
    std::vector<unsigned long> numbers;
    CorvaneSystem* system = Controller();
    if (system == nullptr) {
        return numbers;
    }
    for (const std::string& argument : system->GetHookArguments(groupName)) {
        char* end = nullptr;
        unsigned long value = strtoul(argument.c_str(), &end, 0);
        if (end != argument.c_str()) {
            numbers.push_back(value);
        }
    }
    return numbers;
}

// Registers a guard protects: its hook group's arguments.
bool IsProtectedRegister(const char* groupName, uint16_t reg) {
    for (unsigned long value : NumericArguments(groupName)) {
        if (value == reg) {
            return true;
        }
    }
    return false;
}

// Every how many reads the flaky fault fails when its group has no usable argument: most reads
// still pass, as the fault intends.
constexpr unsigned long kDefaultFlakyPeriod = 10;
std::atomic<unsigned long> g_flakyReads{0};

}  // namespace

// Hook "sensor_i2c_write_fail": every register write fails with an I/O error.
SAMPLE_FAULT_EXPORT int FaultSensorI2CWriteFail(uint16_t, uint16_t, uint16_t) {
    SHADOWHOOK_STACK_SCOPE();
    ReportExecuted("sensor_i2c_write_fail");
    return -EIO;
}

// Hook "sensor_i2c_read_fail": every register read fails with an I/O error.
SAMPLE_FAULT_EXPORT int FaultSensorI2CReadFail(uint16_t, uint16_t, uint16_t*) {
    SHADOWHOOK_STACK_SCOPE();
    ReportExecuted("sensor_i2c_read_fail");
    return -EIO;
}

// Hook "eeprom_read_corrupt": the read succeeds but every byte reads 0xFF.
SAMPLE_FAULT_EXPORT int FaultEepromReadCorrupt(uint32_t, uint8_t* buffer, uint32_t length) {
    SHADOWHOOK_STACK_SCOPE();
    ReportExecuted("eeprom_read_corrupt");
    if (buffer == nullptr) {
        return -EINVAL;
    }
    memset(buffer, 0xFF, length);
    return static_cast<int>(length);
}

// Hook "actuator_move_timeout": the actuator never answers.
SAMPLE_FAULT_EXPORT int FaultActuatorMoveTimeout(int32_t) {
    SHADOWHOOK_STACK_SCOPE();
    ReportExecuted("actuator_move_timeout");
    return -ETIMEDOUT;
}

// Hook "ois_enable_fail": the OIS cannot be switched.
SAMPLE_FAULT_EXPORT int FaultOisEnableFail(int) {
    SHADOWHOOK_STACK_SCOPE();
    ReportExecuted("ois_enable_fail");
    return -EIO;
}

// Hook "sensor_i2c_read_flaky" of group "sensor_i2c_flaky": every N-th register read fails with
// an I/O error, N being the group's first argument ("--inject sensor_i2c_flaky 3"); the others
// are passed on. Reads are counted from the library's load, over every thread; each failure is
// logged with its number, so that a run shows which reads failed.
SAMPLE_FAULT_EXPORT int FaultSensorI2CReadFlaky(uint16_t slaveAddress, uint16_t reg,
                                                uint16_t* value) {
    SHADOWHOOK_STACK_SCOPE();
    ReportExecuted("sensor_i2c_read_flaky");
    std::vector<unsigned long> arguments = NumericArguments("sensor_i2c_flaky");
    unsigned long period =
        !arguments.empty() && arguments.front() > 0 ? arguments.front() : kDefaultFlakyPeriod;
    unsigned long read = g_flakyReads.fetch_add(1) + 1;
    if (read % period == 0) {
        fprintf(stderr, "sample fault: sensor_i2c_read_flaky: read %lu fails (every %lu)\n", read,
                period);
        return -EIO;
    }
    return SHADOWHOOK_CALL_PREV(FaultSensorI2CReadFlaky, slaveAddress, reg, value);
}

// Guard of group "sensor_i2c_guard": writes to the registers named by the group's arguments are
// refused and reported; every other write goes on to what the guard replaced.
SAMPLE_FAULT_EXPORT int GuardSensorI2CWrite(uint16_t slaveAddress, uint16_t reg, uint16_t value) {
    SHADOWHOOK_STACK_SCOPE();
    ReportExecuted("sensor_i2c_write_guard");
    if (IsProtectedRegister("sensor_i2c_guard", reg)) {
        if (CorvaneSystem* system = Controller()) {
            system->ProtectionCallback({1, -EPERM, reg, "SENSORI2C", CALLBACK_MESSAGE_TYPE_BOTH});
        }
        return -EPERM;
    }
    return SHADOWHOOK_CALL_PREV(GuardSensorI2CWrite, slaveAddress, reg, value);
}
