// The load peer over loopback: a test socket sends sender packets, the
// reflector answers them on the ports it bound.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "FakeLoadClock.h"
#include "LoadReflector.h"
#include "NtpTimestamp.h"
#include "OwampTestMessage.h"
#include "FileDescriptor.h"
#include "TwampTestMessage.h"

namespace {

using load_test::FakeLoadClock;

// Bounds every wait for a datagram that should come; none is expected to need it.
constexpr int kWaitMs = 5000;
constexpr int kClientTtl = 77;
constexpr int kClientTos = 0xB8;  // DSCP 46
// 2023-11-14 22:13:20.5 UTC.
constexpr uint64_t kT1 = ((1700000000ULL + 2208988800ULL) << 32) | 0x80000000ULL;

struct Reply {
    std::vector<uint8_t> bytes;
    int tos = -1;
};

// A Session-Sender stand-in: one socket that sends with a TTL and TOS of its own.
class Client {
  public:
    bool open() {
        fd.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const int on = 1;
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return fd.valid() &&
               setsockopt(fd.get(), IPPROTO_IP, IP_TTL, &kClientTtl, sizeof(kClientTtl)) == 0 &&
               setsockopt(fd.get(), IPPROTO_IP, IP_TOS, &kClientTos, sizeof(kClientTos)) == 0 &&
               setsockopt(fd.get(), IPPROTO_IP, IP_RECVTOS, &on, sizeof(on)) == 0 &&
               bind(fd.get(), reinterpret_cast<sockaddr*>(&local), sizeof(local)) == 0;
    }

    bool send(uint16_t port, uint32_t seq, std::size_t size) {
        std::vector<uint8_t> packet(size, 0x5A);
        OwampTestMessage message(packet.data(), packet.size());
        message.setSequenceNumber(seq);
        message.setTimestamp(kT1);
        message.setErrorEstimate();
        sockaddr_in peer{};
        peer.sin_family = AF_INET;
        peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        peer.sin_port = htons(port);
        return sendto(fd.get(), packet.data(), packet.size(), 0, reinterpret_cast<sockaddr*>(&peer),
                      sizeof(peer)) == static_cast<ssize_t>(size);
    }

    bool receive(Reply& reply) {
        pollfd readable{fd.get(), POLLIN, 0};
        if (poll(&readable, 1, kWaitMs) != 1) {
            return false;
        }
        reply.bytes.assign(2048, 0);
        iovec vector{reply.bytes.data(), reply.bytes.size()};
        alignas(cmsghdr) uint8_t control[64] = {};
        msghdr message{};
        message.msg_iov = &vector;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        const ssize_t length = recvmsg(fd.get(), &message, 0);
        if (length < 0) {
            return false;
        }
        reply.bytes.resize(static_cast<std::size_t>(length));
        for (cmsghdr* item = CMSG_FIRSTHDR(&message); item != nullptr;
             item = CMSG_NXTHDR(&message, item)) {
            if (item->cmsg_level == IPPROTO_IP && item->cmsg_type == IP_TOS) {
                reply.tos = *CMSG_DATA(item);
            }
        }
        return true;
    }

  private:
    FileDescriptor fd;
};

class LoadReflectorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(reflector.open("127.0.0.1", 0, 2, error)) << error;
        ASSERT_TRUE(first.open());
        ASSERT_TRUE(second.open());
        clock.wallClock = timespec{1700000001, 250000000};
    }

    // Sends one packet and lets the reflector answer what waits.
    void exchange(Client& client, uint32_t portIndex, uint32_t seq, std::size_t size = 64) {
        ASSERT_TRUE(client.send(reflector.port(portIndex), seq, size));
        ASSERT_TRUE(reflector.serve(kWaitMs));
    }

    Reply expectReply(Client& client) {
        Reply reply;
        EXPECT_TRUE(client.receive(reply)) << "no reply";
        return reply;
    }

    FakeLoadClock clock;
    LoadReflector reflector{clock};
    Client first;
    Client second;
};

// A reply echoes the sender's fields, carries T3 from the clock and the sender's TTL.
TEST_F(LoadReflectorTest, ReplyEchoesTheSenderAndStampsT3) {
    exchange(first, 0, 7);
    Reply reply = expectReply(first);
    ASSERT_EQ(64u, reply.bytes.size());
    TwampTestMessage view(reply.bytes.data(), reply.bytes.size());
    EXPECT_EQ(7u, view.getSenderSequenceNumber());
    EXPECT_EQ(kT1, view.getSenderTimestamp());
    EXPECT_EQ(toNtpTimestamp(timespec{1700000001, 250000000}), view.getTimestamp());
    EXPECT_EQ(kClientTtl, view.getSenderTtl());
    EXPECT_EQ(0u, view.getSequenceNumber());
}

// A reply leaves with the request's traffic class.
TEST_F(LoadReflectorTest, ReplyKeepsTheRequestsTrafficClass) {
    exchange(first, 0, 1);
    EXPECT_EQ(kClientTos, expectReply(first).tos);
}

// Each sender is numbered from 0 on each port.
TEST_F(LoadReflectorTest, EachSenderIsNumberedFromZero) {
    exchange(first, 0, 0);
    Reply firstReply = expectReply(first);
    exchange(second, 0, 0);
    Reply secondReply = expectReply(second);
    exchange(first, 0, 1);
    Reply thirdReply = expectReply(first);
    exchange(first, 1, 2);
    Reply otherPortReply = expectReply(first);
    EXPECT_EQ(0u, TwampTestMessage(firstReply.bytes.data(), 64).getSequenceNumber());
    EXPECT_EQ(0u, TwampTestMessage(secondReply.bytes.data(), 64).getSequenceNumber());
    EXPECT_EQ(1u, TwampTestMessage(thirdReply.bytes.data(), 64).getSequenceNumber());
    EXPECT_EQ(0u, TwampTestMessage(otherPortReply.bytes.data(), 64).getSequenceNumber());
}

// A datagram too short for the reply's fields is counted and not answered.
TEST_F(LoadReflectorTest, ShortDatagramIsNotAnswered) {
    exchange(first, 0, 1, 40);
    exchange(first, 0, 2, 64);
    Reply reply = expectReply(first);
    EXPECT_EQ(2u, TwampTestMessage(reply.bytes.data(), 64).getSenderSequenceNumber());
    EXPECT_EQ(2u, reflector.counts().received);
    EXPECT_EQ(1u, reflector.counts().tooShort);
    EXPECT_EQ(1u, reflector.counts().replied);
}

}  // namespace
