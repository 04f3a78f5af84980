// A sent test packet awaiting its reply and its kernel transmit timestamp.
//
// The two arrive independently and in either order: the transmit timestamp
// (T1Prime) from the socket's error queue, the reply with T2, T3, the
// reflector's sequence number and Sender TTL, its receive timestamp T4 and
// its TTL and DSCP. The packet is analysed once both are present.
#ifndef TWAMP_OUTSTANDING_PACKET_H
#define TWAMP_OUTSTANDING_PACKET_H

#include <sys/socket.h>

#include <cstdint>

class SocketHelper;

class OutstandingPacket {
  public:
    // A packet sent with senderSeqNo at t1 (NTP); every other field is 0.
    OutstandingPacket(uint32_t senderSeqNo, uint64_t t1);
    OutstandingPacket(const OutstandingPacket&) = delete;
    OutstandingPacket& operator=(const OutstandingPacket&) = delete;
    virtual ~OutstandingPacket();

    // Stores the kernel transmit timestamp of msg as T1Prime (0 when absent).
    virtual void setTxTimestamp(const struct msghdr* msg);
    // Takes the reply in msg's first I/O vector, its receive timestamp, TTL
    // and DSCP; counts one more reply. A later reply overwrites all of them.
    virtual void setResponse(const struct msghdr* msg, SocketHelper& socketHelper);
    // Reflector receive time T2.
    virtual uint64_t getT2() const;
    // Reflector send time T3.
    virtual uint64_t getT3() const;
    // Kernel transmit timestamp, 0 while unknown.
    virtual uint64_t getT1Prime() const;
    // Send time written into the packet.
    virtual uint64_t getT1() const;
    // Kernel receive timestamp of the reply, 0 until a reply came.
    virtual uint64_t getT4() const;
    // DSCP of the reply.
    virtual uint32_t getReplyDscp() const;
    // Sequence Number sent.
    virtual uint32_t getSenderSeqNo() const;
    // Replies matched so far.
    virtual uint32_t getReplyCount() const;

    // Sender TTL of the reply: the TTL with which the packet reached the reflector.
    uint8_t getSenderTtl() const;
    // TTL or hop limit of the received reply.
    uint8_t getReplyTtl() const;
    // The reflector's Sequence Number.
    uint32_t getResponderSeqNo() const;

    // Restores what is known of a packet taken out of a session's store:
    // its transmit timestamp (0 while unknown) and the replies matched so far.
    void restore(uint64_t t1PrimeSoFar, uint32_t replyCountSoFar);

  private:
    uint32_t senderSeqNo;
    uint64_t t1;
    uint64_t t1Prime = 0;
    uint8_t senderTtl = 0;
    uint32_t responderSeqNo = 0;
    uint64_t t2 = 0;
    uint64_t t3 = 0;
    uint64_t t4 = 0;
    uint8_t replyTtl = 0;
    uint32_t replyDscp = 0;
    uint32_t replyCount = 0;
};

#endif  // TWAMP_OUTSTANDING_PACKET_H
