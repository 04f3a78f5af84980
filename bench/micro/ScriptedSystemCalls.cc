#include "ScriptedSystemCalls.h"

#include <cstring>

int ScriptedSystemCalls::timerfdCreate(int /*clock*/, int /*flags*/) {
    return kTimerFd;
}

int ScriptedSystemCalls::timerfdSettime(int /*fd*/, int /*flags*/,
                                        const struct itimerspec* /*newValue*/,
                                        struct itimerspec* /*oldValue*/) {
    return 0;
}

ssize_t ScriptedSystemCalls::read(int fd, void* buffer, std::size_t count) {
    if (fd == kTimerFd) {
        const uint64_t oneExpiry = 1;
        std::memcpy(buffer, &oneExpiry, sizeof(oneExpiry));
        return sizeof(oneExpiry);
    }
    // The padding is XORed with this byte; a changing byte keeps that work real.
    std::memset(buffer, nextRandomByte++, count);
    return static_cast<ssize_t>(count);
}

ssize_t ScriptedSystemCalls::sendmsg(int /*fd*/, const struct msghdr* msg, int /*flags*/) {
    return static_cast<ssize_t>(msg->msg_iov[0].iov_len);
}

int ScriptedSystemCalls::setsockopt(int /*fd*/, int /*level*/, int /*name*/, const void* /*value*/,
                                    socklen_t /*length*/) {
    return 0;
}

int ScriptedSystemCalls::close(int /*fd*/) {
    return 0;
}
