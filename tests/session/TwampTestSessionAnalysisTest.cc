// The PM analysis of matched packets: the 4 s limit, sequence accounting in
// both directions, delay and IPDV samples, DSCP and TTL ranges.
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KernelMessage.h"
#include "MeasureTestBase.h"
#include "OutstandingPacket.h"
#include "PmPeriodRecord.h"
#include "TraceRecorder.h"
#include "TwampTestSessionPeer.h"

namespace {

using twamp_test::KernelMessage;
using twamp_test::kMicrosecondsPerUnit;
using twamp_test::kNtpUnit;
using twamp_test::MeasureTestBase;
using twamp_test::TraceRecorder;
using Messages = std::vector<std::string>;
using SeqNos = std::vector<uint32_t>;

// Minute 9 of the test hour: record 0, bin 9, parity 1.
constexpr int kRecord = 0;
constexpr int kBin = 9;
constexpr int kParity = 1;

class TwampTestSessionAnalysisTest : public MeasureTestBase {
  protected:
    // Packet 0 goes out in minute 8, packets 1 to count in minute 9, so
    // minute 9 starts expecting sender number 1. Returns T1 by sequence number.
    std::vector<uint64_t> sendIntoMinuteNine(TwampTestSession& session, int count) {
        std::vector<uint64_t> t1;
        t1.push_back(sendAt(session, 8, 0));
        passMinuteEnd(session, 8);
        for (int seqNo = 1; seqNo <= count; ++seqNo) {
            t1.push_back(sendAt(session, 9, 0, seqNo));
        }
        TraceRecorder::reset();
        return t1;
    }

    int64_t counter(const TwampTestSession& session, PmCounter::Index index) const {
        return TwampTestSessionPeer::getRecord(session, kRecord).at(index, kBin);
    }

    // Analyses a packet whose transmit and receive timestamps lie roundTrip
    // apart, with no time spent in the reflector.
    void analyseWithRoundTrip(TwampTestSession& session, uint64_t t1, uint64_t roundTrip) {
        const uint64_t t1Prime = t1 + kNtpUnit;
        deliverTxTimestamp(session, 1, t1, t1Prime);
        deliverReply(session, 1, t1, 1, t1Prime, t1Prime, t1Prime + roundTrip);
    }

    static std::string hex(uint64_t value) {
        char text[32];
        std::snprintf(text, sizeof(text), "%lx", static_cast<unsigned long>(value));
        return text;
    }
};

// A round trip of exactly 4 s is analysed.
TEST_F(TwampTestSessionAnalysisTest, RoundTripOfFourSecondsAnalysed) {
    auto session = startSession();
    const auto t1 = sendIntoMinuteNine(*session, 1);
    analyseWithRoundTrip(*session, t1[1], 0x400000000ULL);
    EXPECT_EQ(1, counter(*session, PmCounter::receivedPkts));
    EXPECT_EQ(4000000u, TwampTestSessionPeer::getDelayRt(*session, kParity)->getMax());
    EXPECT_EQ(Messages{}, labTraces());
}

// A matched packet with given timestamps. Kernel timestamps come as
// nanoseconds, which cannot make every NTP difference (one nanosecond is more
// than four NTP units), so the limit's last unit is reached through the
// packet's accessors.
class FixedPacket : public OutstandingPacket {
  public:
    FixedPacket(uint32_t senderSeqNo, uint64_t t1, uint64_t t1Prime, uint64_t t4)
        : OutstandingPacket(senderSeqNo, t1), t1Prime(t1Prime), t4(t4) {}
    uint64_t getT1Prime() const override { return t1Prime; }
    uint64_t getT2() const override { return t1Prime; }
    uint64_t getT3() const override { return t1Prime; }
    uint64_t getT4() const override { return t4; }
    uint32_t getReplyCount() const override { return 1; }

