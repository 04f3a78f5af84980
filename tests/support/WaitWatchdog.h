// Guards a test against an event-loop wait that would block for good.
#ifndef TWAMP_TESTS_WAIT_WATCHDOG_H
#define TWAMP_TESTS_WAIT_WATCHDOG_H

#include <unistd.h>

#include <csignal>

namespace twamp_test {

// Interrupts a wait that would block for good: SIGALRM without SA_RESTART
// makes select or epoll_wait fail with EINTR, so a broken multiplexer fails
// the test instead of hanging it.
class WaitWatchdog {
  public:
    explicit WaitWatchdog(unsigned int seconds) {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigemptyset(&action.sa_mask);
        sigaction(SIGALRM, &action, &previous);
        alarm(seconds);
    }
    ~WaitWatchdog() {
        alarm(0);
        sigaction(SIGALRM, &previous, nullptr);
    }
    WaitWatchdog(const WaitWatchdog&) = delete;
    WaitWatchdog& operator=(const WaitWatchdog&) = delete;

  private:
    struct sigaction previous = {};
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_WAIT_WATCHDOG_H
