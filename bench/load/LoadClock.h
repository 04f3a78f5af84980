// The clocks and the pause of the load programs, behind an interface so that
// their waiting and time-outs run on an injected clock in the tests.
#ifndef TWAMP_BENCH_LOAD_CLOCK_H
#define TWAMP_BENCH_LOAD_CLOCK_H

#include <cstdint>
#include <ctime>

class LoadClock {
  public:
    virtual ~LoadClock() = default;

    // The wall clock (CLOCK_REALTIME), for timestamps that go on the wire.
    virtual timespec realtime() = 0;
    // CLOCK_MONOTONIC in nanoseconds, for durations and time-outs.
    virtual int64_t monotonicNs() = 0;
    // Waits for the given nanoseconds.
    virtual void sleepNs(int64_t nanoseconds) = 0;
};

#endif  // TWAMP_BENCH_LOAD_CLOCK_H
