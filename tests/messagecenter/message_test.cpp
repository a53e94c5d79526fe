#include "core/messagecenter/message.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

std::vector<unsigned char> Bytes(const MessageData& data) {
    std::lock_guard<std::recursive_mutex> guard(data.lock);
    return data.bytes == nullptr ? std::vector<unsigned char>()
                                 : std::vector<unsigned char>(data.bytes, data.bytes + data.size);
}

MessageData BufferData(std::vector<unsigned char> content) {
    MessageData data;
    data.Set(content.data(), content.size());
    return data;
}

// Copy construction and assignment must both give the target a buffer of its own, and carry
// every scalar field along.
TEST(MessageDataTest, CopiesHaveTheirOwnBufferAndEveryScalarField) {
    MessageData source = BufferData({1, 2, 3, 4, 5});
    source.intValue = 0xfffffffeu;
    source.longValue = 0x1234567890abcdefull;
    source.floatValue = 2.5f;
    source.stringValue = "sensor";
    MessageData constructed(source);
    MessageData assigned = BufferData({9, 9});
    assigned = source;

    for (const MessageData* copy : {&constructed, &assigned}) {
        EXPECT_EQ(copy->type, MESSAGE_DATA_TYPE_BYTES);
        EXPECT_EQ(copy->size, 5u);
        EXPECT_NE(copy->bytes, source.bytes);
        EXPECT_EQ(Bytes(*copy), Bytes(source));
        EXPECT_EQ(copy->stringValue, "sensor");
        EXPECT_EQ(copy->intValue, 0xfffffffeu);
        EXPECT_EQ(copy->longValue, 0x1234567890abcdefull);
        EXPECT_EQ(copy->floatValue, 2.5f);
    }
    source.bytes[0] = 42;
    unsigned char other[] = {7, 7, 7};
    source.Set(other, sizeof(other));
    EXPECT_EQ(Bytes(constructed), (std::vector<unsigned char>{1, 2, 3, 4, 5}));
    EXPECT_EQ(Bytes(assigned), (std::vector<unsigned char>{1, 2, 3, 4, 5}));
}

// A string assigned over a buffer keeps the buffer (and frees it later, which the leak checkers
// of the sanitizer and valgrind runs verify) but takes the source's size: readers must go by type.
TEST(MessageDataTest, StringAssignedOverBufferKeepsOldBufferAndTakesSourceSize) {
    struct Case {
        const char* name;
        MessageData source;
        uint64_t expectedSize;
    };
    MessageData stringHadBuffer = BufferData({1, 2, 3, 4});
    stringHadBuffer.Set(std::string("xyz"));
    Case cases[] = {
        {"fresh string", MessageData("xyz"), 0},
        {"string that once held a 4-byte buffer", stringHadBuffer, 4},
    };
    for (Case& c : cases) {
        SCOPED_TRACE(c.name);
        MessageData target = BufferData({10, 20, 30, 40, 50, 60, 70, 80});
        unsigned char* oldBuffer = target.bytes;
        target = c.source;
        EXPECT_EQ(target.type, MESSAGE_DATA_TYPE_STRING);
        EXPECT_EQ(target.stringValue, "xyz");
        EXPECT_EQ(target.size, c.expectedSize);
        ASSERT_EQ(target.bytes, oldBuffer);
        EXPECT_EQ(target.bytes[7], 80);  // still owned and intact

        MessageData fresh(c.source);  // a fresh copy has no buffer, whatever its size says
        EXPECT_EQ(fresh.bytes, nullptr);
        EXPECT_EQ(fresh.size, c.expectedSize);
    }
}

TEST(MessageDataTest, SetWithNullOrEmptyBufferChangesNothing) {
    unsigned char content[] = {1};
    struct Case {
        unsigned char* data;
        unsigned long length;
    } cases[] = {{nullptr, 5}, {content, 0}, {nullptr, 0}};
    for (const Case& c : cases) {
        MessageData data("kept");
        data.Set(c.data, c.length);
        EXPECT_EQ(data.type, MESSAGE_DATA_TYPE_STRING);
        EXPECT_EQ(data.stringValue, "kept");
        EXPECT_EQ(data.bytes, nullptr);
        EXPECT_EQ(data.size, 0u);
    }
}

TEST(MessageDataTest, SelfAssignmentAndSelfSetKeepTheValue) {
    MessageData buffer = BufferData({3, 1, 4});
    unsigned char* before = buffer.bytes;
    MessageData& alias = buffer;
    buffer = alias;
    EXPECT_EQ(buffer.bytes, before);
    EXPECT_EQ(Bytes(buffer), (std::vector<unsigned char>{3, 1, 4}));

    MessageData text("same");
    text.Set(text.stringValue);
    EXPECT_EQ(text.stringValue, "same");
}

TEST(MessageTest, CopyAndAssignmentAreDeep) {
    Message original("PROBE_MESSAGE", {});
    original.data["sensor_name"] = MessageData(std::string("imx"));
    original.data["probe_result"] = MakeInt32Data(1);
    original.data["blob"] = BufferData({5, 6});
    Message copy(original);
    Message assigned;
    assigned = original;
    original.data["blob"].bytes[0] = 0;
    original.data.erase("sensor_name");

    for (Message* target : {&copy, &assigned}) {
        EXPECT_EQ(target->topic, "PROBE_MESSAGE");
        EXPECT_EQ(target->data.size(), 3u);
        EXPECT_EQ(Bytes(target->data["blob"]), (std::vector<unsigned char>{5, 6}));
    }
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
    std::vector<unsigned char> buf;
    EXPECT_TRUE(GetInt32Data(message, "i32", &i32));
    EXPECT_EQ(i32, 0xffffffffu);
    EXPECT_TRUE(GetInt64Data(message, "i64", &i64));
    EXPECT_EQ(i64, 1ull << 40);
    EXPECT_TRUE(GetStringData(message, "str", &str));
    EXPECT_EQ(str, "s");
    EXPECT_TRUE(GetBytesData(message, "buf", &buf));
    EXPECT_EQ(buf, std::vector<unsigned char>{8});

    i32 = 7;
    str = "untouched";
    for (const char* key : {"i64", "str", "buf", "none", "missing"}) {
        EXPECT_FALSE(GetInt32Data(message, key, &i32)) << key;
    }
    EXPECT_FALSE(GetInt64Data(message, "i32", &i64));
    EXPECT_FALSE(GetStringData(message, "none", &str));
    EXPECT_FALSE(GetBytesData(message, "str", &buf));
    EXPECT_EQ(i32, 7u);
    EXPECT_EQ(str, "untouched");

    MessageData changed("was a string");
    SetInt64Data(changed, 5);
    EXPECT_EQ(changed.type, MESSAGE_DATA_TYPE_INT64);
}

// A record copied while another thread keeps replacing its buffer: every copy must hold one of
// the buffers whole, never a freed or half-replaced one.
TEST(MessageDataTest, CopyWhileAnotherThreadSetsTheBuffer) {
    std::vector<unsigned char> a(64, 0xaa), b(256, 0xbb);
    MessageData shared = BufferData(a);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; !stop; ++i) {
            std::vector<unsigned char>& next = (i % 2 == 0) ? b : a;
            shared.Set(next.data(), next.size());
        }
    });
    for (int i = 0; i < 20000; ++i) {
        MessageData copy(shared);
        std::vector<unsigned char> content = Bytes(copy);
        ASSERT_TRUE(content == a || content == b) << "iteration " << i;
    }
    stop = true;
    writer.join();
}

}  // namespace
