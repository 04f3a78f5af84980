// The wall clock a scenario's session reads: CLOCK_REALTIME plus an offset
// that the test moves forward, so that minute boundaries come when the test
// wants them instead of once a minute.
//
// Only the session's own readings are shifted. Kernel timestamps and the
// reflector's timestamps stay real time, which is all the delays are made of;
// the shifted time decides the minute a packet is booked in.
#ifndef TWAMP_TESTS_SHIFTED_CLOCK_H
#define TWAMP_TESTS_SHIFTED_CLOCK_H

#include <atomic>
#include <cstdint>
#include <ctime>

#include "Clock.h"

namespace scenario_test {

constexpr int64_t kNanosecondsPerSecond = 1000000000;

inline int64_t toNanoseconds(const struct timespec& time) {
    return static_cast<int64_t>(time.tv_sec) * kNanosecondsPerSecond + time.tv_nsec;
}

inline struct timespec toTimespec(int64_t nanoseconds) {
    struct timespec time;
    time.tv_sec = static_cast<time_t>(nanoseconds / kNanosecondsPerSecond);
    time.tv_nsec = static_cast<long>(nanoseconds % kNanosecondsPerSecond);
    return time;
}

inline int64_t realNanoseconds() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return toNanoseconds(now);
}

class ShiftedClock : public Clock {
  public:
    // Clock
    bool getRealtime(struct timespec* now) override {
        *now = toTimespec(nowNanoseconds());
        return true;
    }
    // Only the wall clock is shifted.
    bool getMonotonic(struct timespec* now) override {
        return clock_gettime(CLOCK_MONOTONIC, now) == 0;
    }

    // The shifted time, in nanoseconds since the epoch.
    int64_t nowNanoseconds() const { return realNanoseconds() + offset.load(); }
    // Moves the clock so that it reads target (nanoseconds since the epoch) now.
    void jumpTo(int64_t target) { offset.store(target - realNanoseconds()); }
    // The real time at which the clock will read shifted.
    struct timespec toReal(const struct timespec& shifted) const {
        return toTimespec(toNanoseconds(shifted) - offset.load());
    }

  private:
    std::atomic<int64_t> offset{0};
};

}  // namespace scenario_test

#endif  // TWAMP_TESTS_SHIFTED_CLOCK_H
