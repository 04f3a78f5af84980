#include "MinuteArithmetic.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>

#include "NtpTimestamp.h"

namespace {

timespec at(time_t seconds, long nanoseconds) {
    timespec time{};
    time.tv_sec = seconds;
    time.tv_nsec = nanoseconds;
    return time;
}

// The last second of a minute belongs to it; the next second starts the next minute.
TEST(MinuteArithmeticTest, MinuteOfChangesOnTheWholeMinute) {
    EXPECT_EQ(0u, minuteOf(at(59, 999999999)));
    EXPECT_EQ(1u, minuteOf(at(60, 0)));
}

// A present-day time: 1700000000 s after 1970 lies in minute 28333333.
TEST(MinuteArithmeticTest, MinuteOfPresentDayTime) {
    EXPECT_EQ(28333333u, minuteOf(at(1700000000, 250000000)));
}

// Minutes 0 to 14 fill record 0, minutes 15 to 29 record 1, minute 30 record 0 again.
TEST(MinuteArithmeticTest, RecordIndexAlternatesByInterval) {
    EXPECT_EQ(0, recordIndexOf(0));
    EXPECT_EQ(0, recordIndexOf(14));
    EXPECT_EQ(1, recordIndexOf(15));
    EXPECT_EQ(1, recordIndexOf(29));
    EXPECT_EQ(0, recordIndexOf(30));
}

// The bin is the minute's place in its 15-minute interval.
TEST(MinuteArithmeticTest, BinIsMinuteModuloFifteen) {
    EXPECT_EQ(0, binOf(0));
    EXPECT_EQ(14, binOf(14));
    EXPECT_EQ(0, binOf(15));
    EXPECT_EQ(13, binOf(28333333));
}

// Even minutes have parity 0, odd ones parity 1.
TEST(MinuteArithmeticTest, ParityIsTheLowestBit) {
    EXPECT_EQ(0, parityOf(0));
    EXPECT_EQ(1, parityOf(1));
    EXPECT_EQ(1, parityOf(28333333));
    EXPECT_EQ(1, parityOf(4294967295u));
}

// The Unix epoch as an NTP timestamp is minute 0; the fraction does not count.
TEST(MinuteArithmeticTest, MinuteOfNtpAtUnixEpoch) {
    EXPECT_EQ(0u, minuteOfNtp(0x83AA7E8000000000ULL));
    EXPECT_EQ(0u, minuteOfNtp(0x83AA7EBBFFFFFFFFULL));
    EXPECT_EQ(1u, minuteOfNtp(0x83AA7EBC00000000ULL));
}

// An NTP timestamp gives the same minute as the wall-clock time it was made from.
TEST(MinuteArithmeticTest, MinuteOfNtpAgreesWithMinuteOf) {
    EXPECT_EQ(28333333u, minuteOfNtp(0xE8FE6F8040000000ULL));
    EXPECT_EQ(minuteOf(at(1700000000, 250000000)),
              minuteOfNtp(toNtpTimestamp(at(1700000000, 250000000))));
}

// After the NTP seconds wrap in 2036 the minute keeps counting from 1970.
TEST(MinuteArithmeticTest, MinuteOfNtpInTheNextEra) {
    EXPECT_EQ(34766308u, minuteOfNtp(0xFFFFFFFF00000000ULL));
    EXPECT_EQ(34766308u, minuteOfNtp(0x0000000000000000ULL));
    EXPECT_EQ(34766309u, minuteOfNtp(0x0000003B00000000ULL));
}

}  // namespace
