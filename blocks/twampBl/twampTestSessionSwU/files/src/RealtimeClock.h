// The system's CLOCK_REALTIME.
#ifndef TWAMP_REALTIME_CLOCK_H
#define TWAMP_REALTIME_CLOCK_H

#include <ctime>

#include "Clock.h"

class RealtimeClock : public Clock {
  public:
    // The process's one instance; it has no state, so sharing it is free.
    static RealtimeClock& instance() {
        static RealtimeClock clock;
        return clock;
    }

    // Clock
    bool getRealtime(struct timespec* now) override {
        return clock_gettime(CLOCK_REALTIME, now) == 0;
    }
};

#endif  // TWAMP_REALTIME_CLOCK_H
