#include "ReflectorSocket.h"

#include <arpa/inet.h>
#include <linux/net_tstamp.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>

namespace {

// Software timestamps of received and of sent datagrams, reported as
// SCM_TIMESTAMPING (software time at index 0). The transmit timestamp is taken
// by the device driver as the frame leaves, the receive timestamp as the frame
// enters the stack: both in the kernel, so neither depends on when this
// process is scheduled.
constexpr int kTimestampingFlags =
    SOF_TIMESTAMPING_TX_SOFTWARE | SOF_TIMESTAMPING_RX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE;
// Requests of up to 64 KiB arrive as one reassembled datagram that takes
// about twice its size of the buffer, and every reply sent comes back on the
// error queue, which counts against the same buffer: the default (about
// 200 KiB) holds only a few of them.
constexpr int kReceiveBufferBytes = 4 * 1024 * 1024;
// Enough of a looped frame to find the reply's fixed fields behind the
// headers the device saw (link, network with extension headers, transport).
constexpr std::size_t kLoopedBytes = 256;

bool enable(int fd, int level, int option, int value, const char* name, std::string& error) {
    if (setsockopt(fd, level, option, &value, sizeof(value)) != 0) {
        error = std::string("setsockopt ") + name + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

bool isUnspecified(const sockaddr* address) {
    if (address->sa_family != AF_INET6) {
        return false;
    }
    const auto* ipv6 = reinterpret_cast<const sockaddr_in6*>(address);
    return IN6_IS_ADDR_UNSPECIFIED(&ipv6->sin6_addr);
}

// IPv4 control messages serve IPv4 peers, also those mapped into an IPv6 socket.
bool usesIpv4Control(const PeerAddress& peer) {
    if (peer.address.ss_family == AF_INET) {
        return true;
    }
    const auto* ipv6 = reinterpret_cast<const sockaddr_in6*>(&peer.address);
    return IN6_IS_ADDR_V4MAPPED(&ipv6->sin6_addr);
}

// Writes one int item at control and moves control on; used counts the bytes written.
void appendInt(msghdr& message, cmsghdr*& control, std::size_t& used, int level, int type,
               int value) {
    control->cmsg_level = level;
    control->cmsg_type = type;
    control->cmsg_len = CMSG_LEN(sizeof(value));
    std::memcpy(CMSG_DATA(control), &value, sizeof(value));
    used += CMSG_SPACE(sizeof(value));
    control = CMSG_NXTHDR(&message, control);
}

// The software time of an SCM_TIMESTAMPING item; false when the kernel left it zero.
bool readSoftwareTime(const cmsghdr* control, timespec& time) {
    timespec times[3] = {};
    if (control->cmsg_len < CMSG_LEN(sizeof(times))) {
        return false;
    }
    std::memcpy(times, CMSG_DATA(control), sizeof(times));
    if (times[0].tv_sec == 0 && times[0].tv_nsec == 0) {
        return false;
    }
    time = times[0];
    return true;
}

bool isTimestamping(const cmsghdr* control) {
    return control->cmsg_level == SOL_SOCKET && control->cmsg_type == SCM_TIMESTAMPING;
}

int readInt(const cmsghdr* control) {
    int value = 0;
    if (control->cmsg_len >= CMSG_LEN(sizeof(value))) {
        std::memcpy(&value, CMSG_DATA(control), sizeof(value));
    } else if (control->cmsg_len >= CMSG_LEN(1)) {
        value = *CMSG_DATA(control);  // IP_TOS arrives as a single byte
    }
    return value;
}

}  // namespace

bool ReflectorSocket::open(const std::string& address, uint16_t port, std::string& error) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* result = nullptr;
    const int resolved =
        getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &result);
    if (resolved != 0) {
        error = "cannot use address '" + address + "': " + gai_strerror(resolved);
        return false;
    }
    fd_.reset(socket(result->ai_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP));
    bool ok = fd_.valid();
    if (!ok) {
        error = std::string("socket: ") + std::strerror(errno);
    }
    address_ = address;
    ok = ok && configure(result->ai_family, isUnspecified(result->ai_addr), error);
    if (ok && bind(fd_.get(), result->ai_addr, result->ai_addrlen) != 0) {
        error = "cannot bind " + address + " port " + std::to_string(port) + ": " +
                std::strerror(errno);
        ok = false;
    }
    freeaddrinfo(result);
    sockaddr_storage bound{};
    socklen_t boundLength = sizeof(bound);
    if (ok && getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&bound), &boundLength) == 0) {
        // sin_port and sin6_port sit at the same offset.
        boundPort_ = ntohs(reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
    }
    if (!ok) {
        fd_.reset();
    }
    return ok;
}

void ReflectorSocket::close() {
    fd_.reset();
}

bool ReflectorSocket::reopen(std::string& error) {
    return open(address_, boundPort_, error);
}

bool ReflectorSocket::configure(int family, bool dualStack, std::string& error) {
    if (!enable(fd_.get(), SOL_SOCKET, SO_TIMESTAMPING, kTimestampingFlags, "SO_TIMESTAMPING",
                error)) {
        return false;
    }
    enlargeReceiveBuffer();
    const bool ipv6 = family == AF_INET6;
    if (ipv6 &&
        !(enable(fd_.get(), IPPROTO_IPV6, IPV6_V6ONLY, dualStack ? 0 : 1, "IPV6_V6ONLY", error) &&
          enable(fd_.get(), IPPROTO_IPV6, IPV6_RECVHOPLIMIT, 1, "IPV6_RECVHOPLIMIT", error) &&
          enable(fd_.get(), IPPROTO_IPV6, IPV6_RECVTCLASS, 1, "IPV6_RECVTCLASS", error))) {
        return false;
    }
    if (ipv6 && !dualStack) {
        return true;
    }
    // IPv4 datagrams, also those arriving mapped on a dual-stack socket.
    return enable(fd_.get(), IPPROTO_IP, IP_RECVTTL, 1, "IP_RECVTTL", error) &&
           enable(fd_.get(), IPPROTO_IP, IP_RECVTOS, 1, "IP_RECVTOS", error);
}

