// One scrape: the session list, then each session's counters, fed into the
// accumulator and written as metrics.
//
// The replies carry no time: which minutes a reply's bins are follows from
// the clock, read before and after each request. A reply whose interval
// changed meanwhile is not used; the next scrape asks again. A minute is
// taken as final 10 s after it ends (the daemon finalises it 4 s after its
// end, at the first packet sent then).
#ifndef TWAMP_EXPORTER_METRICS_COLLECTOR_H
#define TWAMP_EXPORTER_METRICS_COLLECTOR_H

#include <ctime>
#include <string>

#include "Clock.h"
#include "CounterAccumulator.h"
#include "DaemonClient.h"
#include "MetricsFormatter.h"

class MetricsCollector {
  public:
    // client and clock are not owned and must outlive the collector;
    // minutes that ended before startTime are not counted.
    MetricsCollector(DaemonClient& client, Clock& clock, time_t startTime);
    virtual ~MetricsCollector() = default;

    // Asks the daemon and returns the metrics text.
    virtual std::string scrape();

    static constexpr time_t kFinalMarginSeconds = 10;

  private:
    time_t now();
    void collectSession(const SessionListing& listing, ScrapeResult& result);
    // Observes one reply; false when the request failed.
    bool observeInterval(const SessionListing& listing, const std::string& key,
                         bool completedIntervalOnly);
    bool needsCompletedInterval(const std::string& key, time_t time) const;

    DaemonClient& client;
    Clock& clock;
    CounterAccumulator accumulator;
};

#endif  // TWAMP_EXPORTER_METRICS_COLLECTOR_H
