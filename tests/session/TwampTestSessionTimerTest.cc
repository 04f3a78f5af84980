#include "TwampTestSession.h"

#include <sys/timerfd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PmPeriodRecord.h"
#include "SessionTestBase.h"
#include "TraceRecorder.h"
#include "TwampTestSessionPeer.h"
#include "TwtsiSignals.h"
#include "itc.h"

namespace {

using ::testing::_;
using ::testing::Mock;
using ::testing::Return;
using twamp_test::kHourStart;
using twamp_test::minuteOfHour;
using twamp_test::ScriptedSystemCalls;
using twamp_test::SessionTestBase;
using twamp_test::TraceRecorder;
using Messages = std::vector<std::string>;

constexpr int kTimerFd = ScriptedSystemCalls::kTimerFd;

class TwampTestSessionTimerTest : public SessionTestBase {
  protected:
    // The interval the timer was armed with.
    struct timespec armedInterval(uint32_t packetsPerSecond) {
        auto session = makeSession(packetsPerSecond);
        EXPECT_TRUE(session->init());
        return systemCalls.settimeValues.at(0).it_interval;
    }

    // The LAB traces of the timer arming only.
    static Messages armingMessages() {
        Messages arming;
        for (const std::string& message : TraceRecorder::twampMessages("LAB")) {
            if (message.rfind("setAndStartTimer(): ", 0) == 0) {
                arming.push_back(message);
            }
        }
        return arming;
    }

