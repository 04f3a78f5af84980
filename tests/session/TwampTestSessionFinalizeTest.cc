// The minute finalisation: counters written from the minute's state 4 s
// after the minute ends, duplicates reconciled, unanswered packets counted
// lost, loss periods, and the two invalidation paths.
#include <cstdint>
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
using twamp_test::TraceRecorder;
using Messages = std::vector<std::string>;

// Minute 8 of the test hour: record 0, bin 8, parity 0.
constexpr int kBin = 8;

// Counters that only a minute with delay samples writes.
const std::vector<PmCounter::Index> kSampleCounters = {
    PmCounter::delayRtAvg, PmCounter::delayRtMax, PmCounter::delayRtMin, PmCounter::delayRtP95,
    PmCounter::delayRtP98, PmCounter::delayRtP99, PmCounter::dscpRevMax, PmCounter::dscpRevMin,
    PmCounter::ipdvFwdAvg, PmCounter::ipdvFwdMax, PmCounter::ipdvFwdMin, PmCounter::ipdvFwdP95,
    PmCounter::ipdvFwdP98, PmCounter::ipdvFwdP99, PmCounter::ipdvRevAvg, PmCounter::ipdvRevMax,
    PmCounter::ipdvRevMin, PmCounter::ipdvRevP95, PmCounter::ipdvRevP98, PmCounter::ipdvRevP99,
    PmCounter::ttlFwdMax,  PmCounter::ttlRevMax,  PmCounter::ttlFwdMin,  PmCounter::ttlRevMin,
};

class TwampTestSessionFinalizeTest : public MeasureTestBase {
  protected:
    // Sends count packets in minute 8, one every 1/8 s; returns their T1.
    std::vector<uint64_t> sendInMinuteEight(TwampTestSession& session, int count) {
        std::vector<uint64_t> t1;
        for (int seqNo = 0; seqNo < count; ++seqNo) {
            t1.push_back(sendAt(session, 8, 0, seqNo));
        }
        return t1;
    }

    // The first expiry at least 4 s into minute 9 finalises minute 8.
    void finaliseMinuteEight(TwampTestSession& session) {
        TraceRecorder::reset();
        sendAt(session, 9, 4);
    }

    // Every counter of bin 8, by index.
    std::vector<int64_t> binEight(const TwampTestSession& session) const {
        std::vector<int64_t> values;
        for (int counter = 0; counter < PmPeriodRecord::kCounterCount; ++counter) {
            values.push_back(TwampTestSessionPeer::getRecord(session, 0).at(counter, kBin));
        }
        return values;
    }

    // The expected bin: every counter -2 but those given.
    static std::vector<int64_t> binWith(
        const std::vector<std::pair<PmCounter::Index, int64_t>>& values) {
        std::vector<int64_t> bin(PmPeriodRecord::kCounterCount, PmPeriodRecord::kNotAvailable);
        for (const auto& entry : values) {
            bin[entry.first] = entry.second;
        }
        return bin;
    }
};

// A minute without any analysed reply: the sample counters stay -2, the
// others are numbers, and every packet counts as lost forward.
TEST_F(TwampTestSessionFinalizeTest, MinuteWithoutRepliesCountsAllLost) {
    auto session = startSession();
    sendInMinuteEight(*session, 3);
    finaliseMinuteEight(*session);
    EXPECT_EQ(binWith({{PmCounter::duplicatePktsFwd, 0},
                       {PmCounter::duplicatePktsRev, 0},
                       {PmCounter::lossPeriodFwdMax, 300},
                       {PmCounter::lossPeriodRevMax, 0},
                       {PmCounter::lossPeriodFwdMin, 300},
                       {PmCounter::lossPeriodRevMin, 0},
                       {PmCounter::lossPeriodsFwd, 1},
                       {PmCounter::lossPeriodsRev, 0},
                       {PmCounter::lostPktsFwd, 3},
                       {PmCounter::lostPktsRev, 0},
                       {PmCounter::latePktsFwd, 0},
                       {PmCounter::latePktsRev, 0},
                       {PmCounter::receivedPkts, 0},
                       {PmCounter::sentPkts, 3}}),
              binEight(*session));
    EXPECT_TRUE(TwampTestSessionPeer::getOutstandingSeqNos(*session, 0).empty());
    EXPECT_FALSE(TwampTestSessionPeer::isMinutePending(*session, 0));
}

