#include "OutstandingPacket.h"

#include <linux/errqueue.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstdint>
#include <cstring>
#include <ctime>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AdoptedMockController.h"
#include "ControlBuffer.h"
#include "MockSocketHelper.h"
#include "TwampTestMessage.h"

namespace {

using ::testing::_;
using ::testing::Eq;
using ::testing::NiceMock;
using ::testing::Return;
using twamp_test::AdoptedMockController;
using twamp_test::ControlBuffer;
using twamp_test::MockSocketHelper;

// 2023-11-14 22:13:20.5 UTC as NTP.
constexpr uint64_t kReceiveNtp = 0xE8FE6F8080000000ULL;
// 2023-11-14 22:13:21.25 UTC as NTP.
constexpr uint64_t kTransmitNtp = 0xE8FE6F8140000000ULL;

// A received message: a reply in the first I/O vector and, optionally, a
// kernel timestamp whose raw hardware timespec is the given time.
class ReceivedMessage {
  public:
    ReceivedMessage() : control(kControlLength) {
        std::memset(payload, 0, sizeof(payload));
        std::memset(&header, 0, sizeof(header));
        ioVector.iov_base = payload;
        ioVector.iov_len = sizeof(payload);
        header.msg_iov = &ioVector;
        header.msg_iovlen = 1;
    }

    void setReply(uint32_t responderSeqNo, uint64_t t3, uint64_t t2, uint8_t senderTtl) {
        TwampTestMessage reply(payload, sizeof(payload));
        reply.setSequenceNumber(responderSeqNo);
        reply.setTimestamp(t3);
        reply.setReceiveTimestamp(t2);
        reply.setSenderTtl(senderTtl);
    }

    void setKernelTimestamp(time_t seconds, long nanoseconds) {
        control.appendTimestamping({1, 0}, {2, 0}, {seconds, nanoseconds});
        header.msg_control = control.bytes.data();
        header.msg_controllen = control.appendedLength();
    }

    struct msghdr* get() {
        return &header;
    }

  private:
    static constexpr std::size_t kControlLength = 128;

    uint8_t payload[64];
    ControlBuffer control;
    struct iovec ioVector;
    struct msghdr header;
};

class OutstandingPacketTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ON_CALL(env.udpSocket, getFamily()).WillByDefault(Return(AF_INET));
        ON_CALL(helper, getTtl(_, AF_INET)).WillByDefault(Return(61));
        ON_CALL(helper, getDscp(_, AF_INET)).WillByDefault(Return(46));
    }

    AdoptedMockController env;
    NiceMock<MockSocketHelper> helper;
    OutstandingPacket packet{7, 0x1122334455667788ULL};
};

// A new packet holds its sequence number and T1 and 0 everywhere else.
TEST_F(OutstandingPacketTest, NewPacketHoldsSeqNoAndT1Only) {
    EXPECT_EQ(7u, packet.getSenderSeqNo());
    EXPECT_EQ(0x1122334455667788ULL, packet.getT1());
    EXPECT_EQ(0u, packet.getT1Prime());
    EXPECT_EQ(0u, packet.getT2());
    EXPECT_EQ(0u, packet.getT3());
    EXPECT_EQ(0u, packet.getT4());
    EXPECT_EQ(0u, packet.getSenderTtl());
    EXPECT_EQ(0u, packet.getReplyTtl());
    EXPECT_EQ(0u, packet.getResponderSeqNo());
    EXPECT_EQ(0u, packet.getReplyDscp());
    EXPECT_EQ(0u, packet.getReplyCount());
}

