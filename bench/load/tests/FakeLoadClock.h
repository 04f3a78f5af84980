// A LoadClock the test sets: the wall clock stands still, the monotonic
// clock moves only by sleepNs and advance.
#ifndef TWAMP_BENCH_TESTS_FAKE_LOAD_CLOCK_H
#define TWAMP_BENCH_TESTS_FAKE_LOAD_CLOCK_H

#include "LoadClock.h"

namespace load_test {

class FakeLoadClock : public LoadClock {
  public:
    // LoadClock
    timespec realtime() override { return wallClock; }
    int64_t monotonicNs() override { return monotonic; }
    void sleepNs(int64_t nanoseconds) override {
        slept += nanoseconds;
        monotonic += nanoseconds;
    }

    void advance(int64_t nanoseconds) { monotonic += nanoseconds; }

    timespec wallClock{1700000000, 500000000};
    int64_t monotonic = 1000000000;
    int64_t slept = 0;
};

}  // namespace load_test

#endif  // TWAMP_BENCH_TESTS_FAKE_LOAD_CLOCK_H
