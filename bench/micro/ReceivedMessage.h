// One message as the daemon's socket hands it to a session, laid out the way
// the kernel delivers it on a veth with software timestamps: a looped-back
// IPv4 frame of a sent packet with its SCM_TIMESTAMPING item, or a reflected
// packet with SCM_TIMESTAMPING, IP_TTL and IP_TOS items, in that order.
#ifndef TWAMP_BENCH_RECEIVED_MESSAGE_H
#define TWAMP_BENCH_RECEIVED_MESSAGE_H

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

#include "ControlBuffer.h"

class ReceivedMessage {
  public:
    // Test packets of this many bytes (the daemon's default size).
    static constexpr std::size_t kPacketLength = 64;
    // IPv4 header without options plus UDP header.
    static constexpr std::size_t kLoopedHeaderLength = 28;

    ReceivedMessage();
    ReceivedMessage(const ReceivedMessage&) = delete;
    ReceivedMessage& operator=(const ReceivedMessage&) = delete;

    // The looped-back frame of packet senderSeqNo sent at t1, transmitted at t1Prime.
    void makeLoopedFrame(uint32_t senderSeqNo, uint64_t t1, uint64_t t1Prime);
    // The reply to packet senderSeqNo sent at t1, received at t4 with a TTL
    // and TOS byte.
    void makeReply(uint32_t senderSeqNo, uint64_t t1, uint32_t responderSeqNo, uint64_t t2,
                   uint64_t t3, uint64_t t4, uint8_t senderTtl, int replyTtl, uint8_t replyTos);

    struct msghdr* header() {
        return &messageHeader;
    }
    ssize_t length() const { return static_cast<ssize_t>(ioVector.iov_len); }

  private:
    static constexpr std::size_t kControlSize = 128;

    void resetControl();
    void appendTimestamp(uint64_t ntp);

    uint8_t payload[kLoopedHeaderLength + kPacketLength];
    twamp_test::ControlBuffer control{kControlSize};
    struct iovec ioVector;
    struct msghdr messageHeader;
};

#endif  // TWAMP_BENCH_RECEIVED_MESSAGE_H
