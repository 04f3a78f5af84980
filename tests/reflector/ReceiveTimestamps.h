// Software receive timestamps are switched on for the whole host by the first
// socket that asks for them, and the kernel does that a moment later, in a
// work item: a datagram that arrives meanwhile gets none. Tests that check
// the reflector's kernel receive times first make sure they are on, with a
// socket of their own that stays open for the test program, so that they
// stay on between tests that close and open the reflector's socket.
#ifndef TWAMP_TESTS_REFLECTOR_RECEIVE_TIMESTAMPS_H
#define TWAMP_TESTS_REFLECTOR_RECEIVE_TIMESTAMPS_H

#include <arpa/inet.h>
#include <linux/net_tstamp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <ctime>

namespace reflector_test {

namespace receive_timestamps_detail {

constexpr int kTries = 500;
constexpr int kWaitMs = 10;

// One datagram to itself; true when it came back with a software receive time.
inline bool stampedLoop(int fd, const sockaddr_in& self) {
    const uint8_t byte = 0;
    sendto(fd, &byte, sizeof(byte), 0, reinterpret_cast<const sockaddr*>(&self), sizeof(self));
    pollfd descriptor{fd, POLLIN, 0};
    if (poll(&descriptor, 1, kWaitMs) <= 0) {
        return false;
    }
    uint8_t data = 0;
    iovec vector{&data, sizeof(data)};
    alignas(cmsghdr) uint8_t control[256];
    msghdr message{};
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    if (recvmsg(fd, &message, MSG_DONTWAIT) < 0) {
        return false;
    }
    for (cmsghdr* item = CMSG_FIRSTHDR(&message); item != nullptr;
         item = CMSG_NXTHDR(&message, item)) {
        timespec times[3] = {};
        if (item->cmsg_level == SOL_SOCKET && item->cmsg_type == SCM_TIMESTAMPING &&
            item->cmsg_len >= CMSG_LEN(sizeof(times))) {
            std::memcpy(times, CMSG_DATA(item), sizeof(times));
            return times[0].tv_sec != 0 || times[0].tv_nsec != 0;
        }
    }
    return false;
}

inline bool switchOn() {
    // Left open on purpose until the test program ends.
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int flags = SOF_TIMESTAMPING_RX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE;
    sockaddr_in self{};
    self.sin_family = AF_INET;
    self.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(self);
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPING, &flags, sizeof(flags)) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr*>(&self), sizeof(self)) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&self), &length) != 0) {
        return false;
    }
    for (int attempt = 0; attempt < kTries; ++attempt) {
        if (stampedLoop(fd, self)) {
            return true;
        }
        // The datagram came back unstamped: the kernel has not switched
        // timestamps on yet, which takes longer on a busy machine. Wait
        // before the next try, so the tries span seconds, not a burst.
        poll(nullptr, 0, kWaitMs);
    }
    return false;
}

}  // namespace receive_timestamps_detail

// True once datagrams get software receive timestamps, for the rest of the test program.
inline bool receiveTimestampsOn() {
    static const bool on = receive_timestamps_detail::switchOn();
    return on;
}

}  // namespace reflector_test

#endif  // TWAMP_TESTS_REFLECTOR_RECEIVE_TIMESTAMPS_H
