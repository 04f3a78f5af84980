// The system calls of the epoll poller. The base class calls the real ones;
// tests override single calls to make registrations or the wait fail, or to
// hand out readiness in an order of their choosing.
#ifndef TWAMP_EPOLL_SYSTEM_CALLS_H
#define TWAMP_EPOLL_SYSTEM_CALLS_H

#include <sys/epoll.h>

class EpollSystemCalls {
  public:
    virtual ~EpollSystemCalls();

    // ::epoll_create1
    virtual int epollCreate1(int flags);
    // ::epoll_ctl
    virtual int epollCtl(int epollFd, int operation, int fd, struct epoll_event* event);
    // ::epoll_wait
    virtual int epollWait(int epollFd, struct epoll_event* events, int maxEvents, int timeout);
    // ::close
    virtual int close(int fd);

    // The process's instance calling the real system calls.
    static EpollSystemCalls& real();
};

#endif  // TWAMP_EPOLL_SYSTEM_CALLS_H
