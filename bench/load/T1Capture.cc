#include "T1Capture.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr uint8_t kUdpProtocol = 17;
constexpr std::size_t kUdpHeaderLength = 8;
// Sequence number (4 bytes) and T1 (8 bytes) open the sender's packet.
constexpr std::size_t kSenderFieldsLength = 12;
constexpr int kReceiveBufferBytes = 32 * 1024 * 1024;
constexpr int kPollMilliseconds = 100;

uint16_t readBigEndian16(const uint8_t* bytes) {
    return static_cast<uint16_t>((bytes[0] << 8) | bytes[1]);
}

uint32_t readBigEndian32(const uint8_t* bytes) {
    return (static_cast<uint32_t>(bytes[0]) << 24) | (static_cast<uint32_t>(bytes[1]) << 16) |
           (static_cast<uint32_t>(bytes[2]) << 8) | bytes[3];
}

uint64_t readBigEndian64(const uint8_t* bytes) {
    return (static_cast<uint64_t>(readBigEndian32(bytes)) << 32) | readBigEndian32(bytes + 4);
}

}  // namespace

bool T1Capture::open(const std::string& interface, std::string& error) {
    const unsigned index = if_nametoindex(interface.c_str());
    if (index == 0) {
        error = "no interface " + interface;
        return false;
    }
    // Cooked mode: the link header is removed, every datagram starts at IP.
    socket.reset(::socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_IP)));
    if (!socket.valid()) {
        error = std::string("packet socket: ") + std::strerror(errno);
        return false;
    }
    const int bufferBytes = kReceiveBufferBytes;
    if (setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &bufferBytes, sizeof(bufferBytes)) !=
        0) {
        setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &bufferBytes, sizeof(bufferBytes));
    }
    // The reflector's replies are outgoing here: the kernel need not copy them
    // to us at all (Linux 4.20 on; before, run() skips them).
    const int ignore = 1;
    setsockopt(socket.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &ignore, sizeof(ignore));
    struct sockaddr_ll address {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_IP);
    address.sll_ifindex = static_cast<int>(index);
    if (bind(socket.get(), reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) != 0) {
        error = std::string("bind to ") + interface + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

void T1Capture::run(const volatile std::sig_atomic_t& stop, LatenessReport& report) {
    uint8_t datagram[2048];
    struct pollfd watched = {socket.get(), POLLIN, 0};
    while (stop == 0) {
        if (poll(&watched, 1, kPollMilliseconds) <= 0) {
            continue;
        }
        // Everything waiting is read before the next poll: at 20 000 packets/s
        // one poll per packet would double the capture's system calls.
        for (;;) {
            struct sockaddr_ll from {};
            socklen_t fromLength = sizeof(from);
            const ssize_t length = recvfrom(socket.get(), datagram, sizeof(datagram), MSG_DONTWAIT,
                                            reinterpret_cast<struct sockaddr*>(&from), &fromLength);
            if (length < 0) {
                break;
            }
            // Outgoing packets are the reflectors' replies.
            if (length == 0 || from.sll_pkttype == PACKET_OUTGOING) {
                continue;
            }
            CapturedRequest request;
            if (parse(datagram, static_cast<std::size_t>(length), request)) {
                report.add(request);
                ++capturedCount;
            }
        }
    }
}

uint64_t T1Capture::kernelDrops() const {
    struct tpacket_stats statistics {};
    socklen_t length = sizeof(statistics);
    if (getsockopt(socket.get(), SOL_PACKET, PACKET_STATISTICS, &statistics, &length) != 0) {
        return 0;
    }
    return statistics.tp_drops;
}

bool T1Capture::parse(const uint8_t* datagram, std::size_t length, CapturedRequest& request) const {
    if (length < 20 || (datagram[0] >> 4) != 4 || datagram[9] != kUdpProtocol) {
        return false;
    }
    const std::size_t headerLength = static_cast<std::size_t>(datagram[0] & 0x0F) * 4;
    if (length < headerLength + kUdpHeaderLength + kSenderFieldsLength) {
        return false;
    }
    const uint8_t* udp = datagram + headerLength;
    const uint16_t port = readBigEndian16(udp + 2);
    if (port < basePort || static_cast<uint32_t>(port - basePort) >= ports) {
        return false;
    }
    const uint8_t* payload = udp + kUdpHeaderLength;
    request.session = port - basePort;
    request.seqNo = readBigEndian32(payload);
    request.t1 = readBigEndian64(payload + 4);
    return true;
}
