// A minute's finalisation that comes right after a long one of another
// session waits for one of the session's next expiries, at most half a
// second, and then writes exactly what it would have written at once.
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <memory>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Clock.h"
#include "FakeClock.h"
#include "FinalisationPacer.h"
#include "MeasureTestBase.h"
#include "PmPeriodRecord.h"
#include "TwampTestSessionPeer.h"
#include "TwtsiSignals.h"
#include "itc.h"

namespace {

using ::testing::_;
using ::testing::Mock;
using twamp_test::FakeClock;
using twamp_test::MeasureTestBase;
using twamp_test::minuteOfHour;

constexpr int64_t kMicrosecond = 1000;
constexpr int64_t kMillisecond = 1000 * kMicrosecond;
constexpr int kEvenParity = 0;
constexpr int kMeasuredMinute = 8;

// The test's wall clock, and a monotonic clock that, once set moving, moves
// on stepNs at every read, as if whatever ran between two reads took that
// long.
class SlowMonotonicClock : public Clock {
  public:
    explicit SlowMonotonicClock(FakeClock& wall) : wall(wall) {}
    void moveAtEveryRead(int64_t step) { stepNs = step; }
    bool getRealtime(struct timespec* now) override { return wall.getRealtime(now); }
    bool getMonotonic(struct timespec* now) override {
        monotonicNs += stepNs;
        now->tv_sec = static_cast<time_t>(monotonicNs / 1000000000);
        now->tv_nsec = static_cast<long>(monotonicNs % 1000000000);
        return true;
    }

  private:
    FakeClock& wall;
    int64_t stepNs = 0;
    int64_t monotonicNs = 0;
};

class TwampTestSessionPacingTest : public MeasureTestBase {
  protected:
    FinalisationPacer& pacer() { return env.finalisationPacer; }

