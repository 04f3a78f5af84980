// The looped-frame functions on what this host's kernel really loops back:
// datagrams of every size the daemon sends, over loopback in both families,
// from a socket with software transmit timestamps (as with
// TWAMP_TIMESTAMPING=software). On loopback a 65507-byte IPv6 datagram is
// fragmented and both families' largest frames come back cut to the daemon's
// 10 000-byte receive buffer.
#include <arpa/inet.h>
#include <linux/net_tstamp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "ReceiverKey.h"
#include "SocketHelper.h"

namespace {

constexpr std::size_t kReceiveBufferSize = 10000;  // the daemon's receive buffer
constexpr int kReadyWaitMs = 5000;
constexpr std::size_t kMarkerLength = 16;

// A descriptor closed when the test ends.
class Descriptor {
  public:
    explicit Descriptor(int fd) : fd(fd) {}
    ~Descriptor() {
        if (fd != -1) {
            close(fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    const int fd;
};

// A payload whose first 16 bytes count 0 to 15, so that a wrong payload
// offset shows; the rest 0xAB.
std::vector<uint8_t> markedPayload(std::size_t size) {
    std::vector<uint8_t> payload(size, 0xAB);
    for (std::size_t i = 0; i < kMarkerLength && i < size; ++i) {
        payload[i] = static_cast<uint8_t>(i);
    }
    return payload;
}

// The loopback address of the family with port 0.
sockaddr_storage loopback(int family, socklen_t& length) {
    sockaddr_storage address{};
    if (family == AF_INET) {
        auto* ipv4 = reinterpret_cast<sockaddr_in*>(&address);
        ipv4->sin_family = AF_INET;
        ipv4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        length = sizeof(sockaddr_in);
    } else {
        auto* ipv6 = reinterpret_cast<sockaddr_in6*>(&address);
        ipv6->sin6_family = AF_INET6;
        ipv6->sin6_addr = in6addr_loopback;
        length = sizeof(sockaddr_in6);
    }
    return address;
}

// Family and payload size of one case.
using LoopedCase = std::tuple<int, std::size_t>;

class LoopedFrameKernelTest : public ::testing::TestWithParam<LoopedCase> {
  protected:
    void SetUp() override {
        family = std::get<0>(GetParam());
        size = std::get<1>(GetParam());
        address = loopback(family, addressLength);
    }

    // Binds the socket to loopback and asks for software transmit timestamps.
    bool prepare(int fd) {
        const int flags =
            SOF_TIMESTAMPING_TX_SOFTWARE | SOF_TIMESTAMPING_RX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE;
        return bind(fd, reinterpret_cast<const sockaddr*>(&address), addressLength) == 0 &&
               getsockname(fd, reinterpret_cast<sockaddr*>(&address), &addressLength) == 0 &&
               setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPING, &flags, sizeof(flags)) == 0;
    }

    // Sends the marked payload to the socket itself and reads the looped
    // frame from the error queue; its byte count, or -1.
    ssize_t sendAndReadLooped(int fd) {
        const std::vector<uint8_t> payload = markedPayload(size);
        if (sendto(fd, payload.data(), payload.size(), 0,
                   reinterpret_cast<const sockaddr*>(&address), addressLength) < 0) {
            return -1;
        }
        pollfd ready{fd, 0, 0};
        if (poll(&ready, 1, kReadyWaitMs) != 1 || (ready.revents & POLLERR) == 0) {
            return -1;
        }
        iovec vector{frame.data(), frame.size()};
        msghdr msg{};
        msg.msg_iov = &vector;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof(control);
        return recvmsg(fd, &msg, MSG_ERRQUEUE);
    }

    // The socket's own address as a receiver key.
    ReceiverKey ownKey() const { return ReceiverKey(address); }

    int family = AF_INET;
    std::size_t size = 0;
    sockaddr_storage address{};
    socklen_t addressLength = 0;
    std::vector<uint8_t> frame = std::vector<uint8_t>(kReceiveBufferSize);
    uint8_t control[256] = {};
};

// The looped frame of a datagram of any size is a UDP frame whose destination
// is the socket's address and whose payload begins where the header length says.
TEST_P(LoopedFrameKernelTest, LoopedFrameGivesDestinationAndPayload) {
    Descriptor socketFd(socket(family, SOCK_DGRAM, 0));
    ASSERT_NE(-1, socketFd.fd) << std::strerror(errno);
    if (!prepare(socketFd.fd)) {
        GTEST_SKIP() << "no loopback socket with timestamps: " << std::strerror(errno);
    }
    const ssize_t length = sendAndReadLooped(socketFd.fd);
    ASSERT_GT(length, 0) << std::strerror(errno);
    const auto frameLength = static_cast<std::size_t>(length);

    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frameLength, family));
    ReceiverKey key;
    ASSERT_TRUE(getLoopedFrameDestination(key, frame.data(), frameLength, family));
    EXPECT_FALSE(key < ownKey());
    EXPECT_FALSE(ownKey() < key);
    const std::size_t offset = getLoopedFrameHeaderLength(frame.data(), frameLength, family);
    ASSERT_LE(offset + kMarkerLength, frameLength);
    const std::vector<uint8_t> marker(
        frame.begin() + static_cast<std::ptrdiff_t>(offset),
        frame.begin() + static_cast<std::ptrdiff_t>(offset + kMarkerLength));
    EXPECT_EQ(std::vector<uint8_t>({0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}), marker);
}

std::string caseName(const ::testing::TestParamInfo<LoopedCase>& info) {
    return std::string(std::get<0>(info.param) == AF_INET ? "Ipv4_" : "Ipv6_") +
           std::to_string(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(Sizes, LoopedFrameKernelTest,
                         ::testing::Combine(::testing::Values(AF_INET, AF_INET6),
                                            ::testing::Values(41, 1453, 9000, 65488, 65489, 65507)),
                         caseName);

}  // namespace