    // A counters reply for the session to hold.
    static union itc_msg* newReply() {
        return itc_alloc(4584, TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP);
    }
};

// A reply handed to the dispatcher is freed by the test, as the dispatcher would send it.
void freeReply(TwampTestSession* /*session*/, union itc_msg* reply) {
    itc_free(&reply);
}

// init creates a CLOCK_REALTIME timer without flags and watches it for reading.
TEST_F(TwampTestSessionTimerTest, InitCreatesRealtimeTimerAndRegistersIt) {
    auto session = makeSession();
    EXPECT_CALL(env.multiplexer, registerReadHandler(session.get()));
    EXPECT_TRUE(session->init());
    EXPECT_EQ(CLOCK_REALTIME, systemCalls.createdClock);
    EXPECT_EQ(0, systemCalls.createdFlags);
    EXPECT_EQ(std::set<int>{kTimerFd}, session->getReadFds());
}

// init fills the padding, bytes 14 to 63, with one read from the random source.
TEST_F(TwampTestSessionTimerTest, InitReadsPaddingFromRandomSource) {
    auto session = makeSession();
    ASSERT_TRUE(session->init());
    EXPECT_EQ(std::vector<int>{env.randomFd.getFd()}, systemCalls.randomReadFds);
    EXPECT_EQ(std::vector<std::size_t>{50}, systemCalls.randomReadLengths);
}

// A failed timerfd_create fails init, keeps -1 among the read descriptors and registers nothing.
TEST_F(TwampTestSessionTimerTest, TimerCreateFailure) {
    auto session = makeSession();
    systemCalls.timerCreateErrno = EMFILE;
    EXPECT_CALL(env.multiplexer, registerReadHandler(_)).Times(0);
    EXPECT_FALSE(session->init());
    EXPECT_EQ(std::set<int>{-1}, session->getReadFds());
    EXPECT_EQ(Messages{"init(): Failed timerfd_create: errno 24 - Too many open files"},
              TraceRecorder::twampMessages("ERROR"));
    EXPECT_TRUE(systemCalls.settimeValues.empty());
}

// A session without a timer descriptor says why, and has not taken the
// socket's routing of its destination.
TEST_F(TwampTestSessionTimerTest, TimerCreateFailureIsDescriptorFailure) {
    auto session = makeSession();
    systemCalls.timerCreateErrno = EMFILE;
    EXPECT_CALL(env.udpSocket, addMessageReceiver(_, _)).Times(0);
    EXPECT_FALSE(session->init());
    EXPECT_EQ("timerfd_create failed: Too many open files", session->getDescriptorFailure());
}

// A timer the event loop cannot watch fails init as a descriptor failure,
// before the session takes the socket's routing, and is not armed.
TEST_F(TwampTestSessionTimerTest, UnwatchableTimerIsDescriptorFailure) {
    auto session = makeSession();
    EXPECT_CALL(env.multiplexer, registerReadHandler(session.get())).WillOnce(Return(false));
    EXPECT_CALL(env.udpSocket, addMessageReceiver(_, _)).Times(0);
    EXPECT_FALSE(session->init());
    EXPECT_EQ("the event loop cannot watch its packet timer", session->getDescriptorFailure());
    EXPECT_TRUE(systemCalls.settimeValues.empty());
}

// A started session reports no descriptor failure.
TEST_F(TwampTestSessionTimerTest, StartedSessionHasNoDescriptorFailure) {
    auto session = makeSession();
    ASSERT_TRUE(session->init());
    EXPECT_EQ("", session->getDescriptorFailure());
}

// A failure to arm the timer is no descriptor failure.
TEST_F(TwampTestSessionTimerTest, ArmingFailureIsNoDescriptorFailure) {
    auto session = makeSession();
    systemCalls.settimeErrno = EINVAL;
    EXPECT_FALSE(session->init());
    EXPECT_EQ("", session->getDescriptorFailure());
}

// The destructor closes the timer through the system calls.
TEST_F(TwampTestSessionTimerTest, DestructorClosesTimer) {
    auto session = makeSession();
    ASSERT_TRUE(session->init());
    session.reset();
    EXPECT_EQ(std::vector<int>{kTimerFd}, systemCalls.closedFds);
}

// A rate of 0 packets per second gives a 1 s interval.
TEST_F(TwampTestSessionTimerTest, RateZeroGivesOneSecond) {
    const struct timespec interval = armedInterval(0);
    EXPECT_EQ(1, interval.tv_sec);
    EXPECT_EQ(0, interval.tv_nsec);
}

// A rate of 1 packet per second gives a 1 s interval.
TEST_F(TwampTestSessionTimerTest, RateOneGivesOneSecond) {
    const struct timespec interval = armedInterval(1);
    EXPECT_EQ(1, interval.tv_sec);
    EXPECT_EQ(0, interval.tv_nsec);
}

// A rate of 10 gives 100 ms.
TEST_F(TwampTestSessionTimerTest, RateTenGivesHundredMilliseconds) {
    const struct timespec interval = armedInterval(10);
    EXPECT_EQ(0, interval.tv_sec);
    EXPECT_EQ(100000000, interval.tv_nsec);
}

// A rate of 3 drops the remainder: 333333333 ns.
TEST_F(TwampTestSessionTimerTest, RateThreeTruncates) {
    const struct timespec interval = armedInterval(3);
    EXPECT_EQ(0, interval.tv_sec);
    EXPECT_EQ(333333333, interval.tv_nsec);
}

// The timer is armed absolute, cancelled on clock changes, at the next whole minute.
TEST_F(TwampTestSessionTimerTest, FirstExpiryAtNextWholeMinute) {
    auto session = makeSession(10, 0, 0);
    ASSERT_TRUE(session->init());
    EXPECT_EQ(kTimerFd, systemCalls.settimeFd);
    EXPECT_EQ(TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, systemCalls.settimeFlags);
    EXPECT_EQ(minuteOfHour(8), systemCalls.settimeValues.at(0).it_value.tv_sec);
    EXPECT_EQ(0, systemCalls.settimeValues.at(0).it_value.tv_nsec);
}

// Base 5000 with offset 7 starts 1260000 ns after the next whole minute.
TEST_F(TwampTestSessionTimerTest, DenseSpreadingBase) {
    auto session = makeSession(10, 7, 5000);
    ASSERT_TRUE(session->init());
    EXPECT_EQ(minuteOfHour(8), systemCalls.settimeValues.at(0).it_value.tv_sec);
    EXPECT_EQ(1260000, systemCalls.settimeValues.at(0).it_value.tv_nsec);
    EXPECT_EQ(Messages{"setAndStartTimer(): Spreading factor for itimerspec.it_value set to "
                       "180000 ns"},
              armingMessages());
}

// Any other base with offset 7 starts 2800000 ns after the next whole minute.
TEST_F(TwampTestSessionTimerTest, OtherSpreadingBase) {
    auto session = makeSession(10, 7, 4999);
    ASSERT_TRUE(session->init());
    EXPECT_EQ(minuteOfHour(8), systemCalls.settimeValues.at(0).it_value.tv_sec);
    EXPECT_EQ(2800000, systemCalls.settimeValues.at(0).it_value.tv_nsec);
    EXPECT_EQ(Messages{"setAndStartTimer(): Spreading factor for itimerspec.it_value set to "
                       "400000 ns"},
              armingMessages());
}

// Arming marks the first expiry's minute (8, parity 0) pending and not the arming minute.
TEST_F(TwampTestSessionTimerTest, ArmingMarksFirstMinutePending) {
    auto session = makeSession();
    ASSERT_TRUE(session->init());
    EXPECT_TRUE(TwampTestSessionPeer::isMinutePending(*session, 0));
    EXPECT_FALSE(TwampTestSessionPeer::isMinutePending(*session, 1));
}

// A failed timerfd_settime fails init before the padding is written.
TEST_F(TwampTestSessionTimerTest, TimerSettimeFailure) {
    auto session = makeSession();
    systemCalls.settimeErrno = EINVAL;
    EXPECT_FALSE(session->init());
    EXPECT_EQ(Messages{"setAndStartTimer(): Failed timerfd_settime: errno 22 - Invalid argument"},
              TraceRecorder::twampMessages("ERROR"));
    EXPECT_TRUE(systemCalls.randomReadLengths.empty());
}

// A clock failure while arming fails init without arming.
TEST_F(TwampTestSessionTimerTest, ArmingClockFailure) {
    auto session = makeSession();
    clock.failWith(EPERM);
    EXPECT_FALSE(session->init());
    EXPECT_EQ(Messages{"setAndStartTimer(): Failed clock_gettime: errno 1 - Operation not "
                       "permitted"},
              TraceRecorder::twampMessages("ERROR"));
    EXPECT_TRUE(systemCalls.settimeValues.empty());
}

// Without /dev/urandom the padding is not written and init fails.
TEST_F(TwampTestSessionTimerTest, PaddingWithoutRandomSource) {
    RandomFd missing("/nonexistent/urandom");
    ON_CALL(env.controller, getRandomFd()).WillByDefault(::testing::ReturnRef(missing));
    auto session = makeSession();
    EXPECT_FALSE(session->init());
    EXPECT_EQ(Messages{"generateRandomPayload(): Failed to set packet padding: /dev/urandom not "
                       "open"},
              TraceRecorder::twampMessages("ERROR"));
}

// A failed read of the padding fails init with the errno.
TEST_F(TwampTestSessionTimerTest, PaddingReadFailure) {
    auto session = makeSession();
    systemCalls.randomFails = true;
    systemCalls.randomResult = -1;
    systemCalls.randomErrno = EIO;
    EXPECT_FALSE(session->init());
    EXPECT_EQ(Messages{"generateRandomPayload(): Failed to set packet padding: errno 5 - "
                       "Input/output error"},
              TraceRecorder::twampMessages("ERROR"));
}

// A short read of the padding fails init with both counts.
TEST_F(TwampTestSessionTimerTest, PaddingShortRead) {
    auto session = makeSession();
    systemCalls.randomFails = true;
    systemCalls.randomResult = 10;
    EXPECT_FALSE(session->init());
    EXPECT_EQ(Messages{"generateRandomPayload(): Failed to set packet padding, expected 50 "
                       "bytes, sent 10 bytes"},
              TraceRecorder::twampMessages("ERROR"));
}

// 20 expiries in one read add 19 overruns and send 8 packets.
TEST_F(TwampTestSessionTimerTest, TwentyExpiriesSendEight) {
    auto session = makeSession();
    ASSERT_TRUE(session->init());
    TraceRecorder::reset();
    fire(*session, minuteOfHour(8), 0, 20);
    EXPECT_EQ(19u, TwampTestSessionPeer::getTimerOverruns(*session));
    EXPECT_EQ(8u, systemCalls.sent.size());
    EXPECT_EQ(8u, TwampTestSessionPeer::getSequenceNumber(*session));
    EXPECT_EQ(Messages{"handlePacketTimer(): Expected one timer expiry, received 20, accumulated "
                       "overruns: 19"},
              TraceRecorder::twampMessages("LAB"));
}

// Overruns accumulate over reads.
TEST_F(TwampTestSessionTimerTest, OverrunsAccumulate) {
    auto session = makeSession();
    ASSERT_TRUE(session->init());
    TraceRecorder::reset();
    fire(*session, minuteOfHour(8), 0, 3);
    fire(*session, minuteOfHour(8), 500000000, 3);
    EXPECT_EQ(4u, TwampTestSessionPeer::getTimerOverruns(*session));
    EXPECT_EQ((Messages{"handlePacketTimer(): Expected one timer expiry, received 3, accumulated "
                        "overruns: 2",
                        "handlePacketTimer(): Expected one timer expiry, received 3, accumulated "
                        "overruns: 4"}),
              TraceRecorder::twampMessages("LAB"));
    EXPECT_EQ(6u, systemCalls.sent.size());
}

// A count of 0 is an error and sends nothing.
TEST_F(TwampTestSessionTimerTest, ZeroExpiries) {
    auto session = makeSession();
    ASSERT_TRUE(session->init());
    fire(*session, minuteOfHour(8), 0, 0);
    EXPECT_EQ(Messages{"handlePacketTimer(): Expected one timer expiry, received none"},
              TraceRecorder::twampMessages("ERROR"));
    EXPECT_TRUE(systemCalls.sent.empty());
}

// A cancelled timer marks both records complete and re-arms for the next whole minute.
TEST_F(TwampTestSessionTimerTest, CancelledTimerRearms) {
    auto session = makeSession();
    ASSERT_TRUE(session->init());
    fire(*session, minuteOfHour(15));
    ASSERT_FALSE(TwampTestSessionPeer::isRecordComplete(*session, 1));
    clock.set(minuteOfHour(20) + 30);
    systemCalls.queueTimerFailure(ECANCELED);
    EXPECT_TRUE(session->handleInput(kTimerFd));
    EXPECT_EQ(Messages{"handlePacketTimer(): Timer cancelled - unexpected system clock update."},
              TraceRecorder::twampMessages("EXCEPTION"));
    EXPECT_TRUE(TwampTestSessionPeer::isRecordComplete(*session, 0));
    EXPECT_TRUE(TwampTestSessionPeer::isRecordComplete(*session, 1));
    ASSERT_EQ(2u, systemCalls.settimeValues.size());
    EXPECT_EQ(minuteOfHour(21), systemCalls.settimeValues.at(1).it_value.tv_sec);
    EXPECT_EQ(1u, systemCalls.sent.size());
}

// Any other failed timer read is ignored: nothing sent, no re-arming.
TEST_F(TwampTestSessionTimerTest, OtherTimerReadFailure) {
    auto session = makeSession();
    ASSERT_TRUE(session->init());
    TraceRecorder::reset();
    clock.set(minuteOfHour(8));
    systemCalls.queueTimerFailure(EAGAIN);
    EXPECT_TRUE(session->handleInput(kTimerFd));
    EXPECT_EQ(Messages{"handlePacketTimer(): Ignore failed request"},
              TraceRecorder::twampMessages("LAB"));
    EXPECT_TRUE(systemCalls.sent.empty());
    EXPECT_EQ(1u, systemCalls.settimeValues.size());
}

// A clock failure during the expiries stops them with an ERROR trace.
TEST_F(TwampTestSessionTimerTest, ExpiryClockFailure) {
    auto session = makeSession();
    ASSERT_TRUE(session->init());
    systemCalls.queueExpiries(2);
    clock.failWith(EINVAL);
    EXPECT_TRUE(session->handleInput(kTimerFd));
    EXPECT_EQ(Messages{"handlePacketTimer(): Failed clock_gettime: errno 22 - Invalid argument"},
              TraceRecorder::twampMessages("ERROR"));
    EXPECT_TRUE(systemCalls.sent.empty());
}

// The minute start sets the 14 event counters of the slot to 0 and leaves the others at -2.
TEST_F(TwampTestSessionTimerTest, MinuteStartZeroesEventCounters) {
    auto session = makeSession();
    ASSERT_TRUE(session->init());
    systemCalls.sendResults.push_back({-1, ENETUNREACH});
    fire(*session, minuteOfHour(8));
    const std::set<int> zeroed = {
        PmCounter::duplicatePktsFwd, PmCounter::duplicatePktsRev, PmCounter::lossPeriodFwdMax,
        PmCounter::lossPeriodRevMax, PmCounter::lossPeriodFwdMin, PmCounter::lossPeriodRevMin,
        PmCounter::lossPeriodsFwd,   PmCounter::lossPeriodsRev,   PmCounter::lostPktsFwd,
        PmCounter::lostPktsRev,      PmCounter::latePktsFwd,      PmCounter::latePktsRev,
        PmCounter::receivedPkts,     PmCounter::sentPkts};
    const PmPeriodRecord& record = TwampTestSessionPeer::getRecord(*session, 0);
    for (int counter = 0; counter < PmPeriodRecord::kCounterCount; ++counter) {
        const int64_t expected = zeroed.count(counter) != 0 ? 0 : -2;
        EXPECT_EQ(expected, record.at(counter, 8)) << "counter " << counter;
    }
}

// The minute start sets the next expected sender number to the next packet's.
TEST_F(TwampTestSessionTimerTest, MinuteStartTakesNextSequenceNumber) {
    auto session = makeSession();
    ASSERT_TRUE(session->init());
    fire(*session, minuteOfHour(8));
    fire(*session, minuteOfHour(8) + 4);
    fire(*session, minuteOfHour(9));
    EXPECT_EQ(0u, TwampTestSessionPeer::getLastSenderSeqNo(*session, 0));
    EXPECT_EQ(2u, TwampTestSessionPeer::getLastSenderSeqNo(*session, 1));
    EXPECT_TRUE(TwampTestSessionPeer::isMinutePending(*session, 1));
}

// The first packet of a minute that is a multiple of 15 wipes that period's record first.
TEST_F(TwampTestSessionTimerTest, FirstPacketOfIntervalWipesRecord) {
    auto session = makeSession();
    ASSERT_TRUE(session->init());
    fire(*session, minuteOfHour(8));
    ASSERT_EQ(1, TwampTestSessionPeer::getRecord(*session, 0).at(PmCounter::sentPkts, 8));
    fire(*session, minuteOfHour(30));
    const PmPeriodRecord& record = TwampTestSessionPeer::getRecord(*session, 0);
    EXPECT_FALSE(TwampTestSessionPeer::isRecordComplete(*session, 0));
    EXPECT_EQ(-2, record.at(PmCounter::sentPkts, 8));
    EXPECT_EQ(-2, record.at(PmCounter::receivedPkts, 8));
    EXPECT_EQ(1, record.at(PmCounter::sentPkts, 0));
    EXPECT_EQ(0, record.at(PmCounter::receivedPkts, 0));
    EXPECT_EQ(-2, record.at(PmCounter::delayRtAvg, 0));
}

// A minute is not finalised before 4 s after its end: its outstanding packets stay.
TEST_F(TwampTestSessionTimerTest, MinuteNotFinalisedBeforeFourSeconds) {
    auto session = makeSession();
    ASSERT_TRUE(session->init());
    fire(*session, minuteOfHour(8));
    fire(*session, minuteOfHour(8) + 4);
    fire(*session, minuteOfHour(9));
    fire(*session, minuteOfHour(9) + 3, 999999999);
    EXPECT_EQ((std::vector<uint32_t>{0, 1}),
              TwampTestSessionPeer::getOutstandingSeqNos(*session, 0));
    EXPECT_TRUE(TwampTestSessionPeer::isMinutePending(*session, 0));
}

// 4 s after its end the minute is finalised: its outstanding packets are deleted.
TEST_F(TwampTestSessionTimerTest, MinuteFinalisedAfterFourSeconds) {
    auto session = makeSession();
    ASSERT_TRUE(session->init());
    fire(*session, minuteOfHour(8));
    fire(*session, minuteOfHour(8) + 4);
    fire(*session, minuteOfHour(9));
    fire(*session, minuteOfHour(9) + 3, 999999999);
    fire(*session, minuteOfHour(9) + 4);
    EXPECT_EQ(std::vector<uint32_t>{}, TwampTestSessionPeer::getOutstandingSeqNos(*session, 0));
    EXPECT_FALSE(TwampTestSessionPeer::isMinutePending(*session, 0));
    EXPECT_EQ((std::vector<uint32_t>{2, 3, 4}),
              TwampTestSessionPeer::getOutstandingSeqNos(*session, 1));
}

// A held reply goes to the dispatcher at the minute end, not before.
TEST_F(TwampTestSessionTimerTest, HeldReplySentAtMinuteEnd) {
    auto session = makeSession();
    ASSERT_TRUE(session->init());
    union itc_msg* reply = newReply();
    session->setPendingPmReply(reply);
    EXPECT_CALL(dispatcher, sendPmCountersReply(_, _)).Times(0);
    fire(*session, minuteOfHour(8));
    fire(*session, minuteOfHour(8) + 3, 999999999);
    Mock::VerifyAndClearExpectations(&dispatcher);
    EXPECT_CALL(dispatcher, sendPmCountersReply(session.get(), reply)).WillOnce(freeReply);
    fire(*session, minuteOfHour(8) + 4);
    Mock::VerifyAndClearExpectations(&dispatcher);
    EXPECT_CALL(dispatcher, sendPmCountersReply(_, _)).Times(0);
    fire(*session, minuteOfHour(9) + 4);
}

// The minute end of an interval's first minute completes the previous record,
// whose held reply then finds it ready.
TEST_F(TwampTestSessionTimerTest, IntervalEndCompletesRecordForHeldReply) {
    clock.set(kHourStart - 30);
    auto session = makeSession();
    ASSERT_TRUE(session->init());
    fire(*session, minuteOfHour(0));
    fire(*session, minuteOfHour(0) + 4);
    for (int minute = 1; minute < 15; ++minute) {
        fire(*session, minuteOfHour(minute));
        fire(*session, minuteOfHour(minute) + 4);
    }
    fire(*session, minuteOfHour(15));
    ASSERT_FALSE(TwampTestSessionPeer::isRecordComplete(*session, 0));
    ASSERT_EQ((std::vector<uint32_t>{28, 29}),
              TwampTestSessionPeer::getOutstandingSeqNos(*session, 0));
    session->setPendingPmReply(newReply());
    bool completedOnReply = false;
    EXPECT_CALL(dispatcher, sendPmCountersReply(session.get(), _))
        .WillOnce([&completedOnReply](TwampTestSession* target, union itc_msg* reply) {
            completedOnReply = target->getPmCounters(true) != nullptr;
            itc_free(&reply);
        });
    fire(*session, minuteOfHour(15) + 4);
    EXPECT_TRUE(TwampTestSessionPeer::isRecordComplete(*session, 0));
    EXPECT_TRUE(completedOnReply);
    EXPECT_EQ(std::vector<uint32_t>{}, TwampTestSessionPeer::getOutstandingSeqNos(*session, 0));
    EXPECT_EQ(2, TwampTestSessionPeer::getRecord(*session, 0).at(PmCounter::sentPkts, 14));
}

}  // namespace
