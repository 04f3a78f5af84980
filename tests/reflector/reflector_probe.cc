// The lab test's peer of the reflector, run inside the daemon's namespace:
//   reflector_probe echo ADDRESS
//       one ICMP (ICMPv6) echo; exit 0 when answered within three tries
//   reflector_probe send ADDRESS PORT COUNT [SIZE [TTL [TOS]]]
//       COUNT test packets, one at a time, each waiting for its reply; one
//       line per reply; exit 0 when every packet was answered
//   reflector_probe timing ADDRESS PORT COUNT INTERVAL_US [SIZE]
//       COUNT test packets, one every INTERVAL_US, each with the kernel's
//       software transmit time of the packet (T1') and receive time of its
//       reply (T4): one line "timing senderSeq=N t1PrimeNs=T t4Ns=T" per
//       packet (0 where a time is missing); exit 0 when every packet was
//       answered with both times
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "NtpTimestamp.h"
#include "TestClient.h"
#include "TwampTestMessage.h"

namespace {

constexpr int kReplyWaitMs = 2000;
constexpr int kEchoTries = 3;
constexpr uint8_t kIcmpEchoRequest = 8;
constexpr uint8_t kIcmpEchoReply = 0;
constexpr uint8_t kIcmpv6EchoRequest = 128;
constexpr uint8_t kIcmpv6EchoReply = 129;
constexpr std::size_t kEchoLength = 24;

uint64_t now() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return toNtpTimestamp(time);
}

