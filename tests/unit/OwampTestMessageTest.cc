#include "OwampTestMessage.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

// A 16-byte sender packet: the 14-byte header and two bytes of padding.
constexpr uint64_t kPacketLength = 16;
constexpr uint8_t kFiller = 0xEE;

class OwampTestMessageTest : public ::testing::Test {
  protected:
    // Every byte set to the filler, so a write outside its field shows.
    void fillWithFiller() { packet_.assign(kPacketLength, kFiller); }

    // Bytes 0xF0, 0xF1, ... 0xFF: each field reads as a distinct value with the high bit set.
    void fillWithPattern() {
        packet_.resize(kPacketLength);
        for (uint64_t i = 0; i < kPacketLength; ++i) {
            packet_[i] = static_cast<uint8_t>(0xF0 + i);
        }
    }

    Bytes packet_;
};

// Sequence Number 1 is stored as 00 00 00 01 in bytes 0-3 and nothing else changes.
TEST_F(OwampTestMessageTest, SetSequenceNumberStoresBigEndianInBytes0To3) {
    fillWithFiller();
    OwampTestMessage message(packet_.data(), kPacketLength);
    message.setSequenceNumber(1);
    const Bytes expected{0x00, 0x00, 0x00, 0x01, 0xEE, 0xEE, 0xEE, 0xEE,
                         0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(packet_, expected);
}

// Timestamp 0x0102030405060708 is stored as 01 02 ... 08 in bytes 4-11 and nothing else changes.
TEST_F(OwampTestMessageTest, SetTimestampStoresBigEndianInBytes4To11) {
    fillWithFiller();
    OwampTestMessage message(packet_.data(), kPacketLength);
    message.setTimestamp(0x0102030405060708ULL);
    const Bytes expected{0xEE, 0xEE, 0xEE, 0xEE, 0x01, 0x02, 0x03, 0x04,
                         0x05, 0x06, 0x07, 0x08, 0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(packet_, expected);
}

// The fixed Error Estimate is written as the bytes 05 86 in bytes 12-13 and nothing else changes.
TEST_F(OwampTestMessageTest, SetErrorEstimateWrites0586InBytes12To13) {
    fillWithFiller();
    OwampTestMessage message(packet_.data(), kPacketLength);
    message.setErrorEstimate();
    const Bytes expected{0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE,
                         0xEE, 0xEE, 0xEE, 0xEE, 0x05, 0x86, 0xEE, 0xEE};
    EXPECT_EQ(packet_, expected);
}

// The written Error Estimate reads back as 0x0586.
TEST_F(OwampTestMessageTest, WrittenErrorEstimateReadsBackAs0586) {
    fillWithFiller();
    OwampTestMessage message(packet_.data(), kPacketLength);
    message.setErrorEstimate();
    EXPECT_EQ(message.getErrorEstimate(), 0x0586);
}

// The Sequence Number is read from bytes 0-3 in host order.
TEST_F(OwampTestMessageTest, GetSequenceNumberReadsBytes0To3) {
    fillWithPattern();
    OwampTestMessage message(packet_.data(), kPacketLength);
    EXPECT_EQ(message.getSequenceNumber(), 0xF0F1F2F3U);
}

// The Timestamp is read from bytes 4-11 in host order.
TEST_F(OwampTestMessageTest, GetTimestampReadsBytes4To11) {
    fillWithPattern();
    OwampTestMessage message(packet_.data(), kPacketLength);
    EXPECT_EQ(message.getTimestamp(), 0xF4F5F6F7F8F9FAFBULL);
}

// The Error Estimate is read from bytes 12-13 in host order.
TEST_F(OwampTestMessageTest, GetErrorEstimateReadsBytes12To13) {
    fillWithPattern();
    OwampTestMessage message(packet_.data(), kPacketLength);
    EXPECT_EQ(message.getErrorEstimate(), 0xFCFD);
}

// A 14-byte packet has no padding: length 0, starting just past the Error Estimate.
TEST_F(OwampTestMessageTest, GetPaddingOfHeaderOnlyPacketIsEmpty) {
    Bytes packet(14, kFiller);
    OwampTestMessage message(packet.data(), 14);
    uint8_t* padding = nullptr;
    EXPECT_EQ(message.getPadding(&padding), 0U);
    EXPECT_EQ(padding, packet.data() + 14);
}

// A 64-byte packet has 50 bytes of padding from byte 14 on.
TEST_F(OwampTestMessageTest, GetPaddingOfLongerPacketStartsAtByte14) {
    Bytes packet(64, kFiller);
    OwampTestMessage message(packet.data(), 64);
    uint8_t* padding = nullptr;
    EXPECT_EQ(message.getPadding(&padding), 50U);
    EXPECT_EQ(padding, packet.data() + 14);
}

// getBuffer returns the viewed buffer itself, not a copy.
TEST_F(OwampTestMessageTest, GetBufferReturnsViewedBuffer) {
    fillWithFiller();
    OwampTestMessage message(packet_.data(), kPacketLength);
    EXPECT_EQ(message.getBuffer(), packet_.data());
}

// Destroying a view through its base pointer leaves the buffer and its bytes alone.
TEST_F(OwampTestMessageTest, DestructorLeavesBufferUntouched) {
    fillWithPattern();
    auto message = std::make_unique<OwampTestMessage>(packet_.data(), kPacketLength);
    message->setSequenceNumber(0x0A0B0C0DU);
    message.reset();
    const Bytes expected{0x0A, 0x0B, 0x0C, 0x0D, 0xF4, 0xF5, 0xF6, 0xF7,
                         0xF8, 0xF9, 0xFA, 0xFB, 0xFC, 0xFD, 0xFE, 0xFF};
    EXPECT_EQ(packet_, expected);
}

// The setters write their fields correctly into a buffer starting at an odd address.
TEST_F(OwampTestMessageTest, SettersWorkOnUnalignedBuffer) {
    alignas(8) uint8_t storage[kPacketLength + 1];
    std::memset(storage, kFiller, sizeof(storage));
    OwampTestMessage message(storage + 1, kPacketLength);
    message.setSequenceNumber(0x11223344U);
    message.setTimestamp(0x8899AABBCCDDEEFFULL);
    message.setErrorEstimate();
    const Bytes expected{0xEE, 0x11, 0x22, 0x33, 0x44, 0x88, 0x99, 0xAA, 0xBB,
                         0xCC, 0xDD, 0xEE, 0xFF, 0x05, 0x86, 0xEE, 0xEE};
    EXPECT_EQ(Bytes(storage, storage + sizeof(storage)), expected);
}

// The getters read their fields correctly from a buffer starting at an odd address.
TEST_F(OwampTestMessageTest, GettersWorkOnUnalignedBuffer) {
    alignas(8) uint8_t storage[kPacketLength + 1];
    for (uint64_t i = 0; i < sizeof(storage); ++i) {
        storage[i] = static_cast<uint8_t>(0xEF + i);
    }
    OwampTestMessage message(storage + 1, kPacketLength);
    EXPECT_EQ(message.getSequenceNumber(), 0xF0F1F2F3U);
    EXPECT_EQ(message.getTimestamp(), 0xF4F5F6F7F8F9FAFBULL);
    EXPECT_EQ(message.getErrorEstimate(), 0xFCFD);
}

}  // namespace
