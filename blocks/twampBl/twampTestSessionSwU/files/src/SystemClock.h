// The system's clocks.
#ifndef TWAMP_SYSTEM_CLOCK_H
#define TWAMP_SYSTEM_CLOCK_H

#include <ctime>

#include "Clock.h"

class SystemClock : public Clock {
  public:
    // The process's one instance; it has no state, so sharing it is free.
    static SystemClock& instance() {
        static SystemClock clock;
        return clock;
    }

    // Clock
    bool getRealtime(struct timespec* now) override {
        return clock_gettime(CLOCK_REALTIME, now) == 0;
    }
    bool getMonotonic(struct timespec* now) override {
        return clock_gettime(CLOCK_MONOTONIC, now) == 0;
    }
};

#endif  // TWAMP_SYSTEM_CLOCK_H
