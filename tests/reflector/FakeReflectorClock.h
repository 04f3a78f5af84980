// A clock that stands still until the test moves it: both clocks advance together.
#ifndef TWAMP_TESTS_REFLECTOR_FAKE_REFLECTOR_CLOCK_H
#define TWAMP_TESTS_REFLECTOR_FAKE_REFLECTOR_CLOCK_H

#include <cstdint>
#include <ctime>

#include "ReflectorClock.h"

namespace reflector_test {

class FakeReflectorClock : public ReflectorClock {
  public:
    timespec realtime() override { return realtime_; }
    int64_t monotonicNs() override { return monotonicNs_; }

    void advance(int64_t nanoseconds) {
        monotonicNs_ += nanoseconds;
        const int64_t total = realtime_.tv_nsec + nanoseconds;
        realtime_.tv_sec += static_cast<time_t>(total / 1000000000LL);
        realtime_.tv_nsec = static_cast<long>(total % 1000000000LL);
    }

  private:
    timespec realtime_{1700000000, 250000000};
    int64_t monotonicNs_ = 5000000000LL;
};

}  // namespace reflector_test

#endif  // TWAMP_TESTS_REFLECTOR_FAKE_REFLECTOR_CLOCK_H
