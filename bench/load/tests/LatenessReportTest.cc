// The lateness report's line: the reported minutes and the finalisation seconds.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "LatenessReport.h"

namespace {

constexpr int64_t kNanosecondsPerSecond = 1000000000;
constexpr uint64_t kNtpUnixEpochOffset = 2208988800ULL;
// Minute 28333334 since 1970: 2023-11-14 22:14:00 UTC.
constexpr int64_t kFirstMinuteNs = 1700000040LL * kNanosecondsPerSecond;
constexpr int64_t kIntervalNs = 100000000;  // 10 packets/s

// T1 as NTP of an instant in ns since 1970, rounded up so that it reads back as the same ns.
uint64_t ntpOf(int64_t nanoseconds) {
    const auto seconds = static_cast<uint64_t>(nanoseconds / kNanosecondsPerSecond);
    const auto fraction = static_cast<uint64_t>(nanoseconds % kNanosecondsPerSecond);
    return ((seconds + kNtpUnixEpochOffset) << 32) | (((fraction << 32) + 999999999) / 1000000000);
}

class LatenessReportTest : public ::testing::Test {
  protected:
    // One session at 10 packets/s, slot 0, every packet lateNs after its expiry,
    // packet k at expiry k of the first minute and beyond.
    void sendPackets(uint32_t from, uint32_t to, int64_t lateNs) {
        for (uint32_t k = from; k < to; ++k) {
            report.add(CapturedRequest{0, k, ntpOf(kFirstMinuteNs + k * kIntervalNs + lateNs)});
        }
    }

    std::string printed() {
        char* text = nullptr;
        std::size_t length = 0;
        std::FILE* out = open_memstream(&text, &length);
        report.print(out);
        std::fclose(out);
        std::string line(text, length);
        std::free(text);
        return line;
    }

    LatenessReport report{SendSchedule{kFirstMinuteNs, 1, kIntervalNs, 400000}};
};

// Packets of second 4 of the minute after the reported one are the finalisation second's.
TEST_F(LatenessReportTest, SecondFourOfTheNextMinuteIsTheFinalisationSecond) {
    sendPackets(0, 640, 20000);      // the reported minute and 4 s of the next, 20 us late
    sendPackets(640, 650, 3000000);  // 64.0 s to 64.9 s: 3 ms late
    sendPackets(650, 660, 20000);
    EXPECT_EQ(
        "packets=600 outside=60 dropped_expiries=0 beyond_interval=0 p50_us=20.0 p99_us=20.0 "
        "max_us=20.0 mean_us=20.0 fin_packets=10 fin_dropped_expiries=0 fin_beyond_interval=0 "
        "fin_p50_us=3000.0 fin_p99_us=3000.0 fin_max_us=3000.0\n",
        printed());
}

// Second 4 of the first minute finalises nothing of the reported minutes and is not singled out.
TEST_F(LatenessReportTest, SecondFourOfTheFirstMinuteIsNoFinalisationSecond) {
    sendPackets(0, 600, 20000);
    EXPECT_EQ(
        "packets=600 outside=0 dropped_expiries=0 beyond_interval=0 p50_us=20.0 p99_us=20.0 "
        "max_us=20.0 mean_us=20.0 fin_packets=0 fin_dropped_expiries=0 fin_beyond_interval=0 "
        "fin_p50_us=n/a fin_p99_us=n/a fin_max_us=n/a\n",
        printed());
}

// Expiries dropped in the finalisation second are counted there.
TEST_F(LatenessReportTest, ExpiriesDroppedInTheFinalisationSecondAreCounted) {
    sendPackets(0, 640, 20000);
    // Expiries 640 to 651 pass; the read at 65.15 s sends 8, for expiries 644 to 651.
    for (uint32_t k = 0; k < 8; ++k) {
        report.add(CapturedRequest{0, 640 + k, ntpOf(kFirstMinuteNs + 65150000000LL + k * 1000)});
    }
    EXPECT_EQ(
        "packets=600 outside=48 dropped_expiries=0 beyond_interval=0 p50_us=20.0 p99_us=20.0 "
        "max_us=20.0 mean_us=20.0 fin_packets=6 fin_dropped_expiries=4 fin_beyond_interval=6 "
        "fin_p50_us=450003.0 fin_p99_us=750000.0 fin_max_us=750000.0\n",
        printed());
}

}  // namespace
