// Byte builders of looped-back frames in each of their layouts (control
// messages are built by ControlBuffer.h).
#ifndef TWAMP_TESTS_TEST_FRAMES_H
#define TWAMP_TESTS_TEST_FRAMES_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace twamp_test {

// An IPv4 packet 198.18.0.1:50000 -> 198.18.0.2:862 with protocol and a
// payload of payloadLength bytes 0xAB.
inline std::vector<uint8_t> ipv4Packet(uint8_t protocol, std::size_t payloadLength) {
    const std::size_t total = 28 + payloadLength;
    std::vector<uint8_t> packet = {
        0x45, 0x00, static_cast<uint8_t>(total >> 8), static_cast<uint8_t>(total), 0x12, 0x34, 0x40,
        0x00, 0x40, protocol, 0x00, 0x00, 198, 18, 0, 1, 198, 18, 0, 2,
        // UDP: 50000 -> 862
        0xC3, 0x50, 0x03, 0x5E, static_cast<uint8_t>((8 + payloadLength) >> 8),
        static_cast<uint8_t>(8 + payloadLength), 0x00, 0x00};
    packet.resize(packet.size() + payloadLength, 0xAB);
    return packet;
}

// An IPv6 packet 2001:db8:18::1 port 50000 -> 2001:db8:18::2 port 862.
inline std::vector<uint8_t> ipv6Packet(uint8_t nextHeader, std::size_t payloadLength) {
    const std::size_t udpLength = 8 + payloadLength;
    std::vector<uint8_t> packet = {0x60, 0x00, 0x00, 0x00, static_cast<uint8_t>(udpLength >> 8),
                                   static_cast<uint8_t>(udpLength), nextHeader, 64,
                                   // source 2001:db8:18::1
                                   0x20, 0x01, 0x0d, 0xb8, 0x00, 0x18, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1,
                                   // destination 2001:db8:18::2
                                   0x20, 0x01, 0x0d, 0xb8, 0x00, 0x18, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2,
                                   // UDP: 50000 -> 862
                                   0xC3, 0x50, 0x03, 0x5E, static_cast<uint8_t>(udpLength >> 8),
                                   static_cast<uint8_t>(udpLength), 0x00, 0x00};
    packet.resize(packet.size() + payloadLength, 0xAB);
    return packet;
}

// The header followed by the packet.
inline std::vector<uint8_t> concatenate(const std::vector<uint8_t>& header,
                                        const std::vector<uint8_t>& packet) {
    std::vector<uint8_t> frame(header.size() + packet.size());
    std::memcpy(frame.data(), header.data(), header.size());
    std::memcpy(frame.data() + header.size(), packet.data(), packet.size());
    return frame;
}

// The packet behind a 14-byte Ethernet header with the given EtherType.
inline std::vector<uint8_t> withEthernet(const std::vector<uint8_t>& packet, uint8_t typeHigh,
                                         uint8_t typeLow) {
    return concatenate(
        {0x02, 0x00, 0x00, 0x00, 0x00, 0x02, 0x02, 0x00, 0x00, 0x00, 0x00, 0x01, typeHigh, typeLow},
        packet);
}

// The packet behind an 18-byte Ethernet header with VLAN tag 100.
inline std::vector<uint8_t> withVlan(const std::vector<uint8_t>& packet, uint8_t typeHigh,
                                     uint8_t typeLow) {
    return concatenate({0x02, 0x00, 0x00, 0x00, 0x00, 0x02, 0x02, 0x00, 0x00, 0x00, 0x00, 0x01,
                        0x81, 0x00, 0x00, 0x64, typeHigh, typeLow},
                       packet);
}

// ---- Extension headers, options and fragments ----

// One IPv6 extension header; its first byte (next header) is filled in by
// ipv6PacketWith from the header that follows it.
struct ExtensionHeader {
    uint8_t type;
    std::vector<uint8_t> bytes;
};

// An extension header of the generic format (hop-by-hop, routing, destination
// options, ...): 8 * (lengthUnits + 1) bytes, the length in its second byte,
// the rest zero (Pad1 options).
inline ExtensionHeader genericExtension(uint8_t type, uint8_t lengthUnits) {
    std::vector<uint8_t> bytes(8 * (static_cast<std::size_t>(lengthUnits) + 1), 0);
    bytes[1] = lengthUnits;
    return {type, bytes};
}