// Forced when privileged, else as far as rmem_max allows; the default serves
// small packets, so a refusal is not an error.
void ReflectorSocket::enlargeReceiveBuffer() {
    const int bytes = kReceiveBufferBytes;
    if (setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes)) != 0) {
        setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes));
    }
}

bool ReflectorSocket::receive(ReceivedDatagram& datagram) {
    iovec vector{buffer_.data(), buffer_.size()};
    alignas(cmsghdr) uint8_t control[256];
    msghdr message{};
    message.msg_name = &datagram.peer.address;
    message.msg_namelen = sizeof(datagram.peer.address);
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t length = recvmsg(fd_.get(), &message, MSG_DONTWAIT);
    if (length < 0) {
        return false;
    }
    datagram.peer.length = message.msg_namelen;
    datagram.payload.assign(buffer_.begin(), buffer_.begin() + length);
    datagram.hasReceiveTime = false;
    datagram.ttl = -1;
    datagram.tos = -1;
    readControl(message, datagram);
    return true;
}

void ReflectorSocket::readControl(msghdr& message, ReceivedDatagram& datagram) {
    for (cmsghdr* control = CMSG_FIRSTHDR(&message); control != nullptr;
         control = CMSG_NXTHDR(&message, control)) {
        if (isTimestamping(control)) {
            datagram.hasReceiveTime = readSoftwareTime(control, datagram.receiveTime);
        } else if ((control->cmsg_level == IPPROTO_IP && control->cmsg_type == IP_TTL) ||
                   (control->cmsg_level == IPPROTO_IPV6 && control->cmsg_type == IPV6_HOPLIMIT)) {
            datagram.ttl = readInt(control);
        } else if ((control->cmsg_level == IPPROTO_IP && control->cmsg_type == IP_TOS) ||
                   (control->cmsg_level == IPPROTO_IPV6 && control->cmsg_type == IPV6_TCLASS)) {
            datagram.tos = readInt(control) & 0xFF;
        }
    }
}

int ReflectorSocket::send(const uint8_t* data, std::size_t length, const PeerAddress& peer,
                          uint8_t ttl, uint8_t tos) {
    iovec vector{const_cast<uint8_t*>(data), length};
    alignas(cmsghdr) uint8_t control[2 * CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_name = const_cast<sockaddr_storage*>(&peer.address);
    message.msg_namelen = peer.length;
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* next = CMSG_FIRSTHDR(&message);
    std::size_t used = 0;
    if (usesIpv4Control(peer)) {
        appendInt(message, next, used, IPPROTO_IP, IP_TTL, ttl);
        appendInt(message, next, used, IPPROTO_IP, IP_TOS, tos);
    } else {
        appendInt(message, next, used, IPPROTO_IPV6, IPV6_HOPLIMIT, ttl);
        appendInt(message, next, used, IPPROTO_IPV6, IPV6_TCLASS, tos);
    }
    message.msg_controllen = used;
    const ssize_t sent = sendmsg(fd_.get(), &message, MSG_DONTWAIT);
    if (sent < 0) {
        return errno;
    }
    return static_cast<std::size_t>(sent) == length ? 0 : EMSGSIZE;
}

bool ReflectorSocket::receiveTransmitStamp(TransmitStamp& stamp) {
    if (!fd_.valid()) {
        return false;
    }
    stamp.looped.resize(kLoopedBytes);
    // Anything else on the error queue (there should be nothing) is read past.
    for (;;) {
        iovec vector{stamp.looped.data(), stamp.looped.size()};
        alignas(cmsghdr) uint8_t control[256];
        msghdr message{};
        message.msg_iov = &vector;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        // A looped frame longer than the buffer is cut (MSG_TRUNC): its start is all we need.
        const ssize_t length = recvmsg(fd_.get(), &message, MSG_ERRQUEUE | MSG_DONTWAIT);
        if (length < 0) {
            return false;
        }
        for (cmsghdr* item = CMSG_FIRSTHDR(&message); item != nullptr;
             item = CMSG_NXTHDR(&message, item)) {
            if (isTimestamping(item) && readSoftwareTime(item, stamp.transmitTime)) {
                stamp.looped.resize(static_cast<std::size_t>(length));
                return true;
            }
        }
    }
}

std::string ReflectorSocket::describe(const PeerAddress& peer) {
    char text[INET6_ADDRSTRLEN] = "?";
    if (peer.address.ss_family == AF_INET) {
        const auto* ipv4 = reinterpret_cast<const sockaddr_in*>(&peer.address);
        inet_ntop(AF_INET, &ipv4->sin_addr, text, sizeof(text));
        return std::string(text) + ":" + std::to_string(ntohs(ipv4->sin_port));
    }
    const auto* ipv6 = reinterpret_cast<const sockaddr_in6*>(&peer.address);
    inet_ntop(AF_INET6, &ipv6->sin6_addr, text, sizeof(text));
    return "[" + std::string(text) + "]:" + std::to_string(ntohs(ipv6->sin6_port));
}
