// The system calls of the fuzzed sessions: timers that exist only as
// numbers, sends that go nowhere, random bytes of one fixed value and
// address resolution of numeric addresses only, so that no input can reach
// the network, a name service or a real clock.
#ifndef TWAMP_FUZZ_SESSION_SYSTEM_CALLS_H
#define TWAMP_FUZZ_SESSION_SYSTEM_CALLS_H

#include <cstdint>

#include "TwampTestSession.h"

class FuzzSessionSystemCalls : public SystemCalls {
  public:
    // Timer descriptors are handed out from here on; no real descriptor is that high.
    static constexpr int kFirstTimerFd = 1000000;

    // How many expiries the next timer reads report (at least 1).
    void setExpiries(uint64_t count) { expiries = count; }

    // SystemCalls
    int timerfdCreate(int clock, int flags) override;
    int timerfdSettime(int fd, int flags, const struct itimerspec* newValue,
                       struct itimerspec* oldValue) override;
    ssize_t read(int fd, void* buffer, std::size_t count) override;
    ssize_t sendmsg(int fd, const struct msghdr* msg, int flags) override;
    int setsockopt(int fd, int level, int name, const void* value, socklen_t length) override;
    int close(int fd) override;
    int getaddrinfo(const char* node, const char* service, const struct addrinfo* hints,
                    struct addrinfo** result) override;
    void freeaddrinfo(struct addrinfo* result) override;

  private:
    int nextTimerFd = kFirstTimerFd;
    // Sends whose bytes differed from themselves: none, but counting them
    // keeps the comparison.
    uint64_t sentMismatches = 0;
    uint64_t expiries = 1;
};

#endif  // TWAMP_FUZZ_SESSION_SYSTEM_CALLS_H