// A minute with replies: every counter family from its samples and sequence state.
TEST_F(TwampTestSessionFinalizeTest, MinuteWithRepliesWritesEveryCounter) {
    auto session = startSession();
    const auto t1 = sendInMinuteEight(*session, 5);
    answer(*session, 0, t1[0], 0, 2, 2, 250);
    answer(*session, 1, t1[1], 1, 3, 2, 252);
    answer(*session, 3, t1[3], 2, 2, 4, 251);
    finaliseMinuteEight(*session);
    EXPECT_EQ(binWith({{PmCounter::delayRtAvg, 78125},
                       {PmCounter::delayRtMax, 93750},
                       {PmCounter::delayRtMin, 62500},
                       {PmCounter::delayRtP95, 93750},
                       {PmCounter::delayRtP98, 93750},
                       {PmCounter::delayRtP99, 93750},
                       {PmCounter::dscpRevMax, 46},
                       {PmCounter::dscpRevMin, 46},
                       {PmCounter::duplicatePktsFwd, 0},
                       {PmCounter::duplicatePktsRev, 0},
                       {PmCounter::ipdvFwdAvg, 15625},
                       {PmCounter::ipdvFwdMax, 15625},
                       {PmCounter::ipdvFwdMin, 15625},
                       {PmCounter::ipdvFwdP95, 15625},
                       {PmCounter::ipdvFwdP98, 15625},
                       {PmCounter::ipdvFwdP99, 15625},
                       {PmCounter::ipdvRevAvg, 0},
                       {PmCounter::ipdvRevMax, 0},
                       {PmCounter::ipdvRevMin, 0},
                       {PmCounter::ipdvRevP95, 0},
                       {PmCounter::ipdvRevP98, 0},
                       {PmCounter::ipdvRevP99, 0},
                       // Packet 2 lost on the way out, packet 4 never answered:
                       // two periods of one packet, 100 ms each at 10 packets/s.
                       {PmCounter::lossPeriodFwdMax, 100},
                       {PmCounter::lossPeriodRevMax, 0},
                       {PmCounter::lossPeriodFwdMin, 100},
                       {PmCounter::lossPeriodRevMin, 0},
                       {PmCounter::lossPeriodsFwd, 2},
                       {PmCounter::lossPeriodsRev, 0},
                       {PmCounter::lostPktsFwd, 2},
                       {PmCounter::lostPktsRev, 0},
                       {PmCounter::latePktsFwd, 0},
                       {PmCounter::latePktsRev, 0},
                       {PmCounter::receivedPkts, 3},
                       {PmCounter::ttlFwdMax, 252},
                       {PmCounter::ttlRevMax, 61},
                       {PmCounter::ttlFwdMin, 250},
                       {PmCounter::ttlRevMin, 61},
                       {PmCounter::sentPkts, 5}}),
              binEight(*session));
}

// The minute's percentile vectors are read empty, so the next minute of the
// same parity reports only its own samples.
TEST_F(TwampTestSessionFinalizeTest, FinalisationEmptiesPercentileVectors) {
    auto session = startSession();
    const auto t1 = sendInMinuteEight(*session, 2);
    answer(*session, 0, t1[0], 0, 2, 2);
    answer(*session, 1, t1[1], 1, 2, 2);
    finaliseMinuteEight(*session);
    EXPECT_EQ(2u, TwampTestSessionPeer::getDelayRt(*session, 0)->getPercentileSamples());
    const uint64_t t1Ten = sendAt(*session, 10, 0);
    answer(*session, 3, t1Ten, 7, 3, 3);
    sendAt(*session, 11, 4);
    EXPECT_EQ(1u, TwampTestSessionPeer::getDelayRt(*session, 0)->getPercentileSamples());
    EXPECT_EQ(93750, TwampTestSessionPeer::getRecord(*session, 0).at(PmCounter::delayRtP99, 10));
}