uint16_t internetChecksum(const uint8_t* data, std::size_t length) {
    uint32_t sum = 0;
    for (std::size_t i = 0; i + 1 < length; i += 2) {
        sum += static_cast<uint32_t>(data[i] << 8 | data[i + 1]);
    }
    if (length % 2 != 0) {
        sum += static_cast<uint32_t>(data[length - 1] << 8);
    }
    while (sum >> 16 != 0) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

// True when the buffer holds the echo reply of identifier (IPv4: behind the IP header).
bool isEchoReply(const uint8_t* data, ssize_t length, bool ipv4, uint16_t identifier) {
    std::size_t offset = 0;
    if (ipv4) {
        if (length < 20) {
            return false;
        }
        offset = static_cast<std::size_t>(data[0] & 0x0F) * 4;
    }
    if (length < static_cast<ssize_t>(offset + 8)) {
        return false;
    }
    const uint8_t type = data[offset];
    const uint16_t received = static_cast<uint16_t>(data[offset + 4] << 8 | data[offset + 5]);
    return type == (ipv4 ? kIcmpEchoReply : kIcmpv6EchoReply) && received == identifier;
}

bool awaitEchoReply(int fd, bool ipv4, uint16_t identifier) {
    pollfd descriptor{fd, POLLIN, 0};
    uint8_t buffer[1500];
    // Other ICMPv6 traffic (neighbour discovery) arrives too: read on until the answer.
    while (poll(&descriptor, 1, kReplyWaitMs / kEchoTries) > 0) {
        const ssize_t length = recv(fd, buffer, sizeof(buffer), 0);
        if (length > 0 && isEchoReply(buffer, length, ipv4, identifier)) {
            return true;
        }
    }
    return false;
}

int echo(const std::string& address) {
    sockaddr_storage peer{};
    socklen_t peerLength = 0;
    auto* peer4 = reinterpret_cast<sockaddr_in*>(&peer);
    auto* peer6 = reinterpret_cast<sockaddr_in6*>(&peer);
    const bool ipv4 = inet_pton(AF_INET, address.c_str(), &peer4->sin_addr) == 1;
    if (ipv4) {
        peer4->sin_family = AF_INET;
        peerLength = sizeof(sockaddr_in);
    } else if (inet_pton(AF_INET6, address.c_str(), &peer6->sin6_addr) == 1) {
        peer6->sin6_family = AF_INET6;
        peerLength = sizeof(sockaddr_in6);
    } else {
        std::fprintf(stderr, "reflector_probe: '%s' is not a numeric address\n", address.c_str());
        return 2;
    }
    const int protocol = ipv4 ? static_cast<int>(IPPROTO_ICMP) : static_cast<int>(IPPROTO_ICMPV6);
    const int fd = socket(peer.ss_family, SOCK_RAW | SOCK_CLOEXEC, protocol);
    if (fd < 0) {
        std::perror("reflector_probe: raw socket");
        return 1;
    }
    const auto identifier = static_cast<uint16_t>(getpid());
    for (int attempt = 1; attempt <= kEchoTries; ++attempt) {
        uint8_t request[kEchoLength] = {ipv4 ? kIcmpEchoRequest : kIcmpv6EchoRequest};
        request[4] = static_cast<uint8_t>(identifier >> 8);
        request[5] = static_cast<uint8_t>(identifier);
        request[7] = static_cast<uint8_t>(attempt);
        if (ipv4) {  // the kernel fills in the ICMPv6 checksum itself
            const uint16_t checksum = internetChecksum(request, sizeof(request));
            request[2] = static_cast<uint8_t>(checksum >> 8);
            request[3] = static_cast<uint8_t>(checksum);
        }
        sendto(fd, request, sizeof(request), 0, reinterpret_cast<sockaddr*>(&peer), peerLength);
        if (awaitEchoReply(fd, ipv4, identifier)) {
            close(fd);
            std::printf("echo reply from %s\n", address.c_str());
            return 0;
        }
    }
    close(fd);
    std::printf("no echo reply from %s\n", address.c_str());
    return 1;
}

void printReply(const reflector_test::ClientReply& reply, uint64_t t1, uint64_t t4) {
    std::vector<uint8_t> bytes = reply.bytes;
    const TwampTestMessage message(bytes.data(), bytes.size());
    const bool ordered = t1 <= message.getReceiveTimestamp() &&
                         message.getReceiveTimestamp() <= message.getTimestamp() &&
                         message.getTimestamp() <= t4;
    std::printf(
        "reply senderSeq=%u reflectorSeq=%u senderTtl=%u ttl=%d tos=%d length=%zu "
        "errorEstimate=0x%04x senderErrorEstimate=0x%04x ordered=%s\n",
        message.getSenderSequenceNumber(), message.getSequenceNumber(), message.getSenderTtl(),
        reply.ttl, reply.tos, bytes.size(), message.getErrorEstimate(),
        message.getSenderErrorEstimate(), ordered ? "yes" : "no");
}

int sendPackets(const std::string& address, const std::vector<std::string>& numbers) {
    const auto number = [&numbers](std::size_t index, long fallback) {
        return index < numbers.size() ? std::strtol(numbers[index].c_str(), nullptr, 10) : fallback;
    };
    const auto port = static_cast<uint16_t>(number(0, 862));
    const long count = number(1, 1);
    const auto size = static_cast<std::size_t>(number(2, 64));
    reflector_test::TestClient client;
    if (size < 41 || !client.open(address, port, static_cast<int>(number(3, 64)),
                                  static_cast<int>(number(4, 0)))) {
        std::fprintf(stderr, "reflector_probe: cannot send to %s port %u\n", address.c_str(),
                     static_cast<unsigned>(port));
        return 2;
    }
    long answered = 0;
    for (long seq = 0; seq < count; ++seq) {
        const uint64_t t1 = now();
        if (!client.send(
                reflector_test::TestClient::packet(static_cast<uint32_t>(seq), t1, size))) {
            std::perror("reflector_probe: send");
            continue;
        }
        reflector_test::ClientReply reply;
        if (client.receive(reply, kReplyWaitMs) && reply.bytes.size() >= 41) {
            printReply(reply, t1, now());
            ++answered;
        }
    }
    std::printf("answered %ld of %ld\n", answered, count);
    return answered == count ? 0 : 1;
}

// One packet of the timing run: its line, and whether both times came.
bool timeOnePacket(reflector_test::TestClient& client, uint32_t seq, std::size_t size) {
    if (!client.send(reflector_test::TestClient::packet(seq, now(), size))) {
        std::perror("reflector_probe: send");
        return false;
    }
    int64_t t1Prime = 0;
    client.transmitTime(t1Prime, kReplyWaitMs);
    reflector_test::ClientReply reply;
    const bool answered = client.receive(reply, kReplyWaitMs);
    std::printf("timing senderSeq=%u t1PrimeNs=%lld t4Ns=%lld\n", seq,
                static_cast<long long>(t1Prime), static_cast<long long>(reply.kernelNs));
    return answered && t1Prime != 0 && reply.kernelNs != 0;
}

int timePackets(const std::string& address, const std::vector<std::string>& numbers) {
    const auto number = [&numbers](std::size_t index, long fallback) {
        return index < numbers.size() ? std::strtol(numbers[index].c_str(), nullptr, 10) : fallback;
    };
    const auto port = static_cast<uint16_t>(number(0, 862));
    const long count = number(1, 1);
    const long intervalUs = number(2, 1000);
    const auto size = static_cast<std::size_t>(number(3, 64));
    reflector_test::TestClient client;
    if (size < 41 || intervalUs <= 0 || !client.open(address, port, 64, 0) ||
        !client.enableKernelTimestamps()) {
        std::fprintf(stderr, "reflector_probe: cannot time packets to %s port %u\n",
                     address.c_str(), static_cast<unsigned>(port));
        return 2;
    }
    timespec next{};
    clock_gettime(CLOCK_MONOTONIC, &next);
    long complete = 0;
    for (long seq = 0; seq < count; ++seq) {
        complete += timeOnePacket(client, static_cast<uint32_t>(seq), size) ? 1 : 0;
        next.tv_nsec += intervalUs * 1000;
        next.tv_sec += next.tv_nsec / 1000000000L;
        next.tv_nsec %= 1000000000L;
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
    }
    std::printf("timed %ld of %ld\n", complete, count);
    return complete == count ? 0 : 1;
}

}  // namespace

int main(int argc, char* argv[]) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() == 2 && arguments[0] == "echo") {
        return echo(arguments[1]);
    }
    if (arguments.size() >= 4 && arguments.size() <= 7 && arguments[0] == "send") {
        return sendPackets(arguments[1],
                           std::vector<std::string>(arguments.begin() + 2, arguments.end()));
    }
    if (arguments.size() >= 5 && arguments.size() <= 6 && arguments[0] == "timing") {
        return timePackets(arguments[1],
                           std::vector<std::string>(arguments.begin() + 2, arguments.end()));
    }
    std::fprintf(stderr,
                 "usage: reflector_probe echo ADDRESS\n"
                 "       reflector_probe send ADDRESS PORT COUNT [SIZE [TTL [TOS]]]\n"
                 "       reflector_probe timing ADDRESS PORT COUNT INTERVAL_US [SIZE]\n");
    return 2;
}
