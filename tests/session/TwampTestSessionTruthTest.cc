// Conditions under which a minute's counters used to come out wrong: each
// minute is now right or -2.
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakeSaLog.h"
#include "KernelMessage.h"
#include "MeasureTestBase.h"
#include "PmPeriodRecord.h"
#include "TraceRecorder.h"
#include "TwampTestSessionPeer.h"
#include "tn_log_internal.h"

namespace {

using twamp_test::FakeSaLog;
using twamp_test::kNtpUnit;
using twamp_test::MeasureTestBase;
using twamp_test::minuteOfHour;
using twamp_test::TraceRecorder;
using Messages = std::vector<std::string>;

const std::vector<int64_t> kAllNotAvailable(PmPeriodRecord::kCounterCount,
                                            PmPeriodRecord::kNotAvailable);

class TwampTestSessionTruthTest : public MeasureTestBase {
  protected:
    void SetUp() override {
        MeasureTestBase::SetUp();
        FakeSaLog::reset();
        tn_log_uninit();
        ASSERT_TRUE(tn_log_init());
        FakeSaLog::forgetCalls();
    }
    void TearDown() override {
        tn_log_uninit();
        FakeSaLog::reset();
        MeasureTestBase::TearDown();
    }
    std::vector<int64_t> binOf(const TwampTestSession& session, int record, int bin) const {
        std::vector<int64_t> values;
        for (int counter = 0; counter < PmPeriodRecord::kCounterCount; ++counter) {
            values.push_back(TwampTestSessionPeer::getRecord(session, record).at(counter, bin));
        }
        return values;
    }
    int64_t value(const TwampTestSession& session, PmCounter::Index counter, int bin) const {
        return TwampTestSessionPeer::getRecord(session, 0).at(counter, bin);
    }
};

// A reply echoing another send time than its packet's is discarded with a trace.
TEST_F(TwampTestSessionTruthTest, ReplyWithForeignSenderTimestampIsDiscarded) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    deliverTxTimestamp(*session, 0, t1, t1 + kNtpUnit);
    TraceRecorder::reset();
    deliverReply(*session, 0, t1 + 3, 0, t1 + 2 * kNtpUnit, t1 + 3 * kNtpUnit, t1 + 4 * kNtpUnit);
    EXPECT_EQ(0, value(*session, PmCounter::receivedPkts, 8));
    ASSERT_EQ(1u, labTraces().size());
    EXPECT_NE(std::string::npos, labTraces()[0].find("differs from"));
}

// A clock step voids the interrupted minute instead of booking it elsewhere.
TEST_F(TwampTestSessionTruthTest, ClockStepVoidsTheInterruptedMinute) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    answer(*session, 0, t1, 0, 2, 2);
    sendAt(*session, 8, 30);
    systemCalls.queueTimerFailure(ECANCELED);
    clock.set(minuteOfHour(8) + 40, 0);
    TraceRecorder::reset();
    EXPECT_TRUE(session->handleInput(twamp_test::ScriptedSystemCalls::kTimerFd));
    EXPECT_EQ(kAllNotAvailable, binOf(*session, 0, 8));
    EXPECT_TRUE(TwampTestSessionPeer::getOutstandingSeqNos(*session, 0).empty());
    EXPECT_FALSE(TwampTestSessionPeer::isMinutePending(*session, 0));
    ASSERT_EQ(1u, FakeSaLog::records().size());
    EXPECT_EQ("TnNetworkLog", FakeSaLog::records()[0].streamName);
    EXPECT_EQ(
        "TwampTestSession: minute 28333328 cannot be accounted (wall clock set) for dstIpAddress "
        "127.0.0.1, dstUdpPort 862 so all counters of period 8 are reset to -2",
        FakeSaLog::records()[0].text);
}

// After a clock step the minutes sent later start clean: no stale delay samples.
TEST_F(TwampTestSessionTruthTest, MinuteAfterClockStepStartsClean) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    answer(*session, 0, t1, 0, 2, 2);
    systemCalls.queueTimerFailure(ECANCELED);
    clock.set(minuteOfHour(8) + 40, 0);
    EXPECT_TRUE(session->handleInput(twamp_test::ScriptedSystemCalls::kTimerFd));
    const uint64_t t1Again = sendAt(*session, 10, 0);
    answer(*session, 1, t1Again, 1, 3, 3);
    sendAt(*session, 11, 4);
    EXPECT_EQ(1, value(*session, PmCounter::sentPkts, 10));
    EXPECT_EQ(1, value(*session, PmCounter::receivedPkts, 10));
    EXPECT_EQ(93750, value(*session, PmCounter::delayRtMax, 10));
    EXPECT_EQ(93750, value(*session, PmCounter::delayRtMin, 10));
}

// A stall of more than a minute voids the minute it interrupted, and does
// not book it into another bin.
TEST_F(TwampTestSessionTruthTest, StallVoidsTheInterruptedMinute) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    answer(*session, 0, t1, 0, 2, 2);
    sendAt(*session, 8, 30);
    sendAt(*session, 10, 10);
    EXPECT_EQ(kAllNotAvailable, binOf(*session, 0, 8));
    EXPECT_EQ(kAllNotAvailable, binOf(*session, 0, 9));
    EXPECT_EQ(1, value(*session, PmCounter::sentPkts, 10));
    EXPECT_EQ(0, value(*session, PmCounter::receivedPkts, 10));
}