// setResponse takes every reply field, the receive timestamp and the helper's TTL and DSCP.
TEST_F(OutstandingPacketTest, SetResponseReadsEveryField) {
    ReceivedMessage message;
    message.setReply(900, 0xAAAA000011110000ULL, 0xBBBB000022220000ULL, 63);
    message.setKernelTimestamp(1700000000, 500000000);
    EXPECT_CALL(helper, getTtl(Eq(message.get()), AF_INET)).WillOnce(Return(61));
    EXPECT_CALL(helper, getDscp(Eq(message.get()), AF_INET)).WillOnce(Return(46));
    packet.setResponse(message.get(), helper);
    EXPECT_EQ(900u, packet.getResponderSeqNo());
    EXPECT_EQ(0xAAAA000011110000ULL, packet.getT3());
    EXPECT_EQ(0xBBBB000022220000ULL, packet.getT2());
    EXPECT_EQ(kReceiveNtp, packet.getT4());
    EXPECT_EQ(63u, packet.getSenderTtl());
    EXPECT_EQ(61u, packet.getReplyTtl());
    EXPECT_EQ(46u, packet.getReplyDscp());
    EXPECT_EQ(1u, packet.getReplyCount());
}

// The helper is asked with the family of the shared socket.
TEST_F(OutstandingPacketTest, SetResponseUsesSocketFamily) {
    ReceivedMessage message;
    ON_CALL(env.udpSocket, getFamily()).WillByDefault(Return(AF_INET6));
    EXPECT_CALL(helper, getTtl(_, AF_INET6)).WillOnce(Return(255));
    EXPECT_CALL(helper, getDscp(_, AF_INET6)).WillOnce(Return(10));
    packet.setResponse(message.get(), helper);
    EXPECT_EQ(255u, packet.getReplyTtl());
    EXPECT_EQ(10u, packet.getReplyDscp());
}

// A reply without a timestamp item leaves T4 at 0.
TEST_F(OutstandingPacketTest, SetResponseWithoutTimestampGivesZeroT4) {
    ReceivedMessage message;
    message.setReply(1, 2, 3, 4);
    packet.setResponse(message.get(), helper);
    EXPECT_EQ(0u, packet.getT4());
}

// A second reply overwrites every field and counts 2.
TEST_F(OutstandingPacketTest, SecondReplyOverwritesAndCountsTwo) {
    ReceivedMessage first;
    first.setReply(900, 0xAAAA000011110000ULL, 0xBBBB000022220000ULL, 63);
    first.setKernelTimestamp(1700000000, 500000000);
    packet.setResponse(first.get(), helper);
    ReceivedMessage second;
    second.setReply(901, 0xCCCC000033330000ULL, 0xDDDD000044440000ULL, 50);
    second.setKernelTimestamp(1700000001, 250000000);
    EXPECT_CALL(helper, getTtl(_, AF_INET)).WillOnce(Return(40));
    EXPECT_CALL(helper, getDscp(_, AF_INET)).WillOnce(Return(12));
    packet.setResponse(second.get(), helper);
    EXPECT_EQ(901u, packet.getResponderSeqNo());
    EXPECT_EQ(0xCCCC000033330000ULL, packet.getT3());
    EXPECT_EQ(0xDDDD000044440000ULL, packet.getT2());
    EXPECT_EQ(kTransmitNtp, packet.getT4());
    EXPECT_EQ(50u, packet.getSenderTtl());
    EXPECT_EQ(40u, packet.getReplyTtl());
    EXPECT_EQ(12u, packet.getReplyDscp());
    EXPECT_EQ(2u, packet.getReplyCount());
}

// setTxTimestamp stores the raw hardware timestamp as T1Prime.
TEST_F(OutstandingPacketTest, SetTxTimestampStoresT1Prime) {
    ReceivedMessage message;
    message.setKernelTimestamp(1700000001, 250000000);
    packet.setTxTimestamp(message.get());
    EXPECT_EQ(kTransmitNtp, packet.getT1Prime());
    EXPECT_EQ(0u, packet.getT4());
}

// Without a timestamp item T1Prime becomes 0, also over an earlier value.
TEST_F(OutstandingPacketTest, SetTxTimestampWithoutItemGivesZero) {
    ReceivedMessage stamped;
    stamped.setKernelTimestamp(1700000001, 250000000);
    packet.setTxTimestamp(stamped.get());
    ReceivedMessage bare;
    packet.setTxTimestamp(bare.get());
    EXPECT_EQ(0u, packet.getT1Prime());
}

}  // namespace
