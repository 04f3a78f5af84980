// The oracle derives what a minute must report from what happened to its
// packets, and tells clean minutes from those it cannot compare.
#include <cstdint>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "MinuteOracle.h"
#include "NtpTimestamp.h"
#include "PmPeriodRecord.h"
#include "SimulationTruth.h"

namespace {

// 1/64 s as an NTP difference: exactly 15625 microseconds.
constexpr uint64_t kUnit = uint64_t{1} << 26;
// Some time in 2023 as NTP, and the minute it falls in.
constexpr uint64_t kStart = uint64_t{3908988800} << 32;
const MinuteKey kMinute(0, 100);

class MinuteOracleTest : public ::testing::Test {
  protected:
    MinuteOracleTest() : oracle(10, false) { oracle.minuteBegins(kMinute, 0); }

    // Sends packets 0 .. count - 1, 1/8 s apart; their transmit timestamps
    // come at once.
    void send(uint32_t count) {
        for (uint32_t seqNo = 0; seqNo < count; ++seqNo) {
            oracle.packetSent(seqNo, t1Of(seqNo), t1Of(seqNo) + kUnit, kMinute);
            oracle.timestampDelivered(seqNo);
        }
    }
    // Packet seqNo reaches the reflector, which numbers it responderSeqNo.
    void reflect(uint32_t seqNo, uint32_t responderSeqNo) {
        oracle.packetReachedReflector(seqNo, responderSeqNo, 0);
    }
    // One copy of the reply to seqNo comes back: forwardUnits out, one unit
    // in the reflector, reverseUnits back.
    void reply(uint32_t seqNo, uint64_t forwardUnits, uint64_t reverseUnits) {
        const uint64_t t2 = t1Of(seqNo) + kUnit + forwardUnits * kUnit;
        oracle.replyOnItsWay(seqNo);
        oracle.replyDelivered(seqNo, t2, t2 + kUnit, t2 + kUnit + reverseUnits * kUnit, 64, 60, 46);
    }
    static uint64_t t1Of(uint32_t seqNo) { return kStart + seqNo * 8 * kUnit; }

    std::map<PmCounter::Index, int64_t> expected(const MinuteVerdict& verdict) const {
        std::map<PmCounter::Index, int64_t> values;
        for (const ExpectedValue& value : oracle.expect(kMinute, verdict).values) {
            values[value.counter] = value.value;
        }
        return values;
    }