// A reply whose extra copy was counted late in reverse is put on the forward
// duplicates, and the unanswered count follows the reconciled value.
TEST_F(TwampTestSessionFinalizeTest, DuplicatesReconciledOntoForward) {
    auto session = startSession();
    const auto t1 = sendInMinuteEight(*session, 3);
    answer(*session, 0, t1[0], 0, 2, 2);
    answer(*session, 2, t1[2], 2, 2, 2);
    deliverReply(*session, 2, t1[2], 1, t1[2] + 3 * kNtpUnit, t1[2] + 4 * kNtpUnit,
                 t1[2] + 6 * kNtpUnit);
    finaliseMinuteEight(*session);
    const auto bin = binEight(*session);
    EXPECT_EQ(1, bin[PmCounter::duplicatePktsFwd]);
    EXPECT_EQ(0, bin[PmCounter::duplicatePktsRev]);
    EXPECT_EQ(1, bin[PmCounter::latePktsRev]);
    EXPECT_EQ(0, bin[PmCounter::lostPktsRev]);
    EXPECT_EQ(1, bin[PmCounter::lostPktsFwd]);
    EXPECT_EQ(1, bin[PmCounter::lossPeriodsFwd]);
    EXPECT_EQ(3, bin[PmCounter::receivedPkts]);
}

// Duplicates already counted by the sequence trackers are kept as they are.
TEST_F(TwampTestSessionFinalizeTest, CountedDuplicatesKept) {
    auto session = startSession();
    const auto t1 = sendInMinuteEight(*session, 2);
    answer(*session, 0, t1[0], 0, 2, 2);
    answer(*session, 1, t1[1], 1, 2, 2);
    deliverReply(*session, 1, t1[1], 1, t1[1] + 3 * kNtpUnit, t1[1] + 4 * kNtpUnit,
                 t1[1] + 6 * kNtpUnit);
    finaliseMinuteEight(*session);
    const auto bin = binEight(*session);
    EXPECT_EQ(0, bin[PmCounter::duplicatePktsFwd]);
    EXPECT_EQ(1, bin[PmCounter::duplicatePktsRev]);
    EXPECT_EQ(0, bin[PmCounter::lostPktsFwd]);
    EXPECT_EQ(0, bin[PmCounter::lossPeriodsFwd]);
}

// Loss that does not add up makes lostPktsFwd -2; reverse loss beyond the
// packets sent (a reflector numbering for other senders too) is no truth
// either, so the whole minute is declared unaccountable.
TEST_F(TwampTestSessionFinalizeTest, LossBeyondThePacketsSentVoidsTheMinute) {
    auto session = startSession();
    const auto t1 = sendInMinuteEight(*session, 2);
    answer(*session, 0, t1[0], 0, 2, 2);
    answer(*session, 1, t1[1], 5, 2, 2);
    finaliseMinuteEight(*session);
    EXPECT_EQ(std::vector<int64_t>(PmPeriodRecord::kCounterCount, PmPeriodRecord::kNotAvailable),
              binEight(*session));
    EXPECT_EQ((Messages{"finalizePmMember(): lostPktsFwd statistic has negative number",
                        "finalizePmMember(): Minute 28333328 cannot be accounted (counts "
                        "out of range) for dstIpAddress 127.0.0.1, dstUdpPort 862 so all counters "
                        "of period 8 are reset to -2"}),
              labTraces());
}

