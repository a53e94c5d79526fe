// What both ends of the debug channel agree on beyond the schema: how a message is read out of
// its fixed frame, and the vocabulary of replies. Shared by the connection threads, the command
// dispatch and the vxcdb tool.
#pragma once

#include "core/controller/vxcdbmessagestring.h"
#include "vxcdbmessage.pb.h"

// Reply convention: a reply's cmds are entries. An entry whose options is VXCDB_KEY_TYPE names
// the kind of what follows (one argument); in a "string" part every entry is a key with values,
// in a "list" part the next entry is a table (options the comma-separated header, one argument
// per comma-separated row).
constexpr const char* VXCDB_KEY_TYPE = "type";
constexpr const char* VXCDB_TYPE_STRING = "string";
constexpr const char* VXCDB_TYPE_LIST = "list";
constexpr const char* VXCDB_KEY_HELP = "help";
constexpr const char* VXCDB_KEY_ERROR = "error";      // values: the error text, the help text
constexpr const char* VXCDB_KEY_MESSAGE = "message";  // values: one plain success text

// Parses the first payloadLen bytes of the frame's payload into `message`. False when payloadLen
// lies outside 0..4096 (the frame would claim bytes it does not hold) or the bytes do not parse;
// such a frame is treated exactly like one whose payload is not a message. Never reads past the
// payload field.
inline bool DecodeVXCDBMessage(const VXCDBMessageString& frame, VXCDBMessage* message) {
    if (frame.payloadLen < 0 || frame.payloadLen > VXCDB_PAYLOAD_SIZE) {
        return false;
    }
    return message->ParseFromArray(frame.payload, frame.payloadLen);
}
