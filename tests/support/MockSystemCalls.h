// GoogleMock of the daemon's system calls; every call goes to the real one
// unless a test scripts it (delegateToReal).
#ifndef TWAMP_TESTS_MOCK_SYSTEM_CALLS_H
#define TWAMP_TESTS_MOCK_SYSTEM_CALLS_H

#include <netdb.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/types.h>

#include <cstddef>
#include <ctime>

#include <gmock/gmock.h>

#include "SystemCalls.h"

namespace twamp_test {

class MockSystemCalls : public SystemCalls {
  public:
    // SystemCalls
    MOCK_METHOD(int, getaddrinfo,
                (const char* node, const char* service, const struct addrinfo* hints,
                 struct addrinfo** result),
                (override));
    MOCK_METHOD(void, freeaddrinfo, (struct addrinfo * result), (override));
    MOCK_METHOD(int, socket, (int domain, int type, int protocol), (override));
    MOCK_METHOD(int, bind, (int fd, const struct sockaddr* address, socklen_t length), (override));
    MOCK_METHOD(int, close, (int fd), (override));
    MOCK_METHOD(unsigned int, sleep, (unsigned int seconds), (override));
    MOCK_METHOD(int, timerfdCreate, (int clock, int flags), (override));
    MOCK_METHOD(int, timerfdSettime,
                (int fd, int flags, const struct itimerspec* newValue, struct itimerspec* oldValue),
                (override));
    MOCK_METHOD(ssize_t, read, (int fd, void* buffer, std::size_t count), (override));
    MOCK_METHOD(ssize_t, sendmsg, (int fd, const struct msghdr* msg, int flags), (override));
    MOCK_METHOD(int, recvmmsg,
                (int fd, struct mmsghdr* messages, unsigned int length, int flags,
                 struct timespec* timeout),
                (override));
    MOCK_METHOD(int, setsockopt, (int fd, int level, int name, const void* value, socklen_t length),
                (override));
    MOCK_METHOD(int, fcntl, (int fd, int command, int argument), (override));

    // Lets every call not scripted by the test reach the real system call.
    void delegateToReal() {
        SystemCalls& real = SystemCalls::real();
        ON_CALL(*this, getaddrinfo).WillByDefault([&real](auto... args) {
            return real.getaddrinfo(args...);
        });
        ON_CALL(*this, freeaddrinfo).WillByDefault([&real](auto... args) {
            real.freeaddrinfo(args...);
        });
        ON_CALL(*this, socket).WillByDefault([&real](auto... args) {
            return real.socket(args...);
        });
        ON_CALL(*this, bind).WillByDefault([&real](auto... args) { return real.bind(args...); });
        ON_CALL(*this, close).WillByDefault([&real](auto... args) { return real.close(args...); });
        ON_CALL(*this, timerfdCreate).WillByDefault([&real](auto... args) {
            return real.timerfdCreate(args...);
        });
        ON_CALL(*this, timerfdSettime).WillByDefault([&real](auto... args) {
            return real.timerfdSettime(args...);
        });
        ON_CALL(*this, read).WillByDefault([&real](auto... args) { return real.read(args...); });
        ON_CALL(*this, sendmsg).WillByDefault([&real](auto... args) {
            return real.sendmsg(args...);
        });
        ON_CALL(*this, recvmmsg).WillByDefault([&real](auto... args) {
            return real.recvmmsg(args...);
        });
        ON_CALL(*this, setsockopt).WillByDefault([&real](auto... args) {
            return real.setsockopt(args...);
        });
        ON_CALL(*this, fcntl).WillByDefault([&real](auto... args) { return real.fcntl(args...); });
    }
};

}  // namespace twamp_test

#endif  // TWAMP_TESTS_MOCK_SYSTEM_CALLS_H
