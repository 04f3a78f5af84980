#include "PmState.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "PercentileVector.h"
#include "TraceRecorder.h"

namespace {

using twamp_test::TraceRecorder;

// Runs every test on a freshly initialised percentile library and an empty trace record.
class PmStateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        TraceRecorder::reset();
        ASSERT_TRUE(percentile_init());
    }
    void TearDown() override { EXPECT_TRUE(percentile_uninit()); }

    // Adds the values first..last in ascending order.
    static void addAscending(PmState& state, uint64_t first, uint64_t last) {
        for (uint64_t value = first; value <= last; ++value) {
            ASSERT_TRUE(state.addSample(value));
        }
    }
};

// Runs every test without the percentile library.
class PmStateWithoutLibraryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(percentile_uninit());
        TraceRecorder::reset();
    }
};

using Messages = std::vector<std::string>;

// --- construction and init ---

// A new state has every field 0.
TEST_F(PmStateTest, NewStateIsAllZero) {
    PmState state;
    EXPECT_EQ(state.getMin(), 0u);
    EXPECT_EQ(state.getMax(), 0u);
    EXPECT_EQ(state.getCount(), 0u);
    EXPECT_EQ(state.getAvg(), 0u);
    EXPECT_EQ(state.getVectorId(), 0u);
    EXPECT_EQ(state.getPercentileSamples(), 0u);
}

// Init creates the vector and traces its identifier at LAB.
TEST_F(PmStateTest, InitTracesVectorCreated) {
    PmState state;
    EXPECT_TRUE(state.init(10));
    EXPECT_EQ(state.getVectorId(), 1u);
    EXPECT_EQ(TraceRecorder::twampMessages("LAB"), Messages({"init(): Vector 1 created"}));
    EXPECT_EQ(TraceRecorder::twampMessages("ERROR"), Messages());
}

// Init sizes the vector for one minute of packets: 1 packet/s takes 60 samples, not 61.
TEST_F(PmStateTest, InitSizesVectorForOneMinute) {
    PmState state;
    ASSERT_TRUE(state.init(1));
    for (uint64_t value = 1; value <= 60; ++value) {
        ASSERT_EQ(percentile_add(state.getVectorId(), value), kPercentileOk);
    }
    EXPECT_EQ(percentile_add(state.getVectorId(), 61), kPercentileVectorFull);
}

// Init with 0 packets per second fails with the library's result code 6.
TEST_F(PmStateTest, InitZeroRateTracesCreateError) {
    PmState state;
    EXPECT_FALSE(state.init(0));
    EXPECT_EQ(state.getVectorId(), 0u);
    EXPECT_EQ(TraceRecorder::twampMessages("ERROR"),
              Messages({"init(): Can't create percentile vector, result code 6"}));
    EXPECT_EQ(TraceRecorder::twampMessages("LAB"), Messages());
}

// Init without the library fails with result code 1.
TEST_F(PmStateWithoutLibraryTest, InitTracesNotInitialised) {
    PmState state;
    EXPECT_FALSE(state.init(10));
    EXPECT_EQ(TraceRecorder::twampMessages("ERROR"),
              Messages({"init(): Can't create percentile vector, result code 1"}));
    EXPECT_EQ(TraceRecorder::twampMessages("LAB"), Messages());
}

// --- samples ---

// One sample of 7: average, minimum, maximum and the three percentiles are all 7.
TEST_F(PmStateTest, OneSampleOfSeven) {
    PmState state;
    ASSERT_TRUE(state.init(10));
    ASSERT_TRUE(state.addSample(7));
    int64_t p95 = -2;
    int64_t p98 = -2;
    int64_t p99 = -2;
    ASSERT_TRUE(state.updatePercentilePmCounters(&p95, &p98, &p99));
    EXPECT_EQ(state.getAvg(), 7u);
    EXPECT_EQ(state.getMin(), 7u);
    EXPECT_EQ(state.getMax(), 7u);
    EXPECT_EQ(state.getCount(), 1u);
    EXPECT_EQ(p95, 7);
    EXPECT_EQ(p98, 7);
    EXPECT_EQ(p99, 7);
    EXPECT_EQ(state.getPercentileSamples(), 1u);
}

