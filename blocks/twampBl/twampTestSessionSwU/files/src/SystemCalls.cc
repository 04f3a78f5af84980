#include "SystemCalls.h"

#include <fcntl.h>
#include <unistd.h>

SystemCalls::~SystemCalls() = default;

int SystemCalls::getaddrinfo(const char* node, const char* service, const struct addrinfo* hints,
                             struct addrinfo** result) {
    return ::getaddrinfo(node, service, hints, result);
}

void SystemCalls::freeaddrinfo(struct addrinfo* result) {
    ::freeaddrinfo(result);
}

int SystemCalls::socket(int domain, int type, int protocol) {
    return ::socket(domain, type, protocol);
}

int SystemCalls::bind(int fd, const struct sockaddr* address, socklen_t length) {
    return ::bind(fd, address, length);
}

int SystemCalls::close(int fd) {
    return ::close(fd);
}

unsigned int SystemCalls::sleep(unsigned int seconds) {
    return ::sleep(seconds);
}

int SystemCalls::timerfdCreate(int clock, int flags) {
    return ::timerfd_create(clock, flags);
}

int SystemCalls::timerfdSettime(int fd, int flags, const struct itimerspec* newValue,
                                struct itimerspec* oldValue) {
    return ::timerfd_settime(fd, flags, newValue, oldValue);
}

ssize_t SystemCalls::read(int fd, void* buffer, std::size_t count) {
    return ::read(fd, buffer, count);
}

ssize_t SystemCalls::sendmsg(int fd, const struct msghdr* msg, int flags) {
    return ::sendmsg(fd, msg, flags);
}

int SystemCalls::recvmmsg(int fd, struct mmsghdr* messages, unsigned int length, int flags,
                          struct timespec* timeout) {
    return ::recvmmsg(fd, messages, length, flags, timeout);
}

int SystemCalls::setsockopt(int fd, int level, int name, const void* value, socklen_t length) {
    return ::setsockopt(fd, level, name, value, length);
}

int SystemCalls::fcntl(int fd, int command, int argument) {
    return ::fcntl(fd, command, argument);
}

SystemCalls& SystemCalls::real() {
    static SystemCalls instance;
    return instance;
}
