#include "SocketHelper.h"

#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "NetworkByteOrder.h"
#include "NtpTimestamp.h"
#include "TimestampSource.h"
#include "TraceFacade.h"

namespace {

// Control messages: a 16-byte header, each message starting 8-byte aligned.
constexpr std::size_t kHeaderLength = 16;
constexpr std::size_t kAlignment = 8;
static_assert(sizeof(struct cmsghdr) == kHeaderLength, "control message header of 16 bytes");
static_assert(SCM_TIMESTAMPING == 37, "SCM_TIMESTAMPING of the 64-bit ABI");

// A deliberate bound: a received packet carries only a handful of control
// messages, and the walk must never run long over a corrupt buffer.
constexpr int kMaxExaminedMessages = 9;

constexpr int kHopLimit = 255;
constexpr uint32_t kDscpToTos = 4;
constexpr unsigned kTosToDscpShift = 2;
constexpr uint8_t kUdpProtocol = 17;

// ---- Control buffer walking ----

const uint8_t* controlArea(const struct msghdr* msg) {
    return static_cast<const uint8_t*>(msg->msg_control);
}

// Whether msg has a control buffer large enough for one header.
bool hasControlArea(const struct msghdr* msg) {
    return msg != nullptr && msg->msg_control != nullptr && msg->msg_controllen >= kHeaderLength;
}

// The header at offset; the caller makes sure that 16 bytes lie there.
struct cmsghdr readHeader(const uint8_t* area, std::size_t offset) {
    struct cmsghdr header;
    std::memcpy(&header, area + offset, sizeof(header));
    return header;
}

// A message's length rounded up to the alignment; only for lengths already
// known to lie inside a buffer, so the sum cannot overflow.
std::size_t alignedLength(std::size_t messageLength) {
    return (messageLength + kAlignment - 1) / kAlignment * kAlignment;
}

// Whether a message of messageLength bytes, rounded up to the alignment,
// starting at offset ends inside an area of areaLength bytes.
bool fitsAligned(std::size_t offset, std::size_t messageLength, std::size_t areaLength) {
    if (offset > areaLength || messageLength > areaLength - offset) {
        return false;
    }
    return alignedLength(messageLength) <= areaLength - offset;
}

// Moves offset from the message there (of messageLength bytes) to the next
// one; false when the next header would not leave 16 bytes in the buffer or
// its own rounded length would run past the buffer's end.
bool advanceToNextHeader(const uint8_t* area, std::size_t areaLength, std::size_t messageLength,
                         std::size_t& offset) {
    if (!fitsAligned(offset, messageLength, areaLength)) {
        return false;
    }
    const std::size_t next = offset + alignedLength(messageLength);
    if (areaLength - next < kHeaderLength) {
        return false;
    }
    if (!fitsAligned(next, readHeader(area, next).cmsg_len, areaLength)) {
        return false;
    }
    offset = next;
    return true;
}

// Bytes of the control buffer from data to its end.
std::size_t bytesToAreaEnd(const struct msghdr* msg, const uint8_t* data) {
    return static_cast<std::size_t>(controlArea(msg) + msg->msg_controllen - data);
}

// Data bytes of the message whose data starts at data, cut at the buffer's end.
std::size_t dataLength(const struct msghdr* msg, const uint8_t* data) {
    const std::size_t offset = static_cast<std::size_t>(data - controlArea(msg)) - kHeaderLength;
    const std::size_t messageLength = readHeader(controlArea(msg), offset).cmsg_len;
    return std::min(messageLength - kHeaderLength, bytesToAreaEnd(msg, data));
}

// Writes one message at offset when it fits: the free space is counted with
// the unrounded lengths of the messages before it (used), and the message
// must also fit at its aligned position, or it would be written past the end.
bool writeControlMessage(uint8_t* area, std::size_t areaLength, std::size_t offset,
                         std::size_t used, int level, int type, const void* data,
                         std::size_t length) {
    if (length > areaLength || areaLength - used < length + kHeaderLength ||
        areaLength - offset < length + kHeaderLength) {
        return false;
    }
    struct cmsghdr header {};
    header.cmsg_len = length + kHeaderLength;
    header.cmsg_level = level;
    header.cmsg_type = type;
    std::memcpy(area + offset, &header, sizeof(header));
    if (length > 0) {
        std::memcpy(area + offset + kHeaderLength, data, length);
    }
    return true;
}

// Appends behind the messages already in the buffer: the first header whose
// length is 0 marks the free space.
bool appendControlMessage(struct msghdr* msg, int level, int type, const void* data,
                          std::size_t length) {
    if (!hasControlArea(msg)) {
        return false;
    }
    uint8_t* area = static_cast<uint8_t*>(msg->msg_control);
    const std::size_t areaLength = msg->msg_controllen;
    std::size_t used = 0;
    std::size_t offset = 0;
    while (areaLength - offset >= kHeaderLength) {
        const std::size_t messageLength = readHeader(area, offset).cmsg_len;
        if (messageLength == 0) {
            return writeControlMessage(area, areaLength, offset, used, level, type, data, length);
        }
        if (messageLength < kHeaderLength || !fitsAligned(offset, messageLength, areaLength)) {
            return false;
        }
        used += messageLength;
        offset += alignedLength(messageLength);
    }
    return false;
}

// ---- Looped-back frames ----
//
// The error queue returns the sent packet as the device sent it (seen with
// software timestamps on veth and loopback, looped_frame_probe.sh): behind a
// 14-byte Ethernet header, an 18-byte one with a VLAN tag, or bare. For a
// datagram that had to be fragmented only the first fragment comes back
// (an IPv6 one with a Fragment header before the UDP header), and a frame
// larger than the receive buffer comes back cut to the buffer's size. So the
// headers are walked rather than read at fixed offsets, and a length field
// larger than the frame is no reason to reject it.

// Where the headers of a looped-back frame lie.
struct FrameHeaders {
    std::size_t ipOffset = 0;
    // The header behind the IP header and its options or extension headers.
    std::size_t transportOffset = 0;
    // IPv4 protocol, or the next header that ended the IPv6 chain.
    uint8_t protocol = 0;
    // Fragment offset 0: the transport header is in this frame.
    bool firstFragment = true;
    // The IPv6 Fragment header's M flag: more of the datagram follows.
    bool moreFragments = false;
};

constexpr std::size_t kEthernetHeaderLength = 14;
constexpr std::size_t kVlanEthernetHeaderLength = 18;
constexpr std::size_t kEtherTypeOffset = 12;
constexpr std::size_t kUdpHeaderLength = 8;
constexpr std::size_t kUdpDestinationPortOffset = 2;
constexpr std::size_t kUdpLengthOffset = 4;

constexpr uint8_t kIpv4VersionAndHeaderLength = 0x45;
constexpr std::size_t kIpv4MinHeaderLength = 20;
constexpr std::size_t kIpv4TotalLengthOffset = 2;
constexpr std::size_t kIpv4FragmentOffset = 6;
constexpr uint16_t kIpv4FragmentOffsetMask = 0x1FFF;
constexpr std::size_t kIpv4ProtocolOffset = 9;
constexpr std::size_t kIpv4DestinationOffset = 16;

constexpr std::size_t kIpv6HeaderLength = 40;
constexpr std::size_t kIpv6PayloadLengthOffset = 4;
constexpr std::size_t kIpv6NextHeaderOffset = 6;
constexpr std::size_t kIpv6DestinationOffset = 24;
constexpr uint8_t kIpv6FragmentHeader = 44;
constexpr std::size_t kIpv6FragmentHeaderLength = 8;
constexpr std::size_t kIpv6FragmentFieldOffset = 2;
constexpr unsigned kIpv6FragmentOffsetShift = 3;
constexpr uint16_t kIpv6MoreFragmentsFlag = 0x0001;

bool isKnownFamily(int family) {
    return family == AF_INET || family == AF_INET6;
}

// Bytes 12-13 hold the VLAN EtherType 0x8100.
bool hasVlanTag(const uint8_t* frame, std::size_t length) {
    return length >= kEtherTypeOffset + 2 && frame[kEtherTypeOffset] == 0x81 &&
           frame[kEtherTypeOffset + 1] == 0x00;
}

// The IP header of an Ethernet frame: behind the VLAN tag if there is one.
std::size_t ethernetIpOffset(const uint8_t* frame, std::size_t length) {
    return hasVlanTag(frame, length) ? kVlanEthernetHeaderLength : kEthernetHeaderLength;
}

// Where the UDP payload would lie behind IP headers without options or
// extensions: the answer for a frame whose headers cannot be walked.
std::size_t unwalkedPayloadOffset(std::size_t ipOffset, int family) {
    return ipOffset + ((family == AF_INET) ? kIpv4MinHeaderLength : kIpv6HeaderLength) +
           kUdpHeaderLength;
}

// Whether the frame holds the whole transport header the walk arrived at.
bool holdsTransportHeader(const FrameHeaders& headers, std::size_t length) {
    return headers.transportOffset <= length &&
           length - headers.transportOffset >= kUdpHeaderLength;
}

// ---- IPv4 ----

// The header length IHL * 4 of a version 4 header at ip, or 0 when the byte
// there is no such header or the frame ends inside it.
std::size_t ipv4HeaderLength(const uint8_t* frame, std::size_t length, std::size_t ip) {
    if (length < ip + kIpv4MinHeaderLength || (frame[ip] >> 4) != 4) {
        return 0;
    }
    const std::size_t headerLength = static_cast<std::size_t>(frame[ip] & 0x0F) * 4;
    if (headerLength < kIpv4MinHeaderLength || length < ip + headerLength) {
        return 0;
    }
    return headerLength;
}

// Whether the one's complement sum of the header (checksum included) is 0xFFFF.
bool hasValidIpv4Checksum(const uint8_t* header, std::size_t headerLength) {
    uint32_t sum = 0;
    for (std::size_t i = 0; i < headerLength; i += 2) {
        sum += readBigEndian16(header + i);
    }
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return sum == 0xFFFF;
}

// A frame that starts with an IPv4 header. 0x45 (no options) is taken as it
// is: no unicast Ethernet destination starts with that byte. 0x46 to 0x4F
// can also start a unicast MAC address, so a header with options must prove
// itself by its checksum and by a total length that covers the frame (which
// may be cut short, never longer) and a UDP header.
bool startsWithIpv4(const uint8_t* frame, std::size_t length) {
    if (length >= 1 && frame[0] == kIpv4VersionAndHeaderLength) {
        return true;
    }
    const std::size_t headerLength = ipv4HeaderLength(frame, length, 0);
    if (headerLength == 0 || !hasValidIpv4Checksum(frame, headerLength)) {
        return false;
    }
    const std::size_t totalLength = readBigEndian16(frame + kIpv4TotalLengthOffset);
    return totalLength >= headerLength + kUdpHeaderLength && length <= totalLength;
}

// The IPv4 header at ip and what follows it; false when there is none or the
// frame ends before the transport header's 8 bytes.
bool walkIpv4(const uint8_t* frame, std::size_t length, std::size_t ip, FrameHeaders& headers) {
    const std::size_t headerLength = ipv4HeaderLength(frame, length, ip);
    if (headerLength == 0) {
        return false;
    }
    headers.ipOffset = ip;
    headers.transportOffset = ip + headerLength;
    headers.protocol = frame[ip + kIpv4ProtocolOffset];
    headers.firstFragment =
        (readBigEndian16(frame + ip + kIpv4FragmentOffset) & kIpv4FragmentOffsetMask) == 0;
    return holdsTransportHeader(headers, length);
}

// ---- IPv6 ----

// Extension headers of the generic format: next header, then the length in
// 8-byte units not counting the first 8 bytes (hop-by-hop options, routing,
// destination options, mobility, HIP, shim6 and the two experimental types).
// AH counts its length in other units and ESP hides what follows: a chain
// ending in either is not read further.
bool isGenericExtensionHeader(uint8_t nextHeader) {
    switch (nextHeader) {
        case 0:
        case 43:
        case 60:
        case 135:
        case 139:
        case 140:
        case 253:
        case 254:
            return true;
        default:
            return false;
    }
}

// Steps over the extension header of type nextHeader at offset; false when
// the frame ends inside it.
bool skipExtensionHeader(const uint8_t* frame, std::size_t length, uint8_t& nextHeader,
                         std::size_t& offset, FrameHeaders& headers) {
    std::size_t headerLength = kIpv6FragmentHeaderLength;
    if (nextHeader == kIpv6FragmentHeader) {
        if (length < offset + kIpv6FragmentHeaderLength) {
            return false;
        }
        const uint16_t field = readBigEndian16(frame + offset + kIpv6FragmentFieldOffset);
        headers.firstFragment = (field >> kIpv6FragmentOffsetShift) == 0;
        headers.moreFragments = (field & kIpv6MoreFragmentsFlag) != 0;
    } else {
        if (length < offset + 2) {
            return false;
        }
        headerLength = (static_cast<std::size_t>(frame[offset + 1]) + 1) * 8;
        if (length < offset + headerLength) {
            return false;
        }
    }
    nextHeader = frame[offset];
    offset += headerLength;
    return true;
}

// The IPv6 header at ip and its chain of extension headers. Every step moves
// at least 8 bytes on inside the frame, so the walk ends. A later fragment
// ends it at its Fragment header: what follows is the middle of the datagram.
bool walkIpv6(const uint8_t* frame, std::size_t length, std::size_t ip, FrameHeaders& headers) {
    if (length < ip + kIpv6HeaderLength || (frame[ip] >> 4) != 6) {
        return false;
    }
    headers.ipOffset = ip;
    uint8_t nextHeader = frame[ip + kIpv6NextHeaderOffset];
    std::size_t offset = ip + kIpv6HeaderLength;
    while (headers.firstFragment &&
           (nextHeader == kIpv6FragmentHeader || isGenericExtensionHeader(nextHeader))) {
        if (!skipExtensionHeader(frame, length, nextHeader, offset, headers)) {
            return false;
        }
    }
    headers.transportOffset = offset;
    headers.protocol = nextHeader;
    return holdsTransportHeader(headers, length);
}

// Whether the UDP length of a bare IPv6 packet agrees with its payload
// length: equal to the UDP bytes the packet carries when it is whole, larger
// when it is the first fragment of a larger datagram.
bool udpLengthAgrees(const uint8_t* frame, const FrameHeaders& headers) {
    const std::size_t payloadLength = readBigEndian16(frame + kIpv6PayloadLengthOffset);
    const std::size_t extensionLength = headers.transportOffset - kIpv6HeaderLength;
    if (payloadLength < extensionLength + kUdpHeaderLength) {
        return false;
    }
    const std::size_t carried = payloadLength - extensionLength;
    const std::size_t udpLength =
        readBigEndian16(frame + headers.transportOffset + kUdpLengthOffset);
    return headers.moreFragments ? udpLength > carried : udpLength == carried;
}

// A frame that starts with an IPv6 header carrying UDP in its first or only
// fragment, whose payload length covers the frame (cut short by the receive
// buffer, never longer) and whose UDP length agrees.
bool startsWithIpv6Udp(const uint8_t* frame, std::size_t length) {
    FrameHeaders headers;
    if (!walkIpv6(frame, length, 0, headers) || headers.protocol != kUdpProtocol ||
        !headers.firstFragment) {
        return false;
    }
    const std::size_t payloadLength = readBigEndian16(frame + kIpv6PayloadLengthOffset);
    return length <= payloadLength + kIpv6HeaderLength && udpLengthAgrees(frame, headers);
}

// ---- Both families ----

// Where the IP header of the frame starts: 0 when the frame starts with one,
// else behind the Ethernet header.
std::size_t ipHeaderOffset(const uint8_t* frame, std::size_t length, int family) {
    const bool bare =
        (family == AF_INET) ? startsWithIpv4(frame, length) : startsWithIpv6Udp(frame, length);
    return bare ? 0 : ethernetIpOffset(frame, length);
}

// Walks the headers of a frame; families other than AF_INET take the IPv6
// rules. False when the IP header is not there or the frame ends before the
// transport header's 8 bytes.
bool walkFrame(const uint8_t* frame, std::size_t length, int family, FrameHeaders& headers) {
    if (frame == nullptr) {
        return false;
    }
    const std::size_t ip = ipHeaderOffset(frame, length, family);
    return (family == AF_INET) ? walkIpv4(frame, length, ip, headers)
                               : walkIpv6(frame, length, ip, headers);
}

}  // namespace