// Minimum, maximum, count and integer average follow the samples.
TEST_F(PmStateTest, SamplesUpdateMinMaxCountAndAverage) {
    PmState state;
    ASSERT_TRUE(state.init(10));
    for (uint64_t value : {5u, 3u, 9u, 4u}) {
        ASSERT_TRUE(state.addSample(value));
    }
    EXPECT_EQ(state.getMin(), 3u);
    EXPECT_EQ(state.getMax(), 9u);
    EXPECT_EQ(state.getCount(), 4u);
    EXPECT_EQ(state.getAvg(), 5u);  // 21 / 4
}

// 100 samples 1..100 give the percentiles 95, 98 and 99 and report 100 samples.
TEST_F(PmStateTest, HundredSamplesGivePercentiles) {
    PmState state;
    ASSERT_TRUE(state.init(10));
    addAscending(state, 1, 100);
    int64_t p95 = -2;
    int64_t p98 = -2;
    int64_t p99 = -2;
    ASSERT_TRUE(state.updatePercentilePmCounters(&p95, &p98, &p99));
    EXPECT_EQ(p95, 95);
    EXPECT_EQ(p98, 98);
    EXPECT_EQ(p99, 99);
    EXPECT_EQ(state.getPercentileSamples(), 100u);
    EXPECT_EQ(TraceRecorder::twampMessages("ERROR"), Messages());
}

// A sample above all others that the full vector refuses: traced, max raised, count and sum kept.
TEST_F(PmStateTest, FullVectorRefusesSampleButRaisesMax) {
    PmState state;
    ASSERT_TRUE(state.init(1));
    addAscending(state, 1, 60);
    EXPECT_FALSE(state.addSample(1000));
    EXPECT_EQ(TraceRecorder::twampMessages("ERROR"),
              Messages({"addSample(): Can't add data 1000to percentile vector 1, result code 9"}));
    EXPECT_EQ(state.getCount(), 60u);
    EXPECT_EQ(state.getAvg(), 30u);  // 1830 / 60
    EXPECT_EQ(state.getMax(), 1000u);
    EXPECT_EQ(state.getMin(), 1u);
}

// A sample below all others that the full vector refuses still lowers min.
TEST_F(PmStateTest, FullVectorRefusesSampleButLowersMin) {
    PmState state;
    ASSERT_TRUE(state.init(1));
    addAscending(state, 11, 70);
    EXPECT_FALSE(state.addSample(2));
    EXPECT_EQ(TraceRecorder::twampMessages("ERROR"),
              Messages({"addSample(): Can't add data 2to percentile vector 1, result code 9"}));
    EXPECT_EQ(state.getCount(), 60u);
    EXPECT_EQ(state.getAvg(), 40u);  // 2430 / 60
    EXPECT_EQ(state.getMin(), 2u);
    EXPECT_EQ(state.getMax(), 70u);
}

// Without a vector the sample is refused with code 4, but it still sets min and max.
TEST_F(PmStateTest, SampleWithoutVectorTracesAndCountsNothing) {
    PmState state;
    EXPECT_FALSE(state.addSample(7));
    EXPECT_EQ(TraceRecorder::twampMessages("ERROR"),
              Messages({"addSample(): Can't add data 7to percentile vector 0, result code 4"}));
    EXPECT_EQ(state.getCount(), 0u);
    EXPECT_EQ(state.getAvg(), 0u);
    EXPECT_EQ(state.getMin(), 7u);
    EXPECT_EQ(state.getMax(), 7u);
}

// --- percentile reads ---

// Without samples the read traces at LAB, writes nothing and leaves the vector alone.
TEST_F(PmStateTest, ReadWithoutSamplesTracesLab) {
    PmState state;
    ASSERT_TRUE(state.init(10));
    TraceRecorder::reset();
    int64_t p95 = -2;
    int64_t p98 = -2;
    int64_t p99 = -2;
    EXPECT_FALSE(state.updatePercentilePmCounters(&p95, &p98, &p99));
    EXPECT_EQ(TraceRecorder::twampMessages("LAB"),
              Messages({"updatePercentilePmCounters(): no samples were added to vector 1"}));
    EXPECT_EQ(TraceRecorder::twampMessages("ERROR"), Messages());
    EXPECT_EQ(p95, -2);
    EXPECT_EQ(p98, -2);
    EXPECT_EQ(p99, -2);
}

