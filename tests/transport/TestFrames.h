// Byte builders for the transport tests: control buffers with hand-placed
// control messages, and looped-back frames in each of their layouts.
#ifndef TWAMP_TESTS_TRANSPORT_TEST_FRAMES_H
#define TWAMP_TESTS_TRANSPORT_TEST_FRAMES_H

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace twamp_test {

// A zero-filled control buffer of exactly the given size (so that the
// sanitizer sees any read past it) and a message header pointing at it.
class ControlBuffer {
  public:
    explicit ControlBuffer(std::size_t length) : bytes(length, 0) {
        msg.msg_control = bytes.data();
        msg.msg_controllen = length;
    }
    ControlBuffer(const ControlBuffer&) = delete;
    ControlBuffer& operator=(const ControlBuffer&) = delete;

    // Writes a header claiming messageLength bytes at offset, and data behind it.
    void put(std::size_t offset, std::size_t messageLength, int level, int type,
             const std::vector<uint8_t>& data = {}) {
        struct cmsghdr header {};
        header.cmsg_len = messageLength;
        header.cmsg_level = level;
        header.cmsg_type = type;
        std::memcpy(bytes.data() + offset, &header, sizeof(header));
        if (!data.empty()) {
            std::memcpy(bytes.data() + offset + sizeof(header), data.data(), data.size());
        }
    }

    // Appends a message of data at the next 8-byte aligned offset; its offset.
    std::size_t append(int level, int type, const std::vector<uint8_t>& data) {
        const std::size_t offset = next;
        put(offset, sizeof(struct cmsghdr) + data.size(), level, type, data);
        next = offset + (sizeof(struct cmsghdr) + data.size() + 7) / 8 * 8;
        return offset;
    }

    // The message header's length field of the message at offset.
    std::size_t lengthAt(std::size_t offset) const {
        struct cmsghdr header {};
        std::memcpy(&header, bytes.data() + offset, sizeof(header));
        return header.cmsg_len;
    }

    std::vector<uint8_t> bytes;
    struct msghdr msg {};

  private:
    std::size_t next = 0;
};

// The bytes of an int in native order.
inline std::vector<uint8_t> intBytes(int value) {
    std::vector<uint8_t> bytes(sizeof(value));
    std::memcpy(bytes.data(), &value, sizeof(value));
    return bytes;
}

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

}  // namespace twamp_test

#endif  // TWAMP_TESTS_TRANSPORT_TEST_FRAMES_H
