// The exporter's memory between scrapes: per session, the totals of the
// packet counters over the finalised minutes it has added, which minutes
// those were, and the latest finalised minute's values for the gauges.
//
// A minute is added exactly once: the daemon reports each minute in up to
// two replies (the interval in progress and, later, the completed one), and
// after a restart of the daemon the same minutes come back as -2. The
// minutes added are remembered for as long as a reply can still name them.
// A minute that ended before the exporter started is never added: a previous
// run of the exporter may have counted it already.
#ifndef TWAMP_EXPORTER_COUNTER_ACCUMULATOR_H
#define TWAMP_EXPORTER_COUNTER_ACCUMULATOR_H

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "CountersFormatter.h"

// The counters accumulated into totals, in this order.
enum class TotalCounter : int {
    Sent,
    Received,
    LostForward,
    LostReverse,
    LateForward,
    LateReverse,
    DuplicateForward,
    DuplicateReverse,
    Count
};

constexpr std::size_t kTotalCounterCount = static_cast<std::size_t>(TotalCounter::Count);

// What the exporter keeps of one session.
struct SessionTotals {
    std::array<uint64_t, kTotalCounterCount> totals{};
    // Minute numbers (seconds / 60) already added.
    std::set<int64_t> addedMinutes;
    // The latest finalised minute seen and its 38 values; -1 before the first.
    int64_t gaugeMinute = -1;
    std::array<int64_t, TWTSI_PM_COUNTER_ROWS> gaugeValues{};
    // Minute of the last scrape that listed the session.
    int64_t lastListedMinute = 0;
};

class CounterAccumulator {
  public:
    // Minutes that ended before startTime (UTC seconds) are never added.
    explicit CounterAccumulator(time_t startTime);
    virtual ~CounterAccumulator() = default;

    // Takes one counters reply of session key whose bin 0 is minute
    // firstMinute: every bin up to lastFinalMinute not added before is added
    // to the totals (a -2 counter adds nothing), and the gauges move to the
    // latest of them. Bins after lastFinalMinute are not final and ignored.
    virtual void observe(const std::string& key, int64_t firstMinute, const CounterGrid& counters,
                         int64_t lastFinalMinute);
    // Marks key as listed in minute now; sessions not listed for longer than
    // any reply can reach back are forgotten, as are minutes no reply can name.
    virtual void markListed(const std::string& key, int64_t minute);
    virtual void forgetOld(int64_t minute);
    // True while minute of key may still be added: it is not added yet and
    // did not end before the exporter started.
    virtual bool needsMinute(const std::string& key, int64_t minute) const;
    // The session's totals, or null when it was never observed.
    virtual const SessionTotals* find(const std::string& key) const;

    // How long a minute can still appear in a reply: the interval in
    // progress and the completed one before it, plus a minute of margin.
    static constexpr int64_t kMemoryMinutes = 31;

  private:
    void addMinute(SessionTotals& session, const CounterGrid& counters, int bin);

    int64_t firstCountedMinute;
    std::map<std::string, SessionTotals> sessions;
};

#endif  // TWAMP_EXPORTER_COUNTER_ACCUMULATOR_H
