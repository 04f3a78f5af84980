#include "SequenceTracker.h"

namespace {

// The 8-bit sequence jump limit: four seconds of packets, truncated.
uint8_t jumpLimitFor(uint32_t packetsPerSecond) {
    return static_cast<uint8_t>(packetsPerSecond * 4);
}

// How far back a reflector number can lie when the packet overtook others
// on the way to the reflector: the packets numbered between it and the
// expected number reached the reflector while it was on its way, within
// the 4 s a reply may take, and were sent at most 4 s before it. Eight
// seconds of packets, at least eight packets.
uint32_t overtakingWindowFor(int32_t packetsPerSecond) {
    constexpr uint32_t kWindowSeconds = 8;
    return kWindowSeconds * static_cast<uint32_t>(packetsPerSecond > 1 ? packetsPerSecond : 1);
}

// The reflector's number went back from the expected one by more than
// overtaking on the way out can explain.
bool wentBackBeyondOvertaking(uint32_t expected, uint32_t responderSeqNo,
                              int32_t packetsPerSecond) {
    return expected - responderSeqNo > overtakingWindowFor(packetsPerSecond);
}

// Books received sequence number seq against the expected one: a gap beyond
// the allowance is counted lost and its numbers listed missing; an earlier
// number is late when it was listed missing, otherwise a duplicate, unless
// it is a packet's first reply: that one is no duplicate, its number went
// back past where the minute's tracking of this direction began (the
// minute's first reply may have overtaken it), and the other direction may
// still find it missing. counted is shared by both directions of one
// packet, so a packet adds at most one late or duplicate count. Returns the
// number of packets newly counted lost.
uint32_t trackSequence(uint32_t seq, uint32_t& expected, MissingSequenceList& missing,
                       const SequenceCounters& counters, uint32_t allowance, bool firstReply,
                       bool& counted) {
    // Serial-number order, so that a number wrapping from 2^32 - 1 to 0
    // inside a minute is a step forward.
    if (static_cast<int32_t>(seq - expected) > 0) {
        const uint32_t gap = seq - expected;
        uint32_t newlyLost = 0;
        if (static_cast<int32_t>(gap) > static_cast<int32_t>(allowance)) {
            newlyLost = gap - allowance;
            counters.lost += newlyLost;
            missing.append(expected, newlyLost);
        }
        expected = seq + 1;
        return newlyLost;
    }
    if (expected == seq) {
        expected = seq + 1;
        return 0;
    }
    if (counted) {
        return 0;
    }
    if (missing.remove(seq)) {
        counters.lost -= 1;
        counters.late += 1;
        counted = true;
    } else if (!firstReply) {
        counters.duplicate += 1;
        counted = true;
    }
    return 0;
}

}  // namespace

// The session's rate came in as an unsigned create field: the limit is
// taken from that value.
SequenceTracker::SequenceTracker(int32_t packetsPerSecond)
    : packetsPerSecond(packetsPerSecond),
      sequenceJumpLimit(jumpLimitFor(static_cast<uint32_t>(packetsPerSecond))) {}

SequenceTracker::~SequenceTracker() = default;

void SequenceTracker::startMinute(int parity, uint32_t nextSenderSeqNo) {
    missingSenderSeqNos[parity].clear();
    missingResponderSeqNos[parity].clear();
    expectedResponderSeqNo[parity] = 0;
    responderSeen[parity] = false;
    lastSenderSeqNo[parity] = nextSenderSeqNo;
}

bool SequenceTracker::isBroken(const ReplyNumbers& reply, int parity) const {
    // The reflector's number went back while ours jumped ahead by more than
    // 4 s worth of packets.
    const auto senderJump = static_cast<int32_t>(reply.senderSeqNo - lastSenderSeqNo[parity]);
    // A number that went back no further than overtaking on the way out can
    // take it is a packet that overtook others, also after a loss.
    return responderWentBack(reply, parity) && senderJump > sequenceJumpLimit &&
           wentBackBeyondOvertaking(expectedResponderSeqNo[parity], reply.responderSeqNo,
                                    packetsPerSecond);
}

