// A started session whose replies and transmit timestamps are delivered by
// the test, with a socket helper that reports a fixed reply TTL and DSCP.
#ifndef TWAMP_TESTS_MEASURE_TEST_BASE_H
#define TWAMP_TESTS_MEASURE_TEST_BASE_H

#include <cstdint>
#include <memory>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KernelMessage.h"
#include "MockSocketHelper.h"
#include "OutstandingPacket.h"
#include "PmPeriodRecord.h"
#include "SessionTestBase.h"
#include "TraceRecorder.h"
#include "TwampTestSession.h"

namespace twamp_test {

// The arguments of one analyzePM call.
struct AnalyzeCall {
    uint32_t senderSeqNo;
    uint32_t replyCount;
    int recordIndex;
    int bin;
    int parity;
};

// A session that notes every analyzePM call before analysing.
class ObservedSession : public TwampTestSession {
  public:
    using TwampTestSession::TwampTestSession;

    void analyzePM(const OutstandingPacket& packet, int recordIndex, int bin, int parity) override {
        calls.push_back(
            {packet.getSenderSeqNo(), packet.getReplyCount(), recordIndex, bin, parity});
        TwampTestSession::analyzePM(packet, recordIndex, bin, parity);
    }

    std::vector<AnalyzeCall> calls;
};

// The hour of SessionTestBase: minute 0 is the first minute of an even interval.
constexpr uint32_t kHourMinute = static_cast<uint32_t>(kHourStart / 60);

class MeasureTestBase : public SessionTestBase {
  protected:
    static constexpr uint8_t kReplyTtl = 61;
    static constexpr uint32_t kReplyDscp = 46;

    void SetUp() override {
        SessionTestBase::SetUp();
        ON_CALL(env.controller, getSocketHelper()).WillByDefault(::testing::ReturnRef(helper));
        ON_CALL(helper, getTtl(::testing::_, ::testing::_))
            .WillByDefault(::testing::Return(kReplyTtl));
        ON_CALL(helper, getDscp(::testing::_, ::testing::_))
            .WillByDefault(::testing::Return(kReplyDscp));
    }

    // A session at packetsPerSecond armed in minute 7, so it sends from minute 8.
    std::unique_ptr<ObservedSession> startSession(uint32_t packetsPerSecond = 10) {
        auto session = std::make_unique<ObservedSession>("127.0.0.1", "862", packetsPerSecond, 0, 0,
                                                         64, 0, 0, 0, clock, &systemCalls);
        EXPECT_TRUE(session->init());
        return session;
    }

    // Sends one packet at minute:second + eighths/8 of the hour; returns its T1.
    uint64_t sendAt(TwampTestSession& session, int minute, int second, int eighths = 0) {
        const time_t seconds = minuteOfHour(minute) + second + eighths / 8;
        const long nanoseconds = (eighths % 8) * 125000000L;
        fire(session, seconds, nanoseconds);
        return ntpOf(seconds, nanoseconds);
    }

    // An expiry 5 s into the minute whose send fails: it runs the minute end
    // without using a sequence number, as a session at one packet per
    // second or more always has one in those seconds.
    void passMinuteEnd(TwampTestSession& session, int minute) {
        systemCalls.sendResults.push_back({-1, ENOBUFS});
        fire(session, minuteOfHour(minute) + 5);
    }

    // The transmit timestamp of packet senderSeqNo sent at t1.
    void deliverTxTimestamp(TwampTestSession& session, uint32_t senderSeqNo, uint64_t t1,
                            uint64_t t1Prime) {
        KernelMessage frame(KernelMessage::kLoopedHeaderLength + KernelMessage::kPacketLength);
        KernelMessage::fillLoopedFrame(frame, senderSeqNo, t1);
        if (t1Prime != 0) {
            frame.setKernelTimestamp(t1Prime);
        }
        session.receiveErrQueueMessage(frame.get(), frame.length());
    }

    // The reply to packet senderSeqNo sent at t1.
    void deliverReply(TwampTestSession& session, uint32_t senderSeqNo, uint64_t t1,
                      uint32_t responderSeqNo, uint64_t t2, uint64_t t3, uint64_t t4,
                      uint8_t senderTtl = 250) {
        KernelMessage reply(KernelMessage::kPacketLength);
        KernelMessage::fillReply(reply, senderSeqNo, t1, responderSeqNo, t2, t3, senderTtl);
        if (t4 != 0) {
            reply.setKernelTimestamp(t4);
        }
        session.receiveMessage(reply.get());
    }

    // Packet senderSeqNo sent at t1, transmitted one unit later, held
    // forwardUnits on the way out, one unit in the reflector and reverseUnits
    // on the way back: its round trip is forwardUnits + reverseUnits.
    void answer(TwampTestSession& session, uint32_t senderSeqNo, uint64_t t1,
                uint32_t responderSeqNo, uint64_t forwardUnits, uint64_t reverseUnits,
                uint8_t senderTtl = 250) {
        const uint64_t t1Prime = t1 + kNtpUnit;
        const uint64_t t2 = t1Prime + forwardUnits * kNtpUnit;
        const uint64_t t3 = t2 + kNtpUnit;
        const uint64_t t4 = t3 + reverseUnits * kNtpUnit;
        deliverTxTimestamp(session, senderSeqNo, t1, t1Prime);
        deliverReply(session, senderSeqNo, t1, responderSeqNo, t2, t3, t4, senderTtl);
    }

    // The LAB traces since the last reset.
    static std::vector<std::string> labTraces() {
        return twamp_test::TraceRecorder::twampMessages("LAB");
    }

    ::testing::NiceMock<twamp_test::MockSocketHelper> helper;
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_MEASURE_TEST_BASE_H
