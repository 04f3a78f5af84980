// The counters of many sessions in one CSV file, for the load driver's awk:
// a header "session,counter,unit,0,1,...,14" (the 15 bins of the interval by
// their minute within it), then one line per session and counter with the
// raw values (-2 where none is available). Sessions whose counters did not
// come have no lines.
#ifndef TWAMP_BENCH_COUNTERS_CSV_H
#define TWAMP_BENCH_COUNTERS_CSV_H

#include <cstdio>
#include <vector>

#include "LoadManager.h"

class CountersCsv {
  public:
    // Writes the header and the lines of every session whose counters came.
    static void write(std::FILE* out, const std::vector<SessionCounters>& sessions);
};

#endif  // TWAMP_BENCH_COUNTERS_CSV_H
