#include "SystemLoadClock.h"

#include <cerrno>

namespace {

constexpr int64_t kNanosecondsPerSecond = 1000000000;

}  // namespace

timespec SystemLoadClock::realtime() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

int64_t SystemLoadClock::monotonicNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

void SystemLoadClock::sleepNs(int64_t nanoseconds) {
    if (nanoseconds <= 0) {
        return;
    }
    timespec left{nanoseconds / kNanosecondsPerSecond, nanoseconds % kNanosecondsPerSecond};
    // A signal cuts the sleep short; the rest is then slept.
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}
