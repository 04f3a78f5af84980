// Replies and transmit timestamps matched to their outstanding packets.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KernelMessage.h"
#include "MeasureTestBase.h"
#include "PmPeriodRecord.h"
#include "TraceRecorder.h"
#include "TwampTestSessionPeer.h"

namespace {

using twamp_test::KernelMessage;
using twamp_test::kNtpUnit;
using twamp_test::MeasureTestBase;
using twamp_test::TraceRecorder;
using Messages = std::vector<std::string>;

class TwampTestSessionMatchTest : public MeasureTestBase {};

// Transmit timestamp first, then the reply: one analysis, no LAB trace.
TEST_F(TwampTestSessionMatchTest, TimestampFirstThenReply) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    TraceRecorder::reset();
    deliverTxTimestamp(*session, 0, t1, t1 + kNtpUnit);
    EXPECT_TRUE(session->calls.empty());
    deliverReply(*session, 0, t1, 0, t1 + 2 * kNtpUnit, t1 + 3 * kNtpUnit, t1 + 5 * kNtpUnit);
    ASSERT_EQ(1u, session->calls.size());
    EXPECT_EQ(0u, session->calls[0].senderSeqNo);
    EXPECT_EQ(1u, session->calls[0].replyCount);
    EXPECT_EQ(0, session->calls[0].recordIndex);
    EXPECT_EQ(8, session->calls[0].bin);
    EXPECT_EQ(0, session->calls[0].parity);
    EXPECT_EQ(Messages{}, labTraces());
    EXPECT_EQ(1, TwampTestSessionPeer::getRecord(*session, 0).at(PmCounter::receivedPkts, 8));
}

// The reply first: traced as waiting, then analysed when the timestamp comes.
TEST_F(TwampTestSessionMatchTest, ReplyFirstThenLateTimestamp) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    TraceRecorder::reset();
    deliverReply(*session, 0, t1, 0, t1 + 2 * kNtpUnit, t1 + 3 * kNtpUnit, t1 + 5 * kNtpUnit);
    EXPECT_TRUE(session->calls.empty());
    deliverTxTimestamp(*session, 0, t1, t1 + kNtpUnit);
    EXPECT_EQ((Messages{"receiveMessage(): Received response packet, but TX timestamp unknown, "
                        "seqNum: 0 ",
                        "receiveErrQueueMessage(): Got late TX Timestamp, seqNum: 0 "}),
              labTraces());
    ASSERT_EQ(1u, session->calls.size());
    EXPECT_EQ(1, TwampTestSessionPeer::getRecord(*session, 0).at(PmCounter::receivedPkts, 8));
    EXPECT_EQ(1u, TwampTestSessionPeer::getDelayRt(*session, 0)->getCount());
}

// Two replies after the timestamp: analysed twice, the second time as reply 2.
TEST_F(TwampTestSessionMatchTest, TwoRepliesAnalysedTwice) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    answer(*session, 0, t1, 0, 2, 2);
    deliverReply(*session, 0, t1, 0, t1 + 3 * kNtpUnit, t1 + 4 * kNtpUnit, t1 + 6 * kNtpUnit);
    ASSERT_EQ(2u, session->calls.size());
    EXPECT_EQ(1u, session->calls[0].replyCount);
    EXPECT_EQ(2u, session->calls[1].replyCount);
}

// A reply to packet 5 of minute 8 arriving in minute 9 counts in minute 8's slot.
TEST_F(TwampTestSessionMatchTest, LateReplyCountsInItsSendingMinute) {
    auto session = startSession();
    uint64_t t1[6];
    for (int seqNo = 0; seqNo < 6; ++seqNo) {
        t1[seqNo] = sendAt(*session, 8, 0, seqNo);
    }
    passMinuteEnd(*session, 8);
    sendAt(*session, 9, 0);
    answer(*session, 5, t1[5], 0, 2, 2);
    ASSERT_EQ(1u, session->calls.size());
    EXPECT_EQ(0, session->calls[0].parity);
    EXPECT_EQ(8, session->calls[0].bin);
    EXPECT_EQ(0, session->calls[0].recordIndex);
    EXPECT_EQ(1, TwampTestSessionPeer::getRecord(*session, 0).at(PmCounter::receivedPkts, 8));
    EXPECT_EQ(0, TwampTestSessionPeer::getRecord(*session, 0).at(PmCounter::receivedPkts, 9));
}

