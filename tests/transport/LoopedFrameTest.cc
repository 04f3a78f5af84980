#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "ReceiverKey.h"
#include "SocketHelper.h"
#include "TestFrames.h"
#include "TraceRecorder.h"

namespace {

using twamp_test::ipv4Packet;
using twamp_test::ipv6Packet;
using twamp_test::TraceRecorder;
using twamp_test::withEthernet;
using twamp_test::withVlan;

constexpr uint8_t kUdp = 17;
constexpr uint8_t kTcp = 6;

// A key of AF_INET ip:port, both given as network-order bytes.
ReceiverKey ipv4Key(const uint8_t (&address)[4], const uint8_t (&port)[2]) {
    ReceiverKey key;
    key.setIpv4(address, port);
    return key;
}

// The key of 198.18.0.2:862 in which looped IPv4 frames end.
ReceiverKey ipv4Destination() {
    return ipv4Key({198, 18, 0, 2}, {0x03, 0x5E});
}

// The key of [2001:db8:18::2]:862 in which looped IPv6 frames end.
ReceiverKey ipv6Destination() {
    ReceiverKey key;
    key.setIpv6({0x20, 0x01, 0x0d, 0xb8, 0x00, 0x18, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}, {0x03, 0x5E});
    return key;
}

// A key that no frame here produces, to see that a key was left untouched.
ReceiverKey untouchedKey() {
    return ipv4Key({10, 9, 8, 7}, {0x12, 0x34});
}

bool sameKey(const ReceiverKey& a, const ReceiverKey& b) {
    return std::memcmp(&a.getAddress(), &b.getAddress(), sizeof(struct sockaddr_storage)) == 0;
}

class LoopedFrameTest : public ::testing::Test {
  protected:
    void SetUp() override { TraceRecorder::reset(); }
};

// ---- IPv4 ----

// A 42-byte IPv4 Ethernet frame with protocol 17 is a looped UDP frame with payload at 42.
TEST_F(LoopedFrameTest, Ipv4EthernetFrameOfFortyTwoBytes) {
    const std::vector<uint8_t> frame = withEthernet(ipv4Packet(kUdp, 0), 0x08, 0x00);
    ASSERT_EQ(42U, frame.size());
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET));
    EXPECT_EQ(42U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET));
}

// The Ethernet layout gives destination 198.18.0.2:862 from offsets 30 and 36.
TEST_F(LoopedFrameTest, Ipv4EthernetDestination) {
    const std::vector<uint8_t> frame = withEthernet(ipv4Packet(kUdp, 4), 0x08, 0x00);
    ReceiverKey key;
    EXPECT_TRUE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET));
    EXPECT_TRUE(sameKey(ipv4Destination(), key));
}

// A frame whose first byte is 0x45 is a bare IPv4 header: payload at 28.
TEST_F(LoopedFrameTest, Ipv4BareFrame) {
    const std::vector<uint8_t> frame = ipv4Packet(kUdp, 4);
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET));
    EXPECT_EQ(28U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET));
    ReceiverKey key;
    EXPECT_TRUE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET));
    EXPECT_TRUE(sameKey(ipv4Destination(), key));
}

// A VLAN-tagged IPv4 frame: IP header at 18, payload at 46.
TEST_F(LoopedFrameTest, Ipv4VlanFrame) {
    const std::vector<uint8_t> frame = withVlan(ipv4Packet(kUdp, 4), 0x08, 0x00);
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET));
    EXPECT_EQ(46U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET));
    ReceiverKey key;
    EXPECT_TRUE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET));
    EXPECT_TRUE(sameKey(ipv4Destination(), key));
}

// An IPv4 frame carrying TCP is not a looped UDP frame.
TEST_F(LoopedFrameTest, Ipv4FrameOfOtherProtocol) {
    const std::vector<uint8_t> frame = withEthernet(ipv4Packet(kTcp, 4), 0x08, 0x00);
    EXPECT_FALSE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET));
}

// An Ethernet frame whose destination MAC starts with 0x45 is read as a bare
// IP header: payload at 28, "destination" from its bytes 16-19 and 22-23, and
// the protocol from byte 9 (here 0x00, in the source MAC).
TEST_F(LoopedFrameTest, Ipv4EthernetFrameStartingWith0x45IsReadAsBareHeader) {
    std::vector<uint8_t> frame = withEthernet(ipv4Packet(kUdp, 4), 0x08, 0x00);
    frame[0] = 0x45;
    EXPECT_EQ(28U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET));
    EXPECT_FALSE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET));
    ReceiverKey key;
    EXPECT_TRUE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET));
    // Bytes 16-19: total length 0x0020 and identification 0x1234; bytes
    // 22-23: TTL 0x40 and protocol 0x11.
    EXPECT_TRUE(sameKey(ipv4Key({0x00, 0x20, 0x12, 0x34}, {0x40, 0x11}), key));
}

// A 41-byte Ethernet frame is too short for its UDP header: not a UDP frame.
TEST_F(LoopedFrameTest, Ipv4FrameShorterThanItsHeadersIsNotUdp) {
    const std::vector<uint8_t> full = withEthernet(ipv4Packet(kUdp, 0), 0x08, 0x00);
    const std::vector<uint8_t> frame(full.begin(), full.end() - 1);
    EXPECT_FALSE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET));
}

