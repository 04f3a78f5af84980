// The reflector's UDP socket: one non-blocking socket for IPv4 or IPv6 (or
// both, on ::), which hands out each datagram with its software receive
// timestamp, TTL (hop limit) and TOS (traffic class), sends each reply with a
// TTL and TOS of its own, and hands out the kernel's software transmit
// timestamp of each reply sent, from its error queue. It can be closed for a
// while and opened again on the same address and port.
#ifndef TWAMP_REFLECTOR_SOCKET_H
#define TWAMP_REFLECTOR_SOCKET_H

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "FileDescriptor.h"

struct PeerAddress {
    sockaddr_storage address{};
    socklen_t length = 0;
};

struct ReceivedDatagram {
    std::vector<uint8_t> payload;
    PeerAddress peer;
    // The kernel's software receive time, CLOCK_REALTIME.
    bool hasReceiveTime = false;
    timespec receiveTime{};
    // -1 when the datagram came without it.
    int ttl = -1;
    int tos = -1;
};

// A datagram sent, as the kernel loops it back with its transmit time: the
// frame from wherever the device saw it (link, network or transport header
// first), cut to the first bytes.
struct TransmitStamp {
    std::vector<uint8_t> looped;
    timespec transmitTime{};
};

class ReflectorSocket {
  public:
    // Binds address (numeric) and port; false with a message on failure.
    bool open(const std::string& address, uint16_t port, std::string& error);
    // Closes the socket: datagrams that arrive meanwhile are answered by the
    // kernel with port unreachable.
    void close();
    // Binds the address and port of the last open again (the port it got, when 0 was asked).
    bool reopen(std::string& error);
    bool isOpen() const { return fd_.valid(); }
    int fd() const { return fd_.get(); }
    uint16_t boundPort() const { return boundPort_; }

    // Reads one waiting datagram; false when none waits (or on a read error).
    bool receive(ReceivedDatagram& datagram);
    // Sends one datagram; 0 or the errno of the failure.
    int send(const uint8_t* data, std::size_t length, const PeerAddress& peer, uint8_t ttl,
             uint8_t tos);
    // Reads one transmit timestamp from the error queue; false when none waits.
    bool receiveTransmitStamp(TransmitStamp& stamp);

    // Text of an address and port, [v6]:port or v4:port.
    static std::string describe(const PeerAddress& peer);

  private:
    bool configure(int family, bool dualStack, std::string& error);
    void enlargeReceiveBuffer();
    static void readControl(msghdr& message, ReceivedDatagram& datagram);

    FileDescriptor fd_;
    std::string address_;
    uint16_t boundPort_ = 0;
    std::vector<uint8_t> buffer_ = std::vector<uint8_t>(65536);
};

#endif  // TWAMP_REFLECTOR_SOCKET_H
