#include "TwampTestMessage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// A 48-byte reflected packet: the 41-byte header and seven bytes of padding.
constexpr uint64_t kPacketLength = 48;
constexpr uint8_t kFiller = 0xEE;
// Bytes past the viewed length, which no operation may touch.
constexpr uint64_t kGuardLength = 4;

class TwampTestMessageTest : public ::testing::Test {
  protected:
    // Every byte set to the filler, so a write outside its field shows.
    void fillWithFiller() { packet_.assign(kPacketLength, kFiller); }

    // Bytes 0xC0, 0xC1, ... 0xEF: each field reads as a distinct value with the high bit set.
    void fillWithPattern() {
        packet_.resize(kPacketLength);
        for (uint64_t i = 0; i < kPacketLength; ++i) {
            packet_[i] = static_cast<uint8_t>(0xC0 + i);
        }
    }

    // The packet as it must look: filler everywhere except the given bytes at offset.
    static Bytes fillerWith(uint64_t offset, std::initializer_list<uint8_t> field) {
        Bytes expected(kPacketLength, kFiller);
        std::copy(field.begin(), field.end(), expected.begin() + offset);
        return expected;
    }

    // Bytes 0, 1, ... length - 1 followed by guard bytes of filler.
    static Bytes countingWithGuard(uint64_t length) {
        Bytes packet(length + kGuardLength, kFiller);
        for (uint64_t i = 0; i < length; ++i) {
            packet[i] = static_cast<uint8_t>(i);
        }
        return packet;
    }

    Bytes packet_;
};

// The reflector's Sequence Number 1 is stored as 00 00 00 01 in bytes 0-3.
TEST_F(TwampTestMessageTest, SetSequenceNumberStoresBigEndianInBytes0To3) {
    fillWithFiller();
    TwampTestMessage message(packet_.data(), kPacketLength);
    message.setSequenceNumber(1);
    EXPECT_EQ(packet_, fillerWith(0, {0x00, 0x00, 0x00, 0x01}));
}

// Timestamp 0x0102030405060708 is stored as 01 02 ... 08 in bytes 4-11.
TEST_F(TwampTestMessageTest, SetTimestampStoresBigEndianInBytes4To11) {
    fillWithFiller();
    TwampTestMessage message(packet_.data(), kPacketLength);
    message.setTimestamp(0x0102030405060708ULL);
    EXPECT_EQ(packet_, fillerWith(4, {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08}));
}

// The fixed reflector Error Estimate is written as A0 01 in bytes 12-13.
TEST_F(TwampTestMessageTest, SetErrorEstimateWritesA001InBytes12To13) {
    fillWithFiller();
    TwampTestMessage message(packet_.data(), kPacketLength);
    message.setErrorEstimate();
    EXPECT_EQ(packet_, fillerWith(12, {0xA0, 0x01}));
}

// The Receive Timestamp is stored big-endian in bytes 16-23.
TEST_F(TwampTestMessageTest, SetReceiveTimestampStoresBigEndianInBytes16To23) {
    fillWithFiller();
    TwampTestMessage message(packet_.data(), kPacketLength);
    message.setReceiveTimestamp(0x1112131415161718ULL);
    EXPECT_EQ(packet_, fillerWith(16, {0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18}));
}

// The Sender Sequence Number is stored big-endian in bytes 24-27.
TEST_F(TwampTestMessageTest, SetSenderSequenceNumberStoresBigEndianInBytes24To27) {
    fillWithFiller();
    TwampTestMessage message(packet_.data(), kPacketLength);
    message.setSenderSequenceNumber(0x21222324U);
    EXPECT_EQ(packet_, fillerWith(24, {0x21, 0x22, 0x23, 0x24}));
}

// The Sender Timestamp is stored big-endian in bytes 28-35.
TEST_F(TwampTestMessageTest, SetSenderTimestampStoresBigEndianInBytes28To35) {
    fillWithFiller();
    TwampTestMessage message(packet_.data(), kPacketLength);
    message.setSenderTimestamp(0x3132333435363738ULL);
    EXPECT_EQ(packet_, fillerWith(28, {0x31, 0x32, 0x33, 0x34, 0x35, 0x36, 0x37, 0x38}));
}

// The Sender Error Estimate is stored big-endian in bytes 36-37.
TEST_F(TwampTestMessageTest, SetSenderErrorEstimateStoresBigEndianInBytes36To37) {
    fillWithFiller();
    TwampTestMessage message(packet_.data(), kPacketLength);
    message.setSenderErrorEstimate(0x0586);
    EXPECT_EQ(packet_, fillerWith(36, {0x05, 0x86}));
}

// The Sender TTL is stored in byte 40.
TEST_F(TwampTestMessageTest, SetSenderTtlStoresByte40) {
    fillWithFiller();
    TwampTestMessage message(packet_.data(), kPacketLength);
    message.setSenderTtl(64);
    EXPECT_EQ(packet_, fillerWith(40, {0x40}));
}

