#include "FuzzSessionSystemCalls.h"

#include <netdb.h>

#include <cstring>

namespace {

// Bytes of the packets' random padding.
constexpr uint8_t kRandomByte = 0x5A;

}  // namespace

int FuzzSessionSystemCalls::timerfdCreate(int /*clock*/, int /*flags*/) {
    return nextTimerFd++;
}

int FuzzSessionSystemCalls::timerfdSettime(int /*fd*/, int /*flags*/,
                                           const struct itimerspec* /*newValue*/,
                                           struct itimerspec* /*oldValue*/) {
    return 0;
}

ssize_t FuzzSessionSystemCalls::read(int fd, void* buffer, std::size_t count) {
    if (fd >= kFirstTimerFd && count == sizeof(expiries)) {
        std::memcpy(buffer, &expiries, sizeof(expiries));
        return static_cast<ssize_t>(count);
    }
    std::memset(buffer, kRandomByte, count);
    return static_cast<ssize_t>(count);
}

// The whole packet counts as sent. Its bytes and control data are compared
// with themselves, so that the sanitizer checks every byte of both.
ssize_t FuzzSessionSystemCalls::sendmsg(int /*fd*/, const struct msghdr* msg, int /*flags*/) {
    const struct iovec& payload = msg->msg_iov[0];
    sentMismatches += std::memcmp(payload.iov_base, payload.iov_base, payload.iov_len) != 0;
    if (msg->msg_controllen != 0) {
        sentMismatches += std::memcmp(msg->msg_control, msg->msg_control, msg->msg_controllen) != 0;
    }
    return static_cast<ssize_t>(payload.iov_len);
}

int FuzzSessionSystemCalls::setsockopt(int /*fd*/, int /*level*/, int /*name*/,
                                       const void* /*value*/, socklen_t /*length*/) {
    return 0;
}

int FuzzSessionSystemCalls::close(int /*fd*/) {
    return 0;
}

// A name would ask the name service, maybe over the network: only numeric
// addresses and ports are resolved, anything else fails as an unknown name.
int FuzzSessionSystemCalls::getaddrinfo(const char* node, const char* service,
                                        const struct addrinfo* hints, struct addrinfo** result) {
    struct addrinfo numericHints = *hints;
    numericHints.ai_flags |= AI_NUMERICHOST | AI_NUMERICSERV;
    return ::getaddrinfo(node, service, &numericHints, result);
}

void FuzzSessionSystemCalls::freeaddrinfo(struct addrinfo* result) {
    ::freeaddrinfo(result);
}
