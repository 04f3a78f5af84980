// Turns a received test packet (sender layout) into its reply (reflector
// layout) in place, on the daemon's own packet views. The reply keeps the
// request's length.
#ifndef TWAMP_REFLECTOR_REPLY_BUILDER_H
#define TWAMP_REFLECTOR_REPLY_BUILDER_H

#include <cstddef>
#include <cstdint>

// The fields of the sender's packet that the reply echoes.
struct SenderFields {
    uint32_t sequenceNumber = 0;
    uint64_t timestamp = 0;
    uint16_t errorEstimate = 0;
};

// What the reflector adds.
struct ReplyStamp {
    uint32_t reflectorSequence = 0;
    // T2 and T3, NTP.
    uint64_t receiveTimestamp = 0;
    uint64_t transmitTimestamp = 0;
    // The TTL or hop limit with which the request arrived.
    uint8_t senderTtl = 0;
    // Added to the echoed sender timestamp, NTP units: 0 but for a corrupting reflector.
    int64_t senderTimestampOffset = 0;
};

class ReplyBuilder {
  public:
    // Below this a datagram holds no sender packet.
    static constexpr std::size_t kMinimumRequestLength = 14;
    // A reply is read up to its Sender TTL byte, so shorter requests get no reply.
    static constexpr std::size_t kMinimumReplyLength = 41;

    // The sender fields of a packet of at least kMinimumRequestLength bytes.
    static SenderFields readSender(uint8_t* buffer, std::size_t length);

    // Rewrites a request of at least kMinimumReplyLength bytes into its reply:
    // the sender's padding moves behind the reflector fields (its last 27
    // bytes are lost), both MBZ fields are zeroed and every field is written.
    static void build(uint8_t* buffer, std::size_t length, const ReplyStamp& stamp);
};

#endif  // TWAMP_REFLECTOR_REPLY_BUILDER_H