bool SequenceTracker::isResponderRenumbered(const ReplyNumbers& reply, int parity) const {
    // The reflector's number went back on the first reply to a packet sent
    // in order: a reflector that restarted and numbers its replies from 0
    // again after a pause too short to count as a restart. A late or
    // repeated reply has gone back in both numbers.
    const auto senderJump = static_cast<int32_t>(reply.senderSeqNo - lastSenderSeqNo[parity]);
    // A number listed missing is a late reply whose packet overtook another
    // on the way out, not a new numbering; so is a number that went back no
    // further than overtaking can take it (the minute's first reply may
    // have been overtaken, before anything was listed missing).
    return responderWentBack(reply, parity) && senderJump >= 0 && reply.firstReply &&
           !missingResponderSeqNos[parity].contains(reply.responderSeqNo) &&
           wentBackBeyondOvertaking(expectedResponderSeqNo[parity], reply.responderSeqNo,
                                    packetsPerSecond);
}

bool SequenceTracker::responderWentBack(const ReplyNumbers& reply, int parity) const {
    const uint32_t expected = expectedResponderSeqNo[parity];
    return responderSeen[parity] && static_cast<int32_t>(reply.responderSeqNo - expected) < 0;
}

void SequenceTracker::resynchronise(const ReplyNumbers& reply, int parity) {
    lastSenderSeqNo[parity] = reply.senderSeqNo + 1;
    expectedResponderSeqNo[parity] = reply.responderSeqNo + 1;
    responderSeen[parity] = true;
}

void SequenceTracker::followRenumbering(const ReplyNumbers& reply, int parity) {
    // The new numbering is followed from here on; its replies are neither
    // late nor duplicates.
    expectedResponderSeqNo[parity] = reply.responderSeqNo + 1;
}

uint32_t SequenceTracker::trackReverse(const ReplyNumbers& reply, int parity,
                                       const SequenceCounters& counters, bool& counted) {
    // The first reply of the minute only sets the pace.
    if (!responderSeen[parity]) {
        expectedResponderSeqNo[parity] = reply.responderSeqNo + 1;
        responderSeen[parity] = true;
        return 0;
    }
    return trackSequence(reply.responderSeqNo, expectedResponderSeqNo[parity],
                         missingResponderSeqNos[parity], counters, 0, reply.firstReply, counted);
}

void SequenceTracker::trackForward(const ReplyNumbers& reply, int parity,
                                   const SequenceCounters& counters, uint32_t allowance,
                                   bool& counted) {
    trackSequence(reply.senderSeqNo, lastSenderSeqNo[parity], missingSenderSeqNos[parity], counters,
                  allowance, reply.firstReply, counted);
}

void SequenceTracker::appendMissingForward(int parity, uint32_t first, uint64_t count) {
    missingSenderSeqNos[parity].append(first, count);
}

LossRuns SequenceTracker::forwardRuns(int parity) const {
    return missingSenderSeqNos[parity].runs();
}

LossRuns SequenceTracker::reverseRuns(int parity) const {
    return missingResponderSeqNos[parity].runs();
}

uint32_t SequenceTracker::getLastSenderSeqNo(int parity) const {
    return lastSenderSeqNo[parity];
}

uint32_t SequenceTracker::getExpectedResponderSeqNo(int parity) const {
    return expectedResponderSeqNo[parity];
}

std::vector<uint32_t> SequenceTracker::getMissingSenderSeqNos(int parity) const {
    return missingSenderSeqNos[parity].entries(UINT64_MAX);
}

std::vector<uint32_t> SequenceTracker::getMissingResponderSeqNos(int parity) const {
    return missingResponderSeqNos[parity].entries(UINT64_MAX);
}

uint8_t SequenceTracker::getJumpLimit() const {
    return sequenceJumpLimit;
}
