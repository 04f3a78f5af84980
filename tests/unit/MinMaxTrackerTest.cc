#include "MinMaxTracker.h"

#include <gtest/gtest.h>

namespace {

// A tracker that saw nothing holds a count of 0 and a range of 0 to 0.
TEST(MinMaxTrackerTest, EmptyTrackerHoldsNothing) {
    const MinMaxTracker tracker;
    EXPECT_EQ(0u, tracker.count);
    EXPECT_EQ(0u, tracker.min);
    EXPECT_EQ(0u, tracker.max);
}

// The first value is both the smallest and the largest.
TEST(MinMaxTrackerTest, FirstValueIsMinimumAndMaximum) {
    MinMaxTracker tracker;
    tracker.add(64);
    EXPECT_EQ(64u, tracker.min);
    EXPECT_EQ(64u, tracker.max);
    EXPECT_EQ(1u, tracker.count);
}

// Later values widen the range in either direction and are all counted.
TEST(MinMaxTrackerTest, LaterValuesWidenTheRange) {
    MinMaxTracker tracker;
    tracker.add(64);
    tracker.add(255);
    tracker.add(1);
    tracker.add(100);
    EXPECT_EQ(1u, tracker.min);
    EXPECT_EQ(255u, tracker.max);
    EXPECT_EQ(4u, tracker.count);
}

// Clearing starts the range anew: the next value is its only one.
TEST(MinMaxTrackerTest, ClearStartsAnew) {
    MinMaxTracker tracker;
    tracker.add(10);
    tracker.add(200);
    tracker.clear();
    tracker.add(50);
    EXPECT_EQ(50u, tracker.min);
    EXPECT_EQ(50u, tracker.max);
    EXPECT_EQ(1u, tracker.count);
}

}  // namespace
