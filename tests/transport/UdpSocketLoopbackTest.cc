// The UDP socket with real sockets on the loopback interface.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/net_tstamp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AdoptedMockController.h"
#include "IoMultiplexer.h"
#include "MockMessageReceiver.h"
#include "SocketHelper.h"
#include "TimestampSource.h"
#include "TraceRecorder.h"
#include "TwampTestSessionController.h"
#include "UdpSocket.h"

namespace {

using ::testing::_;
using ::testing::InSequence;
using ::testing::NiceMock;
using ::testing::ReturnRef;
using ::testing::StrictMock;
using twamp_test::AdoptedMockController;
using twamp_test::MockMessageReceiver;
using twamp_test::TraceRecorder;

// Longest wait for the kernel to make a loopback datagram readable.
constexpr int kPollTimeoutMs = 2000;

struct sockaddr_in localAddress(int fd) {
    struct sockaddr_in address {};
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<struct sockaddr*>(&address), &length);
    return address;
}

ReceiverKey keyOf(const struct sockaddr_in& address) {
    return ReceiverKey(reinterpret_cast<const struct sockaddr*>(&address), sizeof(address));
}

// A UDP socket bound to 127.0.0.1 on a free port; closed with the object.
class PeerSocket {
  public:
    PeerSocket() : fd(socket(AF_INET, SOCK_DGRAM, 0)) {
        struct sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bound = bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) == 0;
    }
    PeerSocket(const PeerSocket&) = delete;
    PeerSocket& operator=(const PeerSocket&) = delete;
    ~PeerSocket() { close(fd); }

    bool sendTo(const struct sockaddr_in& to, const std::string& text) const {
        return sendto(fd, text.data(), text.size(), 0,
                      reinterpret_cast<const struct sockaddr*>(&to),
                      sizeof(to)) == static_cast<ssize_t>(text.size());
    }

    int fd;
    bool bound = false;
};

// Waits until fd reports events, all of them or any of them, at most kPollTimeoutMs.
bool pollFor(int fd, short events, bool all) {
    struct pollfd watched {};
    watched.fd = fd;
    watched.events = POLLIN;
    for (int round = 0; round < kPollTimeoutMs / 10; ++round) {
        watched.revents = 0;
        if (poll(&watched, 1, 10) < 0) {
            return false;
        }
        const short seen = watched.revents & events;
        if (all ? (seen == events) : (seen != 0)) {
            return true;
        }
    }
    return false;
}

// Waits until fd reports all of events (POLLIN, POLLERR), at most kPollTimeoutMs.
bool waitFor(int fd, short events) {
    return pollFor(fd, events, true);
}

// Waits until fd has a datagram or an error-queue message, at most kPollTimeoutMs.
bool waitForInput(int fd) {
    return pollFor(fd, POLLIN | POLLERR, false);
}

// The first length bytes of the message's single buffer.
std::string payloadOf(const struct msghdr* msg, std::size_t offset, std::size_t length) {
    return std::string(static_cast<const char*>(msg->msg_iov[0].iov_base) + offset, length);
}

// The daemon's socket bound to 127.0.0.1 port 0 (a free port chosen by the
// kernel) with the real system calls, and a peer socket beside it.
class UdpSocketLoopbackTest : public ::testing::Test {
  protected:
    void SetUp() override {
        TraceRecorder::reset();
        unsetenv("TWAMP_TIMESTAMPING");
        TimestampSource::setCurrent(TimestampSource());
        ON_CALL(env.controller, getIoMultiplexer()).WillByDefault(ReturnRef(multiplexer));
        ASSERT_TRUE(peer.bound);
    }

    void TearDown() override {
        udpSocket.reset();
        unsetenv("TWAMP_TIMESTAMPING");
        TimestampSource::setCurrent(TimestampSource());
    }

    void bindSocket() {
        udpSocket = std::make_unique<UdpSocket>();
        ASSERT_TRUE(udpSocket->init("127.0.0.1", "0", false));
        socketAddress = localAddress(udpSocket->getSocketFd());
        TraceRecorder::reset();
    }

    int intOption(int level, int name) const {
        int value = -1;
        socklen_t length = sizeof(value);
        getsockopt(udpSocket->getSocketFd(), level, name, &value, &length);
        return value;
    }

    IoMultiplexer multiplexer;
    AdoptedMockController env;
    PeerSocket peer;
    struct sockaddr_in socketAddress {};
    std::unique_ptr<UdpSocket> udpSocket;
};