    MinuteOracle oracle;
};

// A reply lost on the way back between two answered packets is reverse
// loss, and every count, delay and loss period follows from the truth.
TEST_F(MinuteOracleTest, ReverseLossBetweenAnsweredPackets) {
    send(3);
    for (uint32_t seqNo = 0; seqNo < 3; ++seqNo) {
        reflect(seqNo, 10 + seqNo);
    }
    reply(0, 2, 2);
    reply(2, 3, 2);
    const MinuteVerdict verdict = oracle.judge(kMinute);
    ASSERT_TRUE(verdict.clean);
    ASSERT_TRUE(verdict.inOrder);
    ASSERT_TRUE(verdict.periodsComparable);
    auto values = expected(verdict);
    EXPECT_EQ(3, values[PmCounter::sentPkts]);
    EXPECT_EQ(2, values[PmCounter::receivedPkts]);
    EXPECT_EQ(0, values[PmCounter::lostPktsFwd]);
    EXPECT_EQ(1, values[PmCounter::lostPktsRev]);
    EXPECT_EQ(1, values[PmCounter::lossPeriodsRev]);
    EXPECT_EQ(100, values[PmCounter::lossPeriodRevMax]);
    EXPECT_EQ(0, values[PmCounter::lossPeriodsFwd]);
    EXPECT_EQ(62500, values[PmCounter::delayRtMin]);
    EXPECT_EQ(78125, values[PmCounter::delayRtMax]);
    EXPECT_EQ(70312, values[PmCounter::delayRtAvg]);
    EXPECT_EQ(1, oracle.expect(kMinute, verdict).totalLost);
}

// Packets lost before the first and after the last answered one count as
// forward loss, whichever way they were lost; IPDV needs neighbours.
TEST_F(MinuteOracleTest, LeadingAndTrailingLossIsForward) {
    send(4);
    reflect(0, 10);
    reflect(1, 11);
    reflect(2, 12);
    oracle.packetLostOutbound(3);
    reply(1, 2, 2);
    reply(2, 2, 3);
    const MinuteVerdict verdict = oracle.judge(kMinute);
    ASSERT_TRUE(verdict.periodsComparable);
    auto values = expected(verdict);
    EXPECT_EQ(2, values[PmCounter::lostPktsFwd]);
    EXPECT_EQ(0, values[PmCounter::lostPktsRev]);
    EXPECT_EQ(2, values[PmCounter::lossPeriodsFwd]);
    EXPECT_EQ(0, values[PmCounter::ipdvFwdMax]);
    EXPECT_EQ(15625, values[PmCounter::ipdvRevMax]);
    EXPECT_EQ(15625, values[PmCounter::ipdvRevP95]);
}

// A reply later than 4 s counts nowhere: its packet is lost.
TEST_F(MinuteOracleTest, ReplyLaterThanFourSecondsCountsNowhere) {
    send(1);
    reflect(0, 10);
    reply(0, 2, 5 * 64);
    const MinuteVerdict verdict = oracle.judge(kMinute);
    ASSERT_TRUE(verdict.clean);
    auto values = expected(verdict);
    EXPECT_EQ(0, values[PmCounter::receivedPkts]);
    EXPECT_EQ(0, values[PmCounter::duplicatePktsRev]);
    EXPECT_EQ(1, oracle.expect(kMinute, verdict).totalLost);
}

// A minute whose first analysed reply overtook an earlier one is compared,
// though not in order.
TEST_F(MinuteOracleTest, FirstReplyOvertakingIsCompared) {
    send(2);
    reflect(0, 10);
    reflect(1, 11);
    reply(1, 2, 2);
    reply(0, 2, 9);
    const MinuteVerdict verdict = oracle.judge(kMinute);
    EXPECT_TRUE(verdict.clean);
    EXPECT_FALSE(verdict.inOrder);
    EXPECT_EQ(2, expected(verdict)[PmCounter::receivedPkts]);
}

// An increase of a one-way delay beyond 4 s (the reflector's clock was set)
// invalidates the minute whole.
TEST_F(MinuteOracleTest, IpdvBeyondFourSecondsInvalidates) {
    send(2);
    reflect(0, 10);
    reflect(1, 11);
    reply(0, 2, 2);
    // The reflector's clock jumped 5 s ahead before packet 1 reached it.
    const uint64_t t1Prime = t1Of(1) + kUnit;
    const uint64_t t2 = t1Prime + 2 * kUnit + (uint64_t{5} << 32);
    oracle.replyOnItsWay(1);
    oracle.replyDelivered(1, t2, t2 + kUnit, t1Prime + 5 * kUnit, 64, 60, 46);
    const MinuteVerdict verdict = oracle.judge(kMinute);
    ASSERT_TRUE(verdict.clean);
    const MinuteExpectation expectation = oracle.expect(kMinute, verdict);
    EXPECT_TRUE(expectation.invalidated);
    auto values = expected(verdict);
    EXPECT_EQ(PmPeriodRecord::kNotAvailable, values[PmCounter::sentPkts]);
    EXPECT_EQ(PmPeriodRecord::kNotAvailable, values[PmCounter::ipdvFwdMax]);
}

// Out of order, a packet still gives IPDV samples against the one before it
// in sequence when that one was analysed first; an increase beyond 4 s
// between such a pair invalidates the minute although other packets
// overtook each other.
TEST_F(MinuteOracleTest, IpdvBeyondFourSecondsOutOfOrderInvalidates) {
    send(3);
    for (uint32_t seqNo = 0; seqNo < 3; ++seqNo) {
        reflect(seqNo, 10 + seqNo);
    }
    reply(1, 2, 2);
    reply(0, 2, 2);
    // Packet 2 pairs with packet 1, analysed before it; the reflector's
    // clock jumped 5 s ahead in between.
    const uint64_t t1Prime = t1Of(2) + kUnit;
    const uint64_t t2 = t1Prime + 2 * kUnit + (uint64_t{5} << 32);
    oracle.replyOnItsWay(2);
    oracle.replyDelivered(2, t2, t2 + kUnit, t1Prime + 5 * kUnit, 64, 60, 46);
    const MinuteVerdict verdict = oracle.judge(kMinute);
    ASSERT_TRUE(verdict.clean);
    ASSERT_FALSE(verdict.inOrder);
    EXPECT_TRUE(oracle.expect(kMinute, verdict).invalidated);
}

// A packet analysed before the one in front of it in sequence gives no
// IPDV sample against it.
TEST_F(MinuteOracleTest, PairAnalysedInReverseGivesNoIpdv) {
    send(3);
    for (uint32_t seqNo = 0; seqNo < 3; ++seqNo) {
        reflect(seqNo, 10 + seqNo);
    }
    reply(1, 4, 2);
    reply(0, 2, 2);
    reply(2, 5, 3);
    const MinuteVerdict verdict = oracle.judge(kMinute);
    ASSERT_TRUE(verdict.clean);
    ASSERT_FALSE(verdict.inOrder);
    auto values = expected(verdict);
    // Only 1 -> 2 pairs: one forward and one reverse increase of one unit.
    EXPECT_EQ(15625, values[PmCounter::ipdvFwdMax]);
    EXPECT_EQ(15625, values[PmCounter::ipdvFwdMin]);
    EXPECT_EQ(15625, values[PmCounter::ipdvRevMax]);
}

// A forward delay that turns negative is a decrease, not an IPDV sample.
TEST_F(MinuteOracleTest, ForwardDelayTurningNegativeIsNoSample) {
    send(2);
    reflect(0, 10);
    reflect(1, 11);
    reply(0, 1, 3);
    const uint64_t t2 = t1Of(1) + kUnit - kUnit;
    oracle.replyOnItsWay(1);
    oracle.replyDelivered(1, t2, t2 + kUnit, t2 + 5 * kUnit, 64, 60, 46);
    const MinuteVerdict verdict = oracle.judge(kMinute);
    ASSERT_TRUE(verdict.inOrder);
    auto values = expected(verdict);
    EXPECT_EQ(0, values[PmCounter::ipdvFwdMax]);
    EXPECT_EQ(PmPeriodRecord::kNotAvailable, values[PmCounter::ipdvFwdP99]);
    EXPECT_EQ(15625, values[PmCounter::ipdvRevMax]);
}

// A packet of a minute already forgotten that reaches the reflector late
// takes a number among the next minute's packets.
TEST_F(MinuteOracleTest, StragglerFromAForgottenMinuteCrossesTheNextOne) {
    send(1);
    const MinuteKey next(0, 101);
    oracle.minuteBegins(next, 60);
    oracle.packetSent(1, t1Of(1), t1Of(1) + kUnit, next);
    oracle.timestampDelivered(1);
    reflect(1, 10);
    oracle.forget(kMinute);
    reflect(0, 11);
    reply(1, 2, 2);
    EXPECT_EQ("its packets crossed those of a minute around it on the way out",
              oracle.judge(next).reason);
}

}  // namespace
