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

// Where the headers of a looped-back frame lie.
struct FrameLayout {
    std::size_t ipOffset;
    std::size_t udpOffset;
    std::size_t payloadOffset;
};

constexpr FrameLayout kIpv4Bare{0, 20, 28};
constexpr FrameLayout kIpv4Vlan{18, 38, 46};
constexpr FrameLayout kIpv4Ethernet{14, 34, 42};
constexpr FrameLayout kIpv6Bare{0, 40, 48};
constexpr FrameLayout kIpv6Vlan{18, 58, 66};
constexpr FrameLayout kIpv6Ethernet{14, 54, 62};

constexpr uint8_t kIpv4VersionAndHeaderLength = 0x45;
constexpr std::size_t kEtherTypeOffset = 12;
constexpr std::size_t kIpv4ProtocolOffset = 9;
constexpr std::size_t kIpv4DestinationOffset = 16;
constexpr std::size_t kIpv6PayloadLengthOffset = 4;
constexpr std::size_t kIpv6NextHeaderOffset = 6;
constexpr std::size_t kIpv6DestinationOffset = 24;
constexpr std::size_t kIpv6HeaderLength = 40;
constexpr std::size_t kUdpDestinationPortOffset = 2;
constexpr std::size_t kUdpLengthOffset = 4;

bool isKnownFamily(int family) {
    return family == AF_INET || family == AF_INET6;
}

// Bytes 12-13 hold the VLAN EtherType 0x8100.
bool hasVlanTag(const uint8_t* frame, std::size_t length) {
    return length >= kEtherTypeOffset + 2 && frame[kEtherTypeOffset] == 0x81 &&
           frame[kEtherTypeOffset + 1] == 0x00;
}

// A frame that starts with an IPv6 header: its payload length accounts for
// the whole frame, it carries UDP and the UDP length agrees.
bool startsWithIpv6Udp(const uint8_t* frame, std::size_t length) {
    if (length < kIpv6Bare.payloadOffset) {
        return false;
    }
    const std::size_t payloadLength = readBigEndian16(frame + kIpv6PayloadLengthOffset);
    return payloadLength + kIpv6HeaderLength == length &&
           frame[kIpv6NextHeaderOffset] == kUdpProtocol &&
           payloadLength == readBigEndian16(frame + kIpv6Bare.udpOffset + kUdpLengthOffset);
}

// The layout of a frame; families other than AF_INET take the IPv6 rows.
FrameLayout frameLayout(const uint8_t* frame, std::size_t length, int family) {
    if (family == AF_INET) {
        if (length >= 1 && frame[0] == kIpv4VersionAndHeaderLength) {
            return kIpv4Bare;
        }
        return hasVlanTag(frame, length) ? kIpv4Vlan : kIpv4Ethernet;
    }
    if (startsWithIpv6Udp(frame, length)) {
        return kIpv6Bare;
    }
    return hasVlanTag(frame, length) ? kIpv6Vlan : kIpv6Ethernet;
}

// Our addition to the layout table: a frame too short for its layout's IP and
// UDP headers is not read at all, so a truncated or foreign message on the
// error queue can never make us read past what the kernel returned.
bool holdsHeaders(const FrameLayout& layout, std::size_t length) {
    return length >= layout.payloadOffset;
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
    if (buffer == nullptr || !isKnownFamily(family)) {
        return false;
    }
    const uint8_t* frame = static_cast<const uint8_t*>(buffer);
    const FrameLayout layout = frameLayout(frame, length, family);
    if (!holdsHeaders(layout, length)) {
        return false;
    }
    const std::size_t protocolOffset =
        layout.ipOffset + ((family == AF_INET) ? kIpv4ProtocolOffset : kIpv6NextHeaderOffset);
    return frame[protocolOffset] == kUdpProtocol;
}

bool getLoopedFrameDestination(ReceiverKey& key, const void* buffer, std::size_t length,
                               int family) {
    if (buffer == nullptr || !isKnownFamily(family)) {
        return false;
    }
    const uint8_t* frame = static_cast<const uint8_t*>(buffer);
    const FrameLayout layout = frameLayout(frame, length, family);
    if (!holdsHeaders(layout, length)) {
        return false;
    }
    uint8_t port[2];
    std::memcpy(port, frame + layout.udpOffset + kUdpDestinationPortOffset, sizeof(port));
    if (family == AF_INET) {
        uint8_t address[4];
        std::memcpy(address, frame + layout.ipOffset + kIpv4DestinationOffset, sizeof(address));
        key.setIpv4(address, port);
    } else {
        uint8_t address[16];
        std::memcpy(address, frame + layout.ipOffset + kIpv6DestinationOffset, sizeof(address));
        key.setIpv6(address, port);
    }
    return true;
}

std::size_t getLoopedFrameHeaderLength(const void* buffer, std::size_t length, int family) {
    const uint8_t* frame = static_cast<const uint8_t*>(buffer);
    if (frame == nullptr) {
        length = 0;
    }
    return frameLayout(frame, length, (family == AF_INET) ? AF_INET : AF_INET6).payloadOffset;
}