// A Fragment header (type 44) with the offset in 8-byte units and the M flag.
inline ExtensionHeader fragmentExtension(uint16_t offsetUnits, bool more, uint32_t identification) {
    const uint16_t field = static_cast<uint16_t>((offsetUnits << 3) | (more ? 1 : 0));
    return {44,
            {0, 0, static_cast<uint8_t>(field >> 8), static_cast<uint8_t>(field),
             static_cast<uint8_t>(identification >> 24), static_cast<uint8_t>(identification >> 16),
             static_cast<uint8_t>(identification >> 8), static_cast<uint8_t>(identification)}};
}

// An IPv6 packet 2001:db8:18::1 port 50000 -> 2001:db8:18::2 port 862 with
// the extension headers in order between the IPv6 header and the header of
// upperProtocol, which carries payloadLength bytes 0xAB; its UDP length field
// says udpLength. The payload length field counts everything behind the IPv6
// header.
inline std::vector<uint8_t> ipv6PacketWith(const std::vector<ExtensionHeader>& extensions,
                                           uint8_t upperProtocol, std::size_t payloadLength,
                                           std::size_t udpLength) {
    std::vector<uint8_t> packet = ipv6Packet(upperProtocol, payloadLength);
    std::vector<uint8_t> chain;
    for (std::size_t i = 0; i < extensions.size(); ++i) {
        std::vector<uint8_t> bytes = extensions[i].bytes;
        bytes[0] = (i + 1 < extensions.size()) ? extensions[i + 1].type : upperProtocol;
        chain.insert(chain.end(), bytes.begin(), bytes.end());
    }
    if (!extensions.empty()) {
        packet[6] = extensions.front().type;
    }
    packet.insert(packet.begin() + 40, chain.begin(), chain.end());
    const std::size_t behindHeader = packet.size() - 40;
    packet[4] = static_cast<uint8_t>(behindHeader >> 8);
    packet[5] = static_cast<uint8_t>(behindHeader);
    const std::size_t udp = 40 + chain.size();
    packet[udp + 4] = static_cast<uint8_t>(udpLength >> 8);
    packet[udp + 5] = static_cast<uint8_t>(udpLength);
    return packet;
}

// The one's complement checksum of an IPv4 header of headerLength bytes at
// the start of packet, written into bytes 10-11.
inline void setIpv4Checksum(std::vector<uint8_t>& packet, std::size_t headerLength) {
    packet[10] = 0;
    packet[11] = 0;
    uint32_t sum = 0;
    for (std::size_t i = 0; i < headerLength; i += 2) {
        sum += static_cast<uint32_t>(packet[i] << 8 | packet[i + 1]);
    }
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    const uint16_t checksum = static_cast<uint16_t>(~sum);
    packet[10] = static_cast<uint8_t>(checksum >> 8);
    packet[11] = static_cast<uint8_t>(checksum);
}

// An IPv4 packet as ipv4Packet with optionWords 4-byte words of options
// (No Operation, 0x01) and a valid header checksum.
inline std::vector<uint8_t> ipv4PacketWithOptions(uint8_t protocol, std::size_t payloadLength,
                                                  std::size_t optionWords) {
    std::vector<uint8_t> packet = ipv4Packet(protocol, payloadLength);
    packet.insert(packet.begin() + 20, 4 * optionWords, 0x01);
    packet[0] = static_cast<uint8_t>(0x40 | (5 + optionWords));
    packet[2] = static_cast<uint8_t>(packet.size() >> 8);
    packet[3] = static_cast<uint8_t>(packet.size());
    setIpv4Checksum(packet, 20 + 4 * optionWords);
    return packet;
}

// ---- Frames the kernel looped back (looped_frame_probe.sh, kernel 6.18) ----
//
// With software transmit timestamps on a veth pair of MTU 1500 and on
// loopback, every sent datagram gave exactly one message on the error queue:
// the frame as the device sent it, Ethernet header included (all-zero MAC
// addresses on loopback), and for a datagram that needed fragmenting only its
// first fragment. An IPv4 first fragment is the first 1514 bytes with the
// More Fragments flag and the UDP header of the whole datagram. An IPv6 first
// fragment carries a Fragment header (next header 44) between the IPv6 and
// the UDP header: 1510 bytes on the veth pair, from payload 1453 bytes on. On
// loopback (MTU 65536) IPv4 is not fragmented up to 65507 bytes and IPv6 is
// fragmented only above 65488; either frame of a 65507-byte datagram exceeds
// the 10 000-byte receive buffer and comes back cut to 10 000 bytes with
// MSG_TRUNC.

