// What the simulation knows of every packet it let the session send and of
// every minute those packets were sent in: the ground truth a finalised
// minute is compared with.
#ifndef TWAMP_TESTS_SIMULATION_TRUTH_H
#define TWAMP_TESTS_SIMULATION_TRUTH_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "PmPeriodRecord.h"

// A minute of the session: the wall-clock minute number and the clock epoch
// (a step of the wall clock starts a new one, so a minute number measured
// again after the clock went back is another minute).
using MinuteKey = std::pair<uint32_t, uint32_t>;  // (epoch, minute)

// One packet sent whole, from its send to the last of its replies.
struct PacketTruth {
    uint64_t serial = 0;  // position in the run's send order (never wraps)
    uint32_t seqNo = 0;
    uint64_t t1 = 0;
    uint64_t t1Prime = 0;
    MinuteKey minute;
    // Still on its way to the reflector.
    bool outbound = true;
    bool reachedReflector = false;
    uint32_t responderSeqNo = 0;
    uint32_t incarnation = 0;
    // Its transmit timestamp has not been handed to the session yet.
    bool timestampPending = true;
    int copiesPending = 0;
    int copiesDelivered = 0;
    // Copies handed over before the transmit timestamp.
    int copiesBeforeTimestamp = 0;
    // A copy came back more than 4 s after the transmit timestamp.
    bool lateCopy = false;
    // The first copy handed to the session.
    uint64_t t2 = 0;
    uint64_t t3 = 0;
    uint64_t t4 = 0;
    uint8_t senderTtl = 0;
    uint8_t replyTtl = 0;
    uint8_t dscp = 0;
    // Order in which the session had both the first copy and the transmit
    // timestamp, i.e. could analyse the packet (0: not yet).
    uint64_t readyOrder = 0;
};

// One minute of sending.
struct MinuteTruth {
    uint64_t index = 0;   // order in which the minutes began
    int64_t startNs = 0;  // true time of the wall-clock minute's start and end
    int64_t endNs = 0;
    std::vector<uint32_t> seqNos;  // in send order
    // A packet of this minute and one of another minute reached the
    // reflector in the opposite order of their sending.
    bool crossedAtReflector = false;
    // Packets of this minute reached the reflector out of their order.
    bool reorderedAtReflector = false;
    uint64_t lastSerialAtReflector = 0;
    bool anyAtReflector = false;
    uint32_t firstIncarnation = 0;
    bool severalIncarnations = false;
};

// How far a finalised minute can be compared with the truth.
//   clean:    nothing disturbed it (no reflector restart, clock step or
//             stall near it), every reply came before the finalisation
//             (those later than 4 s count nowhere), its packets reached a
//             reflector of one
//             incarnation without crossing the packets of the minutes
//             around it. Its packet totals, duplicates, round-trip delays,
//             DSCP and TTL are exact.
//   inOrder:  clean, a reflector numbering its own replies, and the
//             packets reached the reflector and were analysed in the order
//             they were sent. The loss of each direction, late packets and
//             IPDV are exact too.
//   periodsComparable: inOrder, and every run of lost packets between two
//             answered ones was lost in one direction only, so the loss
//             periods are exact as well.
struct MinuteVerdict {
    bool clean = false;
    bool inOrder = false;
    bool periodsComparable = false;
    std::string reason;  // why it is not compared further
    // Packets overtook each other on the way out, so the reflector's
    // numbers do not follow the sender's: the loss arithmetic need not add
    // up, and lostPktsFwd alone is then -2, as documented.
    bool lostForwardMayBeVoid = false;
};

// One counter's expected value.
struct ExpectedValue {
    PmCounter::Index counter;
    int64_t value;
};

// What a finalised minute must report.
struct MinuteExpectation {
    std::vector<ExpectedValue> values;
    // lostPktsFwd + lostPktsRev: the packets without any reply.
    int64_t totalLost = 0;
    // A round trip or IPDV beyond 4 s (a reflector clock that was set)
    // invalidates the minute: every counter is -2.
    bool invalidated = false;
};

#endif  // TWAMP_TESTS_SIMULATION_TRUTH_H
