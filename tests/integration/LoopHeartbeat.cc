#include "LoopHeartbeat.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdint>

namespace scenario_test {

namespace {

constexpr long kNanosecondsPerMillisecond = 1000000;

}  // namespace

LoopHeartbeat::LoopHeartbeat(IoMultiplexer& multiplexer, long periodMs)
    : multiplexer(multiplexer), timer(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK)) {
    if (timer.get() == -1) {
        return;
    }
    struct itimerspec period {};
    period.it_value.tv_nsec = periodMs * kNanosecondsPerMillisecond;
    period.it_interval = period.it_value;
    if (timerfd_settime(timer.get(), 0, &period, nullptr) != 0) {
        return;
    }
    multiplexer.registerReadHandler(this);
    running = true;
}

LoopHeartbeat::~LoopHeartbeat() {
    if (running) {
        multiplexer.removeReadHandler(this);
    }
}

bool LoopHeartbeat::isRunning() const {
    return running;
}

std::set<int> LoopHeartbeat::getReadFds() const {
    return {timer.get()};
}

bool LoopHeartbeat::handleInput(int /*fd*/) {
    uint64_t expiries = 0;
    // Non-blocking: a spurious wake-up finds nothing and costs nothing.
    return ::read(timer.get(), &expiries, sizeof(expiries)) == sizeof(expiries);
}

}  // namespace scenario_test