// A second read finds the vector empty (code 10), writes nothing, and count still says 1.
TEST_F(PmStateTest, SecondReadTracesNoSamples) {
    PmState state;
    ASSERT_TRUE(state.init(10));
    ASSERT_TRUE(state.addSample(7));
    int64_t p95 = -2;
    int64_t p98 = -2;
    int64_t p99 = -2;
    ASSERT_TRUE(state.updatePercentilePmCounters(&p95, &p98, &p99));
    p95 = -2;
    p98 = -2;
    p99 = -2;
    EXPECT_FALSE(state.updatePercentilePmCounters(&p95, &p98, &p99));
    EXPECT_EQ(TraceRecorder::twampMessages("ERROR"),
              Messages({"updatePercentilePmCounters(): Can't get percentile values from "
                        "percentile library for vector 1, result code 10"}));
    EXPECT_EQ(p95, -2);
    EXPECT_EQ(p98, -2);
    EXPECT_EQ(p99, -2);
    EXPECT_EQ(state.getCount(), 1u);
    EXPECT_EQ(state.getPercentileSamples(), 1u);
}

// The library error names the state's own vector, here the second one created.
TEST_F(PmStateTest, ReadErrorNamesOwnVector) {
    PmState first;
    PmState second;
    ASSERT_TRUE(first.init(10));
    ASSERT_TRUE(second.init(10));
    ASSERT_TRUE(second.addSample(3));
    int64_t p95 = -2;
    int64_t p98 = -2;
    int64_t p99 = -2;
    ASSERT_TRUE(second.updatePercentilePmCounters(&p95, &p98, &p99));
    EXPECT_FALSE(second.updatePercentilePmCounters(&p95, &p98, &p99));
    EXPECT_EQ(TraceRecorder::twampMessages("ERROR"),
              Messages({"updatePercentilePmCounters(): Can't get percentile values from "
                        "percentile library for vector 2, result code 10"}));
}

// --- reset ---

// Reset zeroes min, max, count and average.
TEST_F(PmStateTest, ResetClearsAccumulators) {
    PmState state;
    ASSERT_TRUE(state.init(10));
    addAscending(state, 4, 8);
    state.reset();
    EXPECT_EQ(state.getMin(), 0u);
    EXPECT_EQ(state.getMax(), 0u);
    EXPECT_EQ(state.getCount(), 0u);
    EXPECT_EQ(state.getAvg(), 0u);
}

// Reset keeps the vector: its identifier stays and a new sample starts min and max afresh.
TEST_F(PmStateTest, ResetKeepsVector) {
    PmState state;
    ASSERT_TRUE(state.init(10));
    ASSERT_TRUE(state.addSample(50));
    state.reset();
    ASSERT_TRUE(state.addSample(20));
    EXPECT_EQ(state.getVectorId(), 1u);
    EXPECT_EQ(state.getMin(), 20u);
    EXPECT_EQ(state.getMax(), 20u);
    EXPECT_EQ(state.getCount(), 1u);
}

// Reset does not empty the vector: samples before it still count in the next read.
TEST_F(PmStateTest, ResetLeavesVectorSamples) {
    PmState state;
    ASSERT_TRUE(state.init(10));
    ASSERT_TRUE(state.addSample(50));
    state.reset();
    ASSERT_TRUE(state.addSample(20));
    int64_t p95 = -2;
    int64_t p98 = -2;
    int64_t p99 = -2;
    ASSERT_TRUE(state.updatePercentilePmCounters(&p95, &p98, &p99));
    EXPECT_EQ(state.getPercentileSamples(), 2u);
    EXPECT_EQ(p99, 50);
}

// --- destruction ---

// Destroying an initialised state deletes its vector without a trace.
TEST_F(PmStateTest, DestructorDeletesVector) {
    auto state = std::make_unique<PmState>();
    ASSERT_TRUE(state->init(10));
    const uint32_t id = state->getVectorId();
    state.reset();
    EXPECT_EQ(percentile_add(id, 1), kPercentileNoSuchVector);
    EXPECT_EQ(TraceRecorder::twampMessages("ERROR"), Messages());
}

// Destroying a state that was never initialised traces the failed delete of vector 0.
TEST_F(PmStateTest, DestructorOfUninitialisedStateTraces) {
    { PmState state; }
    EXPECT_EQ(TraceRecorder::twampMessages("ERROR"),
              Messages({"~PmState(): Can't delete percentile vector 0, result code 4"}));
}

// Destroying a state after the library is gone traces result code 1.
TEST_F(PmStateWithoutLibraryTest, DestructorTracesNotInitialised) {
    { PmState state; }
    EXPECT_EQ(TraceRecorder::twampMessages("ERROR"),
              Messages({"~PmState(): Can't delete percentile vector 0, result code 1"}));
}

}  // namespace
