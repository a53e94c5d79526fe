#include "samplesensor.h"

#include <errno.h>
#include <stdatomic.h>
#include <stddef.h>

#define REGISTER_COUNT 256
#define EEPROM_SIZE 512
#define SENSOR_SLAVE_ADDRESS 0x10
#define ACTUATOR_MIN 0
#define ACTUATOR_MAX 1023

static _Atomic uint16_t g_registers[REGISTER_COUNT];
static _Atomic int32_t g_actuatorPosition;
static _Atomic int g_oisEnabled;

// Calibration data: a recognisable pattern (offset & 0xFF) with a checksum in the last byte.
static uint8_t EepromByte(uint32_t offset) {
    if (offset == EEPROM_SIZE - 1) {
        uint8_t sum = 0;
        for (uint32_t i = 0; i < EEPROM_SIZE - 1; ++i) {
            sum = (uint8_t)(sum + (i & 0xFF));
        }
        return sum;
    }
    return (uint8_t)(offset & 0xFF);
}

static int BusWrite(uint16_t slaveAddress, uint16_t reg, uint16_t value) {
    if (slaveAddress != SENSOR_SLAVE_ADDRESS) {
        return -ENODEV;
    }
    atomic_store(&g_registers[reg % REGISTER_COUNT], value);
    return 0;
}

SAMPLE_SENSOR_EXPORT int CameraSensorI2CWrite(uint16_t slaveAddress, uint16_t reg, uint16_t value) {
    if (reg >= REGISTER_COUNT) {
        return -EINVAL;
    }
    return BusWrite(slaveAddress, reg, value);
}

SAMPLE_SENSOR_EXPORT int CameraSensorI2CRead(uint16_t slaveAddress, uint16_t reg, uint16_t* value) {
    if (value == NULL || reg >= REGISTER_COUNT) {
        return -EINVAL;
    }
    if (slaveAddress != SENSOR_SLAVE_ADDRESS) {
        return -ENODEV;
    }
    *value = atomic_load(&g_registers[reg]);
    return 0;
}

SAMPLE_SENSOR_EXPORT int CameraEepromRead(uint32_t offset, uint8_t* buffer, uint32_t length) {
    if (buffer == NULL || offset >= EEPROM_SIZE) {
        return -EINVAL;
    }
    uint32_t count = 0;
    while (count < length && offset + count < EEPROM_SIZE) {
        buffer[count] = EepromByte(offset + count);
        ++count;
    }
    return (int)count;
}

SAMPLE_SENSOR_EXPORT int CameraActuatorMove(int32_t position) {
    if (position < ACTUATOR_MIN || position > ACTUATOR_MAX) {
        return -ERANGE;
    }
    atomic_store(&g_actuatorPosition, position);
    return 0;
}

SAMPLE_SENSOR_EXPORT int32_t CameraActuatorPosition(void) {
    return atomic_load(&g_actuatorPosition);
}

SAMPLE_SENSOR_EXPORT int CameraOisEnable(int enable) {
    if (enable != 0 && enable != 1) {
        return -EINVAL;
    }
    atomic_store(&g_oisEnabled, enable);
    return 0;
}
