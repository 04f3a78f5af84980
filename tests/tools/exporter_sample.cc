// Prints the exporter's metrics page for two given sessions (a clean one
// and a lossy one with a -2 minute) and a refused create, as a real scrape
// would after some finalised minutes, for promtool to check.
#include <cstdio>
#include <ctime>

#include "FakeClock.h"
#include "FakeDaemonClient.h"
#include "MetricsCollector.h"
#include "PmPeriodRecord.h"
#include "TwtsiSignals.h"

namespace {

// 2023-11-14 22:00:00 UTC, the start of an interval.
constexpr time_t kIntervalStart = 1699999200;

SessionListing session(uint8_t id, const char* address, uint32_t state) {
    SessionListing listing;
    listing.sessionId[15] = id;
    listing.dstIpAddress = address;
    listing.dstUdpPort = 862;
    listing.packetsPerSecond = 10;
    listing.dscp = 46;
    listing.packetSize = 64;
    listing.state = state;
    return listing;
}

// Minutes 0 to 4 measured (minute 2 invalidated), each value of row k k+1.
void fillMinutes(CounterGrid& grid, int64_t lostPerMinute) {
    tools_test::FakeDaemonClient::clear(grid);
    for (int bin = 0; bin < 5; ++bin) {
        if (bin == 2) {
            continue;
        }
        for (int row = 0; row < TWTSI_PM_COUNTER_ROWS; ++row) {
            grid[row][bin] = 100 * (row + 1);
        }
        grid[PmCounter::sentPkts][bin] = 600;
        grid[PmCounter::lostPktsFwd][bin] = lostPerMinute;
        grid[PmCounter::receivedPkts][bin] = 600 - lostPerMinute;
    }
}

}  // namespace

int main() {
    tools_test::FakeDaemonClient client;
    client.sessions = {session(1, "198.18.0.2", TWTSI_SESSION_STATE_SENDING),
                       session(2, "2001:db8:18::2", TWTSI_SESSION_STATE_SENDING),
                       session(3, "198.18.0.9", TWTSI_SESSION_STATE_REFUSED)};
    CounterGrid grid;
    fillMinutes(grid, 0);
    client.setCounters("00000000000000000000000000000001", false, grid);
    fillMinutes(grid, 30);
    client.setCounters("00000000000000000000000000000002", false, grid);
    twamp_test::FakeClock clock;
    clock.set(kIntervalStart + 5 * 60 + 30);
    MetricsCollector collector(client, clock, kIntervalStart - 3600);
    std::fputs(collector.scrape().c_str(), stdout);
    return 0;
}