// After finalisation the minute's packets are gone: a late reply finds nothing.
TEST_F(TwampTestSessionFinalizeTest, LateReplyAfterFinalisationNotFound) {
    auto session = startSession();
    const auto t1 = sendInMinuteEight(*session, 1);
    deliverTxTimestamp(*session, 0, t1[0], t1[0] + kNtpUnit);
    finaliseMinuteEight(*session);
    deliverReply(*session, 0, t1[0], 0, t1[0] + 2 * kNtpUnit, t1[0] + 3 * kNtpUnit,
                 t1[0] + 5 * kNtpUnit);
    EXPECT_EQ(Messages{"receiveMessage(): No outstanding packet found for seqNum: 0 "},
              labTraces());
    EXPECT_EQ(0, TwampTestSessionPeer::getRecord(*session, 0).at(PmCounter::receivedPkts, kBin));
}

// The arming minute sends nothing and is never finalised: its bin stays -2.
TEST_F(TwampTestSessionFinalizeTest, ArmingMinuteStaysNotAvailable) {
    auto session = startSession();
    sendInMinuteEight(*session, 1);
    sendAt(*session, 8, 5);
    finaliseMinuteEight(*session);
    for (int counter = 0; counter < PmPeriodRecord::kCounterCount; ++counter) {
        EXPECT_EQ(PmPeriodRecord::kNotAvailable,
                  TwampTestSessionPeer::getRecord(*session, 0).at(counter, 7))
            << kPmCounterInfo[counter].name;
    }
    EXPECT_EQ(2, TwampTestSessionPeer::getRecord(*session, 0).at(PmCounter::sentPkts, kBin));
}

// At 0 packets per second the loss periods stay in packets.
TEST_F(TwampTestSessionFinalizeTest, RateZeroKeepsLossPeriodsInPackets) {
    auto session = startSession(0);
    sendInMinuteEight(*session, 2);
    finaliseMinuteEight(*session);
    EXPECT_EQ(2, binEight(*session)[PmCounter::lossPeriodFwdMax]);
    EXPECT_EQ(2, binEight(*session)[PmCounter::lossPeriodFwdMin]);
}

// Above 1000 packets per second the whole packet interval is 0 ms.
TEST_F(TwampTestSessionFinalizeTest, RateAboveThousandGivesZeroMilliseconds) {
    auto session = startSession(2000);
    sendInMinuteEight(*session, 2);
    finaliseMinuteEight(*session);
    EXPECT_EQ(0, binEight(*session)[PmCounter::lossPeriodFwdMax]);
    EXPECT_EQ(1, binEight(*session)[PmCounter::lossPeriodsFwd]);
}

// A reflector restart seen in the first 4 s of minute 9 voids minute 8,
// which is finalised after it.
TEST_F(TwampTestSessionFinalizeTest, RestartBeforeFinalisationVoidsTheMinute) {
    auto session = startSession(10);
    const auto t1 = sendInMinuteEight(*session, 45);
    answer(*session, 0, t1[0], 1000, 2, 2);
    sendAt(*session, 9, 0);
    answer(*session, 44, t1[44], 0, 2, 2);
    EXPECT_TRUE(TwampTestSessionPeer::getSequenceErrorFlag(*session));
    finaliseMinuteEight(*session);
    EXPECT_EQ(std::vector<int64_t>(PmPeriodRecord::kCounterCount, PmPeriodRecord::kNotAvailable),
              binEight(*session));
    EXPECT_TRUE(TwampTestSessionPeer::getOutstandingSeqNos(*session, 0).empty());
    EXPECT_FALSE(TwampTestSessionPeer::isMinutePending(*session, 0));
}