// A bound IPv4 socket is non-blocking, asks for hardware timestamps (69),
// sends with TTL 255 and receives TTL and TOS.
TEST_F(UdpSocketLoopbackTest, ConfiguresTheBoundSocket) {
    bindSocket();
    EXPECT_EQ(O_RDWR | O_NONBLOCK, fcntl(udpSocket->getSocketFd(), F_GETFL));
    EXPECT_EQ(69, intOption(SOL_SOCKET, SO_TIMESTAMPING));
    EXPECT_EQ(255, intOption(IPPROTO_IP, IP_TTL));
    EXPECT_EQ(1, intOption(IPPROTO_IP, IP_RECVTTL));
    EXPECT_EQ(1, intOption(IPPROTO_IP, IP_RECVTOS));
    EXPECT_EQ(1, intOption(SOL_SOCKET, SO_RXQ_OVFL));
    EXPECT_EQ(AF_INET, udpSocket->getFamily());
}

// A datagram from the registered peer reaches its receiver with data and source.
TEST_F(UdpSocketLoopbackTest, DatagramReachesReceiverOfItsSource) {
    bindSocket();
    StrictMock<MockMessageReceiver> receiver;
    const struct sockaddr_in peerAddress = localAddress(peer.fd);
    udpSocket->addMessageReceiver(keyOf(peerAddress), &receiver);
    ASSERT_TRUE(peer.sendTo(socketAddress, "reflected"));
    ASSERT_TRUE(waitFor(udpSocket->getSocketFd(), POLLIN));
    std::string payload;
    uint16_t sourcePort = 0;
    EXPECT_CALL(receiver, receiveMessage(_)).WillOnce([&](struct msghdr* msg) {
        payload = payloadOf(msg, 0, 9);
        struct sockaddr_in source {};
        std::memcpy(&source, msg->msg_name, sizeof(source));
        sourcePort = source.sin_port;
    });
    EXPECT_TRUE(udpSocket->handleInput(udpSocket->getSocketFd()));
    EXPECT_EQ("reflected", payload);
    EXPECT_EQ(peerAddress.sin_port, sourcePort);
    EXPECT_EQ(1U, udpSocket->getMessageCount());
    EXPECT_TRUE(TraceRecorder::twampMessages("LAB").empty());
}

// The TTL and TOS of a received datagram come with it as ancillary data.
TEST_F(UdpSocketLoopbackTest, DatagramCarriesTtlAndDscp) {
    bindSocket();
    NiceMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(keyOf(localAddress(peer.fd)), &receiver);
    const int ttl = 77;
    const int tos = 46 * 4;
    ASSERT_EQ(0, setsockopt(peer.fd, IPPROTO_IP, IP_TTL, &ttl, sizeof(ttl)));
    ASSERT_EQ(0, setsockopt(peer.fd, IPPROTO_IP, IP_TOS, &tos, sizeof(tos)));
    ASSERT_TRUE(peer.sendTo(socketAddress, "reflected"));
    ASSERT_TRUE(waitFor(udpSocket->getSocketFd(), POLLIN));
    SocketHelper helper;
    int receivedTtl = -1;
    uint32_t receivedDscp = 0;
    EXPECT_CALL(receiver, receiveMessage(_)).WillOnce([&](struct msghdr* msg) {
        receivedTtl = helper.getTtl(msg, AF_INET);
        receivedDscp = helper.getDscp(msg, AF_INET);
    });
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(77, receivedTtl);
    EXPECT_EQ(46U, receivedDscp);
}

// A datagram from another source port of the same address finds no receiver.
TEST_F(UdpSocketLoopbackTest, DatagramFromOtherPortFindsNoReceiver) {
    bindSocket();
    StrictMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(keyOf(localAddress(peer.fd)), &receiver);
    PeerSocket stranger;
    ASSERT_TRUE(stranger.bound);
    ASSERT_TRUE(stranger.sendTo(socketAddress, "reflected"));
    ASSERT_TRUE(waitFor(udpSocket->getSocketFd(), POLLIN));
    EXPECT_TRUE(udpSocket->handleInput(udpSocket->getSocketFd()));
    EXPECT_EQ(std::vector<std::string>{"handleInput(): Failed to find message receiver"},
              TraceRecorder::twampMessages("LAB"));
    EXPECT_EQ(1U, udpSocket->getMessageCount());
}

