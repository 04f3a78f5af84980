#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "RestartSchedule.h"

namespace {

constexpr int64_t kSecondNs = 1000000000LL;

// The acceptances of count requests, one every stepNs from startNs: true where numbering restarts.
std::vector<bool> accepts(RestartSchedule& schedule, int count, int64_t startNs = 0,
                          int64_t stepNs = 0) {
    std::vector<bool> restarts;
    for (int index = 0; index < count; ++index) {
        restarts.push_back(schedule.accept(startNs + index * stepNs));
    }
    return restarts;
}

// Without settings nothing restarts and nothing is dropped.
TEST(RestartScheduleTest, NeverByDefault) {
    RestartSchedule schedule{RestartSettings{}};
    EXPECT_FALSE(schedule.dropInGap(0));
    EXPECT_EQ(std::vector<bool>(5, false), accepts(schedule, 5));
}

// Every N accepted requests numbering starts again with the next one.
TEST(RestartScheduleTest, Every) {
    RestartSettings settings;
    settings.every = 2;
    RestartSchedule schedule(settings);
    EXPECT_EQ((std::vector<bool>{false, false, true, false, true}), accepts(schedule, 5));
}

// After N accepted requests the next M arrivals are dropped, then numbering restarts, once.
TEST(RestartScheduleTest, AfterWithGapOfRequests) {
    RestartSettings settings;
    settings.after = 2;
    settings.gapRequests = 3;
    RestartSchedule schedule(settings);
    EXPECT_EQ((std::vector<bool>{false, false}), accepts(schedule, 2));
    EXPECT_TRUE(schedule.dropInGap(0));
    EXPECT_TRUE(schedule.dropInGap(0));
    EXPECT_TRUE(schedule.dropInGap(0));
    EXPECT_FALSE(schedule.dropInGap(0));
    EXPECT_EQ((std::vector<bool>{true, false, false}), accepts(schedule, 3));
    EXPECT_FALSE(schedule.dropInGap(0));
}

// A gap of one second: what arrives within it is dropped, the first arrival after restarts.
TEST(RestartScheduleTest, AfterWithGapOfOneSecond) {
    RestartSettings settings;
    settings.after = 1;
    settings.gapNs = kSecondNs;
    RestartSchedule schedule(settings);
    EXPECT_FALSE(schedule.accept(5 * kSecondNs));
    EXPECT_TRUE(schedule.dropInGap(5 * kSecondNs + 1));
    EXPECT_TRUE(schedule.dropInGap(6 * kSecondNs - 1));
    EXPECT_FALSE(schedule.dropInGap(6 * kSecondNs));
    EXPECT_TRUE(schedule.accept(6 * kSecondNs));
    EXPECT_FALSE(schedule.dropInGap(7 * kSecondNs));
    EXPECT_FALSE(schedule.accept(7 * kSecondNs));
}

// Without a gap the restart comes with the acceptance right after the count.
TEST(RestartScheduleTest, AfterWithoutGap) {
    RestartSettings settings;
    settings.after = 1;
    RestartSchedule schedule(settings);
    EXPECT_FALSE(schedule.dropInGap(0));
    EXPECT_EQ((std::vector<bool>{false, true, false, false}), accepts(schedule, 4));
}

}  // namespace
