#include "CounterAccumulator.h"

#include <gtest/gtest.h>

#include "FakeDaemonClient.h"
#include "PmPeriodRecord.h"

namespace {

using tools_test::FakeDaemonClient;

// 2023-11-14 22:00:00 UTC, the start of an interval: minute 28333320.
constexpr time_t kIntervalStart = 1699999200;
constexpr int64_t kFirstMinute = 28333320;
const std::string kKey = "session-a";

class CounterAccumulatorTest : public ::testing::Test {
  protected:
    void SetUp() override { FakeDaemonClient::clear(grid); }

    // Bin bin with the packet counters a finalised minute has.
    void setMinute(int bin, int64_t sent, int64_t received, int64_t lostFwd, int64_t lostRev) {
        grid[PmCounter::sentPkts][bin] = sent;
        grid[PmCounter::receivedPkts][bin] = received;
        grid[PmCounter::lostPktsFwd][bin] = lostFwd;
        grid[PmCounter::lostPktsRev][bin] = lostRev;
        grid[PmCounter::latePktsFwd][bin] = 0;
        grid[PmCounter::latePktsRev][bin] = 0;
        grid[PmCounter::duplicatePktsFwd][bin] = 0;
        grid[PmCounter::duplicatePktsRev][bin] = 0;
    }

    uint64_t total(TotalCounter counter) const {
        return accumulator.find(kKey)->totals[static_cast<std::size_t>(counter)];
    }

    CounterGrid grid;
    CounterAccumulator accumulator{kIntervalStart};
};

// Final minutes are summed into the totals.
TEST_F(CounterAccumulatorTest, SumsFinalMinutes) {
    setMinute(0, 600, 590, 6, 4);
    setMinute(1, 600, 600, 0, 0);
    accumulator.observe(kKey, kFirstMinute, grid, kFirstMinute + 1);
    EXPECT_EQ(1200u, total(TotalCounter::Sent));
    EXPECT_EQ(1190u, total(TotalCounter::Received));
    EXPECT_EQ(6u, total(TotalCounter::LostForward));
    EXPECT_EQ(4u, total(TotalCounter::LostReverse));
}

// A minute after the last final one is not added, even when it holds counts.
TEST_F(CounterAccumulatorTest, SkipsMinutesNotFinal) {
    setMinute(0, 600, 590, 6, 4);
    setMinute(1, 300, 300, 0, 0);
    accumulator.observe(kKey, kFirstMinute, grid, kFirstMinute);
    EXPECT_EQ(600u, total(TotalCounter::Sent));
}

// The same minute seen in a second reply is not added again.
TEST_F(CounterAccumulatorTest, AddsMinuteOnce) {
    setMinute(0, 600, 590, 6, 4);
    accumulator.observe(kKey, kFirstMinute, grid, kFirstMinute);
    accumulator.observe(kKey, kFirstMinute, grid, kFirstMinute);
    EXPECT_EQ(600u, total(TotalCounter::Sent));
}

// A minute held back as not final is added once it is final.
TEST_F(CounterAccumulatorTest, AddsMinuteWhenFinal) {
    setMinute(0, 600, 590, 6, 4);
    setMinute(1, 300, 300, 0, 0);
    accumulator.observe(kKey, kFirstMinute, grid, kFirstMinute);
    setMinute(1, 600, 600, 0, 0);
    accumulator.observe(kKey, kFirstMinute, grid, kFirstMinute + 1);
    EXPECT_EQ(1200u, total(TotalCounter::Sent));
}

// After a daemon restart the minutes come back as -2: the totals stay as they were.
TEST_F(CounterAccumulatorTest, DaemonRestartKeepsTotals) {
    setMinute(0, 600, 590, 6, 4);
    accumulator.observe(kKey, kFirstMinute, grid, kFirstMinute);
    FakeDaemonClient::clear(grid);
    setMinute(2, 60, 60, 0, 0);
    accumulator.observe(kKey, kFirstMinute, grid, kFirstMinute + 2);
    EXPECT_EQ(660u, total(TotalCounter::Sent));
    EXPECT_EQ(6u, total(TotalCounter::LostForward));
}

// A -2 counter adds nothing while the minute's other counters are added.
TEST_F(CounterAccumulatorTest, NotAvailableCounterAddsNothing) {
    setMinute(0, 600, 590, -2, 4);
    accumulator.observe(kKey, kFirstMinute, grid, kFirstMinute);
    EXPECT_EQ(0u, total(TotalCounter::LostForward));
    EXPECT_EQ(590u, total(TotalCounter::Received));
}

// A minute that ended before the exporter started is not counted.
TEST_F(CounterAccumulatorTest, MinutesBeforeStartNotCounted) {
    CounterAccumulator late(kIntervalStart + 2 * 60 + 30);
    setMinute(0, 600, 600, 0, 0);
    setMinute(1, 600, 600, 0, 0);
    setMinute(2, 600, 600, 0, 0);
    late.observe(kKey, kFirstMinute, grid, kFirstMinute + 2);
    EXPECT_EQ(600u, late.find(kKey)->totals[0]);
}

// The gauges follow the latest final minute, also one that is -2 throughout.
TEST_F(CounterAccumulatorTest, GaugesFollowLatestFinalMinute) {
    setMinute(0, 600, 600, 0, 0);
    grid[PmCounter::delayRtAvg][0] = 1500;
    accumulator.observe(kKey, kFirstMinute, grid, kFirstMinute + 1);
    EXPECT_EQ(kFirstMinute + 1, accumulator.find(kKey)->gaugeMinute);
    EXPECT_EQ(-2, accumulator.find(kKey)->gaugeValues[PmCounter::delayRtAvg]);
}

// A minute already added is no longer needed; a later one is.
TEST_F(CounterAccumulatorTest, NeedsMinute) {
    setMinute(0, 600, 600, 0, 0);
    accumulator.observe(kKey, kFirstMinute, grid, kFirstMinute);
    EXPECT_FALSE(accumulator.needsMinute(kKey, kFirstMinute));
    EXPECT_TRUE(accumulator.needsMinute(kKey, kFirstMinute + 1));
}

// A session not listed for more than 31 minutes is forgotten.
TEST_F(CounterAccumulatorTest, ForgetsUnlistedSession) {
    setMinute(0, 600, 600, 0, 0);
    accumulator.observe(kKey, kFirstMinute, grid, kFirstMinute);
    accumulator.markListed(kKey, kFirstMinute);
    accumulator.forgetOld(kFirstMinute + 31);
    EXPECT_NE(nullptr, accumulator.find(kKey));
    accumulator.forgetOld(kFirstMinute + 32);
    EXPECT_EQ(nullptr, accumulator.find(kKey));
}

}  // namespace
