// The records that travel on the in-process message bus. The bus library is built from this same
// header, so the field order and the standard-library types below are a binary contract between
// this system and the bus: change nothing here without rebuilding both sides.
#pragma once

#include <stdint.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

// Kinds of value a MessageData holds (its `type` field).
constexpr uint32_t MESSAGE_DATA_TYPE_INT32 = 0;
constexpr uint32_t MESSAGE_DATA_TYPE_INT64 = 1;
constexpr uint32_t MESSAGE_DATA_TYPE_STRING = 3;
constexpr uint32_t MESSAGE_DATA_TYPE_BYTES = 4;
constexpr uint32_t MESSAGE_DATA_TYPE_EMPTY = 5;

// One tagged value of a message: a 32-bit or 64-bit integer, a string, an owned byte buffer, or
// nothing. Every setter, the destructor and the source side of every copy take `lock`; the
// record is safe to copy while another thread sets it, field by field (no snapshot of the whole
// record). There are no member setters for the integers: store the field and `type` together
// under `lock`, or use SetInt32Data/SetInt64Data below.
//
// Readers must look at `type`, never at `size`, to know whether `bytes` is valid: copying a
// record that does not hold a buffer still copies its `size` and leaves the target's `bytes`
// as it was. Deliberate: the bus library copies records the same way.
class MessageData {
  public:
    MessageData() = default;
    MessageData(std::string value);  // implicit on purpose: `data[key] = someString` reads well
    MessageData(const MessageData& other);
    MessageData& operator=(const MessageData& other);
    ~MessageData();

    // Deep-copies `length` bytes and makes the record a byte buffer. A null pointer or a zero
    // length changes nothing, the type included.
    void Set(unsigned char* data, unsigned long length);
    // Stores a string and makes the record a string.
    void Set(const std::string& value);

    mutable std::recursive_mutex lock;
    std::string stringValue;
    uint32_t intValue = 0;
    uint64_t longValue = 0;
    float floatValue = 0;  // copied along, never set by this system
    unsigned char* bytes = nullptr;
    uint64_t size = 0;
    uint32_t type = MESSAGE_DATA_TYPE_EMPTY;

  private:
    void CopyFrom(const MessageData& other);
};

// One bus message: a topic and named values in key order. No lock of its own; a handler's reply
// carries the request's topic again.
struct Message {
    Message() = default;
    Message(std::string topic, std::map<std::string, MessageData> data = {});
    Message(const Message& other);
    Message(Message&& other) noexcept;
    Message& operator=(const Message& other);
    Message& operator=(Message&& other) noexcept;
    ~Message();

    std::string topic;
    std::map<std::string, MessageData> data;
};

// Typed helpers so that users need not repeat the lock-and-set dance. Setters store the value
// and its type together under the record's lock; getters read under the lock and succeed only
// when the record holds that kind of value, leaving `value` untouched otherwise.
MessageData MakeInt32Data(uint32_t value);
MessageData MakeInt64Data(uint64_t value);
void SetInt32Data(MessageData& data, uint32_t value);
void SetInt64Data(MessageData& data, uint64_t value);
bool GetInt32Data(const MessageData& data, uint32_t* value);
bool GetInt64Data(const MessageData& data, uint64_t* value);
bool GetStringData(const MessageData& data, std::string* value);
bool GetBytesData(const MessageData& data, std::vector<unsigned char>* value);
// The same, by key: false as well when the message has no such key.
bool GetInt32Data(const Message& message, const std::string& key, uint32_t* value);
bool GetInt64Data(const Message& message, const std::string& key, uint64_t* value);
bool GetStringData(const Message& message, const std::string& key, std::string* value);
bool GetBytesData(const Message& message, const std::string& key,
                  std::vector<unsigned char>* value);
