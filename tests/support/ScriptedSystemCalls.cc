#include "ScriptedSystemCalls.h"

#include <cerrno>
#include <cstring>

namespace twamp_test {

int ScriptedSystemCalls::timerfdCreate(int clock, int flags) {
    createdClock = clock;
    createdFlags = flags;
    if (timerCreateErrno != 0) {
        errno = timerCreateErrno;
        return -1;
    }
    return kTimerFd;
}

int ScriptedSystemCalls::timerfdSettime(int fd, int flags, const struct itimerspec* newValue,
                                        struct itimerspec* /*oldValue*/) {
    settimeFd = fd;
    settimeFlags = flags;
    if (recordCalls) {
        settimeValues.push_back(*newValue);
    }
    if (settimeErrno != 0) {
        errno = settimeErrno;
        return -1;
    }
    return 0;
}

ssize_t ScriptedSystemCalls::read(int fd, void* buffer, std::size_t count) {
    if (fd == kTimerFd) {
        return readTimer(buffer, count);
    }
    return readRandom(fd, buffer, count);
}

ssize_t ScriptedSystemCalls::sendmsg(int fd, const struct msghdr* msg, int /*flags*/) {
    if (recordCalls) {
        events.push_back("sendmsg " + std::to_string(fd));
        recordSend(fd, msg);
    }
    if (sendResults.empty()) {
        return static_cast<ssize_t>(msg->msg_iov[0].iov_len);
    }
    const CallResult next = sendResults.front();
    sendResults.pop_front();
    errno = next.errorNumber;
    return next.result;
}

int ScriptedSystemCalls::setsockopt(int fd, int level, int name, const void* value,
                                    socklen_t length) {
    if (recordCalls) {
        int intValue = 0;
        std::memcpy(&intValue, value, length < sizeof(intValue) ? length : sizeof(intValue));
        events.push_back("setsockopt " + std::to_string(fd) + " " + std::to_string(level) + " " +
                         std::to_string(name) + " " + std::to_string(intValue));
    }
    if (setsockoptErrno != 0) {
        errno = setsockoptErrno;
        return -1;
    }
    return 0;
}

int ScriptedSystemCalls::close(int fd) {
    if (recordCalls) {
        closedFds.push_back(fd);
    }
    return 0;
}

int ScriptedSystemCalls::getaddrinfo(const char* node, const char* service,
                                     const struct addrinfo* hints, struct addrinfo** result) {
    if (recordCalls) {
        resolved.push_back(std::string(node) + " " + service);
    }
    if (resolveError != 0) {
        return resolveError;
    }
    return SystemCalls::getaddrinfo(node, service, hints, result);
}

void ScriptedSystemCalls::queueExpiries(uint64_t count) {
    timerReads.push_back({count, sizeof(uint64_t), 0});
}

void ScriptedSystemCalls::queueTimerFailure(int errorNumber) {
    timerReads.push_back({0, -1, errorNumber});
}

ssize_t ScriptedSystemCalls::readTimer(void* buffer, std::size_t count) {
    if (count != sizeof(uint64_t)) {
        errno = EAGAIN;
        return -1;
    }
    if (timerReads.empty()) {
        if (!expireWhenUnqueued) {
            errno = EAGAIN;
            return -1;
        }
        const uint64_t oneExpiry = 1;
        std::memcpy(buffer, &oneExpiry, sizeof(oneExpiry));
        return sizeof(oneExpiry);
    }
    const TimerRead next = timerReads.front();
    timerReads.pop_front();
    if (next.result == -1) {
        errno = next.errorNumber;
        return -1;
    }
    std::memcpy(buffer, &next.count, sizeof(next.count));
    return next.result;
}

ssize_t ScriptedSystemCalls::readRandom(int fd, void* buffer, std::size_t count) {
    if (recordCalls) {
        randomReadFds.push_back(fd);
        randomReadLengths.push_back(count);
    }
    if (randomFails) {
        errno = randomErrno;
        return randomResult;
    }
    // The padding is XORed with this byte; a changing byte keeps that work real.
    std::memset(buffer, randomByte, count);
    randomByte = static_cast<uint8_t>(randomByte + randomByteStep);
    return static_cast<ssize_t>(count);
}

void ScriptedSystemCalls::recordSend(int fd, const struct msghdr* msg) {
    SentPacket packet;
    packet.fd = fd;
    const auto* bytes = static_cast<const uint8_t*>(msg->msg_iov[0].iov_base);
    packet.payload.assign(bytes, bytes + msg->msg_iov[0].iov_len);
    packet.controlLength = msg->msg_controllen;
    const auto* control = static_cast<const uint8_t*>(msg->msg_control);
    packet.control.assign(control, control + msg->msg_controllen);
    packet.nameLength = msg->msg_namelen;
    sent.push_back(packet);
}

}  // namespace twamp_test
