// looped_frame_probe: shows what the kernel loops back on a UDP socket's error
// queue with a software transmit timestamp, for datagrams of chosen sizes.
//
// usage: looped_frame_probe SRC_ADDRESS DST_ADDRESS PORT SIZE...
//
// Binds a UDP socket to SRC_ADDRESS (IPv4 or IPv6 literal), asks for software
// transmit timestamps as the daemon does with TWAMP_TIMESTAMPING=software,
// sends one datagram of each SIZE bytes to DST_ADDRESS:PORT and prints, for
// each, the error-queue message read into a buffer of the daemon's size
// (10 000 bytes): byte count, MSG_TRUNC, whether a timestamp came, and the
// first bytes of the frame. Run it only inside a namespace of its own
// (looped_frame_probe.sh sets one up).
#include <arpa/inet.h>
#include <linux/net_tstamp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kReceiveBufferSize = 10000;  // the daemon's receive buffer
constexpr std::size_t kShownBytes = 96;
constexpr int kWaitMs = 1000;

// A socket descriptor closed on every way out.
class Socket {
  public:
    explicit Socket(int family) : fd(socket(family, SOCK_DGRAM, 0)) {}
    ~Socket() {
        if (fd != -1) {
            close(fd);
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int fd;
};

// An IPv4 or IPv6 literal and port as a socket address; false for other text.
bool toAddress(const char* text, uint16_t port, sockaddr_storage& address, socklen_t& length) {
    std::memset(&address, 0, sizeof(address));
    auto* ipv4 = reinterpret_cast<sockaddr_in*>(&address);
    if (inet_pton(AF_INET, text, &ipv4->sin_addr) == 1) {
        ipv4->sin_family = AF_INET;
        ipv4->sin_port = htons(port);
        length = sizeof(sockaddr_in);
        return true;
    }
    auto* ipv6 = reinterpret_cast<sockaddr_in6*>(&address);
    if (inet_pton(AF_INET6, text, &ipv6->sin6_addr) == 1) {
        ipv6->sin6_family = AF_INET6;
        ipv6->sin6_port = htons(port);
        length = sizeof(sockaddr_in6);
        return true;
    }
    return false;
}

bool fail(const char* call) {
    std::fprintf(stderr, "looped_frame_probe: %s failed: %s\n", call, std::strerror(errno));
    return false;
}

// Binds and asks for the software timestamps the daemon's software mode uses.
bool configure(int fd, const sockaddr_storage& source, socklen_t length) {
    if (bind(fd, reinterpret_cast<const sockaddr*>(&source), length) != 0) {
        return fail("bind");
    }
    const int flags =
        SOF_TIMESTAMPING_TX_SOFTWARE | SOF_TIMESTAMPING_RX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE;
    if (setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPING, &flags, sizeof(flags)) != 0) {
        return fail("setsockopt SO_TIMESTAMPING");
    }
    return true;
}

bool hasTimestamp(msghdr& msg) {
    for (cmsghdr* header = CMSG_FIRSTHDR(&msg); header != nullptr;
         header = CMSG_NXTHDR(&msg, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_TIMESTAMPING) {
            return true;
        }
    }
    return false;
}

void printFrame(std::size_t size, ssize_t length, const msghdr& msg, bool timestamp,
                const std::vector<uint8_t>& frame) {
    std::printf("size %zu: error queue %zd bytes%s, timestamp %s\n", size, length,
                (msg.msg_flags & MSG_TRUNC) != 0 ? " (MSG_TRUNC)" : "", timestamp ? "yes" : "no");
    const std::size_t shown = std::min<std::size_t>(static_cast<std::size_t>(length), kShownBytes);
    for (std::size_t i = 0; i < shown; ++i) {
        std::printf("%02x%s", frame[i], (i % 16 == 15 || i + 1 == shown) ? "\n" : " ");
    }
}

// Reads every error-queue message that comes within the wait.
void readErrorQueue(int fd, std::size_t size) {
    int messages = 0;
    pollfd ready{fd, 0, 0};
    while (poll(&ready, 1, kWaitMs) == 1 && (ready.revents & POLLERR) != 0) {
        std::vector<uint8_t> frame(kReceiveBufferSize);
        uint8_t control[256];
        iovec vector{frame.data(), frame.size()};
        msghdr msg{};
        msg.msg_iov = &vector;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof(control);
        const ssize_t length = recvmsg(fd, &msg, MSG_ERRQUEUE);
        if (length < 0) {
            fail("recvmsg MSG_ERRQUEUE");
            return;
        }
        ++messages;
        printFrame(size, length, msg, hasTimestamp(msg), frame);
    }
    if (messages == 0) {
        std::printf("size %zu: nothing on the error queue\n", size);
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc < 5) {
        std::fprintf(stderr, "usage: looped_frame_probe SRC_ADDRESS DST_ADDRESS PORT SIZE...\n");
        return 2;
    }
    sockaddr_storage source{};
    sockaddr_storage destination{};
    socklen_t sourceLength = 0;
    socklen_t destinationLength = 0;
    const auto port = static_cast<uint16_t>(std::strtoul(argv[3], nullptr, 10));
    if (!toAddress(argv[1], 0, source, sourceLength) ||
        !toAddress(argv[2], port, destination, destinationLength) ||
        source.ss_family != destination.ss_family) {
        std::fprintf(stderr, "looped_frame_probe: two literals of one family are needed\n");
        return 2;
    }
    Socket probe(source.ss_family);
    if (probe.fd == -1 || !configure(probe.fd, source, sourceLength)) {
        return 1;
    }
    for (int i = 4; i < argc; ++i) {
        const std::size_t size = std::strtoul(argv[i], nullptr, 10);
        std::vector<uint8_t> payload(size, 0xAB);
        if (sendto(probe.fd, payload.data(), payload.size(), 0,
                   reinterpret_cast<const sockaddr*>(&destination), destinationLength) < 0) {
            fail("sendto");
            continue;
        }
        readErrorQueue(probe.fd, size);
    }
    return 0;
}
