// The reflector's two clocks, injected so that tests can set the time:
// CLOCK_REALTIME for the timestamps it writes, CLOCK_MONOTONIC for holding
// packets (a wall-clock step must not release or freeze them).
#ifndef TWAMP_REFLECTOR_CLOCK_H
#define TWAMP_REFLECTOR_CLOCK_H

#include <cstdint>
#include <ctime>

class ReflectorClock {
  public:
    virtual ~ReflectorClock() = default;

    virtual timespec realtime() = 0;
    virtual int64_t monotonicNs() = 0;
};

#endif  // TWAMP_REFLECTOR_CLOCK_H