// With software timestamps a sent packet comes back on the error queue. A
// looped-back frame and a reply pending together are both handled in one
// call, the error-queue message first: it carries the Ethernet-framed copy of
// the sent packet (payload at 42) and a transmit timestamp.
TEST_F(UdpSocketLoopbackTest, ErrQueueMessageAndReplyInOneCall) {
    setenv("TWAMP_TIMESTAMPING", "software", 1);
    bindSocket();
    ASSERT_EQ(26, intOption(SOL_SOCKET, SO_TIMESTAMPING));
    StrictMock<MockMessageReceiver> receiver;
    const struct sockaddr_in peerAddress = localAddress(peer.fd);
    udpSocket->addMessageReceiver(keyOf(peerAddress), &receiver);
    ASSERT_EQ(4,
              sendto(udpSocket->getSocketFd(), "test", 4, 0,
                     reinterpret_cast<const struct sockaddr*>(&peerAddress), sizeof(peerAddress)));
    ASSERT_TRUE(peer.sendTo(socketAddress, "reply"));
    ASSERT_TRUE(waitFor(udpSocket->getSocketFd(), POLLIN | POLLERR));
    ssize_t loopedLength = 0;
    std::size_t headerLength = 0;
    std::string loopedPayload;
    uint64_t txTimestamp = 0;
    std::string reply;
    {
        InSequence order;
        EXPECT_CALL(receiver, receiveErrQueueMessage(_, _))
            .WillOnce([&](struct msghdr* msg, ssize_t length) {
                loopedLength = length;
                headerLength = getLoopedFrameHeaderLength(
                    msg->msg_iov[0].iov_base, static_cast<std::size_t>(length), AF_INET);
                loopedPayload = payloadOf(msg, headerLength, 4);
                txTimestamp = getTxTimestamp(msg);
            });
        EXPECT_CALL(receiver, receiveMessage(_)).WillOnce([&](struct msghdr* msg) {
            reply = payloadOf(msg, 0, 5);
        });
    }
    EXPECT_TRUE(udpSocket->handleInput(udpSocket->getSocketFd()));
    EXPECT_EQ(46, loopedLength);
    EXPECT_EQ(42U, headerLength);
    EXPECT_EQ("test", loopedPayload);
    EXPECT_NE(0U, txTimestamp);
    EXPECT_EQ("reply", reply);
    EXPECT_EQ(1U, udpSocket->getErrQueueMessageCount());
    EXPECT_EQ(1U, udpSocket->getMessageCount());
}

// Serves the socket until count messages of both queues were handed on or
// nothing more becomes readable.
void serveUntil(UdpSocket& udpSocket, uint64_t count) {
    while (udpSocket.getMessageCount() + udpSocket.getErrQueueMessageCount() < count &&
           waitForInput(udpSocket.getSocketFd())) {
        udpSocket.handleInput(udpSocket.getSocketFd());
    }
}

// Many datagrams waiting together are each handed on with exactly their own
// bytes, in the order they were sent.
TEST_F(UdpSocketLoopbackTest, ManyDatagramsEachHandedOnWithItsBytes) {
    bindSocket();
    NiceMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(keyOf(localAddress(peer.fd)), &receiver);
    std::vector<std::string> sent;
    for (int index = 0; index < 200; ++index) {
        sent.push_back(std::string(1 + index % 50, static_cast<char>('A' + index % 26)));
        ASSERT_TRUE(peer.sendTo(socketAddress, sent.back()));
    }
    std::vector<std::string> received;
    ON_CALL(receiver, receiveMessage(_)).WillByDefault([&received](struct msghdr* msg) {
        received.push_back(payloadOf(msg, 0, msg->msg_iov[0].iov_len));
    });
    serveUntil(*udpSocket, 200);
    EXPECT_EQ(sent, received);
    EXPECT_TRUE(TraceRecorder::twampMessages("LAB").empty());
}

// A datagram longer than the receive buffer is handed on with its first
// 10000 bytes, flagged MSG_TRUNC, without a trace.
TEST_F(UdpSocketLoopbackTest, LongDatagramHandedOnTruncated) {
    bindSocket();
    StrictMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(keyOf(localAddress(peer.fd)), &receiver);
    std::string datagram(65507, 'x');
    datagram.replace(0, 4, "head");
    ASSERT_TRUE(peer.sendTo(socketAddress, datagram));
    ASSERT_TRUE(waitFor(udpSocket->getSocketFd(), POLLIN));
    std::size_t length = 0;
    int flags = 0;
    std::string head;
    EXPECT_CALL(receiver, receiveMessage(_)).WillOnce([&](struct msghdr* msg) {
        length = msg->msg_iov[0].iov_len;
        flags = msg->msg_flags & MSG_TRUNC;
        head = payloadOf(msg, 0, 4);
    });
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(10000U, length);
    EXPECT_EQ(MSG_TRUNC, flags);
    EXPECT_EQ("head", head);
    EXPECT_TRUE(TraceRecorder::records().empty());
}

