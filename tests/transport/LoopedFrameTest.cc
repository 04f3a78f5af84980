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

using twamp_test::fragmentExtension;
using twamp_test::genericExtension;
using twamp_test::ipv4Packet;
using twamp_test::ipv4PacketWithOptions;
using twamp_test::ipv6Packet;
using twamp_test::ipv6PacketWith;
using twamp_test::TraceRecorder;
using twamp_test::withEthernet;
using twamp_test::withVlan;

constexpr uint8_t kUdp = 17;
constexpr uint8_t kTcp = 6;
constexpr uint8_t kHopByHop = 0;
constexpr uint8_t kRouting = 43;
constexpr uint8_t kDestinationOptions = 60;
constexpr uint8_t kMobility = 135;
constexpr uint8_t kNoNextHeader = 59;
constexpr uint8_t kEsp = 50;

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

// The key of [2001:db8:29::2]:862, the veth peer of the probe.
ReceiverKey probeIpv6Destination() {
    ReceiverKey key;
    key.setIpv6({0x20, 0x01, 0x0d, 0xb8, 0x00, 0x29, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}, {0x03, 0x5E});
    return key;
}

// The key of [::1]:862.
ReceiverKey loopbackIpv6Destination() {
    ReceiverKey key;
    key.setIpv6({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, {0x03, 0x5E});
    return key;
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

// An Ethernet frame whose IPv4 header carries two words of options: UDP at 42, payload at 50.
TEST_F(LoopedFrameTest, Ipv4EthernetFrameWithOptions) {
    const std::vector<uint8_t> frame = withEthernet(ipv4PacketWithOptions(kUdp, 4, 2), 0x08, 0x00);
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET));
    EXPECT_EQ(50U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET));
    ReceiverKey key;
    EXPECT_TRUE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET));
    EXPECT_TRUE(sameKey(ipv4Destination(), key));
}

// A VLAN frame whose IPv4 header is the longest (60 bytes): payload at 86.
TEST_F(LoopedFrameTest, Ipv4VlanFrameWithLongestHeader) {
    const std::vector<uint8_t> frame = withVlan(ipv4PacketWithOptions(kUdp, 4, 10), 0x08, 0x00);
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET));
    EXPECT_EQ(86U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET));
}

// A bare IPv4 header with options (first byte 0x46) and a valid checksum: payload at 32.
TEST_F(LoopedFrameTest, Ipv4BareFrameWithOptions) {
    const std::vector<uint8_t> frame = ipv4PacketWithOptions(kUdp, 4, 1);
    ASSERT_EQ(0x46, frame[0]);
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET));
    EXPECT_EQ(32U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET));
    ReceiverKey key;
    EXPECT_TRUE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET));
    EXPECT_TRUE(sameKey(ipv4Destination(), key));
}

// A frame starting with 0x46 whose would-be header checksum is wrong is an
// Ethernet frame (0x46 is also a unicast MAC address byte): payload at 42.
TEST_F(LoopedFrameTest, Ipv4FrameStartingWith0x46WithoutValidChecksumIsEthernet) {
    std::vector<uint8_t> frame = withEthernet(ipv4Packet(kUdp, 4), 0x08, 0x00);
    frame[0] = 0x46;
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET));
    EXPECT_EQ(42U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET));
}

// An Ethernet frame whose IPv4 header claims fewer than 20 bytes (IHL 4) is not a UDP frame.
TEST_F(LoopedFrameTest, Ipv4HeaderLengthBelowTwentyIsNotUdp) {
    std::vector<uint8_t> frame = withEthernet(ipv4Packet(kUdp, 4), 0x08, 0x00);
    frame[14] = 0x44;
    EXPECT_FALSE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET));
    ReceiverKey key = untouchedKey();
    EXPECT_FALSE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET));
    EXPECT_TRUE(sameKey(untouchedKey(), key));
}

// A frame too short for the options its IPv4 header announces is not a UDP frame.
TEST_F(LoopedFrameTest, Ipv4FrameShorterThanItsOptionsIsNotUdp) {
    const std::vector<uint8_t> full = withEthernet(ipv4PacketWithOptions(kUdp, 0, 3), 0x08, 0x00);
    const std::vector<uint8_t> frame(full.begin(), full.end() - 1);
    EXPECT_FALSE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET));
}

