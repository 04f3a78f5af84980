// The wall clock of the fuzzed sessions: it shows what the target set, so
// that every input runs on the same time and replays exactly.
#ifndef TWAMP_FUZZ_CLOCK_H
#define TWAMP_FUZZ_CLOCK_H

#include <ctime>

#include "Clock.h"

class FuzzClock : public Clock {
  public:
    // Shows seconds and nanoseconds from now on.
    void set(time_t seconds, long nanoseconds) {
        now.tv_sec = seconds;
        now.tv_nsec = nanoseconds;
    }
    // What the clock shows.
    struct timespec get() const {
        return now;
    }

    // Clock
    bool getRealtime(struct timespec* time) override {
        *time = now;
        return true;
    }
    // Monotonic time does not matter to the fuzzed paths; a fixed reading
    // keeps every input replayable.
    bool getMonotonic(struct timespec* time) override {
        *time = {0, 0};
        return true;
    }

  private:
    struct timespec now = {0, 0};
};

#endif  // TWAMP_FUZZ_CLOCK_H
