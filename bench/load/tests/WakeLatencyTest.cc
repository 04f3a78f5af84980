#include "WakeLatency.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr int64_t kUs = 1000;
constexpr int64_t kMs = 1000 * kUs;

std::string printed(const WakeLatency& latency, bool stalls) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* out = open_memstream(&text, &size);
    if (stalls) {
        latency.printStalls(out, "cpu0");
    } else {
        latency.print(out, "cpu0");
    }
    std::fclose(out);
    std::string result(text, size);
    std::free(text);
    return result;
}

TEST(WakeLatencyTest, EachWakeUpFallsInTheBandBelowItsUpperBound) {
    WakeLatency latency(5 * kMs, 10);
    latency.add(49 * kUs, 1);
    latency.add(50 * kUs, 1);
    latency.add(999 * kUs, 1);
    latency.add(1 * kMs, 1);
    latency.add(100 * kMs - 1, 1);
    latency.add(100 * kMs, 1);
    EXPECT_EQ(latency.band(0), 1u);
    EXPECT_EQ(latency.band(1), 1u);
    EXPECT_EQ(latency.band(2), 1u);
    EXPECT_EQ(latency.band(3), 1u);
    EXPECT_EQ(latency.band(4), 0u);
    EXPECT_EQ(latency.band(5), 0u);
    EXPECT_EQ(latency.band(6), 1u);
    EXPECT_EQ(latency.band(7), 1u);
    EXPECT_EQ(latency.wakeUps(), 6u);
    EXPECT_EQ(latency.maxNs(), 100 * kMs);
}

TEST(WakeLatencyTest, AnEarlyWakeUpCountsAsOnTime) {
    WakeLatency latency(5 * kMs, 10);
    latency.add(-3 * kUs, 1);
    EXPECT_EQ(latency.band(0), 1u);
    EXPECT_EQ(latency.maxNs(), 0);
}

TEST(WakeLatencyTest, StallsFromTheThresholdOnAreCountedAndKeptUpToTheLimit) {
    WakeLatency latency(5 * kMs, 2);
    latency.add(5 * kMs - 1, 10);
    latency.add(5 * kMs, 11);
    latency.add(98 * kMs, 12);
    latency.add(7 * kMs, 13);
    EXPECT_EQ(latency.stallCount(), 3u);
    ASSERT_EQ(latency.keptStalls().size(), 2u);
    EXPECT_EQ(latency.keptStalls()[0].latenessNs, 5 * kMs);
    EXPECT_EQ(latency.keptStalls()[0].wallSecond, 11);
    EXPECT_EQ(latency.keptStalls()[1].latenessNs, 98 * kMs);
    EXPECT_EQ(printed(latency, true), "cpu0 stall_us=5000.0 at=11\ncpu0 stall_us=98000.0 at=12\n");
}

TEST(WakeLatencyTest, MergeAddsBandsAndCountsAndKeepsTheLargest) {
    WakeLatency first(5 * kMs, 10);
    WakeLatency second(5 * kMs, 10);
    first.add(10 * kUs, 1);
    first.add(6 * kMs, 2);
    second.add(20 * kMs, 3);
    second.add(70 * kUs, 4);
    WakeLatency all(5 * kMs, 1);
    all.merge(first);
    all.merge(second);
    EXPECT_EQ(all.wakeUps(), 4u);
    EXPECT_EQ(all.stallCount(), 2u);
    EXPECT_EQ(all.keptStalls().size(), 1u);
    EXPECT_EQ(all.maxNs(), 20 * kMs);
    EXPECT_EQ(all.band(0), 1u);
    EXPECT_EQ(all.band(1), 1u);
    EXPECT_EQ(all.band(4), 1u);
    EXPECT_EQ(all.band(5), 1u);
}

TEST(WakeLatencyTest, PrintsOneLineWithEveryBand) {
    WakeLatency latency(5 * kMs, 10);
    latency.add(30 * kUs, 1);
    latency.add(101500 * kUs, 2);
    EXPECT_EQ(printed(latency, false),
              "cpu0 wakeups=2 max_us=101500.0 lt50us=1 lt100us=0 lt1000us=0 lt5000us=0 "
              "lt10000us=0 lt50000us=0 lt100000us=0 ge100000us=1 stalls=1\n");
}

}  // namespace