// A later IPv4 fragment (offset 185 units) holds no UDP header: not a UDP frame.
TEST_F(LoopedFrameTest, Ipv4LaterFragmentIsNotUdp) {
    std::vector<uint8_t> frame = withEthernet(ipv4Packet(kUdp, 4), 0x08, 0x00);
    frame[20] = 0x20;
    frame[21] = 0xB9;
    EXPECT_FALSE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET));
}

// The first fragment of a 2000-byte datagram as the kernel looped it back:
// UDP, payload at 42, destination 198.18.9.2:862.
TEST_F(LoopedFrameTest, Ipv4FirstFragmentFromKernel) {
    const std::vector<uint8_t> frame = twamp_test::kernelIpv4FirstFragment();
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET));
    EXPECT_EQ(42U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET));
    ReceiverKey key;
    EXPECT_TRUE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET));
    EXPECT_TRUE(sameKey(ipv4Key({198, 18, 9, 2}, {0x03, 0x5E}), key));
}

// A 65507-byte datagram's frame cut to 10 000 bytes by the receive buffer is
// still a UDP frame with payload at 42.
TEST_F(LoopedFrameTest, Ipv4TruncatedFrameFromKernel) {
    const std::vector<uint8_t> frame = twamp_test::kernelIpv4TruncatedFrame();
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET));
    EXPECT_EQ(42U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET));
    ReceiverKey key;
    EXPECT_TRUE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET));
    EXPECT_TRUE(sameKey(ipv4Key({127, 0, 0, 1}, {0x03, 0x5E}), key));
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

// The first fragment of a 1453-byte datagram as the kernel looped it back
// (Fragment header behind the IPv6 header): UDP, payload at 70, destination
// [2001:db8:29::2]:862.
TEST_F(LoopedFrameTest, Ipv6FirstFragmentFromKernel) {
    const std::vector<uint8_t> frame = twamp_test::kernelIpv6FirstFragment();
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET6));
    EXPECT_EQ(70U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET6));
    ReceiverKey key;
    EXPECT_TRUE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET6));
    EXPECT_TRUE(sameKey(probeIpv6Destination(), key));
}

// The first fragment of a 65507-byte datagram on loopback, cut to 10 000
// bytes: UDP, payload at 70, destination [::1]:862.
TEST_F(LoopedFrameTest, Ipv6TruncatedFragmentFromKernel) {
    const std::vector<uint8_t> frame = twamp_test::kernelIpv6TruncatedFragment();
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET6));
    EXPECT_EQ(70U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET6));
    ReceiverKey key;
    EXPECT_TRUE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET6));
    EXPECT_TRUE(sameKey(loopbackIpv6Destination(), key));
}

// A bare IPv6 packet cut short by the receive buffer (length below payload
// length + 40) is still recognised as bare: payload at 48.
TEST_F(LoopedFrameTest, Ipv6TruncatedBareFrame) {
    const std::vector<uint8_t> full = ipv6Packet(kUdp, 20000);
    const std::vector<uint8_t> frame(full.begin(), full.begin() + 10000);
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET6));
    EXPECT_EQ(48U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET6));
    ReceiverKey key;
    EXPECT_TRUE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET6));
    EXPECT_TRUE(sameKey(ipv6Destination(), key));
}

// A bare first fragment: IPv6, Fragment header, UDP whose length exceeds what
// the fragment carries: payload at 56.
TEST_F(LoopedFrameTest, Ipv6BareFirstFragment) {
    const std::vector<uint8_t> frame =
        ipv6PacketWith({fragmentExtension(0, true, 0x1234)}, kUdp, 1440, 8 + 2000);
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET6));
    EXPECT_EQ(56U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET6));
}

// A bare whole packet with a Fragment header (offset 0, M clear) whose UDP
// length disagrees is not bare; read as Ethernet it is no IPv6 header: 62.
TEST_F(LoopedFrameTest, Ipv6BareAtomicFragmentWithOtherUdpLengthIsNotBare) {
    const std::vector<uint8_t> frame =
        ipv6PacketWith({fragmentExtension(0, false, 0x1234)}, kUdp, 40, 8 + 41);
    EXPECT_EQ(62U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET6));
    EXPECT_FALSE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET6));
}