// A restart seen later in a minute only pauses the accounting: the minute
// before keeps its counters, and the minute of the restart is finalised from
// what it holds, since the next minute start cleared the flag.
TEST_F(TwampTestSessionFinalizeTest, RestartAfterFinalisationOnlyPausesAccounting) {
    auto session = startSession(10);
    const auto t1Eight = sendInMinuteEight(*session, 1);
    answer(*session, 0, t1Eight[0], 0, 2, 2);
    passMinuteEnd(*session, 8);
    std::vector<uint64_t> t1;  // minute 9: sequence numbers 1 to 48
    for (int index = 0; index < 48; ++index) {
        t1.push_back(sendAt(*session, 9, 0, index));
    }
    EXPECT_EQ(1, binEight(*session)[PmCounter::receivedPkts]);
    answer(*session, 1, t1[0], 1000, 2, 2);
    answer(*session, 45, t1[44], 0, 2, 2);
    answer(*session, 46, t1[45], 1, 2, 2);
    EXPECT_TRUE(TwampTestSessionPeer::getSequenceErrorFlag(*session));
    sendAt(*session, 10, 0);
    EXPECT_FALSE(TwampTestSessionPeer::getSequenceErrorFlag(*session));
    sendAt(*session, 10, 4);
    const PmPeriodRecord& record = TwampTestSessionPeer::getRecord(*session, 0);
    EXPECT_EQ(62500, record.at(PmCounter::delayRtAvg, 8));
    EXPECT_EQ(3, record.at(PmCounter::receivedPkts, 9));
    EXPECT_EQ(48, record.at(PmCounter::sentPkts, 9));
    EXPECT_EQ(45, record.at(PmCounter::lostPktsFwd, 9));
    EXPECT_EQ(62500, record.at(PmCounter::delayRtAvg, 9));
    EXPECT_EQ(62500, record.at(PmCounter::delayRtMax, 9));
}

// A minute whose maximum delay exceeds the bound is reset to -2, written to
// the network log twice, and keeps its outstanding packets.
class TwampTestSessionInvalidationTest : public TwampTestSessionFinalizeTest {
  protected:
    void SetUp() override {
        TwampTestSessionFinalizeTest::SetUp();
        FakeSaLog::reset();
        tn_log_uninit();
        ASSERT_TRUE(tn_log_init());
        FakeSaLog::forgetCalls();
    }
    void TearDown() override {
        tn_log_uninit();
        FakeSaLog::reset();
        TwampTestSessionFinalizeTest::TearDown();
    }

    // Minute 8 was declared unaccountable for reason: its LAB trace and its
    // one TnNetworkLog record.
    static void expectMinuteEightDeclared(const std::string& reason) {
        const std::string declaration = "Minute 28333328 cannot be accounted (" + reason +
                                        ") for dstIpAddress 127.0.0.1, dstUdpPort 862 so all "
                                        "counters of period 8 are reset to -2";
        EXPECT_THAT(labTraces(), ::testing::Contains("finalizePmMember(): " + declaration));
        const auto& records = FakeSaLog::records();
        ASSERT_EQ(1u, records.size());
        EXPECT_EQ("TnNetworkLog", records[0].streamName);
        EXPECT_EQ("TwampTestSession: m" + declaration.substr(1), records[0].text);
    }
};