// Expiries dropped after the loop stood still hold the minute end back one
// read, so replies queued meanwhile are matched first.
TEST_F(TwampTestSessionTruthTest, DroppedExpiriesPostponeTheMinuteEnd) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 59);
    clock.set(minuteOfHour(9) + 6, 0);
    systemCalls.queueExpiries(65);
    EXPECT_TRUE(session->handleInput(twamp_test::ScriptedSystemCalls::kTimerFd));
    EXPECT_TRUE(TwampTestSessionPeer::isMinutePending(*session, 0));
    answer(*session, 0, t1, 0, 2, 2);
    sendAt(*session, 9, 7);
    EXPECT_FALSE(TwampTestSessionPeer::isMinutePending(*session, 0));
    EXPECT_EQ(1, value(*session, PmCounter::receivedPkts, 8));
    EXPECT_EQ(0, value(*session, PmCounter::lostPktsFwd, 8));
}

// A reflector that leaves its Sender TTL at 0 gives no forward TTL.
TEST_F(TwampTestSessionTruthTest, SenderTtlZeroIsNoValue) {
    auto session = startSession();
    const uint64_t t1 = sendAt(*session, 8, 0);
    answer(*session, 0, t1, 0, 2, 2, 0);
    sendAt(*session, 9, 4);
    EXPECT_EQ(PmPeriodRecord::kNotAvailable, value(*session, PmCounter::ttlFwdMin, 8));
    EXPECT_EQ(PmPeriodRecord::kNotAvailable, value(*session, PmCounter::ttlFwdMax, 8));
    EXPECT_EQ(kReplyTtl, value(*session, PmCounter::ttlRevMin, 8));
    EXPECT_EQ(1, value(*session, PmCounter::receivedPkts, 8));
}

// A reflector numbering its replies with the sender's number is reported once.
TEST_F(TwampTestSessionTruthTest, StatelessReflectorIsReportedOnce) {
    auto session = startSession();
    std::vector<uint64_t> t1;
    for (int i = 0; i < 6; ++i) {
        t1.push_back(sendAt(*session, 8, 0, i));
    }
    TraceRecorder::reset();
    answer(*session, 0, t1[0], 0, 2, 2);
    answer(*session, 2, t1[2], 2, 2, 2);
    answer(*session, 5, t1[5], 5, 2, 2);
    EXPECT_EQ((Messages{"updatePmMember(): Reflector of dstIpAddress 127.0.0.1, dstUdpPort 862 "
                        "numbers its replies with the sender sequence number: forward loss is "
                        "counted as reverse loss"}),
              TraceRecorder::twampMessages("INFO"));
}

// At rate 0 the timer sends one packet a second and every one is a sample.
TEST_F(TwampTestSessionTruthTest, RateZeroKeepsAMinuteOfSamples) {
    auto session = startSession(0);
    TraceRecorder::reset();
    for (int second = 0; second < 60; ++second) {
        const uint64_t t1 = sendAt(*session, 8, second);
        answer(*session, static_cast<uint32_t>(second), t1, static_cast<uint32_t>(second), 2, 2);
    }
    sendAt(*session, 9, 4);
    EXPECT_TRUE(TraceRecorder::twampMessages("ERROR").empty());
    EXPECT_EQ(60u, TwampTestSessionPeer::getDelayRt(*session, 0)->getPercentileSamples());
    EXPECT_EQ(62500, value(*session, PmCounter::delayRtP99, 8));
}

// The sequence number wrapping inside a minute counts as a step forward.
TEST_F(TwampTestSessionTruthTest, SequenceWrapInsideAMinuteCountsCorrectly) {
    auto session = startSession();
    TwampTestSessionPeer::setSequenceNumber(*session, 0xFFFFFFFEu);
    std::vector<uint64_t> t1;
    for (int i = 0; i < 5; ++i) {
        t1.push_back(sendAt(*session, 8, 1, i));
    }
    answer(*session, 0xFFFFFFFEu, t1[0], 0xFFFFFFFEu, 2, 2);
    answer(*session, 1, t1[3], 1, 2, 2);
    answer(*session, 2, t1[4], 2, 2, 2);
    sendAt(*session, 9, 4);
    EXPECT_EQ(5, value(*session, PmCounter::sentPkts, 8));
    EXPECT_EQ(3, value(*session, PmCounter::receivedPkts, 8));
    EXPECT_EQ(
        2, value(*session, PmCounter::lostPktsRev, 8) + value(*session, PmCounter::lostPktsFwd, 8));
    EXPECT_EQ(0, value(*session, PmCounter::duplicatePktsFwd, 8));
    EXPECT_EQ(0, value(*session, PmCounter::duplicatePktsRev, 8));
    EXPECT_EQ(1, value(*session, PmCounter::lossPeriodsRev, 8) +
                     value(*session, PmCounter::lossPeriodsFwd, 8));
}

// After the NTP seconds wrap in 2036 replies are still placed in their minute.
TEST_F(TwampTestSessionTruthTest, RepliesAfterTheNtpEraRolloverCount) {
    // 2036-02-07 06:31:00 UTC, 164 s after the rollover, is minute 34766311:
    // record 0, bin 1, parity 1. Its NTP seconds (164 to 183) would put the
    // first 16 packets into a minute of the other parity.
    const time_t minuteStart = 2085978660;
    clock.set(minuteStart - 20, 0);
    auto session = startSession();
    std::vector<uint64_t> t1;
    for (int second = 0; second < 20; ++second) {
        fire(*session, minuteStart + second);
        t1.push_back(twamp_test::ntpOf(minuteStart + second, 0));
    }
    for (uint32_t seqNo = 0; seqNo < 20; ++seqNo) {
        answer(*session, seqNo, t1[seqNo], seqNo, 2, 2);
    }
    fire(*session, minuteStart + 64);
    EXPECT_EQ(20, value(*session, PmCounter::receivedPkts, 1));
    EXPECT_EQ(0, value(*session, PmCounter::lostPktsFwd, 1));
    EXPECT_EQ(62500, value(*session, PmCounter::delayRtAvg, 1));
}

}  // namespace