// Hop-by-hop, routing and destination options headers are walked to the UDP
// header: 8 + 24 + 16 bytes of them put the payload at 62 + 48 = 110.
TEST_F(LoopedFrameTest, Ipv6EthernetFrameWithExtensionChain) {
    const std::vector<uint8_t> frame =
        withEthernet(ipv6PacketWith({genericExtension(kHopByHop, 0), genericExtension(kRouting, 2),
                                     genericExtension(kDestinationOptions, 1)},
                                    kUdp, 4, 12),
                     0x86, 0xDD);
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET6));
    EXPECT_EQ(110U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET6));
    ReceiverKey key;
    EXPECT_TRUE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET6));
    EXPECT_TRUE(sameKey(ipv6Destination(), key));
}

// A mobility header (type 135) has the generic length format and is walked: payload at 82.
TEST_F(LoopedFrameTest, Ipv6VlanFrameWithMobilityHeader) {
    const std::vector<uint8_t> frame =
        withVlan(ipv6PacketWith({genericExtension(kMobility, 1)}, kUdp, 4, 12), 0x86, 0xDD);
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET6));
    EXPECT_EQ(82U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET6));
}

// A bare packet with destination options: payload at 40 + 8 + 8 = 56.
TEST_F(LoopedFrameTest, Ipv6BareFrameWithDestinationOptions) {
    const std::vector<uint8_t> frame =
        ipv6PacketWith({genericExtension(kDestinationOptions, 0)}, kUdp, 4, 12);
    EXPECT_TRUE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET6));
    EXPECT_EQ(56U, getLoopedFrameHeaderLength(frame.data(), frame.size(), AF_INET6));
}

// A later fragment (non-zero offset) holds no UDP header: not a UDP frame.
TEST_F(LoopedFrameTest, Ipv6LaterFragmentIsNotUdp) {
    const std::vector<uint8_t> frame = withEthernet(
        ipv6PacketWith({fragmentExtension(181, false, 0x1234)}, kUdp, 4, 12), 0x86, 0xDD);
    EXPECT_FALSE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET6));
}

// A chain whose extension header claims more bytes than the frame holds is not a UDP frame.
TEST_F(LoopedFrameTest, Ipv6ChainPastTheDataIsNotUdp) {
    std::vector<uint8_t> frame =
        withEthernet(ipv6PacketWith({genericExtension(kHopByHop, 0)}, kUdp, 4, 12), 0x86, 0xDD);
    frame[55] = 200;
    EXPECT_FALSE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET6));
    ReceiverKey key = untouchedKey();
    EXPECT_FALSE(getLoopedFrameDestination(key, frame.data(), frame.size(), AF_INET6));
    EXPECT_TRUE(sameKey(untouchedKey(), key));
}

// A frame that ends inside its extension chain, before the UDP header, is not a UDP frame.
TEST_F(LoopedFrameTest, Ipv6FrameEndingInsideTheChainIsNotUdp) {
    const std::vector<uint8_t> full =
        withEthernet(ipv6PacketWith({genericExtension(kRouting, 0)}, kUdp, 0, 8), 0x86, 0xDD);
    const std::vector<uint8_t> frame(full.begin(), full.begin() + 58);
    EXPECT_FALSE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET6));
}

// A chain that ends in No Next Header (59) or ESP (50) holds no UDP header.
TEST_F(LoopedFrameTest, Ipv6ChainEndingInOtherProtocolIsNotUdp) {
    const std::vector<uint8_t> none = withEthernet(
        ipv6PacketWith({genericExtension(kHopByHop, 0)}, kNoNextHeader, 4, 12), 0x86, 0xDD);
    const std::vector<uint8_t> esp = withEthernet(
        ipv6PacketWith({genericExtension(kDestinationOptions, 0)}, kEsp, 4, 12), 0x86, 0xDD);
    EXPECT_FALSE(isLoopedUdpFrame(none.data(), none.size(), AF_INET6));
    EXPECT_FALSE(isLoopedUdpFrame(esp.data(), esp.size(), AF_INET6));
}

// An Ethernet frame whose IPv6 header has another version (4) is not a UDP frame.
TEST_F(LoopedFrameTest, Ipv6HeaderOfOtherVersionIsNotUdp) {
    std::vector<uint8_t> frame = withEthernet(ipv6Packet(kUdp, 4), 0x86, 0xDD);
    frame[14] = 0x40;
    EXPECT_FALSE(isLoopedUdpFrame(frame.data(), frame.size(), AF_INET6));
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