    // Minute 8: three packets, two answered with different round trips.
    void measureMinute(TwampTestSession& session) {
        const uint64_t first = sendAt(session, kMeasuredMinute, 0);
        answer(session, 0, first, 0, 2, 2);
        const uint64_t second = sendAt(session, kMeasuredMinute, 10);
        answer(session, 1, second, 1, 3, 5);
        sendAt(session, kMeasuredMinute, 20);
    }
    // An expiry in minute 9 at second:nanoseconds whose send fails, so that
    // it uses no sequence number.
    void expiryWithoutSend(TwampTestSession& session, int second, long nanoseconds = 0) {
        systemCalls.sendResults.push_back({-1, ENOBUFS});
        fire(session, minuteOfHour(kMeasuredMinute + 1) + second, nanoseconds);
    }
    static std::vector<int64_t> measuredBin(const TwampTestSession& session) {
        std::vector<int64_t> values;
        for (int counter = 0; counter < PmPeriodRecord::kCounterCount; ++counter) {
            values.push_back(
                TwampTestSessionPeer::getRecord(session, 0).at(counter, kMeasuredMinute));
        }
        return values;
    }
    static bool pending(const TwampTestSession& session) {
        return TwampTestSessionPeer::isMinutePending(session, kEvenParity);
    }
    // The finalised bin of minute 8 of a session whose finalisation waited
    // (or not) behind one of another session.
    std::vector<int64_t> finalisedBin(bool waited) {
        pacer() = FinalisationPacer();
        auto session = startSession();
        measureMinute(*session);
        if (waited) {
            pacer().finalised(0, 300 * kMicrosecond);  // holds until 2.7 ms
            clock.setMonotonic(0, kMillisecond);
            expiryWithoutSend(*session, 4);
            EXPECT_TRUE(pending(*session));
            clock.setMonotonic(0, 2700 * kMicrosecond);
        }
        expiryWithoutSend(*session, 4, 100000000);
        EXPECT_FALSE(pending(*session));
        return measuredBin(*session);
    }
};

// The finalisation that waited writes what one at once writes.
TEST_F(TwampTestSessionPacingTest, WaitingFinalisationWritesTheSameMinute) {
    const std::vector<int64_t> atOnce = finalisedBin(false);
    ASSERT_EQ(3, atOnce[PmCounter::sentPkts]);
    ASSERT_EQ(2, atOnce[PmCounter::receivedPkts]);
    ASSERT_EQ(1, atOnce[PmCounter::lostPktsFwd]);
    EXPECT_EQ(atOnce, finalisedBin(true));
}

// While the pacer holds, the minute stays pending at every expiry; the first
// expiry after the hold finalises it.
TEST_F(TwampTestSessionPacingTest, FinalisationWaitsUntilTheHoldEnds) {
    auto session = startSession();
    measureMinute(*session);
    pacer().finalised(0, 300 * kMicrosecond);
    clock.setMonotonic(0, 500 * kMicrosecond);
    expiryWithoutSend(*session, 4);
    clock.setMonotonic(0, 2699 * kMicrosecond);
    expiryWithoutSend(*session, 4, 100000000);
    EXPECT_TRUE(pending(*session));
    EXPECT_EQ(PmPeriodRecord::kNotAvailable, measuredBin(*session)[PmCounter::delayRtMax]);
    clock.setMonotonic(0, 2700 * kMicrosecond);
    expiryWithoutSend(*session, 4, 200000000);
    EXPECT_FALSE(pending(*session));
    EXPECT_NE(PmPeriodRecord::kNotAvailable, measuredBin(*session)[PmCounter::delayRtMax]);
}

// However long the hold, the minute is finalised at the first expiry half a
// second after it was due.
TEST_F(TwampTestSessionPacingTest, FinalisationWaitsAtMostHalfASecond) {
    auto session = startSession();
    measureMinute(*session);
    pacer().finalised(0, 200 * kMillisecond);  // holds until 1.8 s
    clock.setMonotonic(0, 250 * kMillisecond);
    expiryWithoutSend(*session, 4);
    clock.setMonotonic(0, 749 * kMillisecond);
    expiryWithoutSend(*session, 4, 499000000);
    EXPECT_TRUE(pending(*session));
    clock.setMonotonic(0, 750 * kMillisecond);
    expiryWithoutSend(*session, 4, 500000000);
    EXPECT_FALSE(pending(*session));
}

// A counters reply held for the interval's end waits with the finalisation.
TEST_F(TwampTestSessionPacingTest, HeldCountersReplyWaitsWithTheFinalisation) {
    auto session = startSession();
    measureMinute(*session);
    union itc_msg* reply = itc_alloc(4584, TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP);
    session->setPendingPmReply(reply);
    pacer().finalised(0, 300 * kMicrosecond);
    clock.setMonotonic(0, kMillisecond);
    EXPECT_CALL(dispatcher, sendPmCountersReply(_, _)).Times(0);
    expiryWithoutSend(*session, 4);
    Mock::VerifyAndClearExpectations(&dispatcher);
    clock.setMonotonic(0, 3 * kMillisecond);
    EXPECT_CALL(dispatcher, sendPmCountersReply(session.get(), reply))
        .WillOnce([](TwampTestSession*, union itc_msg* sent) { itc_free(&sent); });
    expiryWithoutSend(*session, 4, 100000000);
    Mock::VerifyAndClearExpectations(&dispatcher);
}

// The ring of outstanding packets holds a minute, its 4 s of late replies
// and the longest wait of its finalisation without growing: a ring that grew
// would copy itself in the busiest second (at 1000 packets/s 1.5 MiB per
// session).
TEST_F(TwampTestSessionPacingTest, RingHoldsTheLongestWaitWithoutGrowing) {
    for (const uint32_t rate : {1U, 10U, 100U, 1000U, 5000U}) {
        auto session = makeSession(rate);
        const double seconds = 60.0 + 4.0 + 1e-9 * FinalisationPacer::kLongestWaitNs;
        const auto needed = static_cast<std::size_t>(seconds * rate) + 1;
        EXPECT_LE(needed, TwampTestSessionPeer::getOutstandingCapacity(*session)) << rate;
    }
}

// A session tells the pacer how long its finalisation took: measured on a
// monotonic clock that moves 300 us per read, the next session's
// finalisation, due right after, waits.
TEST_F(TwampTestSessionPacingTest, FinalisationTimesItselfForTheNext) {
    SlowMonotonicClock slowClock(clock);
    auto session = std::make_unique<twamp_test::ObservedSession>("127.0.0.1", "862", 10, 0, 0, 64,
                                                                 0, 0, 0, slowClock, &systemCalls);
    ASSERT_TRUE(session->init());
    measureMinute(*session);
    ASSERT_TRUE(pacer().mayFinalise(0, 0));
    slowClock.moveAtEveryRead(300 * kMicrosecond);
    expiryWithoutSend(*session, 4);
    EXPECT_FALSE(pending(*session));
    // Due at 0.3 ms, started at 0.6 ms, ended at 0.9 ms: quiet until 3.3 ms.
    EXPECT_FALSE(pacer().mayFinalise(3300 * kMicrosecond - 1, 3 * kMillisecond));
    EXPECT_TRUE(pacer().mayFinalise(3300 * kMicrosecond, 3 * kMillisecond));
}

}  // namespace