// ---- SocketHelper ----

SocketHelper::~SocketHelper() = default;

uint32_t SocketHelper::getDscp(const struct msghdr* msg, int family) {
    const uint8_t* data = nullptr;
    if (family == AF_INET) {
        data = findControlMessage(msg, IPPROTO_IP, IP_TOS);
    } else if (family == AF_INET6) {
        data = findControlMessage(msg, IPPROTO_IPV6, IPV6_TCLASS);
    } else {
        TRACE_INFO("Invalid socket Family %i", family);
        return 0;
    }
    if (data == nullptr) {
        return 0;
    }
    // Four bytes read natively and not masked: the one-byte IP_TOS value is
    // followed by three bytes of the control buffer, which become part of the
    // value. Bytes beyond the buffer's end count as zero.
    uint32_t value = 0;
    std::memcpy(&value, data, std::min(sizeof(value), bytesToAreaEnd(msg, data)));
    return value >> kTosToDscpShift;
}

uint8_t SocketHelper::getTtl(const struct msghdr* msg, int family) {
    const uint8_t* data = nullptr;
    if (family == AF_INET) {
        data = findControlMessage(msg, IPPROTO_IP, IP_TTL);
    } else if (family == AF_INET6) {
        data = findControlMessage(msg, IPPROTO_IPV6, IPV6_HOPLIMIT);
    } else {
        TRACE_INFO("Invalid socket Family %i", family);
        return 0;
    }
    // A message that ends with the buffer has no data byte to read.
    if (data == nullptr || bytesToAreaEnd(msg, data) == 0) {
        TRACE_INFO("return 0");
        return 0;
    }
    return data[0];
}

