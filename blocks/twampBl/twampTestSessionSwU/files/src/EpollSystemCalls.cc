#include "EpollSystemCalls.h"

#include <unistd.h>

EpollSystemCalls::~EpollSystemCalls() = default;

int EpollSystemCalls::epollCreate1(int flags) {
    return ::epoll_create1(flags);
}

int EpollSystemCalls::epollCtl(int epollFd, int operation, int fd, struct epoll_event* event) {
    return ::epoll_ctl(epollFd, operation, fd, event);
}

int EpollSystemCalls::epollWait(int epollFd, struct epoll_event* events, int maxEvents,
                                int timeout) {
    return ::epoll_wait(epollFd, events, maxEvents, timeout);
}

int EpollSystemCalls::close(int fd) {
    return ::close(fd);
}

EpollSystemCalls& EpollSystemCalls::real() {
    static EpollSystemCalls systemCalls;
    return systemCalls;
}