// The first 70 bytes seen for a 1453-byte IPv6 datagram from
// [2001:db8:29::1]:43417 to [2001:db8:29::2]:862 on the veth pair: Ethernet,
// IPv6 (payload length 1456, next header 44), Fragment header (UDP, offset 0,
// M set), UDP (length 1461), then 1440 payload bytes 0xAB: 1510 bytes.
inline std::vector<uint8_t> kernelIpv6FirstFragment() {
    std::vector<uint8_t> frame = {
        0x02, 0xc8, 0x1c, 0x3a, 0x55, 0x55, 0x22, 0x32, 0x66, 0xd0, 0x12, 0xcd, 0x86, 0xdd,
        0x60, 0x03, 0xd3, 0xab, 0x05, 0xb0, 0x2c, 0x40, 0x20, 0x01, 0x0d, 0xb8, 0x00, 0x29,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x20, 0x01, 0x0d, 0xb8,
        0x00, 0x29, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x11, 0x00,
        0x00, 0x01, 0x1d, 0x85, 0xbb, 0xb3, 0xa9, 0x99, 0x03, 0x5e, 0x05, 0xb5, 0x67, 0xec};
    frame.resize(1510, 0xAB);
    return frame;
}

// The first 42 bytes seen for a 2000-byte IPv4 datagram from
// 198.18.9.1:42229 to 198.18.9.2:862 on the veth pair: Ethernet, IPv4 (total
// length 1500, More Fragments, offset 0), UDP (length 2008), then 1472
// payload bytes 0xAB: 1514 bytes.
inline std::vector<uint8_t> kernelIpv4FirstFragment() {
    std::vector<uint8_t> frame = {0x02, 0xc8, 0x1c, 0x3a, 0x55, 0x55, 0x22, 0x32, 0x66, 0xd0, 0x12,
                                  0xcd, 0x08, 0x00, 0x45, 0x00, 0x05, 0xdc, 0xa2, 0x7a, 0x20, 0x00,
                                  0x40, 0x11, 0x14, 0x6f, 0xc6, 0x12, 0x09, 0x01, 0xc6, 0x12, 0x09,
                                  0x02, 0xa4, 0xf5, 0x03, 0x5e, 0x07, 0xd8, 0x13, 0x2c};
    frame.resize(1514, 0xAB);
    return frame;
}

// The 10 000 bytes seen for a 65507-byte IPv6 datagram from [::1]:58269 to
// [::1]:862 on loopback: Ethernet with zero addresses, IPv6 (payload length
// 65496, next header 44), Fragment header (UDP, offset 0, M set), UDP (length
// 65515), then payload bytes 0xAB up to the cut.
inline std::vector<uint8_t> kernelIpv6TruncatedFragment() {
    std::vector<uint8_t> frame = {
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x86, 0xdd,
        0x60, 0x00, 0xaf, 0x17, 0xff, 0xd8, 0x2c, 0x40, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x11, 0x00,
        0x00, 0x01, 0x5d, 0x4c, 0xe4, 0x7f, 0xe3, 0x9d, 0x03, 0x5e, 0xff, 0xeb, 0xa7, 0x51};
    frame.resize(10000, 0xAB);
    return frame;
}

// The 10 000 bytes seen for a 65507-byte IPv4 datagram from 127.0.0.1:57011
// to 127.0.0.1:862 on loopback: Ethernet with zero addresses, IPv4 (total
// length 65535, not fragmented), UDP (length 65515), then payload bytes 0xAB
// up to the cut.
inline std::vector<uint8_t> kernelIpv4TruncatedFrame() {
    std::vector<uint8_t> frame = {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                  0x00, 0x08, 0x00, 0x45, 0x00, 0xff, 0xff, 0x94, 0xe7, 0x40, 0x00,
                                  0x40, 0x11, 0xa8, 0x03, 0x7f, 0x00, 0x00, 0x01, 0x7f, 0x00, 0x00,
                                  0x01, 0xde, 0xb3, 0x03, 0x5e, 0xff, 0xeb, 0xfd, 0xff};
    frame.resize(10000, 0xAB);
    return frame;
}

}  // namespace twamp_test

#endif  // TWAMP_TESTS_TEST_FRAMES_H
