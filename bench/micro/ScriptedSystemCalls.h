// The session's timer and send system calls answered in user space: every
// timer read reports one expiry, random reads hand out a changing byte and
// every send succeeds. What remains is the session's own work.
#ifndef TWAMP_BENCH_SCRIPTED_SYSTEM_CALLS_H
#define TWAMP_BENCH_SCRIPTED_SYSTEM_CALLS_H

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "TwampTestSession.h"

class ScriptedSystemCalls : public SystemCalls {
  public:
    // Below FD_SETSIZE, so the real multiplexer accepts the registration.
    static constexpr int kTimerFd = 1001;

    // SystemCalls
    int timerfdCreate(int clock, int flags) override;
    int timerfdSettime(int fd, int flags, const struct itimerspec* newValue,
                       struct itimerspec* oldValue) override;
    ssize_t read(int fd, void* buffer, std::size_t count) override;
    ssize_t sendmsg(int fd, const struct msghdr* msg, int flags) override;
    int setsockopt(int fd, int level, int name, const void* value, socklen_t length) override;
    int close(int fd) override;

  private:
    uint8_t nextRandomByte = 0x5A;
};

#endif  // TWAMP_BENCH_SCRIPTED_SYSTEM_CALLS_H