TEST_F(TwampTestSessionInvalidationTest, SkewedReflectorInvalidatesTheMinute) {
    auto session = startSession();
    const auto t1 = sendInMinuteEight(*session, 2);
    answer(*session, 0, t1[0], 0, 2, 2);
    // T3 - T2 of 10 units against a round trip of 3 units: the delay wraps.
    const uint64_t t1Prime = t1[1] + kNtpUnit;
    deliverTxTimestamp(*session, 1, t1[1], t1Prime);
    deliverReply(*session, 1, t1[1], 1, t1Prime + kNtpUnit, t1Prime + 11 * kNtpUnit,
                 t1Prime + 3 * kNtpUnit);
    finaliseMinuteEight(*session);
    EXPECT_EQ(std::vector<int64_t>(PmPeriodRecord::kCounterCount, PmPeriodRecord::kNotAvailable),
              binEight(*session));
    // (2^64 - 7 * 2^26) * 15625 mod 2^64, shifted right by 26: 2^38 - 109375.
    // The reverse delay is -125000 us, a decrease from packet 0's 31250 us,
    // and gives no IPDV sample.
    EXPECT_EQ((Messages{"finalizePmMember(): delayRtMax 274877797569 or ipdvFwdMax 0 or "
                        "ipdvRevMax 0 are larger than 4s for period 8 for dstIpAddress 127.0.0.1, "
                        "dstUdpPort 862, srcIpAddress  and srcUdpPort  so all counters are reset "
                        "to -2",
                        // Emptying the IPDV vectors, which have no samples.
                        "updatePercentilePmCounters(): no samples were added to vector 2",
                        "updatePercentilePmCounters(): no samples were added to vector 3"}),
              labTraces());
    const auto& records = FakeSaLog::records();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("TnNetworkLog", records[0].streamName);
    EXPECT_EQ("TWAMP", records[0].userName);
    EXPECT_EQ(static_cast<SaLogSeverityT>(6), records[0].severity);
    EXPECT_EQ(
        "TwampTestSession: delayRtMax 274877797569 or ipdvFwdMax 0 or ipdvRevMax 0 are "
        "larger than 4s for period 8 so all counters are reset to -2",
        records[0].text);
    EXPECT_EQ("TnNetworkLog", records[1].streamName);
    EXPECT_EQ("for dstIpAddress 127.0.0.1, dstUdpPort 862, srcIpAddress  and srcUdpPort .",
              records[1].text);
    EXPECT_TRUE(TwampTestSessionPeer::getOutstandingSeqNos(*session, 0).empty());
    EXPECT_FALSE(TwampTestSessionPeer::isMinutePending(*session, 0));
}

// An invalidated minute leaves no packets behind: a later minute of the same
// parity starts clean.
TEST_F(TwampTestSessionInvalidationTest, InvalidatedMinuteLeavesNoPackets) {
    auto session = startSession();
    const auto t1 = sendInMinuteEight(*session, 1);
    const uint64_t t1Prime = t1[0] + kNtpUnit;
    deliverTxTimestamp(*session, 0, t1[0], t1Prime);
    deliverReply(*session, 0, t1[0], 0, t1Prime + kNtpUnit, t1Prime + 11 * kNtpUnit,
                 t1Prime + 3 * kNtpUnit);
    finaliseMinuteEight(*session);
    sendAt(*session, 10, 0);
    EXPECT_EQ((std::vector<uint32_t>{2}), TwampTestSessionPeer::getOutstandingSeqNos(*session, 0));
    sendAt(*session, 11, 4);
    EXPECT_TRUE(TwampTestSessionPeer::getOutstandingSeqNos(*session, 0).empty());
}

// A reply whose packet's transmit timestamp never comes is neither lost nor
// measured: its minute cannot be accounted, and says so.
TEST_F(TwampTestSessionInvalidationTest, ReplyWithoutTransmitTimestampVoidsTheMinute) {
    auto session = startSession();
    const auto t1 = sendInMinuteEight(*session, 2);
    answer(*session, 0, t1[0], 0, 2, 2);
    const uint64_t t4 = t1[1] + 3 * kNtpUnit;
    deliverReply(*session, 1, t1[1], 1, t1[1] + kNtpUnit, t1[1] + 2 * kNtpUnit, t4);
    finaliseMinuteEight(*session);
    EXPECT_EQ(binWith({}), binEight(*session));
    expectMinuteEightDeclared("transmit timestamp missing");
    EXPECT_TRUE(TwampTestSessionPeer::getOutstandingSeqNos(*session, 0).empty());
}

