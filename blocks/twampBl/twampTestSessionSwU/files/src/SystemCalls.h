// The system calls of the daemon's socket, timers and sessions: the UDP
// socket's set-up and receive path, a session's packet timer, send path and
// address resolution. The base class calls the real ones; tests override
// single calls to fire timers, fail sends and binds, set clocks and feed
// received messages without sleeping or depending on the network.
#ifndef TWAMP_SYSTEM_CALLS_H
#define TWAMP_SYSTEM_CALLS_H

#include <netdb.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/types.h>

#include <cstddef>
#include <ctime>

class SystemCalls {
  public:
    virtual ~SystemCalls();

    // ::getaddrinfo (the socket's source and a session's destination)
    virtual int getaddrinfo(const char* node, const char* service, const struct addrinfo* hints,
                            struct addrinfo** result);
    // ::freeaddrinfo
    virtual void freeaddrinfo(struct addrinfo* result);
    // ::socket
    virtual int socket(int domain, int type, int protocol);
    // ::bind
    virtual int bind(int fd, const struct sockaddr* address, socklen_t length);
    // ::close
    virtual int close(int fd);
    // ::sleep
    virtual unsigned int sleep(unsigned int seconds);
    // ::timerfd_create
    virtual int timerfdCreate(int clock, int flags);
    // ::timerfd_settime
    virtual int timerfdSettime(int fd, int flags, const struct itimerspec* newValue,
                               struct itimerspec* oldValue);
    // ::read (timer expiries and random bytes)
    virtual ssize_t read(int fd, void* buffer, std::size_t count);
    // ::sendmsg
    virtual ssize_t sendmsg(int fd, const struct msghdr* msg, int flags);
    // ::recvmmsg
    virtual int recvmmsg(int fd, struct mmsghdr* messages, unsigned int length, int flags,
                         struct timespec* timeout);
    // ::setsockopt
    virtual int setsockopt(int fd, int level, int name, const void* value, socklen_t length);
    // ::fcntl with one int argument (0 for commands without one).
    virtual int fcntl(int fd, int command, int argument);

    // The process's instance calling the real system calls.
    static SystemCalls& real();
};

#endif  // TWAMP_SYSTEM_CALLS_H
