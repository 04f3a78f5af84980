// Ancillary data and looped-back frames of the daemon's UDP socket.
//
// SocketHelper reads DSCP and TTL (hop limit) of received packets from their
// control messages and adds per-packet options before sending. The free
// functions beside it walk control buffers, read kernel timestamps and parse
// the frames the kernel loops back on the error queue with a transmit
// timestamp. Only AF_INET and AF_INET6 are handled.
//
// Everything the kernel or the network hands us is read with bounds checks and
// copied out with memcpy: no function reads or writes outside the buffers it
// is given, whatever lengths the headers inside them claim.
#ifndef TWAMP_SOCKET_HELPER_H
#define TWAMP_SOCKET_HELPER_H

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "ReceiverKey.h"

class SocketHelper {
  public:
    virtual ~SocketHelper();

    // DSCP of a received packet (IP_TOS / IPV6_TCLASS data >> 2); 0 when absent.
    virtual uint32_t getDscp(const struct msghdr* msg, int family);
    // TTL (IP_TTL) or hop limit (IPV6_HOPLIMIT) of a received packet; 0 when absent.
    virtual uint8_t getTtl(const struct msghdr* msg, int family);
    // Applies dscp to the next packet: socket option for IPv4, ancillary data for IPv6.
    virtual bool setDscp(struct msghdr* msg, int family, int socketFd, uint32_t dscp);
    // Adds hop limit 255 to the ancillary data of an IPv6 packet.
    virtual bool setHopLimit(struct msghdr* msg);
};

// Data of the first control message of msg with the given level and type, or
// null. At most nine messages are examined; the walk also ends at a header
// shorter than 16 bytes or one that would not fit inside the control buffer.
// The pointer points into msg's control buffer and may be unaligned.
const uint8_t* findControlMessage(const struct msghdr* msg, int level, int type);

// The kernel timestamp of a message (SCM_TIMESTAMPING, the timespec of the
// current TimestampSource) as an NTP timestamp; 0 when there is none.
uint64_t getTxTimestamp(const struct msghdr* msg);

// Appends one control message to the zero-filled control buffer of msg, whose
// full size is msg_controllen (left unchanged); false when it does not fit.
bool setAncillaryData(struct msghdr* msg, int level, int type, const void* data,
                      std::size_t length);

// Looped-back frames: the sent packet as the device sent it, behind an
// Ethernet header (with or without one VLAN tag) or bare, possibly only its
// first fragment, possibly cut short by the receive buffer. A frame is bare
// when it starts with an IPv4 header (first byte 0x45, or 0x46 to 0x4F with a
// valid checksum and a total length covering the frame) or with an IPv6
// header carrying UDP whose payload length covers the frame and whose UDP
// length agrees. The IPv4 header length (IHL) and the IPv6 extension headers
// of the generic format and the Fragment header are walked to find the UDP
// header.

// Whether the looped-back frame holds the UDP header of a packet of the
// family: the protocol is UDP, the frame is the first or only fragment and
// the headers end inside the frame.
bool isLoopedUdpFrame(const void* buffer, std::size_t length, int family);

// Fills key with the family, destination address and destination UDP port of
// the looped-back frame (network byte order); false, key untouched, when the
// family is not AF_INET or AF_INET6 or the headers run past the frame. The
// protocol is not checked: isLoopedUdpFrame says whether the port is one.
bool getLoopedFrameDestination(ReceiverKey& key, const void* buffer, std::size_t length,
                               int family);

// Offset of the UDP payload in the looped-back frame: behind the UDP header
// that the walk finds (28, 42 or 46 for IPv4 without options, 48, 62 or 66
// for IPv6 without extension headers). When the headers cannot be walked, the
// offset they would have without options or extensions. Any family other
// than AF_INET takes the IPv6 rules.
std::size_t getLoopedFrameHeaderLength(const void* buffer, std::size_t length, int family);

#endif  // TWAMP_SOCKET_HELPER_H
