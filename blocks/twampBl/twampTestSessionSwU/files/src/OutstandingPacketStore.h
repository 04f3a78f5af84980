// The packets a session has sent and not yet finalised, in send order.
//
// A session sends consecutive sequence numbers, and each minute's packets
// follow the previous minute's, so the packets live in one ring of small
// records indexed by sequence number: no allocation per packet, a lookup is
// a subtraction, and dropping a finalised minute moves the ring's start.
// The ring holds what a minute and its 4 s of late replies need (about 64 s
// of packets) and grows only when more is outstanding, e.g. after a stall.
//
// Replies that come before their packet's transmit timestamp wait aside,
// whole and every copy of them, until the timestamp arrives; that is rare,
// so only those pay for an object of their own.
#ifndef TWAMP_OUTSTANDING_PACKET_STORE_H
#define TWAMP_OUTSTANDING_PACKET_STORE_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <type_traits>
#include <vector>

#include "OutstandingPacket.h"

// What is kept of every sent packet until its minute is finalised.
struct SentPacket {
    uint64_t t1 = 0;       // send time written into the packet (NTP)
    uint64_t t1Prime = 0;  // kernel transmit timestamp, 0 while unknown
    uint32_t replyCount = 0;
    uint32_t minute = 0;  // wall-clock minute of the send
};

class OutstandingPacketStore {
  public:
    // capacity: the packets expected to be outstanding at once.
    explicit OutstandingPacketStore(std::size_t capacity = 0);
    OutstandingPacketStore(const OutstandingPacketStore&) = delete;
    OutstandingPacketStore& operator=(const OutstandingPacketStore&) = delete;
    virtual ~OutstandingPacketStore();

    // Records packet seqNo sent at t1 in minute. False, and nothing stored,
    // when seqNo does not follow the last packet stored (a sequence number
    // that is still outstanding after it wrapped round).
    virtual bool add(uint32_t seqNo, uint64_t t1, uint32_t minute);
    // The packet with seqNo, null when it is not outstanding.
    virtual SentPacket* find(uint32_t seqNo);
    virtual const SentPacket* find(uint32_t seqNo) const;

    // Books one more reply to packet seqNo (which must be outstanding) and
    // returns its reply count.
    virtual uint32_t countReply(uint32_t seqNo);
    // Replies beyond the first, over the packets of minute.
    virtual uint64_t extraRepliesOf(uint32_t minute) const;
    // Number of packets of minute.
    virtual std::size_t countOf(uint32_t minute) const;
    // Sequence number of the last packet of minute; countOf(minute) must be above 0.
    virtual uint32_t lastSeqNoOf(uint32_t minute) const;
    // Minutes with packets, oldest first.
    virtual std::vector<uint32_t> minutes() const;

    // Keeps a reply whose transmit timestamp is still unknown, after the
    // copies of the same packet's reply held before it.
    virtual void holdReply(std::unique_ptr<OutstandingPacket> packet);
    // The held replies of packet seqNo in the order they came; empty when none.
    virtual std::vector<OutstandingPacket*> heldReplies(uint32_t seqNo) const;
    // Forgets the held replies of packet seqNo.
    virtual void releaseReplies(uint32_t seqNo);
    // True when a reply of minute is held for a transmit timestamp that has
    // not come.
    virtual bool awaitsTimestamp(uint32_t minute) const;

    // Forgets the packets of minute, with every older minute's that is still
    // stored, and their held replies.
    virtual void dropMinute(uint32_t minute);
    // Forgets everything.
    virtual void clear();
    // Number of packets stored.
    virtual std::size_t size() const;
    // Records the ring has room for before it grows.
    virtual std::size_t capacity() const;

  private:
    // The packets of one minute: a stretch of consecutive sequence numbers.
    struct MinuteSpan {
        uint32_t minute;
        uint32_t firstSeqNo;
        std::size_t count;
        uint64_t extraReplies;
    };

    SentPacket& at(std::size_t index);
    const SentPacket& at(std::size_t index) const;
    bool indexOf(uint32_t seqNo, std::size_t& index) const;
    void grow();
    const MinuteSpan* spanOf(uint32_t minute) const;
    MinuteSpan* spanOf(uint32_t minute);
    void dropFront();

    // Slots left unwritten until a packet is added into them: a new ring
    // (64.5 s of packets, 7.5 MiB at 5000 packets/s) costs no writes, and
    // its pages are touched as the packets come.
    using Slot = std::aligned_storage_t<sizeof(SentPacket), alignof(SentPacket)>;
    std::unique_ptr<Slot[]> slots;
    std::size_t slotCount = 0;
    std::size_t head = 0;   // index of the oldest packet in the ring
    std::size_t count = 0;  // packets stored
    uint32_t firstSeqNo = 0;
    std::deque<MinuteSpan> spans;  // oldest first
    std::map<uint32_t, std::vector<std::unique_ptr<OutstandingPacket>>> held;
};

#endif  // TWAMP_OUTSTANDING_PACKET_STORE_H
