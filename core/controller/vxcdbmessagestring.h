// The fixed frame in which one serialised debug message travels over the debug socket: 4104
// bytes in host byte order, sent and received whole.
#pragma once

#include <stddef.h>
#include <stdint.h>

constexpr int VXCDB_PAYLOAD_SIZE = 4096;

struct VXCDBMessageString {
    int32_t msgType;                   // carried through, only logged
    char payload[VXCDB_PAYLOAD_SIZE];  // the serialised message; unused bytes are zero
    int32_t payloadLen;                // count of valid payload bytes
};

static_assert(sizeof(VXCDBMessageString) == 4104, "the frame is 4104 bytes on the wire");
static_assert(offsetof(VXCDBMessageString, payload) == 4, "payload follows msgType");
static_assert(offsetof(VXCDBMessageString, payloadLen) == 4100, "payloadLen ends the frame");
