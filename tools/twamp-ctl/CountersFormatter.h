// Prints one counters reply of the daemon: a table (rows the 38 counters with
// their units, columns the 15 minutes of the interval with their UTC clock
// times, -2 shown as n/a), one JSON object with the raw values, or CSV.
#ifndef TWAMP_CTL_COUNTERS_FORMATTER_H
#define TWAMP_CTL_COUNTERS_FORMATTER_H

#include <cstdint>
#include <ctime>
#include <string>

#include "TwtsiSignals.h"

using CounterGrid = int64_t[TWTSI_PM_COUNTER_ROWS][TWTSI_PM_COUNTER_BINS];

// Start (UTC seconds) of the interval a reply received at now reports: the
// last completed one, or the one in progress (its predecessor in its first
// minute, which has no finished minute yet).
time_t reportedIntervalStart(time_t now, bool completedIntervalOnly);

std::string formatCountersTable(const CounterGrid& counters, time_t intervalStart);
std::string formatCountersJson(const CounterGrid& counters, const std::string& sessionIdHex,
                               bool completedIntervalOnly);
std::string formatCountersCsv(const CounterGrid& counters, time_t intervalStart);

#endif  // TWAMP_CTL_COUNTERS_FORMATTER_H
