// A Session-Sender stand-in for the reflector's tests: one UDP socket that
// sends sender-layout test packets with a chosen TTL and TOS and reads the
// replies with the TTL and TOS they arrived with.
#ifndef TWAMP_TESTS_REFLECTOR_TEST_CLIENT_H
#define TWAMP_TESTS_REFLECTOR_TEST_CLIENT_H

#include <arpa/inet.h>
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
        return true;
    }

  private:
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
