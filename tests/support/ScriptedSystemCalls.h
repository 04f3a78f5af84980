// The session's system calls answered in user space: the packet timer fires
// when the test says so, random reads hand out a chosen byte, sends and
// socket options succeed or fail as scripted, and every call is recorded.
// Name resolution and every call not listed here reach the real kernel.
// With recording off and one expiry on every timer read it drives a session
// at full speed without growing (the micro-benchmarks).
#ifndef TWAMP_TESTS_SCRIPTED_SYSTEM_CALLS_H
#define TWAMP_TESTS_SCRIPTED_SYSTEM_CALLS_H

#include <netdb.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "SystemCalls.h"

namespace twamp_test {

// What one sendmsg was given.
struct SentPacket {
    int fd = -1;
    std::vector<uint8_t> payload;
    std::size_t controlLength = 0;
    std::vector<uint8_t> control;  // the first controlLength bytes
    socklen_t nameLength = 0;
};

// The result of one faked call: a return value and the errno of a failure.
struct CallResult {
    ssize_t result;
    int errorNumber;
};

class ScriptedSystemCalls : public SystemCalls {
  public:
    // Below FD_SETSIZE, so that a real multiplexer accepts the registration.
    static constexpr int kTimerFd = 1001;

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

    // Queues one timer read that returns count expiries.
    void queueExpiries(uint64_t count);
    // Queues one timer read that fails with errorNumber.
    void queueTimerFailure(int errorNumber);

    // Whether a timer read with nothing queued reports one expiry; otherwise
    // it fails with EAGAIN, as a timer that has not fired.
    bool expireWhenUnqueued = false;
    // Whether the calls are recorded in the lists below.
    bool recordCalls = true;

    int createdClock = -1;
    int createdFlags = -1;
    int timerCreateErrno = 0;
    int settimeFd = -1;
    int settimeFlags = -1;
    int settimeErrno = 0;
    std::vector<struct itimerspec> settimeValues;
    // Random reads: the byte handed out (advanced by randomByteStep after
    // each read), or a result other than the count asked for.
    uint8_t randomByte = 0x5A;
    uint8_t randomByteStep = 0;
    bool randomFails = false;
    ssize_t randomResult = 0;
    int randomErrno = 0;
    std::vector<int> randomReadFds;
    std::vector<std::size_t> randomReadLengths;
    // Results of the next sends; a send with none queued succeeds whole.
    std::deque<CallResult> sendResults;
    std::vector<SentPacket> sent;
    int setsockoptErrno = 0;
    // "sendmsg <fd>" and "setsockopt <fd> <level> <name> <int value>", in order.
    std::vector<std::string> events;
    std::vector<int> closedFds;
    // Address and port texts of every getaddrinfo, "address port"; a
    // resolveError other than 0 is returned instead of resolving.
    std::vector<std::string> resolved;
    int resolveError = 0;

  private:
    struct TimerRead {
        uint64_t count;
        ssize_t result;
        int errorNumber;
    };

    ssize_t readTimer(void* buffer, std::size_t count);
    ssize_t readRandom(int fd, void* buffer, std::size_t count);
    void recordSend(int fd, const struct msghdr* msg);

    std::deque<TimerRead> timerReads;
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_SCRIPTED_SYSTEM_CALLS_H
