#include "MetricsCollector.h"

#include "TwtsiSignals.h"

namespace {

constexpr time_t kMinuteSeconds = 60;
constexpr time_t kIntervalSeconds = 15 * kMinuteSeconds;

// The last minute that is final at time: it ended kFinalMarginSeconds ago.
int64_t lastFinalMinute(time_t time) {
    return static_cast<int64_t>((time - MetricsCollector::kFinalMarginSeconds) / kMinuteSeconds) -
           1;
}

}  // namespace

MetricsCollector::MetricsCollector(DaemonClient& client, Clock& clock, time_t startTime)
    : client(client), clock(clock), accumulator(startTime) {}

time_t MetricsCollector::now() {
    struct timespec time {};
    if (!clock.getRealtime(&time)) {
        return 0;
    }
    return time.tv_sec;
}

std::string MetricsCollector::scrape() {
    ScrapeResult result;
    std::vector<SessionListing> listings;
    std::string error;
    result.daemonUp = client.listSessions(listings, error);
    for (const SessionListing& listing : listings) {
        collectSession(listing, result);
    }
    accumulator.forgetOld(now() / kMinuteSeconds);
    // Pointers into the accumulator stay valid until the next scrape changes it.
    for (ExportedSession& session : result.sessions) {
        session.totals = accumulator.find(sessionKey(session.listing));
    }
    return formatMetrics(result);
}

void MetricsCollector::collectSession(const SessionListing& listing, ScrapeResult& result) {
    ExportedSession exported;
    exported.listing = listing;
    result.sessions.push_back(exported);
    if (listing.state == TWTSI_SESSION_STATE_REFUSED) {
        return;
    }
    const std::string key = sessionKey(listing);
    accumulator.markListed(key, now() / kMinuteSeconds);
    if (!observeInterval(listing, key, false)) {
        ++result.failedRequests;
        return;
    }
    if (needsCompletedInterval(key, now()) && !observeInterval(listing, key, true)) {
        ++result.failedRequests;
    }
}

// The completed interval is asked for only when its last minute is still
// missing, and never in the first seconds of an interval, when the daemon
// holds the reply until the interval's last minute is final.
bool MetricsCollector::needsCompletedInterval(const std::string& key, time_t time) const {
    if (time % kIntervalSeconds < kFinalMarginSeconds) {
        return false;
    }
    const int64_t lastMinuteOfCompleted =
        static_cast<int64_t>((time - time % kIntervalSeconds) / kMinuteSeconds) - 1;
    return accumulator.needsMinute(key, lastMinuteOfCompleted);
}

bool MetricsCollector::observeInterval(const SessionListing& listing, const std::string& key,
                                       bool completedIntervalOnly) {
    const time_t before = now();
    CounterGrid counters;
    std::string error;
    if (!client.fetchCounters(listing.sessionId, completedIntervalOnly, counters, error)) {
        return false;
    }
    const time_t after = now();
    const time_t start = reportedIntervalStart(before, completedIntervalOnly);
    if (start != reportedIntervalStart(after, completedIntervalOnly)) {
        return true;
    }
    accumulator.observe(key, static_cast<int64_t>(start / kMinuteSeconds), counters,
                        lastFinalMinute(before));
    return true;
}