// A reply whose echoed T1 was moved into the other minute parity is not found.
TEST_F(TwampTestSessionMatchTest, AlteredSenderTimestampNotFound) {
    auto session = startSession();
    uint64_t t1 = 0;
    for (int seqNo = 0; seqNo < 6; ++seqNo) {
        t1 = sendAt(*session, 8, 0, seqNo);
    }
    TraceRecorder::reset();
    deliverTxTimestamp(*session, 5, t1, t1 + kNtpUnit);
    const uint64_t movedT1 = t1 + (uint64_t{60} << 32);
    deliverReply(*session, 5, movedT1, 0, t1 + 2 * kNtpUnit, t1 + 3 * kNtpUnit, t1 + 5 * kNtpUnit);
    EXPECT_TRUE(session->calls.empty());
    EXPECT_EQ(Messages{"receiveMessage(): No outstanding packet found for seqNum: 5 "},
              labTraces());
    EXPECT_EQ(0u, TwampTestSessionPeer::getOutstandingPacket(*session, 0, 5)->getReplyCount());
}

// A transmit timestamp of a packet that was never sent is traced and dropped.
TEST_F(TwampTestSessionMatchTest, UnknownTimestampTraced) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    TraceRecorder::reset();
    deliverTxTimestamp(*session, 9, t1, t1 + kNtpUnit);
    EXPECT_EQ(Messages{"receiveErrQueueMessage(): No outstanding packet found for seqNum: 9 "},
              labTraces());
    EXPECT_EQ(0u, TwampTestSessionPeer::getOutstandingPacket(*session, 0, 0)->getT1Prime());
}

// The timestamp is stored as T1Prime of the packet its looped-back frame names.
TEST_F(TwampTestSessionMatchTest, TimestampStoredAsT1Prime) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    deliverTxTimestamp(*session, 0, t1, t1 + kNtpUnit);
    EXPECT_EQ(t1 + kNtpUnit,
              TwampTestSessionPeer::getOutstandingPacket(*session, 0, 0)->getT1Prime());
    EXPECT_EQ(t1, TwampTestSessionPeer::getOutstandingPacket(*session, 0, 0)->getT1());
}

// A reply shorter than the reflector layout is not read at all.
TEST_F(TwampTestSessionMatchTest, ShortReplyDiscarded) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    deliverTxTimestamp(*session, 0, t1, t1 + kNtpUnit);
    TraceRecorder::reset();
    KernelMessage reply(40);
    session->receiveMessage(reply.get());
    EXPECT_TRUE(session->calls.empty());
    EXPECT_EQ(Messages{"receiveMessage(): Response packet of 40 bytes is too short and thus "
                       "discarded"},
              labTraces());
}

// A looped-back frame too short to hold the packet's sequence number and
// timestamp is not read.
TEST_F(TwampTestSessionMatchTest, ShortLoopedFrameDiscarded) {
    auto session = startSession();
    sendAt(*session, 8, 0);
    TraceRecorder::reset();
    // An IPv4 header and a UDP header, then two bytes.
    KernelMessage frame(30);
    static_cast<uint8_t*>(frame.get()->msg_iov[0].iov_base)[0] = 0x45;
    session->receiveErrQueueMessage(frame.get(), frame.length());
    EXPECT_EQ(Messages{"receiveErrQueueMessage(): Looped-back frame of 30 bytes is too short and "
                       "thus discarded"},
              labTraces());
}

// A late transmit timestamp without a timestamp item (T1Prime 0) is analysed
// and discarded by the 4 s limit.
TEST_F(TwampTestSessionMatchTest, LateTimestampWithoutItemDiscarded) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    deliverReply(*session, 0, t1, 0, t1 + 2 * kNtpUnit, t1 + 3 * kNtpUnit, t1 + 5 * kNtpUnit);
    deliverTxTimestamp(*session, 0, t1, 0);
    EXPECT_EQ(1u, session->calls.size());
    EXPECT_EQ(0, TwampTestSessionPeer::getRecord(*session, 0).at(PmCounter::receivedPkts, 8));
}

// A reply without a receive timestamp after the transmit timestamp is
// analysed and discarded: 0 - T1Prime wraps above 4 s.
TEST_F(TwampTestSessionMatchTest, ReplyWithoutReceiveTimestampDiscarded) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    deliverTxTimestamp(*session, 0, t1, t1 + kNtpUnit);
    deliverReply(*session, 0, t1, 0, t1 + 2 * kNtpUnit, t1 + 3 * kNtpUnit, 0);
    EXPECT_EQ(1u, session->calls.size());
    EXPECT_EQ(0, TwampTestSessionPeer::getRecord(*session, 0).at(PmCounter::receivedPkts, 8));
}

// A reply without a receive timestamp before the transmit timestamp looks
// unanswered when the timestamp comes, is never analysed and so counts as
// no reply of its packet.
TEST_F(TwampTestSessionMatchTest, ReplyWithoutReceiveTimestampFirstNeverAnalysed) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    deliverReply(*session, 0, t1, 0, t1 + 2 * kNtpUnit, t1 + 3 * kNtpUnit, 0);
    deliverTxTimestamp(*session, 0, t1, t1 + kNtpUnit);
    EXPECT_TRUE(session->calls.empty());
    EXPECT_EQ(0u, TwampTestSessionPeer::getOutstandingPacket(*session, 0, 0)->getReplyCount());
}

}  // namespace
