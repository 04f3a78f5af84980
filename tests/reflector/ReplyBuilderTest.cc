#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "OwampTestMessage.h"
#include "ReplyBuilder.h"
#include "TwampTestMessage.h"

namespace {

constexpr uint32_t kSenderSeq = 0x01020304;
constexpr uint64_t kSenderTimestamp = 0xE9A1B2C3D4E5F607ULL;

// A sender packet whose padding byte at offset i holds i.
std::vector<uint8_t> request(std::size_t length) {
    std::vector<uint8_t> bytes(length);
    for (std::size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<uint8_t>(i);
    }
    OwampTestMessage message(bytes.data(), bytes.size());
    message.setSequenceNumber(kSenderSeq);
    message.setTimestamp(kSenderTimestamp);
    message.setErrorEstimate();
    return bytes;
}

ReplyStamp stamp() {
    ReplyStamp value;
    value.reflectorSequence = 77;
    value.receiveTimestamp = 0xE9A1B2C400000001ULL;
    value.transmitTimestamp = 0xE9A1B2C400000002ULL;
    value.senderTtl = 63;
    return value;
}

// The sender fields are read from bytes 0-13.
TEST(ReplyBuilderTest, ReadsSenderFields) {
    std::vector<uint8_t> bytes = request(14);
    const SenderFields fields = ReplyBuilder::readSender(bytes.data(), bytes.size());
    EXPECT_EQ(kSenderSeq, fields.sequenceNumber);
    EXPECT_EQ(kSenderTimestamp, fields.timestamp);
    EXPECT_EQ(0x0586, fields.errorEstimate);
}

// Every reflector field is written and every sender field echoed at its offset.
TEST(ReplyBuilderTest, WritesEveryField) {
    std::vector<uint8_t> bytes = request(64);
    ReplyBuilder::build(bytes.data(), bytes.size(), stamp());
    ASSERT_EQ(64u, bytes.size());
    const TwampTestMessage reply(bytes.data(), bytes.size());
    EXPECT_EQ(77u, reply.getSequenceNumber());
    EXPECT_EQ(0xE9A1B2C400000002ULL, reply.getTimestamp());
    EXPECT_EQ(0xA001, reply.getErrorEstimate());
    EXPECT_EQ(0xE9A1B2C400000001ULL, reply.getReceiveTimestamp());
    EXPECT_EQ(kSenderSeq, reply.getSenderSequenceNumber());
    EXPECT_EQ(kSenderTimestamp, reply.getSenderTimestamp());
    EXPECT_EQ(0x0586, reply.getSenderErrorEstimate());
    EXPECT_EQ(63, reply.getSenderTtl());
}

// Both MBZ fields are zero and the raw layout is big-endian at the fixed offsets.
TEST(ReplyBuilderTest, RawLayout) {
    std::vector<uint8_t> bytes = request(41);
    ReplyBuilder::build(bytes.data(), bytes.size(), stamp());
    const std::vector<uint8_t> expected = {
        0x00, 0x00, 0x00, 0x4D,                          // reflector sequence 77
        0xE9, 0xA1, 0xB2, 0xC4, 0x00, 0x00, 0x00, 0x02,  // T3
        0xA0, 0x01,                                      // error estimate
        0x00, 0x00,                                      // MBZ
        0xE9, 0xA1, 0xB2, 0xC4, 0x00, 0x00, 0x00, 0x01,  // T2
        0x01, 0x02, 0x03, 0x04,                          // sender sequence
        0xE9, 0xA1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6, 0x07,  // sender timestamp
        0x05, 0x86,                                      // sender error estimate
        0x00, 0x00,                                      // MBZ
        0x3F,                                            // sender TTL 63
    };
    EXPECT_EQ(expected, bytes);
}

// The sender's padding moves from 14 to 41; the reply keeps the request's length.
TEST(ReplyBuilderTest, PaddingMovesBehindReflectorFields) {
    std::vector<uint8_t> bytes = request(200);
    ReplyBuilder::build(bytes.data(), bytes.size(), stamp());
    ASSERT_EQ(200u, bytes.size());
    for (std::size_t i = 41; i < bytes.size(); ++i) {
        EXPECT_EQ(static_cast<uint8_t>(i - 27), bytes[i]) << "offset " << i;
    }
}

// A corrupting reflector's offset is added to the echoed sender timestamp, modulo 2^64.
TEST(ReplyBuilderTest, SenderTimestampOffset) {
    std::vector<uint8_t> bytes = request(64);
    ReplyStamp shifted = stamp();
    shifted.senderTimestampOffset = -0x100000000LL;
    ReplyBuilder::build(bytes.data(), bytes.size(), shifted);
    const TwampTestMessage reply(bytes.data(), bytes.size());
    EXPECT_EQ(0xE9A1B2C2D4E5F607ULL, reply.getSenderTimestamp());
}

// The largest UDP payload over IPv4 keeps its length, and its padding moves whole.
TEST(ReplyBuilderTest, LargestRequest) {
    std::vector<uint8_t> bytes = request(65507);
    ReplyBuilder::build(bytes.data(), bytes.size(), stamp());
    ASSERT_EQ(65507u, bytes.size());
    const TwampTestMessage reply(bytes.data(), bytes.size());
    EXPECT_EQ(kSenderSeq, reply.getSenderSequenceNumber());
    EXPECT_EQ(static_cast<uint8_t>(65506 - 27), bytes[65506]);
    EXPECT_EQ(static_cast<uint8_t>(41 - 27), bytes[41]);
}

}  // namespace