bool SocketHelper::setDscp(struct msghdr* msg, int family, int socketFd, uint32_t dscp) {
    const int value = static_cast<int>(dscp * kDscpToTos);
    if (family == AF_INET) {
        if (setsockopt(socketFd, IPPROTO_IP, IP_TOS, &value, sizeof(value)) != 0) {
            const int error = errno;
            TRACE_INFO("Failed to set socket option IP_TOS: errorno %d - %s", error,
                       std::strerror(error));
            return false;
        }
        return true;
    }
    if (family == AF_INET6) {
        return setAncillaryData(msg, IPPROTO_IPV6, IPV6_TCLASS, &value, sizeof(value));
    }
    TRACE_INFO("Invalid socket Family %i", family);
    return false;
}

bool SocketHelper::setHopLimit(struct msghdr* msg) {
    const int value = kHopLimit;
    return setAncillaryData(msg, IPPROTO_IPV6, IPV6_HOPLIMIT, &value, sizeof(value));
}

// ---- Free functions ----

const uint8_t* findControlMessage(const struct msghdr* msg, int level, int type) {
    if (!hasControlArea(msg)) {
        return nullptr;
    }
    const uint8_t* area = controlArea(msg);
    const std::size_t areaLength = msg->msg_controllen;
    std::size_t offset = 0;
    for (int examined = 0; examined < kMaxExaminedMessages; ++examined) {
        const struct cmsghdr header = readHeader(area, offset);
        if (header.cmsg_len < kHeaderLength) {
            return nullptr;
        }
        if (header.cmsg_level == level && header.cmsg_type == type) {
            return area + offset + kHeaderLength;
        }
        if (!advanceToNextHeader(area, areaLength, header.cmsg_len, offset)) {
            return nullptr;
        }
    }
    return nullptr;
}

