#include "core/messagecenter/message.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Buffer = std::vector<unsigned char>;

Buffer Bytes(const MessageData& data) {
    std::lock_guard<std::recursive_mutex> guard(data.lock);
    return data.bytes == nullptr ? Buffer() : Buffer(data.bytes, data.bytes + data.size);
}

MessageData BufferData(Buffer content) {
    MessageData data;
    data.Set(content.data(), content.size());
    return data;
}

TEST(MessageDataTest, CopiesHaveTheirOwnBufferAndEveryScalarField) {
    MessageData source = BufferData({1, 2, 3, 4, 5});
    source.intValue = 0xfffffffeu;
    source.longValue = 0x1234567890abcdefull;
    source.floatValue = 2.5f;
    source.stringValue = "sensor";
    MessageData constructed(source);
    MessageData assigned = BufferData({9, 9});
    assigned = source;
    source.bytes[0] = 42;
    for (const MessageData* copy : {&constructed, &assigned}) {
        EXPECT_EQ(copy->type, MESSAGE_DATA_TYPE_BYTES);
        EXPECT_EQ(Bytes(*copy), (Buffer{1, 2, 3, 4, 5}));
        EXPECT_EQ(copy->stringValue, "sensor");
        EXPECT_EQ(copy->intValue, 0xfffffffeu);
        EXPECT_EQ(copy->longValue, 0x1234567890abcdefull);
        EXPECT_EQ(copy->floatValue, 2.5f);
    }
    MessageData& alias = assigned;
    assigned = alias;
    EXPECT_EQ(Bytes(assigned), (Buffer{1, 2, 3, 4, 5}));
}

// A string assigned over a buffer keeps the buffer (and frees it later, which the leak checkers
// of the sanitizer and valgrind runs verify) but takes the source's size: readers go by type.
// Null or empty buffers and a record's own string change nothing.
TEST(MessageDataTest, StringOverBufferKeepsTheBufferAndEmptySetsChangeNothing) {
    MessageData source = BufferData({1, 2, 3, 4});
    source.Set(std::string("xyz"));
    source.Set(nullptr, 5);
    source.Set(source.stringValue);
    unsigned char one = 1;
    source.Set(&one, 0);
    MessageData target = BufferData({10, 20, 30, 40, 50, 60, 70, 80});
    unsigned char* oldBuffer = target.bytes;
    target = source;
    EXPECT_EQ(target.type, MESSAGE_DATA_TYPE_STRING);
    EXPECT_EQ(target.stringValue, "xyz");
    EXPECT_EQ(target.size, 4u);
    ASSERT_EQ(target.bytes, oldBuffer);
    EXPECT_EQ(target.bytes[7], 80);  // still owned and intact
    MessageData fresh(source);       // a fresh copy has no buffer, whatever its size says
    EXPECT_EQ(fresh.bytes, nullptr);
    EXPECT_EQ(fresh.size, 4u);
}

TEST(MessageTest, TypedHelpersReadOnlyTheKindStored) {
    Message message("t", {});
    message.data["i32"] = MakeInt32Data(0xffffffffu);
    message.data["i64"] = MakeInt64Data(1ull << 40);
    message.data["str"] = MessageData(std::string("s"));
    message.data["buf"] = BufferData({8});
    message.data["none"] = MessageData();
    uint32_t i32 = 7;
    uint64_t i64 = 7;
    std::string str = "untouched";
    Buffer buf;
    EXPECT_TRUE(GetInt32Data(message, "i32", &i32) && i32 == 0xffffffffu);
    EXPECT_TRUE(GetInt64Data(message, "i64", &i64) && i64 == 1ull << 40);
    EXPECT_TRUE(GetStringData(message, "str", &str) && str == "s");
    EXPECT_TRUE(GetBytesData(message, "buf", &buf) && buf == Buffer{8});
    for (const char* key : {"i64", "str", "buf", "none", "missing"}) {
        EXPECT_FALSE(GetInt32Data(message, key, &i32)) << key;  // the output is left as it was
    }
    EXPECT_FALSE(GetInt64Data(message, "i32", &i64) || GetStringData(message, "none", &str) ||
                 GetBytesData(message, "str", &buf));
    EXPECT_EQ(std::to_string(i32) + str, "4294967295s");
}

}  // namespace
