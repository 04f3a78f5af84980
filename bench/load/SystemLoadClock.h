// The system's clocks and nanosleep.
#ifndef TWAMP_BENCH_SYSTEM_LOAD_CLOCK_H
#define TWAMP_BENCH_SYSTEM_LOAD_CLOCK_H

#include "LoadClock.h"

class SystemLoadClock : public LoadClock {
  public:
    // LoadClock
    timespec realtime() override;
    int64_t monotonicNs() override;
    void sleepNs(int64_t nanoseconds) override;
};

#endif  // TWAMP_BENCH_SYSTEM_LOAD_CLOCK_H
