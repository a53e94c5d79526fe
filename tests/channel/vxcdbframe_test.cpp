// The fixed frame: what is framed, what is refused, and which frames can be read at all.
#include <limits.h>

#include "tests/channel/channeltestutil.h"

namespace {

using namespace channeltest;

// A message that serialises to exactly `size` bytes (field 4 with a two-byte length prefix).
VXCDBMessage MessageOfSize(size_t size) {
    VXCDBMessage message;
    message.set_descriptions(std::string(size - 3, 'x'));
    EXPECT_EQ(message.ByteSizeLong(), size);
    return message;
}

TEST(VXCDBFrame, RepliesUpTo4095BytesAreFramedAnd4096IsRefused) {
    corvanetest::TestSysroot sysroot;
    corvanetest::LogCapture log;
    CorvaneSystemImpl system;

    VXCDBMessage largest = MessageOfSize(4095);
    VXCDBMessageString frame;
    memset(&frame, 0, sizeof(frame));
    ASSERT_EQ(system.FormatSocketMsg(largest, &frame), 0);
    EXPECT_EQ(frame.payloadLen, 4095);
    EXPECT_EQ(std::string(frame.payload, 4095), largest.SerializeAsString());
    EXPECT_EQ(frame.payload[4095], 0);

    // One byte more would still fit the payload field; it is refused all the same, and the
    // frame is left as it was.
    VXCDBMessage tooLarge = MessageOfSize(4096);
    memset(&frame, 0x5A, sizeof(frame));
    VXCDBMessageString before = frame;
    EXPECT_EQ(system.FormatSocketMsg(tooLarge, &frame), 4);
    EXPECT_EQ(memcmp(&before, &frame, sizeof(frame)), 0);
    EXPECT_TRUE(log.Contains("payload size 4096 exceeds the max payload size 4096")) << log.Dump();
}

TEST(VXCDBFrame, PayloadLengthOutsideThePayloadFieldDoesNotParse) {
    VXCDBMessage full = MessageOfSize(4096);
    VXCDBMessageString frame = Frame(full);
    VXCDBMessage decoded;
    ASSERT_EQ(frame.payloadLen, 4096);
    EXPECT_TRUE(DecodeVXCDBMessage(frame, &decoded)) << "a request may fill the whole field";

    for (int32_t length : {-1, INT_MIN, 4097, INT_MAX}) {
        frame.payloadLen = length;
        EXPECT_FALSE(DecodeVXCDBMessage(frame, &decoded)) << "payloadLen " << length;
    }
    // Bytes that are not a message: a field with an invalid wire type.
    VXCDBMessageString garbage = Frame(VXCDBMessage());
    garbage.payload[0] = '\x0f';
    garbage.payloadLen = 1;
    EXPECT_FALSE(DecodeVXCDBMessage(garbage, &decoded));
}

}  // namespace