uint64_t getTxTimestamp(const struct msghdr* msg) {
    const uint8_t* data = findControlMessage(msg, SOL_SOCKET, SCM_TIMESTAMPING);
    if (data == nullptr) {
        return 0;
    }
    const std::size_t offset = TimestampSource::getCurrent().getTimespecIndex() * sizeof(timespec);
    // A message too short for the selected timespec carries no timestamp.
    if (dataLength(msg, data) < offset + sizeof(timespec)) {
        return 0;
    }
    timespec time{};
    std::memcpy(&time, data + offset, sizeof(time));
    return toNtpTimestamp(time);
}

bool setAncillaryData(struct msghdr* msg, int level, int type, const void* data,
                      std::size_t length) {
    if (!appendControlMessage(msg, level, type, data, length)) {
        TRACE_LAB("Out of CMSG buffer space");
        return false;
    }
    return true;
}

bool isLoopedUdpFrame(const void* buffer, std::size_t length, int family) {
    if (!isKnownFamily(family)) {
        return false;
    }
    FrameHeaders headers;
    return walkFrame(static_cast<const uint8_t*>(buffer), length, family, headers) &&
           headers.protocol == kUdpProtocol && headers.firstFragment;
}

bool getLoopedFrameDestination(ReceiverKey& key, const void* buffer, std::size_t length,
                               int family) {
    if (!isKnownFamily(family)) {
        return false;
    }
    const uint8_t* frame = static_cast<const uint8_t*>(buffer);
    FrameHeaders headers;
    if (!walkFrame(frame, length, family, headers)) {
        return false;
    }
    uint8_t port[2];
    std::memcpy(port, frame + headers.transportOffset + kUdpDestinationPortOffset, sizeof(port));
    if (family == AF_INET) {
        uint8_t address[4];
        std::memcpy(address, frame + headers.ipOffset + kIpv4DestinationOffset, sizeof(address));
        key.setIpv4(address, port);
    } else {
        uint8_t address[16];
        std::memcpy(address, frame + headers.ipOffset + kIpv6DestinationOffset, sizeof(address));
        key.setIpv6(address, port);
    }
    return true;
}

std::size_t getLoopedFrameHeaderLength(const void* buffer, std::size_t length, int family) {
    const uint8_t* frame = static_cast<const uint8_t*>(buffer);
    if (frame == nullptr) {
        length = 0;
    }
    const int rules = (family == AF_INET) ? AF_INET : AF_INET6;
    FrameHeaders headers;
    if (walkFrame(frame, length, rules, headers)) {
        return headers.transportOffset + kUdpHeaderLength;
    }
    return unwalkedPayloadOffset(ipHeaderOffset(frame, length, rules), rules);
}
