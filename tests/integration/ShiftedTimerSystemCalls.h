// The session's real system calls, except that an absolute timer expiry,
// computed from the shifted clock, is moved back to the real moment at which
// the shifted clock reaches it: the real timerfd then fires on time.
#ifndef TWAMP_TESTS_SHIFTED_TIMER_SYSTEM_CALLS_H
#define TWAMP_TESTS_SHIFTED_TIMER_SYSTEM_CALLS_H

#include <sys/timerfd.h>

#include "ShiftedClock.h"
#include "TwampTestSession.h"

namespace scenario_test {

class ShiftedTimerSystemCalls : public SystemCalls {
  public:
    explicit ShiftedTimerSystemCalls(const ShiftedClock& clock) : clock(clock) {}

    // SystemCalls
    int timerfdSettime(int fd, int flags, const struct itimerspec* newValue,
                       struct itimerspec* oldValue) override {
        struct itimerspec translated = *newValue;
        const bool disarms = newValue->it_value.tv_sec == 0 && newValue->it_value.tv_nsec == 0;
        if ((flags & TFD_TIMER_ABSTIME) != 0 && !disarms) {
            translated.it_value = clock.toReal(newValue->it_value);
        }
        return SystemCalls::timerfdSettime(fd, flags, &translated, oldValue);
    }

  private:
    const ShiftedClock& clock;
};

}  // namespace scenario_test

#endif  // TWAMP_TESTS_SHIFTED_TIMER_SYSTEM_CALLS_H
