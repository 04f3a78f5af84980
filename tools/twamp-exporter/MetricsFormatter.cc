#include "MetricsFormatter.h"

#include <cinttypes>
#include <cstdio>

#include "CtlOptions.h"
#include "PmPeriodRecord.h"
#include "SessionListFormatter.h"

namespace {

constexpr int64_t kNotAvailable = TWTSI_PM_NOT_AVAILABLE;

std::string labelsOf(const SessionListing& listing) {
    return "id=\"" + sessionIdHex(listing.sessionId) + "\",destination=\"" +
           escapeLabelValue(listing.dstIpAddress) + "\",port=\"" +
           std::to_string(listing.dstUdpPort) + "\",dscp=\"" + std::to_string(listing.dscp) + "\"";
}

std::string header(const std::string& name, const std::string& type, const std::string& help) {
    return "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

struct TotalMetric {
    const char* name;
    const char* help;
    TotalCounter forward;
    // Count for a metric without direction.
    TotalCounter reverse;
};

const TotalMetric kTotals[] = {
    {"twamp_session_sent_packets_total", "Test packets sent in the finalised minutes counted.",
     TotalCounter::Sent, TotalCounter::Count},
    {"twamp_session_received_packets_total",
     "Replies analysed in the finalised minutes counted (duplicates included).",
     TotalCounter::Received, TotalCounter::Count},
    {"twamp_session_lost_packets_total",
     "Packets lost on the way out (forward) or replies lost on the way back (reverse).",
     TotalCounter::LostForward, TotalCounter::LostReverse},
    {"twamp_session_late_packets_total", "Replies that arrived after a later one.",
     TotalCounter::LateForward, TotalCounter::LateReverse},
    {"twamp_session_duplicate_packets_total", "Extra copies of a reply.",
     TotalCounter::DuplicateForward, TotalCounter::DuplicateReverse},
};

struct GaugeMetric {
    const char* name;
    const char* help;
    PmCounter::Index forward;
    // -1 for a metric without direction.
    int reverse;
};

const GaugeMetric kGauges[] = {
    {"twamp_session_round_trip_min_seconds", "Smallest round trip of the latest finalised minute.",
     PmCounter::delayRtMin, -1},
    {"twamp_session_round_trip_avg_seconds", "Average round trip of the latest finalised minute.",
     PmCounter::delayRtAvg, -1},
    {"twamp_session_round_trip_max_seconds", "Largest round trip of the latest finalised minute.",
     PmCounter::delayRtMax, -1},
    {"twamp_session_round_trip_p95_seconds",
     "95th percentile of the round trip of the latest finalised minute.", PmCounter::delayRtP95,
     -1},
    {"twamp_session_round_trip_p98_seconds",
     "98th percentile of the round trip of the latest finalised minute.", PmCounter::delayRtP98,
     -1},
    {"twamp_session_round_trip_p99_seconds",
     "99th percentile of the round trip of the latest finalised minute.", PmCounter::delayRtP99,
     -1},
    {"twamp_session_ipdv_min_seconds", "Smallest IPDV of the latest finalised minute.",
     PmCounter::ipdvFwdMin, PmCounter::ipdvRevMin},
    {"twamp_session_ipdv_avg_seconds", "Average IPDV of the latest finalised minute.",
     PmCounter::ipdvFwdAvg, PmCounter::ipdvRevAvg},
    {"twamp_session_ipdv_max_seconds", "Largest IPDV of the latest finalised minute.",
     PmCounter::ipdvFwdMax, PmCounter::ipdvRevMax},
    {"twamp_session_ipdv_p95_seconds",
     "95th percentile of the IPDV of the latest finalised minute.", PmCounter::ipdvFwdP95,
     PmCounter::ipdvRevP95},
    {"twamp_session_ipdv_p98_seconds",
     "98th percentile of the IPDV of the latest finalised minute.", PmCounter::ipdvFwdP98,
     PmCounter::ipdvRevP98},
    {"twamp_session_ipdv_p99_seconds",
     "99th percentile of the IPDV of the latest finalised minute.", PmCounter::ipdvFwdP99,
     PmCounter::ipdvRevP99},
};

std::string totalSamples(const TotalMetric& metric, const ExportedSession& session) {
    const std::string labels = labelsOf(session.listing);
    const auto& totals = session.totals->totals;
    const auto forward = static_cast<std::size_t>(metric.forward);
    if (metric.reverse == TotalCounter::Count) {
        return std::string(metric.name) + "{" + labels + "} " + std::to_string(totals[forward]) +
               "\n";
    }
    const auto reverse = static_cast<std::size_t>(metric.reverse);
    return std::string(metric.name) + "{" + labels + ",direction=\"forward\"} " +
           std::to_string(totals[forward]) + "\n" + metric.name + "{" + labels +
           ",direction=\"reverse\"} " + std::to_string(totals[reverse]) + "\n";
}

std::string gaugeSample(const char* name, const std::string& labels, int64_t microseconds) {
    if (microseconds == kNotAvailable || microseconds < 0) {
        return std::string();
    }
    return std::string(name) + "{" + labels + "} " + secondsText(microseconds) + "\n";
}

std::string gaugeSamples(const GaugeMetric& metric, const ExportedSession& session) {
    const SessionTotals& totals = *session.totals;
    if (totals.gaugeMinute < 0) {
        return std::string();
    }
    const std::string labels = labelsOf(session.listing);
    if (metric.reverse < 0) {
        return gaugeSample(metric.name, labels, totals.gaugeValues[metric.forward]);
    }
    return gaugeSample(metric.name, labels + ",direction=\"forward\"",
                       totals.gaugeValues[metric.forward]) +
           gaugeSample(metric.name, labels + ",direction=\"reverse\"",
                       totals.gaugeValues[metric.reverse]);
}

std::string infoSamples(const ScrapeResult& scrape) {
    std::string out = header("twamp_session_info", "gauge",
                             "A session the daemon lists, with its settings; always 1.");
    for (const ExportedSession& session : scrape.sessions) {
        const SessionListing& listing = session.listing;
        out += "twamp_session_info{" + labelsOf(listing) + ",rate=\"" +
               std::to_string(listing.packetsPerSecond) + "\",size=\"" +
               std::to_string(listing.packetSize) + "\",state=\"" +
               sessionStateName(listing.state) + "\"} 1\n";
    }
    return out;
}

std::string minuteSamples(const ScrapeResult& scrape) {
    std::string out = header("twamp_session_finalised_minute_timestamp_seconds", "gauge",
                             "Start (Unix time) of the latest finalised minute, which the "
                             "delay gauges describe.");
    for (const ExportedSession& session : scrape.sessions) {
        if (session.totals != nullptr && session.totals->gaugeMinute >= 0) {
            out += "twamp_session_finalised_minute_timestamp_seconds{" + labelsOf(session.listing) +
                   "} " + std::to_string(session.totals->gaugeMinute * 60) + "\n";
        }
    }
    return out;
}

}  // namespace

std::string sessionKey(const SessionListing& listing) {
    return labelsOf(listing);
}

std::string secondsText(int64_t microseconds) {
    char text[32];
    std::snprintf(text, sizeof(text), "%" PRId64 ".%06" PRId64, microseconds / 1000000,
                  microseconds % 1000000);
    return text;
}

std::string escapeLabelValue(const std::string& value) {
    std::string out;
    for (const char c : value) {
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '"') {
            out += "\\\"";
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return out;
}

std::string formatMetrics(const ScrapeResult& scrape) {
    std::string out = header("twamp_exporter_daemon_up", "gauge",
                             "1 when the daemon answered the session list of this scrape.") +
                      "twamp_exporter_daemon_up " + (scrape.daemonUp ? "1" : "0") + "\n" +
                      header("twamp_exporter_failed_requests", "gauge",
                             "Counters requests of this scrape that got no reply in time.") +
                      "twamp_exporter_failed_requests " + std::to_string(scrape.failedRequests) +
                      "\n";
    out += infoSamples(scrape);
    for (const TotalMetric& metric : kTotals) {
        out += header(metric.name, "counter", metric.help);
        for (const ExportedSession& session : scrape.sessions) {
            if (session.totals != nullptr) {
                out += totalSamples(metric, session);
            }
        }
    }
    for (const GaugeMetric& metric : kGauges) {
        out += header(metric.name, "gauge", metric.help);
        for (const ExportedSession& session : scrape.sessions) {
            if (session.totals != nullptr) {
                out += gaugeSamples(metric, session);
            }
        }
    }
    return out + minuteSamples(scrape);
}
