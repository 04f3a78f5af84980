// The clocks the daemon reads, injected so that tests can set the time
// instead of waiting for it.
#ifndef TWAMP_CLOCK_H
#define TWAMP_CLOCK_H

#include <ctime>

class Clock {
  public:
    virtual ~Clock() = default;

    // Reads CLOCK_REALTIME into now; false with errno set when the read fails.
    virtual bool getRealtime(struct timespec* now) = 0;
    // Reads CLOCK_MONOTONIC into now, for delays that a wall-clock step must
    // not stretch or cut; false with errno set when the read fails.
    virtual bool getMonotonic(struct timespec* now) = 0;
};

#endif  // TWAMP_CLOCK_H
