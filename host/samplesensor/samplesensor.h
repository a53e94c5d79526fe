// A sample image-sensor library as a camera pipeline would call it: register writes and reads
// over I2C, an EEPROM read, an actuator move and an OIS switch. Hook cases replace these
// functions with fault functions; the state lives in process memory so that results can be
// checked. Every function returns 0 (or a byte count) on success and a negative errno on error.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SAMPLE_SENSOR_EXPORT __attribute__((visibility("default")))

SAMPLE_SENSOR_EXPORT int CameraSensorI2CWrite(uint16_t slaveAddress, uint16_t reg, uint16_t value);
SAMPLE_SENSOR_EXPORT int CameraSensorI2CRead(uint16_t slaveAddress, uint16_t reg, uint16_t* value);
// Copies `length` bytes of the module's calibration data from `offset`; returns the count.
SAMPLE_SENSOR_EXPORT int CameraEepromRead(uint32_t offset, uint8_t* buffer, uint32_t length);
SAMPLE_SENSOR_EXPORT int CameraActuatorMove(int32_t position);
SAMPLE_SENSOR_EXPORT int CameraOisEnable(int enable);
// The current actuator position (for checks).
SAMPLE_SENSOR_EXPORT int32_t CameraActuatorPosition(void);

#ifdef __cplusplus
}
#endif
