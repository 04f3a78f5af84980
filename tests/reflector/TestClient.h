// A Session-Sender stand-in for the reflector's tests: one UDP socket that
// sends sender-layout test packets with a chosen TTL and TOS and reads the
// replies with the TTL and TOS they arrived with, and on request the kernel's
// software transmit and receive times.
#ifndef TWAMP_TESTS_REFLECTOR_TEST_CLIENT_H
#define TWAMP_TESTS_REFLECTOR_TEST_CLIENT_H

#include <arpa/inet.h>
#include <linux/net_tstamp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "OwampTestMessage.h"

namespace reflector_test {

struct ClientReply {
    std::vector<uint8_t> bytes;
    int ttl = -1;
    int tos = -1;
    // The kernel's software receive time, nanoseconds since the POSIX epoch; 0 without.
    int64_t kernelNs = 0;
};

class TestClient {
  public:
    TestClient() = default;
    ~TestClient() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    TestClient(const TestClient&) = delete;
    TestClient& operator=(const TestClient&) = delete;

    // A socket towards address (numeric IPv4 or IPv6) and port, sending with ttl and tos.
    bool open(const std::string& address, uint16_t port, int ttl, int tos) {
        if (inet_pton(AF_INET, address.c_str(), &peer4_.sin_addr) == 1) {
            family_ = AF_INET;
            peer4_.sin_family = AF_INET;
            peer4_.sin_port = htons(port);
        } else if (inet_pton(AF_INET6, address.c_str(), &peer6_.sin6_addr) == 1) {
            family_ = AF_INET6;
            peer6_.sin6_family = AF_INET6;
            peer6_.sin6_port = htons(port);
        } else {
            return false;
        }
        fd_ = socket(family_, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        return fd_ >= 0 && configure(ttl, tos);
    }

    // A sender packet of size bytes: seq, T1, the sender error estimate, padding 0x5A.
    static std::vector<uint8_t> packet(uint32_t seq, uint64_t t1, std::size_t size) {
        std::vector<uint8_t> bytes(size, 0x5A);
        OwampTestMessage message(bytes.data(), bytes.size());
        message.setSequenceNumber(seq);
        message.setTimestamp(t1);
        message.setErrorEstimate();
        return bytes;
    }

    // Software transmit and receive timestamps from now on.
    bool enableKernelTimestamps() {
        const int flags =
            SOF_TIMESTAMPING_TX_SOFTWARE | SOF_TIMESTAMPING_RX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE;
        return setsockopt(fd_, SOL_SOCKET, SO_TIMESTAMPING, &flags, sizeof(flags)) == 0;
    }

    // Waits up to timeoutMs for the kernel's transmit time of the last packet sent.
    bool transmitTime(int64_t& kernelNs, int timeoutMs) {
        pollfd descriptor{fd_, 0, 0};
        if (poll(&descriptor, 1, timeoutMs) <= 0 || (descriptor.revents & POLLERR) == 0) {
            return false;
        }
        uint8_t looped[256];
        iovec vector{looped, sizeof(looped)};
        alignas(cmsghdr) uint8_t control[256];
        msghdr message{};
        message.msg_iov = &vector;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        if (recvmsg(fd_, &message, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) {
            return false;
        }
        kernelNs = softwareTime(message);
        return kernelNs != 0;
    }

    bool send(const std::vector<uint8_t>& bytes) {
        const sockaddr* peer = family_ == AF_INET ? reinterpret_cast<const sockaddr*>(&peer4_)
                                                  : reinterpret_cast<const sockaddr*>(&peer6_);
        const socklen_t length = family_ == AF_INET ? sizeof(peer4_) : sizeof(peer6_);
        return sendto(fd_, bytes.data(), bytes.size(), 0, peer, length) ==
               static_cast<ssize_t>(bytes.size());
    }

    // Waits up to timeoutMs for one reply; 0 only reads what already waits.
    bool receive(ClientReply& reply, int timeoutMs) {
        pollfd descriptor{fd_, POLLIN, 0};
        if (poll(&descriptor, 1, timeoutMs) <= 0) {
            return false;
        }
        std::vector<uint8_t> buffer(65536);
        iovec vector{buffer.data(), buffer.size()};
        alignas(cmsghdr) uint8_t control[256];
        msghdr message{};
        message.msg_iov = &vector;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        const ssize_t length = recvmsg(fd_, &message, MSG_DONTWAIT);
        if (length < 0) {
            return false;
        }
        buffer.resize(static_cast<std::size_t>(length));
        reply.bytes = buffer;
        readControl(message, reply);
        reply.kernelNs = softwareTime(message);
        return true;
    }

  private:
    // The software time of the message's SCM_TIMESTAMPING item; 0 without one.
    static int64_t softwareTime(msghdr& message) {
        for (cmsghdr* item = CMSG_FIRSTHDR(&message); item != nullptr;
             item = CMSG_NXTHDR(&message, item)) {
            timespec times[3] = {};
            if (item->cmsg_level == SOL_SOCKET && item->cmsg_type == SCM_TIMESTAMPING &&
                item->cmsg_len >= CMSG_LEN(sizeof(times))) {
                std::memcpy(times, CMSG_DATA(item), sizeof(times));
                return static_cast<int64_t>(times[0].tv_sec) * 1000000000LL + times[0].tv_nsec;
            }
        }
        return 0;
    }

    bool configure(int ttl, int tos) {
        const int on = 1;
        if (family_ == AF_INET) {
            return setsockopt(fd_, IPPROTO_IP, IP_TTL, &ttl, sizeof(ttl)) == 0 &&
                   setsockopt(fd_, IPPROTO_IP, IP_TOS, &tos, sizeof(tos)) == 0 &&
                   setsockopt(fd_, IPPROTO_IP, IP_RECVTTL, &on, sizeof(on)) == 0 &&
                   setsockopt(fd_, IPPROTO_IP, IP_RECVTOS, &on, sizeof(on)) == 0;
        }
        return setsockopt(fd_, IPPROTO_IPV6, IPV6_UNICAST_HOPS, &ttl, sizeof(ttl)) == 0 &&
               setsockopt(fd_, IPPROTO_IPV6, IPV6_TCLASS, &tos, sizeof(tos)) == 0 &&
               setsockopt(fd_, IPPROTO_IPV6, IPV6_RECVHOPLIMIT, &on, sizeof(on)) == 0 &&
               setsockopt(fd_, IPPROTO_IPV6, IPV6_RECVTCLASS, &on, sizeof(on)) == 0;
    }

    static void readControl(msghdr& message, ClientReply& reply) {
        for (cmsghdr* item = CMSG_FIRSTHDR(&message); item != nullptr;
             item = CMSG_NXTHDR(&message, item)) {
            int value = 0;
            if (item->cmsg_len >= CMSG_LEN(sizeof(int))) {
                std::memcpy(&value, CMSG_DATA(item), sizeof(value));
            } else {
                value = *CMSG_DATA(item);
            }
            const bool ttl = (item->cmsg_level == IPPROTO_IP && item->cmsg_type == IP_TTL) ||
                             (item->cmsg_level == IPPROTO_IPV6 && item->cmsg_type == IPV6_HOPLIMIT);
            const bool tos = (item->cmsg_level == IPPROTO_IP && item->cmsg_type == IP_TOS) ||
                             (item->cmsg_level == IPPROTO_IPV6 && item->cmsg_type == IPV6_TCLASS);
            if (ttl) {
                reply.ttl = value;
            } else if (tos) {
                reply.tos = value & 0xFF;
            }
        }
    }

    int fd_ = -1;
    int family_ = AF_UNSPEC;
    sockaddr_in peer4_{};
    sockaddr_in6 peer6_{};
};

}  // namespace reflector_test

#endif  // TWAMP_TESTS_REFLECTOR_TEST_CLIENT_H