// With software timestamps, several sent packets come back on the error
// queue and each is handed on with its own frame and transmit timestamp.
TEST_F(UdpSocketLoopbackTest, SeveralLoopedFramesEachWithItsTimestamp) {
    setenv("TWAMP_TIMESTAMPING", "software", 1);
    bindSocket();
    NiceMock<MockMessageReceiver> receiver;
    const struct sockaddr_in peerAddress = localAddress(peer.fd);
    udpSocket->addMessageReceiver(keyOf(peerAddress), &receiver);
    const std::vector<std::string> sent = {"one!", "two!", "six!"};
    for (const std::string& payload : sent) {
        ASSERT_EQ(
            4, sendto(udpSocket->getSocketFd(), payload.data(), payload.size(), 0,
                      reinterpret_cast<const struct sockaddr*>(&peerAddress), sizeof(peerAddress)));
    }
    std::vector<std::string> looped;
    std::vector<uint64_t> timestamps;
    ON_CALL(receiver, receiveErrQueueMessage(_, _))
        .WillByDefault([&](struct msghdr* msg, ssize_t length) {
            looped.push_back(payloadOf(msg, static_cast<std::size_t>(length) - 4, 4));
            timestamps.push_back(getTxTimestamp(msg));
        });
    serveUntil(*udpSocket, 3);
    EXPECT_EQ(sent, looped);
    ASSERT_EQ(3U, timestamps.size());
    EXPECT_NE(0U, timestamps[0]);
    EXPECT_NE(0U, timestamps[1]);
    EXPECT_NE(0U, timestamps[2]);
}

// A port already taken by another socket fails every round with errno 98.
// Datagrams dropped by a full receive queue are counted by the kernel; the
// next datagram that gets in carries the count, and every receiver is told.
TEST_F(UdpSocketLoopbackTest, FullReceiveQueueTellsTheReceivers) {
    bindSocket();
    const int smallQueue = 4096;
    ASSERT_EQ(0, setsockopt(udpSocket->getSocketFd(), SOL_SOCKET, SO_RCVBUF, &smallQueue,
                            sizeof(smallQueue)));
    NiceMock<MockMessageReceiver> receiver;
    udpSocket->addMessageReceiver(keyOf(localAddress(peer.fd)), &receiver);
    int overflows = 0;
    int messages = 0;
    ON_CALL(receiver, receiveQueueOverflowed()).WillByDefault([&overflows] { ++overflows; });
    ON_CALL(receiver, receiveMessage(_)).WillByDefault([&messages](struct msghdr*) { ++messages; });
    const std::string datagram(512, 'x');
    for (int sent = 0; sent < 100; ++sent) {
        ASSERT_TRUE(peer.sendTo(socketAddress, datagram));
    }
    ASSERT_TRUE(waitFor(udpSocket->getSocketFd(), POLLIN));
    udpSocket->handleInput(udpSocket->getSocketFd());
    const int firstRound = messages;
    ASSERT_LT(firstRound, 100);
    ASSERT_TRUE(peer.sendTo(socketAddress, datagram));
    ASSERT_TRUE(waitFor(udpSocket->getSocketFd(), POLLIN));
    udpSocket->handleInput(udpSocket->getSocketFd());
    EXPECT_EQ(firstRound + 1, messages);
    EXPECT_EQ(1, overflows);
    const std::string expected =
        "handleInput(): Receive queue overflow: " + std::to_string(100 - firstRound) +
        " datagrams dropped";
    EXPECT_EQ(std::vector<std::string>{expected}, TraceRecorder::twampMessages("LAB"));
}

TEST_F(UdpSocketLoopbackTest, TakenPortFailsToBind) {
    class NoSleep : public SystemCalls {
      public:
        unsigned int sleep(unsigned int) override {
            ++sleeps;
            return 0;
        }
        int sleeps = 0;
    } systemCalls;
    const std::string port = std::to_string(ntohs(localAddress(peer.fd).sin_port));
    {
        UdpSocket taken(&systemCalls);
        EXPECT_FALSE(taken.init("127.0.0.1", port.c_str(), false));
        EXPECT_EQ(-1, taken.getSocketFd());
    }
    EXPECT_EQ(30, systemCalls.sleeps);
    EXPECT_EQ(std::vector<std::string>{"getBoundSocket(): Failed IP 127.0.0.1 port " + port +
                                       " socket bind: errno 98 - Address already in use"},
              TraceRecorder::twampMessages("INFO"));
}

}  // namespace
