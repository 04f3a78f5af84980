#include "LoopbackReflector.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>

#include <cstring>
#include <ctime>
#include <utility>

#include "MinuteArithmetic.h"
#include "NtpTimestamp.h"
#include "OwampTestMessage.h"
#include "ReplyBuilder.h"
#include "TwampTestMessage.h"

namespace scenario_test {

namespace {

constexpr std::size_t kReceiveBufferSize = 2048;
constexpr std::size_t kControlBufferSize = 256;
constexpr int kPollIntervalMs = 20;
constexpr int kOptionOn = 1;
// Sender TTL written when the kernel did not report the arrival TTL.
constexpr uint8_t kFixedSenderTtl = 64;

uint64_t realNtpNow() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return toNtpTimestamp(now);
}

bool setIntOption(int fd, int level, int name, int value) {
    return setsockopt(fd, level, name, &value, sizeof(value)) == 0;
}

// The int or single byte of a control message, copied out.
int controlValue(const struct cmsghdr* header) {
    const std::size_t length = header->cmsg_len - CMSG_LEN(0);
    if (length >= sizeof(int)) {
        int value = 0;
        std::memcpy(&value, CMSG_DATA(header), sizeof(value));
        return value;
    }
    if (length >= 1) {
        uint8_t value = 0;
        std::memcpy(&value, CMSG_DATA(header), sizeof(value));
        return value;
    }
    return -1;
}

}  // namespace

LoopbackReflector::LoopbackReflector(ReflectorSettings settings) : settings(std::move(settings)) {}

LoopbackReflector::~LoopbackReflector() {
    stop();
}

bool LoopbackReflector::start() {
    if (!openSocket() || !configureSocket()) {
        return false;
    }
    running = true;
    thread = std::thread([this] { run(); });
    return true;
}

void LoopbackReflector::stop() {
    running = false;
    if (thread.joinable()) {
        thread.join();
    }
}

uint16_t LoopbackReflector::getPort() const {
    return port;
}

std::string LoopbackReflector::getAddressText() const {
    return settings.family == AF_INET6 ? "::1" : "127.0.0.1";
}

std::vector<ReflectedRequest> LoopbackReflector::getRequests() const {
    std::lock_guard<std::mutex> lock(mutex);
    return requests;
}

bool LoopbackReflector::resendLastReply() {
    std::lock_guard<std::mutex> lock(mutex);
    if (lastReply.empty()) {
        return false;
    }
    const ssize_t sent =
        sendto(socket.get(), lastReply.data(), lastReply.size(), 0,
               reinterpret_cast<const struct sockaddr*>(&lastPeer), lastPeerLength);
    return sent == static_cast<ssize_t>(lastReply.size());
}

bool LoopbackReflector::openSocket() {
    socket.reset(::socket(settings.family, SOCK_DGRAM, 0));
    if (socket.get() == -1) {
        return false;
    }
    struct sockaddr_storage address {};
    socklen_t length = 0;
    if (settings.family == AF_INET6) {
        auto* ipv6 = reinterpret_cast<struct sockaddr_in6*>(&address);
        ipv6->sin6_family = AF_INET6;
        ipv6->sin6_addr = in6addr_loopback;
        length = sizeof(*ipv6);
    } else {
        auto* ipv4 = reinterpret_cast<struct sockaddr_in*>(&address);
        ipv4->sin_family = AF_INET;
        ipv4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        length = sizeof(*ipv4);
    }
    if (bind(socket.get(), reinterpret_cast<struct sockaddr*>(&address), length) != 0 ||
        getsockname(socket.get(), reinterpret_cast<struct sockaddr*>(&address), &length) != 0) {
        return false;
    }
    // The port sits at the same offset in both address families.
    port = ntohs(reinterpret_cast<struct sockaddr_in*>(&address)->sin_port);
    return true;
}

