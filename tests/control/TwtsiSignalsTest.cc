#include "TwtsiSignals.h"

#include <cstddef>
#include <cstdint>

#include <gtest/gtest.h>

#include "TwtsiSignalsC.h"

namespace {

// The signal numbers are the fixed ones of the interface.
TEST(TwtsiSignalsTest, SignalNumbers) {
    EXPECT_EQ(0x01A11401u, TWTSI_CREATE_TWAMP_TEST_SESSION);
    EXPECT_EQ(0x01A11403u, TWTSI_DELETE_TWAMP_TEST_SESSION);
    EXPECT_EQ(0x01A11404u, TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_REQ);
    EXPECT_EQ(0x01A11405u, TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP);
}

// The create signal is 96 bytes with every field at its fixed offset.
TEST(TwtsiSignalsTest, CreateLayout) {
    EXPECT_EQ(96u, sizeof(twtsiCreateTwampTestSession));
    EXPECT_EQ(0x00u, offsetof(twtsiCreateTwampTestSession, sigNo));
    EXPECT_EQ(0x04u, offsetof(twtsiCreateTwampTestSession, dstIpAddress));
    EXPECT_EQ(46u, sizeof(twtsiCreateTwampTestSession{}.dstIpAddress));
    EXPECT_EQ(0x32u, offsetof(twtsiCreateTwampTestSession, dstUdpPort));
    EXPECT_EQ(0x34u, offsetof(twtsiCreateTwampTestSession, sessionId));
    EXPECT_EQ(0x44u, offsetof(twtsiCreateTwampTestSession, packetsPerSecond));
    EXPECT_EQ(0x48u, offsetof(twtsiCreateTwampTestSession, dscp));
    EXPECT_EQ(0x4Cu, offsetof(twtsiCreateTwampTestSession, spare1));
    EXPECT_EQ(0x50u, offsetof(twtsiCreateTwampTestSession, spare2));
    EXPECT_EQ(0x54u, offsetof(twtsiCreateTwampTestSession, packetSize));
    EXPECT_EQ(0x58u, offsetof(twtsiCreateTwampTestSession, startOffset));
    EXPECT_EQ(0x5Cu, offsetof(twtsiCreateTwampTestSession, spreadingBase));
}

// packetSize is the one signed field of the create signal.
TEST(TwtsiSignalsTest, CreatePacketSizeIsSigned) {
    twtsiCreateTwampTestSession create{};
    create.packetSize = -1;
    EXPECT_LT(create.packetSize, 0);
}

// The delete signal is 20 bytes: number and key.
TEST(TwtsiSignalsTest, DeleteLayout) {
    EXPECT_EQ(20u, sizeof(twtsiDeleteTwampTestSession));
    EXPECT_EQ(0x00u, offsetof(twtsiDeleteTwampTestSession, sigNo));
    EXPECT_EQ(0x04u, offsetof(twtsiDeleteTwampTestSession, sessionId));
    EXPECT_EQ(16u, sizeof(twtsiDeleteTwampTestSession{}.sessionId));
}

// The counters request holds the flag at 0x14, so at least 21 bytes are read.
TEST(TwtsiSignalsTest, RequestLayout) {
    EXPECT_EQ(0x00u, offsetof(twtsiGetTwampTestSessionPmCountersReq, sigNo));
    EXPECT_EQ(0x04u, offsetof(twtsiGetTwampTestSessionPmCountersReq, sessionId));
    EXPECT_EQ(0x14u, offsetof(twtsiGetTwampTestSessionPmCountersReq, completedIntervalOnly));
    EXPECT_EQ(1u, sizeof(twtsiGetTwampTestSessionPmCountersReq{}.completedIntervalOnly));
    EXPECT_GE(sizeof(twtsiGetTwampTestSessionPmCountersReq), 21u);
}

// The reply is exactly 4584 bytes, its 38 x 15 counters starting at 0x18.
TEST(TwtsiSignalsTest, ReplyLayout) {
    EXPECT_EQ(4584u, sizeof(twtsiGetTwampTestSessionPmCountersRsp));
    EXPECT_EQ(0x00u, offsetof(twtsiGetTwampTestSessionPmCountersRsp, sigNo));
    EXPECT_EQ(0x04u, offsetof(twtsiGetTwampTestSessionPmCountersRsp, sessionId));
    EXPECT_EQ(0x14u, offsetof(twtsiGetTwampTestSessionPmCountersRsp, padding));
    EXPECT_EQ(0x18u, offsetof(twtsiGetTwampTestSessionPmCountersRsp, counters));
    EXPECT_EQ(4560u, sizeof(twtsiGetTwampTestSessionPmCountersRsp{}.counters));
}

// Row r of the counters starts at 0x18 + r * 120, value b of a row at + b * 8.
TEST(TwtsiSignalsTest, ReplyCountersAreRowMajor) {
    twtsiGetTwampTestSessionPmCountersRsp reply{};
    const auto* base = reinterpret_cast<const uint8_t*>(&reply);
    const auto* value = reinterpret_cast<const uint8_t*>(&reply.counters[37][14]);
    EXPECT_EQ(0x18 + 37 * 120 + 14 * 8, value - base);
    EXPECT_EQ(38, TWTSI_PM_COUNTER_ROWS);
    EXPECT_EQ(15, TWTSI_PM_COUNTER_BINS);
    EXPECT_EQ(570, TWTSI_PM_COUNTER_VALUES);
    EXPECT_EQ(-2, TWTSI_PM_NOT_AVAILABLE);
}

// The union's first word is the signal number of whichever signal it holds.
TEST(TwtsiSignalsTest, UnionSharesTheSignalNumber) {
    union itc_msg message;
    message.twtsiDeleteTwampTestSession.sigNo = TWTSI_DELETE_TWAMP_TEST_SESSION;
    EXPECT_EQ(0x01A11403u, message.sigNo);
    EXPECT_EQ(4584u, sizeof(union itc_msg));
}

// A C compiler lays the signals out exactly as the C++ compiler does.
TEST(TwtsiSignalsTest, SameLayoutInC) {
    EXPECT_EQ(96u, twtsiCreateSizeInC());
    EXPECT_EQ(20u, twtsiDeleteSizeInC());
    EXPECT_EQ(0x14u, twtsiRequestCompletedOffsetInC());
    EXPECT_EQ(0x18u, twtsiReplyCountersOffsetInC());
    EXPECT_EQ(4584u, twtsiReplySizeInC());
    EXPECT_EQ(4584u, itcMsgSizeInC());
}

}  // namespace