// The written reflector Error Estimate reads back as 0xA001.
TEST_F(TwampTestMessageTest, WrittenErrorEstimateReadsBackAsA001) {
    fillWithFiller();
    TwampTestMessage message(packet_.data(), kPacketLength);
    message.setErrorEstimate();
    EXPECT_EQ(message.getErrorEstimate(), 0xA001);
}

// The reflector's Sequence Number is read from bytes 0-3 in host order.
TEST_F(TwampTestMessageTest, GetSequenceNumberReadsBytes0To3) {
    fillWithPattern();
    TwampTestMessage message(packet_.data(), kPacketLength);
    EXPECT_EQ(message.getSequenceNumber(), 0xC0C1C2C3U);
}

// The reflector's transmit Timestamp is read from bytes 4-11 in host order.
TEST_F(TwampTestMessageTest, GetTimestampReadsBytes4To11) {
    fillWithPattern();
    TwampTestMessage message(packet_.data(), kPacketLength);
    EXPECT_EQ(message.getTimestamp(), 0xC4C5C6C7C8C9CACBULL);
}

// The reflector's Error Estimate is read from bytes 12-13 in host order.
TEST_F(TwampTestMessageTest, GetErrorEstimateReadsBytes12To13) {
    fillWithPattern();
    TwampTestMessage message(packet_.data(), kPacketLength);
    EXPECT_EQ(message.getErrorEstimate(), 0xCCCD);
}

// The Receive Timestamp is read from bytes 16-23 in host order, skipping the MBZ bytes 14-15.
TEST_F(TwampTestMessageTest, GetReceiveTimestampReadsBytes16To23) {
    fillWithPattern();
    TwampTestMessage message(packet_.data(), kPacketLength);
    EXPECT_EQ(message.getReceiveTimestamp(), 0xD0D1D2D3D4D5D6D7ULL);
}

// The Sender Sequence Number is read from bytes 24-27 in host order.
TEST_F(TwampTestMessageTest, GetSenderSequenceNumberReadsBytes24To27) {
    fillWithPattern();
    TwampTestMessage message(packet_.data(), kPacketLength);
    EXPECT_EQ(message.getSenderSequenceNumber(), 0xD8D9DADBU);
}

// The Sender Timestamp is read from bytes 28-35 in host order.
TEST_F(TwampTestMessageTest, GetSenderTimestampReadsBytes28To35) {
    fillWithPattern();
    TwampTestMessage message(packet_.data(), kPacketLength);
    EXPECT_EQ(message.getSenderTimestamp(), 0xDCDDDEDFE0E1E2E3ULL);
}

// The Sender Error Estimate is read from bytes 36-37 in host order.
TEST_F(TwampTestMessageTest, GetSenderErrorEstimateReadsBytes36To37) {
    fillWithPattern();
    TwampTestMessage message(packet_.data(), kPacketLength);
    EXPECT_EQ(message.getSenderErrorEstimate(), 0xE4E5);
}

// The Sender TTL is read from byte 40, skipping the MBZ bytes 38-39.
TEST_F(TwampTestMessageTest, GetSenderTtlReadsByte40) {
    fillWithPattern();
    TwampTestMessage message(packet_.data(), kPacketLength);
    EXPECT_EQ(message.getSenderTtl(), 0xE8);
}

// getBuffer returns the viewed buffer itself, not a copy.
TEST_F(TwampTestMessageTest, GetBufferReturnsViewedBuffer) {
    fillWithFiller();
    TwampTestMessage message(packet_.data(), kPacketLength);
    EXPECT_EQ(message.getBuffer(), packet_.data());
}

// Destroying a view through its base pointer leaves the buffer and its bytes alone.
TEST_F(TwampTestMessageTest, DestructorLeavesBufferUntouched) {
    fillWithFiller();
    auto message = std::make_unique<TwampTestMessage>(packet_.data(), kPacketLength);
    message->setSenderTtl(0x7F);
    message.reset();
    EXPECT_EQ(packet_, fillerWith(40, {0x7F}));
}

// A 41-byte packet has no padding to move: only the MBZ bytes 14-15 and 38-39 are cleared.
TEST_F(TwampTestMessageTest, ToReflectorLayoutOf41BytePacketOnlyClearsMbz) {
    Bytes packet = countingWithGuard(41);
    TwampTestMessage message(packet.data(), 41);
    message.toReflectorLayout();
    const Bytes expected{
        0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x00,
        0x00, 0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B, 0x1C, 0x1D,
        0x1E, 0x1F, 0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x00, 0x00, 0x28, 0xEE, 0xEE, 0xEE, 0xEE,
    };
    EXPECT_EQ(packet, expected);
}

