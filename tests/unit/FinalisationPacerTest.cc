#include "FinalisationPacer.h"

#include <gtest/gtest.h>

namespace {

constexpr int64_t kMicrosecond = 1000;
constexpr int64_t kMillisecond = 1000 * kMicrosecond;

// Before any finalisation nothing waits.
TEST(FinalisationPacerTest, FirstFinalisationRunsAtOnce) {
    FinalisationPacer pacer;
    EXPECT_TRUE(pacer.mayFinalise(0, 0));
    EXPECT_TRUE(pacer.mayFinalise(123 * kMillisecond, 123 * kMillisecond));
}

// After a finalisation of 300 us the next one waits 2.4 ms from its end.
TEST(FinalisationPacerTest, LongFinalisationHoldsTheNextForEightTimesItsLength) {
    FinalisationPacer pacer;
    pacer.finalised(10 * kMillisecond, 10 * kMillisecond + 300 * kMicrosecond);
    const int64_t quietUntil = 10 * kMillisecond + 300 * kMicrosecond + 2400 * kMicrosecond;
    EXPECT_FALSE(pacer.mayFinalise(10 * kMillisecond + 400 * kMicrosecond,
                                   10 * kMillisecond + 400 * kMicrosecond));
    EXPECT_FALSE(pacer.mayFinalise(quietUntil - 1, 10 * kMillisecond + 400 * kMicrosecond));
    EXPECT_TRUE(pacer.mayFinalise(quietUntil, 10 * kMillisecond + 400 * kMicrosecond));
}

// Finalisations shorter than 50 us make nobody wait, however many there are.
TEST(FinalisationPacerTest, ShortFinalisationsHoldNothing) {
    FinalisationPacer pacer;
    for (int64_t start = 0; start < kMillisecond; start += 49 * kMicrosecond) {
        pacer.finalised(start, start + 49 * kMicrosecond);
        EXPECT_TRUE(pacer.mayFinalise(start + 49 * kMicrosecond, start + 49 * kMicrosecond));
    }
    pacer.finalised(kMillisecond, kMillisecond + 50 * kMicrosecond);
    EXPECT_FALSE(pacer.mayFinalise(kMillisecond + 60 * kMicrosecond, kMillisecond));
}

// A short finalisation after a long one does not end the long one's hold.
TEST(FinalisationPacerTest, ShortFinalisationKeepsTheHold) {
    FinalisationPacer pacer;
    pacer.finalised(0, kMillisecond);
    pacer.finalised(2 * kMillisecond, 2 * kMillisecond + kMicrosecond);
    EXPECT_FALSE(pacer.mayFinalise(3 * kMillisecond, 3 * kMillisecond));
    EXPECT_TRUE(pacer.mayFinalise(9 * kMillisecond, 3 * kMillisecond));
}

// However long the hold, a finalisation waits at most half a second.
TEST(FinalisationPacerTest, NoFinalisationWaitsLongerThanHalfASecond) {
    FinalisationPacer pacer;
    pacer.finalised(0, 200 * kMillisecond);  // holds until 1.8 s
    const int64_t due = 300 * kMillisecond;
    EXPECT_FALSE(pacer.mayFinalise(due + 500 * kMillisecond - 1, due));
    EXPECT_TRUE(pacer.mayFinalise(due + 500 * kMillisecond, due));
}

}  // namespace