bool LoopbackReflector::configureSocket() {
    const int fd = socket.get();
    if (settings.family == AF_INET6) {
        return setIntOption(fd, IPPROTO_IPV6, IPV6_RECVHOPLIMIT, kOptionOn) &&
               setIntOption(fd, IPPROTO_IPV6, IPV6_RECVTCLASS, kOptionOn) &&
               setIntOption(fd, IPPROTO_IPV6, IPV6_UNICAST_HOPS, settings.replyTtl) &&
               setIntOption(fd, IPPROTO_IPV6, IPV6_TCLASS, settings.replyTos);
    }
    return setIntOption(fd, IPPROTO_IP, IP_RECVTTL, kOptionOn) &&
           setIntOption(fd, IPPROTO_IP, IP_RECVTOS, kOptionOn) &&
           setIntOption(fd, IPPROTO_IP, IP_TTL, settings.replyTtl) &&
           setIntOption(fd, IPPROTO_IP, IP_TOS, settings.replyTos);
}

void LoopbackReflector::run() {
    struct pollfd watched {};
    watched.fd = socket.get();
    watched.events = POLLIN;
    // Polled with a short time-out so that stop() is noticed promptly.
    while (running) {
        watched.revents = 0;
        if (poll(&watched, 1, kPollIntervalMs) > 0 && (watched.revents & POLLIN) != 0) {
            serveOne();
        }
    }
}

void LoopbackReflector::serveOne() {
    std::vector<uint8_t> packet(kReceiveBufferSize);
    alignas(struct cmsghdr) uint8_t control[kControlBufferSize] = {};
    struct sockaddr_storage peer {};
    struct iovec vector {
        packet.data(), packet.size()
    };
    struct msghdr message {};
    message.msg_name = &peer;
    message.msg_namelen = sizeof(peer);
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t received = recvmsg(socket.get(), &message, MSG_DONTWAIT);
    // A reflected packet needs room for every field up to the Sender TTL.
    if (received < static_cast<ssize_t>(TwampTestMessage::kPaddingOffset)) {
        return;
    }
    packet.resize(static_cast<std::size_t>(received));
    OwampTestMessage sent(packet.data(), packet.size());
    ReflectedRequest request;
    request.senderSeqNo = sent.getSequenceNumber();
    request.senderTimestamp = sent.getTimestamp();
    request.minute = minuteOfNtp(request.senderTimestamp);
    readArrivalFields(message, request);
    if (settings.drop && settings.drop(request.senderSeqNo, request.senderTimestamp)) {
        record(request);
        return;
    }
    request.answered = true;
    reflect(packet, request, peer, message.msg_namelen);
}

void LoopbackReflector::readArrivalFields(const struct msghdr& message,
                                          ReflectedRequest& request) const {
    const int level = settings.family == AF_INET6 ? IPPROTO_IPV6 : IPPROTO_IP;
    const int ttlType = settings.family == AF_INET6 ? IPV6_HOPLIMIT : IP_TTL;
    const int tosType = settings.family == AF_INET6 ? IPV6_TCLASS : IP_TOS;
    for (struct cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(const_cast<struct msghdr*>(&message), header)) {
        if (header->cmsg_level != level) {
            continue;
        }
        if (header->cmsg_type == ttlType) {
            request.receivedTtl = controlValue(header);
        } else if (header->cmsg_type == tosType) {
            request.receivedTos = controlValue(header);
        }
    }
}

void LoopbackReflector::reflect(std::vector<uint8_t>& packet, const ReflectedRequest& request,
                                const struct sockaddr_storage& peer, socklen_t peerLength) {
    // Held before T2 is taken: the hold is part of every round trip.
    std::this_thread::sleep_for(settings.hold);
    ReplyStamp stamp;
    stamp.reflectorSequence = sequenceNumber++;
    stamp.receiveTimestamp = realNtpNow();
    stamp.senderTtl =
        request.receivedTtl >= 0 ? static_cast<uint8_t>(request.receivedTtl) : kFixedSenderTtl;
    // Written down before the reply leaves, so a counted reply is always on record.
    record(request);
    stamp.transmitTimestamp = realNtpNow();
    ReplyBuilder::build(packet.data(), packet.size(), stamp);
    sendto(socket.get(), packet.data(), packet.size(), 0,
           reinterpret_cast<const struct sockaddr*>(&peer), peerLength);
    std::lock_guard<std::mutex> lock(mutex);
    lastReply = packet;
    lastPeer = peer;
    lastPeerLength = peerLength;
}

void LoopbackReflector::record(const ReflectedRequest& request) {
    std::lock_guard<std::mutex> lock(mutex);
    requests.push_back(request);
}

}  // namespace scenario_test