// A 64-byte packet: padding bytes 14-36 move to 41-63, the last 27 old padding
// bytes (37-63) are lost, the MBZ bytes are cleared and nothing past the length changes.
TEST_F(TwampTestMessageTest, ToReflectorLayoutOf64BytePacketMovesPaddingTo41) {
    Bytes packet = countingWithGuard(64);
    TwampTestMessage message(packet.data(), 64);
    message.toReflectorLayout();
    const Bytes expected{
        0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D,
        0x00, 0x00, 0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B,
        0x1C, 0x1D, 0x1E, 0x1F, 0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x00, 0x00, 0x28, 0x0E,
        0x0F, 0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B, 0x1C,
        0x1D, 0x1E, 0x1F, 0x20, 0x21, 0x22, 0x23, 0x24, 0xEE, 0xEE, 0xEE, 0xEE,
    };
    EXPECT_EQ(packet, expected);
}

// An 80-byte packet, where source 14-52 and destination 41-79 overlap: the
// padding arrives intact, as read before the move.
TEST_F(TwampTestMessageTest, ToReflectorLayoutOf80BytePacketHandlesOverlap) {
    Bytes packet = countingWithGuard(80);
    TwampTestMessage message(packet.data(), 80);
    message.toReflectorLayout();
    const Bytes expected{
        0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D,
        0x00, 0x00, 0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B,
        0x1C, 0x1D, 0x1E, 0x1F, 0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x00, 0x00, 0x28, 0x0E,
        0x0F, 0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B, 0x1C,
        0x1D, 0x1E, 0x1F, 0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0x28, 0x29, 0x2A,
        0x2B, 0x2C, 0x2D, 0x2E, 0x2F, 0x30, 0x31, 0x32, 0x33, 0x34, 0xEE, 0xEE, 0xEE, 0xEE,
    };
    EXPECT_EQ(packet, expected);
}

// The setters write their fields correctly into a buffer starting at an odd address.
TEST_F(TwampTestMessageTest, SettersWorkOnUnalignedBuffer) {
    alignas(8) uint8_t storage[kPacketLength + 1];
    std::memset(storage, kFiller, sizeof(storage));
    TwampTestMessage message(storage + 1, kPacketLength);
    message.setSequenceNumber(0x01020304U);
    message.setTimestamp(0x0506070809101112ULL);
    message.setErrorEstimate();
    message.setReceiveTimestamp(0x1314151617181920ULL);
    message.setSenderSequenceNumber(0x21222324U);
    message.setSenderTimestamp(0x2526272829303132ULL);
    message.setSenderErrorEstimate(0x3334);
    message.setSenderTtl(0x35);
    const Bytes expected{
        0xEE, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x10, 0x11, 0x12,
        0xA0, 0x01, 0xEE, 0xEE, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x20, 0x21,
        0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0x28, 0x29, 0x30, 0x31, 0x32, 0x33, 0x34,
        0xEE, 0xEE, 0x35, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
    };
    EXPECT_EQ(Bytes(storage, storage + sizeof(storage)), expected);
}

// The getters read their fields correctly from a buffer starting at an odd address.
TEST_F(TwampTestMessageTest, GettersWorkOnUnalignedBuffer) {
    alignas(8) uint8_t storage[kPacketLength + 1];
    for (uint64_t i = 0; i < sizeof(storage); ++i) {
        storage[i] = static_cast<uint8_t>(0xBF + i);
    }
    TwampTestMessage message(storage + 1, kPacketLength);
    EXPECT_EQ(message.getSequenceNumber(), 0xC0C1C2C3U);
    EXPECT_EQ(message.getTimestamp(), 0xC4C5C6C7C8C9CACBULL);
    EXPECT_EQ(message.getErrorEstimate(), 0xCCCD);
    EXPECT_EQ(message.getReceiveTimestamp(), 0xD0D1D2D3D4D5D6D7ULL);
    EXPECT_EQ(message.getSenderSequenceNumber(), 0xD8D9DADBU);
    EXPECT_EQ(message.getSenderTimestamp(), 0xDCDDDEDFE0E1E2E3ULL);
    EXPECT_EQ(message.getSenderErrorEstimate(), 0xE4E5);
    EXPECT_EQ(message.getSenderTtl(), 0xE8);
}

// toReflectorLayout works in place on a buffer starting at an odd address.
TEST_F(TwampTestMessageTest, ToReflectorLayoutWorksOnUnalignedBuffer) {
    alignas(8) uint8_t storage[1 + 44];
    std::memset(storage, kFiller, sizeof(storage));
    for (uint64_t i = 0; i < 44; ++i) {
        storage[1 + i] = static_cast<uint8_t>(i);
    }
    TwampTestMessage message(storage + 1, 44);
    message.toReflectorLayout();
    const Bytes expected{
        0xEE, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D,
        0x00, 0x00, 0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B, 0x1C,
        0x1D, 0x1E, 0x1F, 0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x00, 0x00, 0x28, 0x0E, 0x0F, 0x10,
    };
    EXPECT_EQ(Bytes(storage, storage + sizeof(storage)), expected);
}

}  // namespace