// The timestamp that comes late, after the reply, leaves the minute whole.
TEST_F(TwampTestSessionInvalidationTest, LateTransmitTimestampKeepsTheMinute) {
    auto session = startSession();
    const auto t1 = sendInMinuteEight(*session, 1);
    const uint64_t t1Prime = t1[0] + kNtpUnit;
    deliverReply(*session, 0, t1[0], 0, t1Prime + kNtpUnit, t1Prime + 2 * kNtpUnit,
                 t1Prime + 3 * kNtpUnit);
    deliverTxTimestamp(*session, 0, t1[0], t1Prime);
    finaliseMinuteEight(*session);
    EXPECT_EQ(1, binEight(*session)[PmCounter::receivedPkts]);
    EXPECT_EQ(0, binEight(*session)[PmCounter::lostPktsRev]);
    EXPECT_THAT(labTraces(),
                ::testing::Each(::testing::Not(::testing::HasSubstr("cannot be accounted"))));
    EXPECT_TRUE(FakeSaLog::records().empty());
}

// A reply that came without its receive timestamp before the transmit
// timestamp stays what it was: no reply of its packet, the minute counted.
TEST_F(TwampTestSessionInvalidationTest, ReplyWithoutReceiveTimestampStillCountsNoReply) {
    auto session = startSession();
    const auto t1 = sendInMinuteEight(*session, 1);
    deliverReply(*session, 0, t1[0], 0, t1[0] + 2 * kNtpUnit, t1[0] + 3 * kNtpUnit, 0);
    deliverTxTimestamp(*session, 0, t1[0], t1[0] + kNtpUnit);
    finaliseMinuteEight(*session);
    EXPECT_EQ(0, binEight(*session)[PmCounter::receivedPkts]);
    EXPECT_EQ(1, binEight(*session)[PmCounter::sentPkts]);
    EXPECT_TRUE(FakeSaLog::records().empty());
}

// Replies dropped by the socket's full receive queue would count as lost
// although the network delivered them: the pending minute is declared.
TEST_F(TwampTestSessionInvalidationTest, ReceiveQueueOverflowVoidsThePendingMinute) {
    auto session = startSession();
    const auto t1 = sendInMinuteEight(*session, 2);
    answer(*session, 0, t1[0], 0, 2, 2);
    deliverTxTimestamp(*session, 1, t1[1], t1[1] + kNtpUnit);
    session->receiveQueueOverflowed();
    finaliseMinuteEight(*session);
    EXPECT_EQ(binWith({}), binEight(*session));
    expectMinuteEightDeclared("receive queue overflow");
    EXPECT_TRUE(TwampTestSessionPeer::getOutstandingSeqNos(*session, 0).empty());
}

// An overflow after a minute was finalised leaves its bin as written, voids
// the minute still pending, and the next minute of that parity counts again.
TEST_F(TwampTestSessionInvalidationTest, ReceiveQueueOverflowVoidsOnlyPendingMinutes) {
    auto session = startSession();
    const auto t1 = sendInMinuteEight(*session, 1);
    answer(*session, 0, t1[0], 0, 2, 2);
    finaliseMinuteEight(*session);
    session->receiveQueueOverflowed();
    EXPECT_EQ(1, binEight(*session)[PmCounter::receivedPkts]);
    TraceRecorder::reset();
    sendAt(*session, 10, 4);
    const auto& record = TwampTestSessionPeer::getRecord(*session, 0);
    EXPECT_EQ(PmPeriodRecord::kNotAvailable, record.at(PmCounter::sentPkts, 9));
    EXPECT_THAT(labTraces(), ::testing::Contains(::testing::HasSubstr(
                                 "Minute 28333329 cannot be accounted (receive queue overflow)")));
    const uint64_t t1Ten = sendAt(*session, 10, 5);
    answer(*session, 3, t1Ten, 1, 2, 2);
    sendAt(*session, 11, 4);
    EXPECT_EQ(2, record.at(PmCounter::sentPkts, 10));
    EXPECT_EQ(1, record.at(PmCounter::receivedPkts, 10));
    EXPECT_EQ(1, record.at(PmCounter::lostPktsFwd, 10) + record.at(PmCounter::lostPktsRev, 10));
}

}  // namespace
