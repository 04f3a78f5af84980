#include "LoadReflector.h"

#include <arpa/inet.h>
#include <sys/epoll.h>

#include <cerrno>
#include <cstring>

#include "NtpTimestamp.h"
#include "ReplyBuilder.h"

namespace {

constexpr int kReplyTtl = 255;
constexpr int kMaxEvents = 256;

std::string failure(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

bool setIntOption(int fd, int level, int name, int value) {
    return setsockopt(fd, level, name, &value, sizeof(value)) == 0;
}

// IP_TOS and IP_TTL arrive as an int, IP_TOS on some paths as one byte.
int readControlInt(const cmsghdr* item) {
    int value = 0;
    if (item->cmsg_len >= CMSG_LEN(sizeof(value))) {
        std::memcpy(&value, CMSG_DATA(item), sizeof(value));
    } else if (item->cmsg_len >= CMSG_LEN(1)) {
        value = *CMSG_DATA(item);
    }
    return value;
}

bool sameSender(const sockaddr_in& left, const sockaddr_in& right) {
    return left.sin_port == right.sin_port && left.sin_addr.s_addr == right.sin_addr.s_addr;
}

}  // namespace

bool LoadReflector::open(const std::string& address, uint16_t basePort, uint32_t ports,
                         std::string& error) {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    if (inet_pton(AF_INET, address.c_str(), &local.sin_addr) != 1) {
        error = "not an IPv4 address: " + address;
        return false;
    }
    if (basePort != 0 && basePort + static_cast<uint64_t>(ports) > 65536) {
        error = "ports beyond 65535";
        return false;
    }
    epoll.reset(epoll_create1(EPOLL_CLOEXEC));
    if (!epoll.valid()) {
        error = failure("epoll_create1");
        return false;
    }
    for (uint32_t index = 0; index < ports; ++index) {
        local.sin_port = htons(basePort == 0 ? 0 : static_cast<uint16_t>(basePort + index));
        if (!openPort(local, error)) {
            return false;
        }
    }
    senders.resize(ports);
    return true;
}

bool LoadReflector::openPort(const sockaddr_in& address, std::string& error) {
    FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket.valid()) {
        error = failure("socket");
        return false;
    }
    // Beyond net.core.rmem_max only with the privilege; the default then stays.
    if (!setIntOption(socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, kReceiveBufferBytes)) {
        setIntOption(socket.get(), SOL_SOCKET, SO_RCVBUF, kReceiveBufferBytes);
    }
    if (!setIntOption(socket.get(), SOL_SOCKET, SO_TIMESTAMPNS, 1) ||
        !setIntOption(socket.get(), IPPROTO_IP, IP_RECVTTL, 1) ||
        !setIntOption(socket.get(), IPPROTO_IP, IP_RECVTOS, 1) ||
        !setIntOption(socket.get(), IPPROTO_IP, IP_TTL, kReplyTtl)) {
        error = failure("setsockopt");
        return false;
    }
    if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        error = failure("bind to port " + std::to_string(ntohs(address.sin_port)));
        return false;
    }
    sockaddr_in bound{};
    socklen_t boundLength = sizeof(bound);
    if (getsockname(socket.get(), reinterpret_cast<sockaddr*>(&bound), &boundLength) != 0) {
        error = failure("getsockname");
        return false;
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u32 = static_cast<uint32_t>(sockets.size());
    if (epoll_ctl(epoll.get(), EPOLL_CTL_ADD, socket.get(), &event) != 0) {
        error = failure("epoll_ctl");
        return false;
    }
    boundPorts.push_back(ntohs(bound.sin_port));
    sockets.push_back(std::move(socket));
    return true;
}

bool LoadReflector::serve(int timeoutMs) {
    epoll_event events[kMaxEvents];
    const int ready = epoll_wait(epoll.get(), events, kMaxEvents, timeoutMs);
    if (ready < 0) {
        return errno == EINTR;
    }
    if (ready > 0) {
        ++totals.wakeUps;
    }
    for (int i = 0; i < ready; ++i) {
        drain(events[i].data.u32);
    }
    return true;
}

void LoadReflector::drain(uint32_t index) {
    for (int turn = 0; turn < kDatagramsPerTurn; ++turn) {
        sockaddr_in sender{};
        iovec vector{buffer.data(), buffer.size()};
        msghdr message{};
        message.msg_name = &sender;
        message.msg_namelen = sizeof(sender);
        message.msg_iov = &vector;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        const ssize_t length = recvmsg(sockets[index].get(), &message, MSG_DONTWAIT);
        if (length < 0) {
            return;
        }
        ++totals.received;
        answer(index, static_cast<std::size_t>(length), message);
    }
}

void LoadReflector::answer(uint32_t index, std::size_t length, msghdr& message) {
    if (length < ReplyBuilder::kMinimumReplyLength || (message.msg_flags & MSG_TRUNC) != 0) {
        ++totals.tooShort;
        return;
    }
    timespec receiveTime{};
    int ttl = 0;
    int tos = 0;
    for (cmsghdr* item = CMSG_FIRSTHDR(&message); item != nullptr;
         item = CMSG_NXTHDR(&message, item)) {
        if (item->cmsg_level == SOL_SOCKET && item->cmsg_type == SCM_TIMESTAMPNS &&
            item->cmsg_len >= CMSG_LEN(sizeof(receiveTime))) {
            std::memcpy(&receiveTime, CMSG_DATA(item), sizeof(receiveTime));
        } else if (item->cmsg_level == IPPROTO_IP && item->cmsg_type == IP_TTL) {
            ttl = readControlInt(item);
        } else if (item->cmsg_level == IPPROTO_IP && item->cmsg_type == IP_TOS) {
            tos = readControlInt(item) & 0xFF;
        }
    }
    const sockaddr_in sender = *static_cast<const sockaddr_in*>(message.msg_name);
    ReplyStamp stamp;
    stamp.reflectorSequence = nextReflectorSequence(index, sender);
    stamp.receiveTimestamp = toNtpTimestamp(receiveTime);
    stamp.transmitTimestamp = toNtpTimestamp(clock.realtime());
    stamp.senderTtl = static_cast<uint8_t>(ttl);
    ReplyBuilder::build(buffer.data(), length, stamp);

    // The reply keeps the request's traffic class.
    alignas(cmsghdr) uint8_t replyControl[CMSG_SPACE(sizeof(int))] = {};
    iovec vector{buffer.data(), length};
    msghdr reply{};
    reply.msg_name = message.msg_name;
    reply.msg_namelen = message.msg_namelen;
    reply.msg_iov = &vector;
    reply.msg_iovlen = 1;
    reply.msg_control = replyControl;
    reply.msg_controllen = sizeof(replyControl);
    cmsghdr* item = CMSG_FIRSTHDR(&reply);
    item->cmsg_level = IPPROTO_IP;
    item->cmsg_type = IP_TOS;
    item->cmsg_len = CMSG_LEN(sizeof(tos));
    std::memcpy(CMSG_DATA(item), &tos, sizeof(tos));
    if (sendmsg(sockets[index].get(), &reply, MSG_DONTWAIT) == static_cast<ssize_t>(length)) {
        ++totals.replied;
        return;
    }
    ++totals.sendFailures;
    totals.lastSendErrno = errno;
}

uint32_t LoadReflector::nextReflectorSequence(uint32_t index, const sockaddr_in& sender) {
    // A port has one or two senders, so a walk is cheaper than a map.
    for (SenderCount& known : senders[index]) {
        if (sameSender(known.sender, sender)) {
            return known.replies++;
        }
    }
    senders[index].push_back(SenderCount{sender, 1});
    return 0;
}
