// The truth of each minute of a simulated session: it follows every packet
// the session sent (what the path and the reflector did to it, which copies
// of its reply reached the session and when) and derives what the minute's
// bin must say once the minute is finalised.
//
// The oracle counts what happened, not what the daemon computes: received
// copies, packets without any reply, extra copies, the round trip of each
// packet's first reply. Where the counters follow a documented convention,
// the oracle applies it: replies lost before the first and after the last
// answered packet of a minute count as lost forward; a run of lost packets
// between two answered ones is split by the reflector's numbers; the loss
// periods are run lengths times the packet interval in whole milliseconds.
#ifndef TWAMP_TESTS_MINUTE_ORACLE_H
#define TWAMP_TESTS_MINUTE_ORACLE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "SimulationTruth.h"

class MinuteOracle {
  public:
    MinuteOracle(uint32_t packetsPerSecond, bool statelessReflector);

    // The first packet of minute was sent; the minute began at true time startNs.
    void minuteBegins(const MinuteKey& minute, int64_t startNs);
    // Packet seqNo of minute left the sender.
    void packetSent(uint32_t seqNo, uint64_t t1, uint64_t t1Prime, const MinuteKey& minute);
    // Packet seqNo was lost on the way out (or the reflector was down).
    void packetLostOutbound(uint32_t seqNo);
    // Packet seqNo reached the reflector, which numbered it.
    void packetReachedReflector(uint32_t seqNo, uint32_t responderSeqNo, uint32_t incarnation);
    // One copy of the reply to seqNo is on its way back and will reach the session.
    void replyOnItsWay(uint32_t seqNo);
    // The session was handed the transmit timestamp of seqNo.
    void timestampDelivered(uint32_t seqNo);
    // The session was handed one copy of the reply to seqNo.
    void replyDelivered(uint32_t seqNo, uint64_t t2, uint64_t t3, uint64_t t4, uint8_t senderTtl,
                        uint8_t replyTtl, uint8_t dscp);
    // The reflector restarted at true time nowNs: until the session sees a
    // reply of the new incarnation (replyOfIncarnation), the restart may still
    // be detected, and the minutes around are no longer comparable.
    void reflectorRestarted(int64_t nowNs);
    // The session was handed a reply of the reflector's incarnation-th life.
    void replyOfIncarnation(uint32_t incarnation, int64_t nowNs);
    // Something happened between true times fromNs and toNs that the
    // minutes around it cannot be compared across.
    void disturbance(int64_t fromNs, int64_t toNs, const std::string& what);

    // The minutes not yet forgotten.
    std::vector<MinuteKey> minutes() const;
    bool knows(const MinuteKey& minute) const;
    MinuteVerdict judge(const MinuteKey& minute) const;
    MinuteExpectation expect(const MinuteKey& minute, const MinuteVerdict& verdict) const;
    // The truth of minute, for failure reports.
    std::string describe(const MinuteKey& minute) const;
    // Drops minute and its packets; later events for them are ignored.
    void forget(const MinuteKey& minute);

  private:
    struct Disturbance {
        int64_t fromNs;
        int64_t toNs;
        std::string what;
    };
    // Smallest and largest of a set of values.
    struct Range {
        int64_t min = 0;
        int64_t max = 0;
        bool any = false;
        void add(int64_t value);
    };

    PacketTruth* find(uint32_t seqNo);
    std::vector<const PacketTruth*> packetsOf(const MinuteTruth& minute) const;
    std::string disturbanceNear(const MinuteTruth& minute) const;
    static std::string unfinishedPacket(const std::vector<const PacketTruth*>& packets);
    static bool analysedInOrder(const std::vector<const PacketTruth*>& packets);
    static bool beyondFourSeconds(const std::vector<const PacketTruth*>& packets);
    template <typename Visit>
    static void forEachIpdvPair(const std::vector<const PacketTruth*>& packets, Visit visit);
    static bool gapsLostOneWay(const std::vector<const PacketTruth*>& packets);
    void markCrossing(uint64_t minuteIndex);
    void markCrossingOfStragglers();
    static void expectSampleCounters(const std::vector<const PacketTruth*>& packets,
                                     MinuteExpectation& expectation);
    static void expectIpdv(const std::vector<const PacketTruth*>& packets,
                           MinuteExpectation& expectation);
    static void expectDirections(const std::vector<const PacketTruth*>& packets,
                                 MinuteExpectation& expectation);
    void expectLossPeriods(const std::vector<const PacketTruth*>& packets,
                           MinuteExpectation& expectation) const;

    uint32_t packetsPerSecond;
    bool statelessReflector;
    std::map<MinuteKey, MinuteTruth> minuteTruths;
    std::unordered_map<uint32_t, PacketTruth> packets;
    std::vector<Disturbance> disturbances;
    // Restarts not yet followed by a reply of the new incarnation, as indices
    // into disturbances; the reflector's current incarnation.
    std::vector<std::size_t> restartsUnseen;
    uint32_t incarnation = 0;
    uint64_t nextSerial = 1;
    uint64_t nextMinuteIndex = 1;
    uint64_t deliveries = 0;
    uint64_t latestMinuteAtReflector = 0;
};

#endif  // TWAMP_TESTS_MINUTE_ORACLE_H