// A 45-byte VLAN frame is too short: the key stays untouched.
TEST_F(LoopedFrameTest, Ipv4FrameShorterThanItsHeadersLeavesKeyUntouched) {
    const std::vector<uint8_t> full = withVlan(ipv4Packet(kUdp, 0), 0x08, 0x00);
    const std::vector<uint8_t> frame(full.begin(), full.end() - 1);
    ReceiverKey key = untouchedKey();
    EXPECT_FALSE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET));
    EXPECT_TRUE(sameKey(untouchedKey(), key));
}

// An empty IPv4 buffer takes the Ethernet row: 42.
TEST_F(LoopedFrameTest, Ipv4EmptyBufferHeaderLength) {
    const uint8_t frame[1] = {0};
    EXPECT_EQ(42U, getLoopedFrameHeaderLength(frame, 0, AF_INET));
    EXPECT_FALSE(isLoopedUdpFrame(frame, 0, AF_INET));
}

// ---- IPv6 ----

// A bare IPv6 packet (payload length + 40 = length, UDP, lengths agree): payload at 48.
TEST_F(LoopedFrameTest, Ipv6BareFrame) {
    const std::vector<uint8_t> frame = ipv6Packet(kUdp, 4);
    ASSERT_EQ(52U, frame.size());
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET6));
    EXPECT_EQ(48U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET6));
    ReceiverKey key;
    EXPECT_TRUE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET6));
    EXPECT_TRUE(sameKey(ipv6Destination(), key));
}

// A bare IPv6 packet whose UDP length disagrees is taken for an Ethernet frame: 62.
TEST_F(LoopedFrameTest, Ipv6BareFrameWithOtherUdpLengthIsNotBare) {
    std::vector<uint8_t> frame = ipv6Packet(kUdp, 40);
    frame[45] = 0x31;
    EXPECT_EQ(62U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET6));
}

// A bare IPv6 packet with a trailing byte (length is not payload length + 40) is not bare: 62.
TEST_F(LoopedFrameTest, Ipv6BareFrameWithOtherLengthIsNotBare) {
    std::vector<uint8_t> frame = ipv6Packet(kUdp, 40);
    frame.push_back(0);
    EXPECT_EQ(62U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET6));
}

// A VLAN-tagged IPv6 frame: IP header at 18, payload at 66.
TEST_F(LoopedFrameTest, Ipv6VlanFrame) {
    const std::vector<uint8_t> frame = withVlan(ipv6Packet(kUdp, 4), 0x86, 0xDD);
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET6));
    EXPECT_EQ(66U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET6));
    ReceiverKey key;
    EXPECT_TRUE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET6));
    EXPECT_TRUE(sameKey(ipv6Destination(), key));
}

// An IPv6 Ethernet frame: IP header at 14, payload at 62.
TEST_F(LoopedFrameTest, Ipv6EthernetFrame) {
    const std::vector<uint8_t> frame = withEthernet(ipv6Packet(kUdp, 4), 0x86, 0xDD);
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET6));
    EXPECT_EQ(62U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET6));
    ReceiverKey key;
    EXPECT_TRUE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET6));
    EXPECT_TRUE(sameKey(ipv6Destination(), key));
}

// An IPv6 frame whose next header is TCP is not a looped UDP frame.
TEST_F(LoopedFrameTest, Ipv6FrameOfOtherProtocol) {
    const std::vector<uint8_t> frame = withEthernet(ipv6Packet(kTcp, 4), 0x86, 0xDD);
    EXPECT_FALSE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET6));
}

// A 61-byte IPv6 Ethernet frame is too short: not UDP, key untouched.
TEST_F(LoopedFrameTest, Ipv6FrameShorterThanItsHeaders) {
    const std::vector<uint8_t> full = withEthernet(ipv6Packet(kUdp, 0), 0x86, 0xDD);
    const std::vector<uint8_t> frame(full.begin(), full.end() - 1);
    EXPECT_FALSE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET6));
    ReceiverKey key = untouchedKey();
    EXPECT_FALSE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET6));
    EXPECT_TRUE(sameKey(untouchedKey(), key));
}

// ---- Other families ----

// A family other than 2 and 10 never gives a looped UDP frame.
TEST_F(LoopedFrameTest, OtherFamilyIsNotUdp) {
    const std::vector<uint8_t> frame = ipv4Packet(kUdp, 4);
    EXPECT_FALSE(isLoopedUdpFrame(frame.data(), frame.size(), AF_UNIX));
}

// A family other than 2 and 10 leaves the key untouched.
TEST_F(LoopedFrameTest, OtherFamilyLeavesKeyUntouched) {
    const std::vector<uint8_t> frame = ipv4Packet(kUdp, 4);
    ReceiverKey key = untouchedKey();
    EXPECT_FALSE(getLoopedFrameDestination(key, frame.data(), frame.size(), 17));
    EXPECT_TRUE(sameKey(untouchedKey(), key));
}

// The header length of any family but AF_INET follows the IPv6 rows.
TEST_F(LoopedFrameTest, OtherFamilyHeaderLengthFollowsIpv6Rows) {
    const std::vector<uint8_t> bare = ipv6Packet(kUdp, 4);
    const std::vector<uint8_t> ipv4 = withEthernet(ipv4Packet(kUdp, 4), 0x08, 0x00);
    EXPECT_EQ(48U, getLoopedFrameHeaderLength(bare.data(), bare.size(), 17));
    EXPECT_EQ(62U, getLoopedFrameHeaderLength(ipv4.data(), ipv4.size(), 0));
}

}  // namespace
