// Draws one interval's minutes with gnuplot: the round trip (min, avg, p95,
// p99, max), the IPDV of both directions (avg, p99) and the loss of each
// direction as a share of the packets sent. A value of -2 is drawn as a gap,
// never as a number.
#ifndef TWAMP_CTL_COUNTER_PLOT_H
#define TWAMP_CTL_COUNTER_PLOT_H

#include <string>
#include <vector>

#include "CountersFormatter.h"

// Reads what formatCountersCsv printed: the grid and the 15 minute labels
// (HH:MM). False with a message when a row or value is missing or malformed.
bool parseCountersCsv(const std::string& text, CounterGrid& counters,
                      std::vector<std::string>& minuteLabels, std::string& error);

// The 15 minute labels of an interval starting at intervalStart (UTC).
std::vector<std::string> minuteLabelsFrom(time_t intervalStart);

// gnuplot's data: one line per minute with its index and label, then the
// delays in milliseconds and the loss in percent, NaN where there is no value.
std::string plotData(const CounterGrid& counters, const std::vector<std::string>& minuteLabels);

// The gnuplot script drawing dataPath into outPath (terminal by its ending).
std::string plotScript(const std::string& title, const std::string& dataPath,
                       const std::string& outPath);

// Writes data and script into a temporary directory and runs gnuplot; false
// with a message when a file cannot be written or gnuplot fails.
bool renderPlot(const CounterGrid& counters, const std::vector<std::string>& minuteLabels,
                const std::string& title, const std::string& outPath, std::string& error);

#endif  // TWAMP_CTL_COUNTER_PLOT_H
