// Writes the exporter's metrics in the Prometheus text exposition format
// (version 0.0.4): counters of packets accumulated over finalised minutes,
// gauges of the latest finalised minute's delays in seconds, one info series
// per session. Values the daemon reports as -2 are left out, never written
// as a number.
#ifndef TWAMP_EXPORTER_METRICS_FORMATTER_H
#define TWAMP_EXPORTER_METRICS_FORMATTER_H

#include <string>
#include <vector>

#include "CounterAccumulator.h"
#include "DaemonClient.h"

// One listed session with what the exporter kept of it (null: nothing yet).
struct ExportedSession {
    SessionListing listing;
    const SessionTotals* totals = nullptr;
};

// What one scrape found.
struct ScrapeResult {
    bool daemonUp = false;
    std::vector<ExportedSession> sessions;
    // Counters requests that got no reply in this scrape.
    uint64_t failedRequests = 0;
};

// The accumulation key of a listed session: its id and its labels, so that a
// session created again under the same id with other settings counts anew.
std::string sessionKey(const SessionListing& listing);

// Microseconds as seconds in exact decimal ("0.000123").
std::string secondsText(int64_t microseconds);

// A label value with backslash, double quote and line feed escaped.
std::string escapeLabelValue(const std::string& value);

std::string formatMetrics(const ScrapeResult& scrape);

#endif  // TWAMP_EXPORTER_METRICS_FORMATTER_H
