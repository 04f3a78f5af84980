// Clocks that show what the test set, or fail with an errno.
#ifndef TWAMP_TESTS_FAKE_CLOCK_H
#define TWAMP_TESTS_FAKE_CLOCK_H

#include <cerrno>
#include <ctime>

#include "Clock.h"

namespace twamp_test {

class FakeClock : public Clock {
  public:
    // Shows seconds and nanoseconds from now on, and ends a failure set before.
    void set(time_t seconds, long nanoseconds = 0) {
        now.tv_sec = seconds;
        now.tv_nsec = nanoseconds;
        failErrno = 0;
    }
    // The monotonic clock shows seconds and nanoseconds from now on.
    void setMonotonic(time_t seconds, long nanoseconds = 0) {
        monotonic.tv_sec = seconds;
        monotonic.tv_nsec = nanoseconds;
    }
    // Makes every reading of either clock fail with errorNumber until the
    // next set.
    void failWith(int errorNumber) { failErrno = errorNumber; }

    // Clock
    bool getRealtime(struct timespec* time) override {
        if (failErrno != 0) {
            errno = failErrno;
            return false;
        }
        *time = now;
        return true;
    }
    bool getMonotonic(struct timespec* time) override {
        if (failErrno != 0) {
            errno = failErrno;
            return false;
        }
        *time = monotonic;
        return true;
    }

  private:
    struct timespec now = {0, 0};
    struct timespec monotonic = {0, 0};
    int failErrno = 0;
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_FAKE_CLOCK_H
