#include "NtpTimestamp.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

class NtpTimestampTest : public ::testing::Test {
  protected:
    static timespec at(time_t seconds, long nanoseconds) {
        timespec time{};
        time.tv_sec = seconds;
        time.tv_nsec = nanoseconds;
        return time;
    }
};

// The Unix epoch is 0x83AA7E80 NTP seconds with a zero fraction.
TEST_F(NtpTimestampTest, UnixEpochIsNtpEpochOffset) {
    EXPECT_EQ(toNtpTimestamp(at(0, 0)), 0x83AA7E8000000000ULL);
}

// Half a second is the fraction 0x80000000; the second counts into the upper word.
TEST_F(NtpTimestampTest, HalfSecondFractionAndSecondsWord) {
    const uint64_t ntp = toNtpTimestamp(at(1, 500000000));
    EXPECT_EQ(ntp >> 32, 0x83AA7E81ULL);
    EXPECT_EQ(ntp & 0xFFFFFFFFULL, 0x80000000ULL);
    EXPECT_EQ(ntp, 0x83AA7E8180000000ULL);
}

// The largest nanosecond value truncates to 0xFFFFFFFB and never carries into the seconds.
TEST_F(NtpTimestampTest, LastNanosecondTruncatesBelowOneSecond) {
    const uint64_t ntp = toNtpTimestamp(at(0, 999999999));
    EXPECT_EQ(ntp & 0xFFFFFFFFULL, 0xFFFFFFFBULL);
    EXPECT_EQ(ntp, 0x83AA7E80FFFFFFFBULL);
}

// One nanosecond is 4.29 fraction units, truncated to 4.
TEST_F(NtpTimestampTest, OneNanosecondTruncatesToFour) {
    EXPECT_EQ(toNtpTimestamp(at(0, 1)), 0x83AA7E8000000004ULL);
}

// A present-day time: 1700000000 s after 1970 is 0xE8FE6F80 NTP seconds.
TEST_F(NtpTimestampTest, PresentDayTime) {
    EXPECT_EQ(toNtpTimestamp(at(1700000000, 250000000)), 0xE8FE6F8040000000ULL);
}

// The seconds wrap modulo 2^32 at the end of the NTP era (2036-02-07 06:28:16 UTC).
TEST_F(NtpTimestampTest, SecondsWrapAtEndOfEra) {
    EXPECT_EQ(toNtpTimestamp(at(2085978495, 0)), 0xFFFFFFFF00000000ULL);
    EXPECT_EQ(toNtpTimestamp(at(2085978496, 0)), 0x0000000000000000ULL);
}

// The epoch offset constant is the 1900-to-1970 distance in seconds.
TEST_F(NtpTimestampTest, EpochOffsetConstant) {
    EXPECT_EQ(kNtpUnixEpochOffset, 2208988800ULL);
    EXPECT_EQ(kNtpUnixEpochOffset, 0x83AA7E80ULL);
}

// Four seconds as an NTP difference is 0x400000000, the distance of two converted times.
TEST_F(NtpTimestampTest, FourSecondsConstantMatchesConvertedDifference) {
    EXPECT_EQ(kNtpFourSeconds, 0x400000000ULL);
    EXPECT_EQ(toNtpTimestamp(at(1700000004, 123456789)) - toNtpTimestamp(at(1700000000, 123456789)),
              kNtpFourSeconds);
}

}  // namespace
