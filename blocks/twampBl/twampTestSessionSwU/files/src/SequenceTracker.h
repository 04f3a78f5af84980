// The sequence numbers of one session's replies, one set per minute parity:
// the next sender number expected, the next reflector number expected, and
// the numbers of each direction presumed lost in the minute.
//
// The session asks it whether the reflector restarted or renumbered its
// replies, and has it book each reply's two numbers into the lost, late and
// duplicate counters of the reply's minute. What to do about a restart (the
// minute is void) stays with the session.
#ifndef TWAMP_SEQUENCE_TRACKER_H
#define TWAMP_SEQUENCE_TRACKER_H

#include <cstdint>
#include <vector>

#include "MissingSequenceList.h"

// The two sequence numbers of a reply, and whether it is the first reply
// to its packet (a later one is a copy).
struct ReplyNumbers {
    uint32_t senderSeqNo;
    uint32_t responderSeqNo;
    bool firstReply;
};

// The counters of one direction of one minute that sequence tracking adds to.
struct SequenceCounters {
    int64_t& lost;
    int64_t& late;
    int64_t& duplicate;
};

class SequenceTracker {
  public:
    // Tracks the replies of a session sending packetsPerSecond packets a second.
    explicit SequenceTracker(int32_t packetsPerSecond);
    virtual ~SequenceTracker();

    // Starts a minute of a parity: nothing missing, no reply seen yet, and
    // nextSenderSeqNo the first sender number the minute expects.
    virtual void startMinute(int parity, uint32_t nextSenderSeqNo);
    // True when the reflector's number went back while ours jumped ahead by
    // more than 4 s worth of packets: the reflector restarted.
    virtual bool isBroken(const ReplyNumbers& reply, int parity) const;
    // True when the reflector numbers its replies anew from a lower number
    // on the first reply to a packet sent in order.
    virtual bool isResponderRenumbered(const ReplyNumbers& reply, int parity) const;
    // Follows both numbers of the reply from here on, without counting anything.
    virtual void resynchronise(const ReplyNumbers& reply, int parity);
    // Follows the reflector's new numbering from the reply on.
    virtual void followRenumbering(const ReplyNumbers& reply, int parity);
    // Books the reflector's number of the reply into counters; returns the
    // number of packets newly counted lost on the way back.
    virtual uint32_t trackReverse(const ReplyNumbers& reply, int parity,
                                  const SequenceCounters& counters, bool& counted);
    // Books the sender's number of the reply into counters; a gap of at most
    // allowance packets is not counted lost.
    virtual void trackForward(const ReplyNumbers& reply, int parity,
                              const SequenceCounters& counters, uint32_t allowance, bool& counted);
    // Lists count sender numbers from first missing (the unanswered last
    // packets of a minute).
    virtual void appendMissingForward(int parity, uint32_t first, uint64_t count);
    // The runs of missing sender numbers of a parity.
    virtual LossRuns forwardRuns(int parity) const;
    // The runs of missing reflector numbers of a parity.
    virtual LossRuns reverseRuns(int parity) const;

    // The next sender number a parity expects.
    virtual uint32_t getLastSenderSeqNo(int parity) const;
    // The next reflector number a parity expects.
    virtual uint32_t getExpectedResponderSeqNo(int parity) const;
    // The sender numbers a parity lists missing.
    virtual std::vector<uint32_t> getMissingSenderSeqNos(int parity) const;
    // The reflector numbers a parity lists missing.
    virtual std::vector<uint32_t> getMissingResponderSeqNos(int parity) const;
    // How far the sender number may jump before a reflector restart is assumed.
    virtual uint8_t getJumpLimit() const;

  private:
    static constexpr int kParityCount = 2;

    bool responderWentBack(const ReplyNumbers& reply, int parity) const;

    int32_t packetsPerSecond;
    // Rates above 63 packets per second wrap: the limit is kept in 8 bits.
    uint8_t sequenceJumpLimit;
    MissingSequenceList missingSenderSeqNos[kParityCount];
    MissingSequenceList missingResponderSeqNos[kParityCount];
    uint32_t expectedResponderSeqNo[kParityCount] = {0, 0};
    // A reply of the minute has set expectedResponderSeqNo. Not told by the
    // number itself: after the reflector's 4294967295 the next expected is 0.
    bool responderSeen[kParityCount] = {false, false};
    uint32_t lastSenderSeqNo[kParityCount] = {0, 0};
};

#endif  // TWAMP_SEQUENCE_TRACKER_H
