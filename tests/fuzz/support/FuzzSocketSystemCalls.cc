#include "FuzzSocketSystemCalls.h"

#include <netdb.h>

#include <cstring>

// Only numeric addresses: a name could ask the name service over the network.
int FuzzSocketSystemCalls::getaddrinfo(const char* node, const char* service,
                                       const struct addrinfo* hints, struct addrinfo** result) {
    struct addrinfo numericHints = *hints;
    numericHints.ai_flags |= AI_NUMERICHOST | AI_NUMERICSERV;
    return ::getaddrinfo(node, service, &numericHints, result);
}

void FuzzSocketSystemCalls::freeaddrinfo(struct addrinfo* result) {
    ::freeaddrinfo(result);
}

int FuzzSocketSystemCalls::socket(int /*domain*/, int /*type*/, int /*protocol*/) {
    return kSocketFd;
}

int FuzzSocketSystemCalls::bind(int /*fd*/, const struct sockaddr* /*address*/,
                                socklen_t /*length*/) {
    return 0;
}

int FuzzSocketSystemCalls::close(int /*fd*/) {
    return 0;
}

unsigned int FuzzSocketSystemCalls::sleep(unsigned int /*seconds*/) {
    return 0;
}

int FuzzSocketSystemCalls::timerfdCreate(int /*clock*/, int /*flags*/) {
    return kBindTimerFd;
}

int FuzzSocketSystemCalls::timerfdSettime(int /*fd*/, int /*flags*/,
                                          const struct itimerspec* /*newValue*/,
                                          struct itimerspec* /*oldValue*/) {
    return 0;
}

ssize_t FuzzSocketSystemCalls::read(int /*fd*/, void* buffer, std::size_t count) {
    std::memset(buffer, 0, count);
    return static_cast<ssize_t>(count);
}

int FuzzSocketSystemCalls::recvmmsg(int fd, struct mmsghdr* messages, unsigned int length,
                                    int flags, struct timespec* timeout) {
    return receiveQueues.recvmmsg(fd, messages, length, flags, timeout);
}

int FuzzSocketSystemCalls::setsockopt(int /*fd*/, int /*level*/, int /*name*/,
                                      const void* /*value*/, socklen_t /*length*/) {
    return 0;
}

int FuzzSocketSystemCalls::fcntl(int /*fd*/, int /*command*/, int /*argument*/) {
    return 0;
}
