// A wall clock that shows the time the benchmark set: the session runs on a
// simulated timeline, so a benchmark needs no sleeping and no real minute.
#ifndef TWAMP_BENCH_MANUAL_CLOCK_H
#define TWAMP_BENCH_MANUAL_CLOCK_H

#include <ctime>

#include "Clock.h"

class ManualClock : public Clock {
  public:
    void set(const struct timespec& time) { now = time; }

    // Clock
    bool getRealtime(struct timespec* time) override {
        *time = now;
        return true;
    }
    bool getMonotonic(struct timespec* time) override {
        *time = now;
        return true;
    }

  private:
    struct timespec now = {0, 0};
};

#endif  // TWAMP_BENCH_MANUAL_CLOCK_H
