#include "SocketSystemCalls.h"

#include <fcntl.h>
#include <unistd.h>

SocketSystemCalls::~SocketSystemCalls() = default;

int SocketSystemCalls::getaddrinfo(const char* node, const char* service,
                                   const struct addrinfo* hints, struct addrinfo** result) {
    return ::getaddrinfo(node, service, hints, result);
}

void SocketSystemCalls::freeaddrinfo(struct addrinfo* result) {
    ::freeaddrinfo(result);
}

int SocketSystemCalls::socket(int domain, int type, int protocol) {
    return ::socket(domain, type, protocol);
}

int SocketSystemCalls::bind(int fd, const struct sockaddr* address, socklen_t length) {
    return ::bind(fd, address, length);
}

int SocketSystemCalls::close(int fd) {
    return ::close(fd);
}

unsigned int SocketSystemCalls::sleep(unsigned int seconds) {
    return ::sleep(seconds);
}

int SocketSystemCalls::clockGettime(clockid_t clock, struct timespec* time) {
    return ::clock_gettime(clock, time);
}

int SocketSystemCalls::timerfdCreate(int clock, int flags) {
    return ::timerfd_create(clock, flags);
}

int SocketSystemCalls::timerfdSettime(int fd, int flags, const struct itimerspec* newValue,
                                      struct itimerspec* oldValue) {
    return ::timerfd_settime(fd, flags, newValue, oldValue);
}

ssize_t SocketSystemCalls::read(int fd, void* buffer, std::size_t count) {
    return ::read(fd, buffer, count);
}

int SocketSystemCalls::recvmmsg(int fd, struct mmsghdr* messages, unsigned int length, int flags,
                                struct timespec* timeout) {
    return ::recvmmsg(fd, messages, length, flags, timeout);
}

int SocketSystemCalls::setsockopt(int fd, int level, int name, const void* value,
                                  socklen_t length) {
    return ::setsockopt(fd, level, name, value, length);
}

int SocketSystemCalls::fcntl(int fd, int command, int argument) {
    return ::fcntl(fd, command, argument);
}

SocketSystemCalls& SocketSystemCalls::real() {
    static SocketSystemCalls instance;
    return instance;
}
