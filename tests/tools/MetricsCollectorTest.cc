#include "MetricsCollector.h"

#include <cerrno>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "FakeClock.h"
#include "FakeDaemonClient.h"
#include "PmPeriodRecord.h"
#include "TwtsiSignals.h"

namespace {

using tools_test::FakeDaemonClient;

// 2023-11-14 22:00:00 UTC, the start of an interval.
constexpr time_t kIntervalStart = 1699999200;
const std::string kIdHex = "00000000000000000000000000000007";
const std::string kLabels =
    "id=\"00000000000000000000000000000007\",destination=\"198.18.0.2\",port=\"862\",dscp=\"46\"";

SessionListing listing() {
    SessionListing session;
    session.sessionId[15] = 7;
    session.dstIpAddress = "198.18.0.2";
    session.dstUdpPort = 862;
    session.packetsPerSecond = 10;
    session.dscp = 46;
    session.packetSize = 64;
    session.state = TWTSI_SESSION_STATE_SENDING;
    return session;
}

bool contains(const std::string& text, const std::string& line) {
    return text.find(line + "\n") != std::string::npos;
}

class MetricsCollectorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        clock.set(kIntervalStart + 3 * 60 + 20);
        client.sessions.push_back(listing());
        FakeDaemonClient::clear(grid);
    }

    void setMinute(int bin, int64_t sent, int64_t received, int64_t rtAvg) {
        for (int row = 0; row < TWTSI_PM_COUNTER_ROWS; ++row) {
            grid[row][bin] = 0;
        }
        grid[PmCounter::sentPkts][bin] = sent;
        grid[PmCounter::receivedPkts][bin] = received;
        grid[PmCounter::lostPktsFwd][bin] = sent - received;
        grid[PmCounter::delayRtAvg][bin] = rtAvg;
    }

    twamp_test::FakeClock clock;
    FakeDaemonClient client;
    CounterGrid grid;
    MetricsCollector collector{client, clock, kIntervalStart};
};

// The finalised minutes of the interval in progress are counted, the running one is not.
TEST_F(MetricsCollectorTest, CountsFinalMinutesOfRunningInterval) {
    setMinute(0, 600, 600, 100);
    setMinute(1, 600, 597, 100);
    setMinute(2, 600, 600, 100);
    setMinute(3, 200, 200, -2);
    client.setCounters(kIdHex, false, grid);
    const std::string text = collector.scrape();
    EXPECT_TRUE(contains(text, "twamp_session_sent_packets_total{" + kLabels + "} 1800")) << text;
    EXPECT_TRUE(
        contains(text, "twamp_session_lost_packets_total{" + kLabels + ",direction=\"forward\"} 3"))
        << text;
}

// Two scrapes of the same minutes count them once.
TEST_F(MetricsCollectorTest, SecondScrapeAddsNothing) {
    setMinute(0, 600, 600, 100);
    client.setCounters(kIdHex, false, grid);
    collector.scrape();
    const std::string text = collector.scrape();
    EXPECT_TRUE(contains(text, "twamp_session_sent_packets_total{" + kLabels + "} 600")) << text;
}

// The gauges show the latest final minute in seconds.
TEST_F(MetricsCollectorTest, GaugesOfLatestFinalMinute) {
    setMinute(2, 600, 600, 1234);
    client.setCounters(kIdHex, false, grid);
    const std::string text = collector.scrape();
    EXPECT_TRUE(contains(text, "twamp_session_round_trip_avg_seconds{" + kLabels + "} 0.001234"))
        << text;
    EXPECT_TRUE(contains(
        text, "twamp_session_finalised_minute_timestamp_seconds{" + kLabels + "} 1699999320"))
        << text;
}

// A minute whose delays are -2 gives no delay gauges.
TEST_F(MetricsCollectorTest, NoGaugeForNotAvailable) {
    setMinute(2, 600, 0, -2);
    client.setCounters(kIdHex, false, grid);
    const std::string text = collector.scrape();
    EXPECT_EQ(std::string::npos, text.find("twamp_session_round_trip_avg_seconds{")) << text;
}

// The completed interval is asked for when its last minute was not counted yet.
TEST_F(MetricsCollectorTest, AsksCompletedIntervalOnce) {
    client.setCounters(kIdHex, false, grid);
    CounterGrid previous;
    FakeDaemonClient::clear(previous);
    previous[PmCounter::sentPkts][14] = 600;
    client.setCounters(kIdHex, true, previous);
    MetricsCollector early(client, clock, kIntervalStart - 120);
    early.scrape();
    early.scrape();
    ASSERT_EQ(3u, client.requests.size());
    EXPECT_TRUE(client.requests[1].second);
    EXPECT_FALSE(client.requests[2].second);
}

// In the first 10 s of an interval the completed interval, held by the daemon, is not asked for.
TEST_F(MetricsCollectorTest, NoCompletedRequestWhileHeld) {
    clock.set(kIntervalStart + 5);
    client.setCounters(kIdHex, false, grid);
    collector.scrape();
    ASSERT_EQ(1u, client.requests.size());
    EXPECT_FALSE(client.requests[0].second);
}

// A reply during which the reported interval changed (minute 0 to 1 of the
// next interval) is not used.
TEST_F(MetricsCollectorTest, ReplyAcrossIntervalChangeIgnored) {
    clock.set(kIntervalStart + 15 * 60 + 59);
    setMinute(0, 600, 600, 100);
    client.setCounters(kIdHex, false, grid);
    client.onFetch = [this]() { clock.set(kIntervalStart + 16 * 60 + 1); };
    const std::string text = collector.scrape();
    EXPECT_TRUE(contains(text, "twamp_session_sent_packets_total{" + kLabels + "} 0")) << text;
}

// Without a daemon the exporter says so and lists nothing.
TEST_F(MetricsCollectorTest, DaemonDown) {
    client.daemonUp = false;
    const std::string text = collector.scrape();
    EXPECT_TRUE(contains(text, "twamp_exporter_daemon_up 0")) << text;
    EXPECT_EQ(std::string::npos, text.find("twamp_session_info{")) << text;
}

// A refused session is listed in the info series but not asked for counters.
TEST_F(MetricsCollectorTest, RefusedSessionNotAsked) {
    client.sessions[0].state = TWTSI_SESSION_STATE_REFUSED;
    const std::string text = collector.scrape();
    EXPECT_TRUE(client.requests.empty());
    EXPECT_TRUE(contains(
        text, "twamp_session_info{" + kLabels + ",rate=\"10\",size=\"64\",state=\"refused\"} 1"))
        << text;
}

// A counters request without reply is counted as failed.
TEST_F(MetricsCollectorTest, FailedRequestCounted) {
    const std::string text = collector.scrape();
    EXPECT_TRUE(contains(text, "twamp_exporter_failed_requests 1")) << text;
}

}  // namespace
