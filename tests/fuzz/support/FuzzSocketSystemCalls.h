// The system calls of the fuzzed UDP socket: binding always succeeds on a
// descriptor that exists only as a number, nothing sleeps, and recvmmsg
// hands out the messages the target queued, as the kernel would.
#ifndef TWAMP_FUZZ_SOCKET_SYSTEM_CALLS_H
#define TWAMP_FUZZ_SOCKET_SYSTEM_CALLS_H

#include "ScriptedReceiveQueues.h"
#include "SystemCalls.h"

class FuzzSocketSystemCalls : public SystemCalls {
  public:
    // The bound socket's descriptor; no real descriptor is that high.
    static constexpr int kSocketFd = 999999;
    static constexpr int kBindTimerFd = 999998;

    // The socket's two kernel queues.
    twamp_test::ScriptedReceiveQueues& queues() { return receiveQueues; }
    // Empties both queues and forgets the calls, for the next input.
    void resetQueues() { receiveQueues = twamp_test::ScriptedReceiveQueues(); }

    // SystemCalls
    int getaddrinfo(const char* node, const char* service, const struct addrinfo* hints,
                    struct addrinfo** result) override;
    void freeaddrinfo(struct addrinfo* result) override;
    int socket(int domain, int type, int protocol) override;
    int bind(int fd, const struct sockaddr* address, socklen_t length) override;
    int close(int fd) override;
    unsigned int sleep(unsigned int seconds) override;
    int timerfdCreate(int clock, int flags) override;
    int timerfdSettime(int fd, int flags, const struct itimerspec* newValue,
                       struct itimerspec* oldValue) override;
    ssize_t read(int fd, void* buffer, std::size_t count) override;
    int recvmmsg(int fd, struct mmsghdr* messages, unsigned int length, int flags,
                 struct timespec* timeout) override;
    int setsockopt(int fd, int level, int name, const void* value, socklen_t length) override;
    int fcntl(int fd, int command, int argument) override;

  private:
    twamp_test::ScriptedReceiveQueues receiveQueues;
};

#endif  // TWAMP_FUZZ_SOCKET_SYSTEM_CALLS_H
