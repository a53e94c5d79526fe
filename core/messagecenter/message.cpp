// Compiled into both the system and the bus library: the two must copy records the same way.
#include "core/messagecenter/message.h"

#include <string.h>

#include <memory>
#include <utility>

namespace {

using Guard = std::lock_guard<std::recursive_mutex>;

template <typename T>
T ReadLocked(const MessageData& data, const T& field) {
    Guard guard(data.lock);
    return field;
}

const MessageData* FindData(const Message& message, const std::string& key) {
    auto it = message.data.find(key);
    return it == message.data.end() ? nullptr : &it->second;
}

}  // namespace

MessageData::MessageData(std::string value) {
    Set(value);
}

MessageData::MessageData(const MessageData& other) {
    CopyFrom(other);
}

MessageData& MessageData::operator=(const MessageData& other) {
    if (this != &other) {
        CopyFrom(other);
    }
    return *this;
}

MessageData::~MessageData() {
    Guard guard(lock);
    delete[] bytes;
    bytes = nullptr;
}

// Each field of the source is read under the source's lock, taken separately for that field; the
// target's own lock is not taken for the plain stores. `size` is copied whatever the type, and
// `bytes` is replaced only when the source is a buffer (see the class comment).
void MessageData::CopyFrom(const MessageData& other) {
    type = ReadLocked(other, other.type);
    bool copiedBuffer = false;
    if (type == MESSAGE_DATA_TYPE_BYTES) {
        // The source's buffer is duplicated while its lock is held, so a concurrent Set on the
        // source cannot free it under us; the target's lock is taken only afterwards, so two
        // records copied into each other from two threads cannot deadlock.
        std::unique_ptr<unsigned char[]> copy;
        uint64_t length = 0;
        {
            Guard guard(other.lock);
            if (other.bytes != nullptr && other.size != 0) {
                length = other.size;
                copy.reset(new unsigned char[length]);
                memcpy(copy.get(), other.bytes, length);
            }
        }
        if (copy != nullptr) {
            Guard guard(lock);
            delete[] bytes;
            bytes = copy.release();
            size = length;
            type = MESSAGE_DATA_TYPE_BYTES;
            copiedBuffer = true;
        }
    }
    {
        Guard guard(other.lock);
        stringValue = other.stringValue;
    }
    intValue = ReadLocked(other, other.intValue);
    longValue = ReadLocked(other, other.longValue);
    floatValue = ReadLocked(other, other.floatValue);
    // A buffer copied above keeps its own length: without a concurrent Set on the source the two
    // are equal, with one the source's size may already describe a different buffer.
    if (!copiedBuffer) {
        size = ReadLocked(other, other.size);
    }
}

void MessageData::Set(unsigned char* data, unsigned long length) {
    Guard guard(lock);
    if (data == nullptr || length == 0) {
        return;
    }
    delete[] bytes;
    bytes = nullptr;
    size = length;
    type = MESSAGE_DATA_TYPE_BYTES;
    bytes = new unsigned char[length];
    memcpy(bytes, data, length);
}

void MessageData::Set(const std::string& value) {
    Guard guard(lock);
    if (&value != &stringValue) {
        stringValue = value;
    }
    type = MESSAGE_DATA_TYPE_STRING;
}

Message::Message(std::string topic, std::map<std::string, MessageData> data)
    : topic(std::move(topic)), data(std::move(data)) {}

Message::Message(const Message& other) = default;
Message::Message(Message&& other) noexcept = default;
Message& Message::operator=(const Message& other) = default;
Message& Message::operator=(Message&& other) noexcept = default;
Message::~Message() = default;

MessageData MakeInt32Data(uint32_t value) {
    MessageData data;
    SetInt32Data(data, value);
    return data;
}

MessageData MakeInt64Data(uint64_t value) {
    MessageData data;
    SetInt64Data(data, value);
    return data;
}

void SetInt32Data(MessageData& data, uint32_t value) {
    Guard guard(data.lock);
    data.intValue = value;
    data.type = MESSAGE_DATA_TYPE_INT32;
}

void SetInt64Data(MessageData& data, uint64_t value) {
    Guard guard(data.lock);
    data.longValue = value;
    data.type = MESSAGE_DATA_TYPE_INT64;
}

bool GetInt32Data(const MessageData& data, uint32_t* value) {
    Guard guard(data.lock);
    if (data.type != MESSAGE_DATA_TYPE_INT32) {
        return false;
    }
    *value = data.intValue;
    return true;
}

bool GetInt64Data(const MessageData& data, uint64_t* value) {
    Guard guard(data.lock);
    if (data.type != MESSAGE_DATA_TYPE_INT64) {
        return false;
    }
    *value = data.longValue;
    return true;
}

bool GetStringData(const MessageData& data, std::string* value) {
    Guard guard(data.lock);
    if (data.type != MESSAGE_DATA_TYPE_STRING) {
        return false;
    }
    *value = data.stringValue;
    return true;
}

bool GetBytesData(const MessageData& data, std::vector<unsigned char>* value) {
    Guard guard(data.lock);
    if (data.type != MESSAGE_DATA_TYPE_BYTES || data.bytes == nullptr) {
        return false;
    }
    value->assign(data.bytes, data.bytes + data.size);
    return true;
}

bool GetInt32Data(const Message& message, const std::string& key, uint32_t* value) {
    const MessageData* data = FindData(message, key);
    return data != nullptr && GetInt32Data(*data, value);
}

bool GetInt64Data(const Message& message, const std::string& key, uint64_t* value) {
    const MessageData* data = FindData(message, key);
    return data != nullptr && GetInt64Data(*data, value);
}

bool GetStringData(const Message& message, const std::string& key, std::string* value) {
    const MessageData* data = FindData(message, key);
    return data != nullptr && GetStringData(*data, value);
}

bool GetBytesData(const Message& message, const std::string& key,
                  std::vector<unsigned char>* value) {
    const MessageData* data = FindData(message, key);
    return data != nullptr && GetBytesData(*data, value);
}
