// The system's clocks.
#ifndef TWAMP_REFLECTOR_SYSTEM_REFLECTOR_CLOCK_H
#define TWAMP_REFLECTOR_SYSTEM_REFLECTOR_CLOCK_H

#include "ReflectorClock.h"

class SystemReflectorClock : public ReflectorClock {
  public:
    timespec realtime() override {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        return now;
    }

    int64_t monotonicNs() override {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
    }
};

#endif  // TWAMP_REFLECTOR_SYSTEM_REFLECTOR_CLOCK_H