  private:
    uint64_t t1Prime;
    uint64_t t4;
};

// One NTP unit more than 4 s is discarded and traced with the packet's data.
TEST_F(TwampTestSessionAnalysisTest, RoundTripAboveFourSecondsDiscarded) {
    auto session = startSession();
    const auto t1 = sendIntoMinuteNine(*session, 1);
    const uint64_t t1Prime = t1[1] + kNtpUnit;
    FixedPacket packet(1, t1[1], t1Prime, t1Prime + 0x400000001ULL);
    session->analyzePM(packet, kRecord, kBin, kParity);
    EXPECT_EQ(0, counter(*session, PmCounter::receivedPkts));
    EXPECT_EQ(0u, TwampTestSessionPeer::getDelayRt(*session, kParity)->getCount());
    EXPECT_EQ(Messages{"analyzePM(): Packet not received within the time limit (4s) and thus "
                       "discarded. Round-trip sec part = 4. StartOffset: 0. Packet data: "
                       "SenderSequenceNo: 1, ResponderSequenceNo: 0, T1: " +
                       hex(t1[1]) + ", T1Prime: " + hex(t1Prime) + ", T2: " + hex(t1Prime) +
                       ", T3: " + hex(t1Prime) + ", T4: " + hex(t1Prime + 0x400000001ULL)},
              labTraces());
}

// The same packet one NTP unit sooner is analysed.
TEST_F(TwampTestSessionAnalysisTest, FixedRoundTripOfFourSecondsAnalysed) {
    auto session = startSession();
    const auto t1 = sendIntoMinuteNine(*session, 1);
    const uint64_t t1Prime = t1[1] + kNtpUnit;
    FixedPacket packet(1, t1[1], t1Prime, t1Prime + 0x400000000ULL);
    session->analyzePM(packet, kRecord, kBin, kParity);
    EXPECT_EQ(1, counter(*session, PmCounter::receivedPkts));
    EXPECT_EQ(Messages{}, labTraces());
}

// A reply received before its packet was transmitted wraps and is discarded.
TEST_F(TwampTestSessionAnalysisTest, ReplyBeforeTransmitDiscarded) {
    auto session = startSession();
    const auto t1 = sendIntoMinuteNine(*session, 1);
    deliverTxTimestamp(*session, 1, t1[1], t1[1] + 2 * kNtpUnit);
    deliverReply(*session, 1, t1[1], 1, t1[1], t1[1], t1[1] + kNtpUnit);
    EXPECT_EQ(0, counter(*session, PmCounter::receivedPkts));
}

// Sender numbers 1, 2, 4 answered as 1, 2, 3: one packet lost on the way out.
TEST_F(TwampTestSessionAnalysisTest, ForwardGapIsForwardLoss) {
    auto session = startSession();
    const auto t1 = sendIntoMinuteNine(*session, 4);
    answer(*session, 1, t1[1], 1, 2, 2);
    answer(*session, 2, t1[2], 2, 2, 2);
    answer(*session, 4, t1[4], 3, 2, 2);
    EXPECT_EQ(1, counter(*session, PmCounter::lostPktsFwd));
    EXPECT_EQ(0, counter(*session, PmCounter::lostPktsRev));
    EXPECT_EQ(SeqNos{3}, TwampTestSessionPeer::getMissingSenderSeqNos(*session, kParity));
    EXPECT_EQ(SeqNos{}, TwampTestSessionPeer::getMissingResponderSeqNos(*session, kParity));
    EXPECT_EQ(3, counter(*session, PmCounter::receivedPkts));
}

// The missing packet arriving later within the minute becomes one late packet.
TEST_F(TwampTestSessionAnalysisTest, MissingPacketArrivingLaterIsLate) {
    auto session = startSession();
    const auto t1 = sendIntoMinuteNine(*session, 4);
    answer(*session, 1, t1[1], 1, 2, 2);
    answer(*session, 2, t1[2], 2, 2, 2);
    answer(*session, 4, t1[4], 3, 2, 2);
    answer(*session, 3, t1[3], 4, 2, 2);
    EXPECT_EQ(0, counter(*session, PmCounter::lostPktsFwd));
    EXPECT_EQ(1, counter(*session, PmCounter::latePktsFwd));
    EXPECT_EQ(0, counter(*session, PmCounter::latePktsRev));
    EXPECT_EQ(0, counter(*session, PmCounter::duplicatePktsFwd));
    EXPECT_EQ(SeqNos{}, TwampTestSessionPeer::getMissingSenderSeqNos(*session, kParity));
}

// Sender numbers 1, 2, 4 answered as 1, 2, 4: one reply lost on the way back,
// counted once, as reverse loss.
TEST_F(TwampTestSessionAnalysisTest, ReflectorGapIsReverseLoss) {
    auto session = startSession();
    const auto t1 = sendIntoMinuteNine(*session, 4);
    answer(*session, 1, t1[1], 1, 2, 2);
    answer(*session, 2, t1[2], 2, 2, 2);
    answer(*session, 4, t1[4], 4, 2, 2);
    EXPECT_EQ(0, counter(*session, PmCounter::lostPktsFwd));
    EXPECT_EQ(1, counter(*session, PmCounter::lostPktsRev));
    EXPECT_EQ(SeqNos{3}, TwampTestSessionPeer::getMissingResponderSeqNos(*session, kParity));
    EXPECT_EQ(SeqNos{}, TwampTestSessionPeer::getMissingSenderSeqNos(*session, kParity));
}

// A reordered reply: the reverse direction counts it late, and the shared
// flag keeps the forward direction from counting it again.
TEST_F(TwampTestSessionAnalysisTest, ReorderedReplyCountedLateOnce) {
    auto session = startSession();
    const auto t1 = sendIntoMinuteNine(*session, 3);
    answer(*session, 1, t1[1], 1, 2, 2);
    answer(*session, 3, t1[3], 3, 2, 2);
    answer(*session, 2, t1[2], 2, 2, 2);
    EXPECT_EQ(0, counter(*session, PmCounter::lostPktsRev));
    EXPECT_EQ(1, counter(*session, PmCounter::latePktsRev));
    EXPECT_EQ(0, counter(*session, PmCounter::latePktsFwd));
    EXPECT_EQ(0, counter(*session, PmCounter::lostPktsFwd));
    EXPECT_EQ(0, counter(*session, PmCounter::duplicatePktsFwd));
}

// A duplicate reply moves only receivedPkts and the sequence counters.
TEST_F(TwampTestSessionAnalysisTest, DuplicateMovesOnlyCountersOfSequence) {
    auto session = startSession();
    const auto t1 = sendIntoMinuteNine(*session, 1);
    answer(*session, 1, t1[1], 1, 2, 2);
    deliverReply(*session, 1, t1[1], 1, t1[1] + 9 * kNtpUnit, t1[1] + 10 * kNtpUnit,
                 t1[1] + 20 * kNtpUnit, 200);
    EXPECT_EQ(2, counter(*session, PmCounter::receivedPkts));
    EXPECT_EQ(1, counter(*session, PmCounter::duplicatePktsRev));
    EXPECT_EQ(0, counter(*session, PmCounter::duplicatePktsFwd));
    EXPECT_EQ(1u, TwampTestSessionPeer::getDelayRt(*session, kParity)->getCount());
    EXPECT_EQ(4 * kMicrosecondsPerUnit,
              static_cast<int64_t>(TwampTestSessionPeer::getDelayRt(*session, kParity)->getMax()));
    EXPECT_EQ((std::vector<uint64_t>{46, 46, 1, 250, 250, 1, 61, 61, 1}),
              TwampTestSessionPeer::getHeaderTrackers(*session, kParity));
}

// The round-trip delay leaves out the time spent in the reflector.
TEST_F(TwampTestSessionAnalysisTest, RoundTripExcludesReflectorTime) {
    auto session = startSession();
    const auto t1 = sendIntoMinuteNine(*session, 1);
    const uint64_t t1Prime = t1[1] + kNtpUnit;
    deliverTxTimestamp(*session, 1, t1[1], t1Prime);
    // 2 units out, 5 units in the reflector, 3 units back.
    deliverReply(*session, 1, t1[1], 1, t1Prime + 2 * kNtpUnit, t1Prime + 7 * kNtpUnit,
                 t1Prime + 10 * kNtpUnit);
    EXPECT_EQ(5 * kMicrosecondsPerUnit,
              static_cast<int64_t>(TwampTestSessionPeer::getDelayRt(*session, kParity)->getMin()));
}

// IPDV: an increase of forward delay is a sample; a decrease of reverse
// delay is not; a packet whose predecessor was lost gives none.
TEST_F(TwampTestSessionAnalysisTest, IpdvRecordsIncreasesOfConsecutivePackets) {
    auto session = startSession();
    const auto t1 = sendIntoMinuteNine(*session, 4);
    answer(*session, 1, t1[1], 1, 2, 2);
    answer(*session, 2, t1[2], 2, 3, 1);
    answer(*session, 4, t1[4], 3, 9, 9);
    const PmState* forward = TwampTestSessionPeer::getIpdvFwd(*session, kParity);
    const PmState* reverse = TwampTestSessionPeer::getIpdvRev(*session, kParity);
    EXPECT_EQ(1u, forward->getCount());
    EXPECT_EQ(static_cast<uint64_t>(kMicrosecondsPerUnit), forward->getMax());
    EXPECT_EQ(0u, reverse->getCount());
    // Packet 1's entry went with packet 2; packets 2 and 4 wait for successors.
    EXPECT_EQ(2u, TwampTestSessionPeer::getIpdvHistorySize(*session, kParity));
}

// An unchanged delay is an IPDV sample of 0.
TEST_F(TwampTestSessionAnalysisTest, UnchangedDelayIsZeroIpdv) {
    auto session = startSession();
    const auto t1 = sendIntoMinuteNine(*session, 2);
    answer(*session, 1, t1[1], 1, 2, 2);
    answer(*session, 2, t1[2], 2, 2, 2);
    EXPECT_EQ(1u, TwampTestSessionPeer::getIpdvFwd(*session, kParity)->getCount());
    EXPECT_EQ(1u, TwampTestSessionPeer::getIpdvRev(*session, kParity)->getCount());
    EXPECT_EQ(0u, TwampTestSessionPeer::getIpdvRev(*session, kParity)->getMax());
}

// Without a transmit timestamp a packet counts in the sequence counters and
// the DSCP and TTL ranges, but gives no delay sample.
TEST_F(TwampTestSessionAnalysisTest, NoTransmitTimestampNoDelaySample) {
    auto session = startSession();
    const auto t1 = sendIntoMinuteNine(*session, 1);
    OutstandingPacket packet(1, t1[1]);
    KernelMessage reply(KernelMessage::kPacketLength);
    KernelMessage::fillReply(reply, 1, t1[1], 1, t1[1], t1[1], 249);
    packet.setResponse(reply.get(), helper);
    session->analyzePM(packet, kRecord, kBin, kParity);
    EXPECT_EQ(1, counter(*session, PmCounter::receivedPkts));
    EXPECT_EQ(2u, TwampTestSessionPeer::getExpectedResponderSeqNo(*session, kParity));
    EXPECT_EQ(2u, TwampTestSessionPeer::getLastSenderSeqNo(*session, kParity));
    EXPECT_EQ((std::vector<uint64_t>{46, 46, 1, 249, 249, 1, 61, 61, 1}),
              TwampTestSessionPeer::getHeaderTrackers(*session, kParity));
    EXPECT_EQ(0u, TwampTestSessionPeer::getDelayRt(*session, kParity)->getCount());
}

// The DSCP and TTL ranges widen with every first reply.
TEST_F(TwampTestSessionAnalysisTest, HeaderRangesWiden) {
    auto session = startSession();
    const auto t1 = sendIntoMinuteNine(*session, 3);
    answer(*session, 1, t1[1], 1, 2, 2, 252);
    answer(*session, 2, t1[2], 2, 2, 2, 250);
    answer(*session, 3, t1[3], 3, 2, 2, 251);
    EXPECT_EQ((std::vector<uint64_t>{46, 46, 3, 250, 252, 3, 61, 61, 3}),
              TwampTestSessionPeer::getHeaderTrackers(*session, kParity));
}

// Only the low 8 bits of the reply's DSCP are kept.
TEST_F(TwampTestSessionAnalysisTest, DscpKeepsLowByte) {
    ON_CALL(helper, getDscp(::testing::_, ::testing::_)).WillByDefault(::testing::Return(0x1FFu));
    auto session = startSession();
    const auto t1 = sendIntoMinuteNine(*session, 1);
    answer(*session, 1, t1[1], 1, 2, 2);
    EXPECT_EQ(0xFFu, TwampTestSessionPeer::getHeaderTrackers(*session, kParity).at(0));
}

// The jump limit is four seconds of packets kept in 8 bits.
TEST_F(TwampTestSessionAnalysisTest, SequenceJumpLimitIsEightBits) {
    EXPECT_EQ(40u, TwampTestSessionPeer::getSequenceJumpLimit(*startSession(10)));
    EXPECT_EQ(144u, TwampTestSessionPeer::getSequenceJumpLimit(*startSession(100)));
    EXPECT_EQ(0u, TwampTestSessionPeer::getSequenceJumpLimit(*startSession(64)));
}

// The reflector's number going back while ours jumped by more than the limit
// is a reflector restart: the error flag is set and both numbers resynchronised.
TEST_F(TwampTestSessionAnalysisTest, ReflectorRestartSetsErrorFlag) {
    auto session = startSession(10);
    const auto t1 = sendIntoMinuteNine(*session, 45);
    answer(*session, 1, t1[1], 1000, 2, 2);
    answer(*session, 43, t1[43], 0, 2, 2);
    EXPECT_TRUE(TwampTestSessionPeer::getSequenceErrorFlag(*session));
    EXPECT_EQ(44u, TwampTestSessionPeer::getLastSenderSeqNo(*session, kParity));
    EXPECT_EQ(1u, TwampTestSessionPeer::getExpectedResponderSeqNo(*session, kParity));
    EXPECT_EQ(2, counter(*session, PmCounter::receivedPkts));
    EXPECT_EQ(0, counter(*session, PmCounter::lostPktsFwd));
    EXPECT_EQ(0, counter(*session, PmCounter::duplicatePktsRev));
    EXPECT_EQ(1u, TwampTestSessionPeer::getDelayRt(*session, kParity)->getCount());
}

// With the flag set a reply only counts as received and resynchronises.
TEST_F(TwampTestSessionAnalysisTest, ErrorFlagStopsAccounting) {
    auto session = startSession(10);
    const auto t1 = sendIntoMinuteNine(*session, 45);
    answer(*session, 1, t1[1], 1000, 2, 2);
    answer(*session, 43, t1[43], 0, 2, 2);
    answer(*session, 45, t1[45], 7, 2, 2);
    EXPECT_EQ(3, counter(*session, PmCounter::receivedPkts));
    EXPECT_EQ(0, counter(*session, PmCounter::lostPktsFwd));
    EXPECT_EQ(0, counter(*session, PmCounter::lostPktsRev));
    EXPECT_EQ(46u, TwampTestSessionPeer::getLastSenderSeqNo(*session, kParity));
    EXPECT_EQ(8u, TwampTestSessionPeer::getExpectedResponderSeqNo(*session, kParity));
    EXPECT_EQ(1u, TwampTestSessionPeer::getDelayRt(*session, kParity)->getCount());
}

// A jump of exactly the limit is no restart, but the reflector's new
// numbering is followed: its replies are neither late nor duplicates. (The
// number goes back by more than overtaking on the way out can explain.)
TEST_F(TwampTestSessionAnalysisTest, JumpOfExactlyTheLimitFollowsTheNewNumbering) {
    auto session = startSession(10);
    const auto t1 = sendIntoMinuteNine(*session, 45);
    answer(*session, 1, t1[1], 100, 2, 2);
    answer(*session, 42, t1[42], 0, 2, 2);
    answer(*session, 43, t1[43], 1, 2, 2);
    EXPECT_FALSE(TwampTestSessionPeer::getSequenceErrorFlag(*session));
    EXPECT_EQ(0, counter(*session, PmCounter::duplicatePktsRev));
    EXPECT_EQ(0, counter(*session, PmCounter::latePktsRev));
    EXPECT_EQ(0, counter(*session, PmCounter::lostPktsRev));
    EXPECT_EQ(40, counter(*session, PmCounter::lostPktsFwd));
    EXPECT_EQ(2u, TwampTestSessionPeer::getExpectedResponderSeqNo(*session, kParity));
}

// A reflector that restarts after a short pause and numbers from 0 again
// is followed without counting its new numbers as duplicates.
TEST_F(TwampTestSessionAnalysisTest, ShortRestartIsNoDuplicate) {
    auto session = startSession(10);
    const auto t1 = sendIntoMinuteNine(*session, 45);
    for (uint32_t seqNo = 1; seqNo <= 20; ++seqNo) {
        answer(*session, seqNo, t1[seqNo], seqNo + 100, 2, 2);
    }
    for (uint32_t seqNo = 31; seqNo <= 40; ++seqNo) {
        answer(*session, seqNo, t1[seqNo], seqNo - 31, 2, 2);
    }
    EXPECT_FALSE(TwampTestSessionPeer::getSequenceErrorFlag(*session));
    EXPECT_EQ(30, counter(*session, PmCounter::receivedPkts));
    EXPECT_EQ(0, counter(*session, PmCounter::duplicatePktsRev));
    EXPECT_EQ(0, counter(*session, PmCounter::duplicatePktsFwd));
    EXPECT_EQ(10, counter(*session, PmCounter::lostPktsFwd));
    EXPECT_EQ(0, counter(*session, PmCounter::lostPktsRev));
}

// A minute start clears the error flag and the minute's sequence state.
TEST_F(TwampTestSessionAnalysisTest, MinuteStartClearsSequenceState) {
    auto session = startSession(10);
    const auto t1 = sendIntoMinuteNine(*session, 45);
    answer(*session, 1, t1[1], 1000, 2, 2);
    answer(*session, 43, t1[43], 0, 2, 2);
    sendAt(*session, 10, 0);
    sendAt(*session, 11, 0);
    EXPECT_FALSE(TwampTestSessionPeer::getSequenceErrorFlag(*session));
    EXPECT_EQ(0u, TwampTestSessionPeer::getExpectedResponderSeqNo(*session, kParity));
    EXPECT_EQ(47u, TwampTestSessionPeer::getLastSenderSeqNo(*session, kParity));
    EXPECT_EQ(0u, TwampTestSessionPeer::getIpdvHistorySize(*session, kParity));
}

// A reflector jumping its number far ahead is one reverse loss period, not
// billions of listed numbers.
TEST_F(TwampTestSessionAnalysisTest, HugeReflectorJumpIsCountedWithoutListingEachNumber) {
    auto session = startSession();
    const auto t1 = sendIntoMinuteNine(*session, 2);
    answer(*session, 1, t1[1], 1, 2, 2);
    answer(*session, 2, t1[2], 0x7FFFFFF0u, 2, 2);
    EXPECT_EQ(0x7FFFFFEE, counter(*session, PmCounter::lostPktsRev));
    EXPECT_EQ(0, counter(*session, PmCounter::lostPktsFwd));
}

}  // namespace
