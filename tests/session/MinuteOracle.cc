#include "MinuteOracle.h"

#include <algorithm>
#include <climits>
#include <functional>
#include <sstream>

#include "SimulationTime.h"

namespace {

using simulation_time::kFourSecondsInMicroseconds;
using simulation_time::kSecond;
using simulation_time::ntpDifferenceToMicroseconds;

constexpr int64_t kNotAvailable = PmPeriodRecord::kNotAvailable;
// Disturbances this close to a minute (true time) make it incomparable:
// replies take up to 5 s, a restarted reflector is down up to 9 s, and a
// restart seen in the first 4 s of a minute voids the minute before.
constexpr int64_t kDisturbanceMarginNs = 20 * kSecond;
// At most this many packets are listed in a minute's description.
constexpr std::size_t kDescribedPackets = 60;

// The counters that only a minute with delay samples fills.
constexpr PmCounter::Index kSampleCounters[] = {
    PmCounter::delayRtAvg, PmCounter::delayRtMax, PmCounter::delayRtMin, PmCounter::delayRtP95,
    PmCounter::delayRtP98, PmCounter::delayRtP99, PmCounter::dscpRevMax, PmCounter::dscpRevMin,
    PmCounter::ipdvFwdAvg, PmCounter::ipdvFwdMax, PmCounter::ipdvFwdMin, PmCounter::ipdvFwdP95,
    PmCounter::ipdvFwdP98, PmCounter::ipdvFwdP99, PmCounter::ipdvRevAvg, PmCounter::ipdvRevMax,
    PmCounter::ipdvRevMin, PmCounter::ipdvRevP95, PmCounter::ipdvRevP98, PmCounter::ipdvRevP99,
    PmCounter::ttlFwdMax,  PmCounter::ttlRevMax,  PmCounter::ttlFwdMin,  PmCounter::ttlRevMin,
};

// The round trip without the reflector's residence, in microseconds.
uint64_t roundTripOf(const PacketTruth& packet) {
    return ntpDifferenceToMicroseconds(packet.t4 + packet.t2 - packet.t1Prime - packet.t3);
}

// The one-way delays: the clocks of sender and reflector need not agree, so
// either may be negative.
int64_t forwardDelayOf(const PacketTruth& packet) {
    return simulation_time::ntpDifferenceToSignedMicroseconds(packet.t2 - packet.t1Prime);
}

int64_t reverseDelayOf(const PacketTruth& packet) {
    return simulation_time::ntpDifferenceToSignedMicroseconds(packet.t4 - packet.t3);
}

// The sample whose rank from the top matches percentile: of n samples in
// descending order, the one at position n - round(percentile% of n).
int64_t percentileOf(const std::vector<uint64_t>& descending, int percentile) {
    const auto count = static_cast<uint32_t>(descending.size());
    const auto below = static_cast<uint32_t>(percentile / 100.0 * count + 0.5);
    const uint32_t position = std::min(count - below, count - 1);
    return static_cast<int64_t>(descending[position]);
}

// Average, maximum, minimum and the three percentiles of samples; with no
// samples 0, 0, 0 and no percentiles, as a minute reports an IPDV without
// any increase.
void expectStatistics(std::vector<uint64_t> samples, PmCounter::Index avg, PmCounter::Index max,
                      PmCounter::Index min, PmCounter::Index p95, PmCounter::Index p98,
                      PmCounter::Index p99, MinuteExpectation& expectation) {
    auto& values = expectation.values;
    if (samples.empty()) {
        values.push_back({avg, 0});
        values.push_back({max, 0});
        values.push_back({min, 0});
        values.push_back({p95, kNotAvailable});
        values.push_back({p98, kNotAvailable});
        values.push_back({p99, kNotAvailable});
        return;
    }
    std::sort(samples.begin(), samples.end(), std::greater<uint64_t>());
    uint64_t sum = 0;
    for (uint64_t sample : samples) {
        sum += sample;
    }
    values.push_back({avg, static_cast<int64_t>(sum / samples.size())});
    values.push_back({max, static_cast<int64_t>(samples.front())});
    values.push_back({min, static_cast<int64_t>(samples.back())});
    values.push_back({p95, percentileOf(samples, 95)});
    values.push_back({p98, percentileOf(samples, 98)});
    values.push_back({p99, percentileOf(samples, 99)});
}

}  // namespace

void MinuteOracle::Range::add(int64_t value) {
    if (!any) {
        min = value;
        max = value;
        any = true;
        return;
    }
    min = std::min(min, value);
    max = std::max(max, value);
}

MinuteOracle::MinuteOracle(uint32_t packetsPerSecond, bool statelessReflector)
    : packetsPerSecond(packetsPerSecond), statelessReflector(statelessReflector) {}

void MinuteOracle::minuteBegins(const MinuteKey& minute, int64_t startNs) {
    MinuteTruth& truth = minuteTruths[minute];
    truth.index = nextMinuteIndex++;
    truth.startNs = startNs;
    truth.endNs = startNs + simulation_time::kMinute;
}

void MinuteOracle::packetSent(uint32_t seqNo, uint64_t t1, uint64_t t1Prime,
                              const MinuteKey& minute) {
    PacketTruth& packet = packets[seqNo];
    packet = PacketTruth();
    packet.serial = nextSerial++;
    packet.seqNo = seqNo;
    packet.t1 = t1;
    packet.t1Prime = t1Prime;
    packet.minute = minute;
    minuteTruths.at(minute).seqNos.push_back(seqNo);
}

void MinuteOracle::packetLostOutbound(uint32_t seqNo) {
    if (PacketTruth* packet = find(seqNo)) {
        packet->outbound = false;
    }
}

void MinuteOracle::packetReachedReflector(uint32_t seqNo, uint32_t responderSeqNo,
                                          uint32_t incarnation) {
    PacketTruth* packet = find(seqNo);
    if (packet == nullptr) {
        // A packet of a minute already finalised, so late that the minutes
        // after it have packets numbered before it.
        markCrossingOfStragglers();
        return;
    }
    packet->outbound = false;
    packet->reachedReflector = true;
    packet->responderSeqNo = responderSeqNo;
    packet->incarnation = incarnation;
    MinuteTruth& minute = minuteTruths.at(packet->minute);
    if (minute.anyAtReflector) {
        minute.reorderedAtReflector |= packet->serial < minute.lastSerialAtReflector;
        minute.severalIncarnations |= incarnation != minute.firstIncarnation;
    } else {
        minute.firstIncarnation = incarnation;
    }
    minute.anyAtReflector = true;
    minute.lastSerialAtReflector = std::max(minute.lastSerialAtReflector, packet->serial);
    if (minute.index < latestMinuteAtReflector) {
        markCrossing(minute.index);
    }
    latestMinuteAtReflector = std::max(latestMinuteAtReflector, minute.index);
}

void MinuteOracle::markCrossing(uint64_t minuteIndex) {
    // The late packet's minute and every later one that reached the
    // reflector before it: their numbers are interleaved.
    for (auto& entry : minuteTruths) {
        MinuteTruth& minute = entry.second;
        if (minute.index >= minuteIndex && minute.index <= latestMinuteAtReflector) {
            minute.crossedAtReflector = true;
        }
    }
}

void MinuteOracle::markCrossingOfStragglers() {
    for (auto& entry : minuteTruths) {
        if (entry.second.anyAtReflector) {
            entry.second.crossedAtReflector = true;
        }
    }
}

void MinuteOracle::replyOnItsWay(uint32_t seqNo) {
    if (PacketTruth* packet = find(seqNo)) {
        ++packet->copiesPending;
    }
}

void MinuteOracle::timestampDelivered(uint32_t seqNo) {
    ++deliveries;
    PacketTruth* packet = find(seqNo);
    if (packet == nullptr) {
        return;
    }
    packet->timestampPending = false;
    if (packet->copiesDelivered > 0 && packet->readyOrder == 0) {
        packet->readyOrder = deliveries;
    }
}

void MinuteOracle::replyDelivered(uint32_t seqNo, uint64_t t2, uint64_t t3, uint64_t t4,
                                  uint8_t senderTtl, uint8_t replyTtl, uint8_t dscp) {
    ++deliveries;
    PacketTruth* packet = find(seqNo);
    if (packet == nullptr) {
        return;
    }
    --packet->copiesPending;
    if (t4 - packet->t1Prime > kNtpFourSeconds) {
        // The session discards it: it counts nowhere.
        packet->lateCopy = true;
        return;
    }
    ++packet->copiesDelivered;
    packet->copiesBeforeTimestamp += packet->timestampPending ? 1 : 0;
    if (packet->copiesDelivered > 1) {
        return;
    }
    packet->t2 = t2;
    packet->t3 = t3;
    packet->t4 = t4;
    packet->senderTtl = senderTtl;
    packet->replyTtl = replyTtl;
    packet->dscp = dscp;
    if (!packet->timestampPending) {
        packet->readyOrder = deliveries;
    }
}

void MinuteOracle::reflectorRestarted(int64_t nowNs) {
    ++incarnation;
    restartsUnseen.push_back(disturbances.size());
    disturbances.push_back({nowNs, INT64_MAX - kDisturbanceMarginNs, "the reflector restarted"});
}

void MinuteOracle::replyOfIncarnation(uint32_t replyIncarnation, int64_t nowNs) {
    if (replyIncarnation != incarnation) {
        return;
    }
    // The session has seen the new numbering: the restart is detected now
    // or never.
    for (std::size_t index : restartsUnseen) {
        disturbances[index].toNs = nowNs;
    }
    restartsUnseen.clear();
}

void MinuteOracle::disturbance(int64_t fromNs, int64_t toNs, const std::string& what) {
    disturbances.push_back({fromNs, toNs, what});
}

std::vector<MinuteKey> MinuteOracle::minutes() const {
    std::vector<MinuteKey> keys;
    for (const auto& entry : minuteTruths) {
        keys.push_back(entry.first);
    }
    return keys;
}

bool MinuteOracle::knows(const MinuteKey& minute) const {
    return minuteTruths.count(minute) != 0;
}

MinuteVerdict MinuteOracle::judge(const MinuteKey& key) const {
    MinuteVerdict verdict;
    const MinuteTruth& minute = minuteTruths.at(key);
    const std::vector<const PacketTruth*> sent = packetsOf(minute);
    verdict.reason = disturbanceNear(minute);
    if (verdict.reason.empty() && minute.crossedAtReflector) {
        verdict.reason = "its packets crossed those of a minute around it on the way out";
    }
    if (verdict.reason.empty() && minute.severalIncarnations) {
        verdict.reason = "answered by two incarnations of the reflector";
    }
    if (verdict.reason.empty()) {
        verdict.reason = unfinishedPacket(sent);
    }
    if (!verdict.reason.empty()) {
        return verdict;
    }
    verdict.clean = true;
    verdict.lostForwardMayBeVoid = minute.reorderedAtReflector;
    if (statelessReflector) {
        verdict.reason = "stateless reflector: the directions are not told apart";
    } else if (minute.reorderedAtReflector) {
        verdict.reason = "packets reordered on the way out";
    } else if (!analysedInOrder(sent)) {
        verdict.reason = "packets analysed out of order";
    } else {
        verdict.inOrder = true;
        verdict.periodsComparable = gapsLostOneWay(sent);
        if (!verdict.periodsComparable) {
            verdict.reason = "a run of lost packets was lost in both directions";
        }
    }
    return verdict;
}

MinuteExpectation MinuteOracle::expect(const MinuteKey& key, const MinuteVerdict& verdict) const {
    MinuteExpectation expectation;
    const std::vector<const PacketTruth*> sent = packetsOf(minuteTruths.at(key));
    int64_t received = 0;
    int64_t duplicates = 0;
    for (const PacketTruth* packet : sent) {
        received += packet->copiesDelivered;
        duplicates += std::max(0, packet->copiesDelivered - 1);
        expectation.totalLost += packet->copiesDelivered == 0 ? 1 : 0;
    }
    auto& values = expectation.values;
    values.push_back({PmCounter::sentPkts, static_cast<int64_t>(sent.size())});
    values.push_back({PmCounter::receivedPkts, received});
    // Every duplicate of the simulation is a reply doubled on its way back.
    values.push_back({PmCounter::duplicatePktsFwd, 0});
    values.push_back({PmCounter::duplicatePktsRev, duplicates});
    expectSampleCounters(sent, expectation);
    if (verdict.inOrder) {
        expectDirections(sent, expectation);
    }
    if (verdict.periodsComparable) {
        expectLossPeriods(sent, expectation);
    }
    if (beyondFourSeconds(sent)) {
        // The minute is invalidated whole.
        expectation.values.clear();
        for (int counter = 0; counter < PmPeriodRecord::kCounterCount; ++counter) {
            expectation.values.push_back({static_cast<PmCounter::Index>(counter), kNotAvailable});
        }
        expectation.invalidated = true;
    }
    return expectation;
}

template <typename Visit>
void MinuteOracle::forEachIpdvPair(const std::vector<const PacketTruth*>& sent, Visit visit) {
    // A packet gives IPDV samples against the one before it in sequence
    // when both were answered and that one was analysed first.
    for (std::size_t index = 1; index < sent.size(); ++index) {
        const PacketTruth& previous = *sent[index - 1];
        const PacketTruth& packet = *sent[index];
        if (previous.copiesDelivered == 0 || packet.copiesDelivered == 0 ||
            previous.readyOrder > packet.readyOrder) {
            continue;
        }
        visit(previous, packet);
    }
}

void MinuteOracle::expectSampleCounters(const std::vector<const PacketTruth*>& sent,
                                        MinuteExpectation& expectation) {
    std::vector<uint64_t> roundTrips;
    Range dscp;
    Range ttlFwd;
    Range ttlRev;
    for (const PacketTruth* packet : sent) {
        if (packet->copiesDelivered == 0) {
            continue;
        }
        roundTrips.push_back(roundTripOf(*packet));
        dscp.add(packet->dscp);
        // A TTL of 0 is no value: the reflector left the field empty.
        if (packet->senderTtl != 0) {
            ttlFwd.add(packet->senderTtl);
        }
        if (packet->replyTtl != 0) {
            ttlRev.add(packet->replyTtl);
        }
    }
    auto& values = expectation.values;
    if (roundTrips.empty()) {
        for (PmCounter::Index counter : kSampleCounters) {
            values.push_back({counter, kNotAvailable});
        }
        return;
    }
    expectStatistics(roundTrips, PmCounter::delayRtAvg, PmCounter::delayRtMax,
                     PmCounter::delayRtMin, PmCounter::delayRtP95, PmCounter::delayRtP98,
                     PmCounter::delayRtP99, expectation);
    const auto expectRange = [&values](const Range& range, PmCounter::Index min,
                                       PmCounter::Index max) {
        values.push_back({min, range.any ? range.min : kNotAvailable});
        values.push_back({max, range.any ? range.max : kNotAvailable});
    };
    expectRange(dscp, PmCounter::dscpRevMin, PmCounter::dscpRevMax);
    expectRange(ttlFwd, PmCounter::ttlFwdMin, PmCounter::ttlFwdMax);
    expectRange(ttlRev, PmCounter::ttlRevMin, PmCounter::ttlRevMax);
    expectIpdv(sent, expectation);
}

void MinuteOracle::expectIpdv(const std::vector<const PacketTruth*>& sent,
                              MinuteExpectation& expectation) {
    // The increase of each one-way delay from one packet to the next
    // sequence number; decreases are not samples.
    std::vector<uint64_t> forward;
    std::vector<uint64_t> reverse;
    forEachIpdvPair(
        sent, [&forward, &reverse](const PacketTruth& previous, const PacketTruth& packet) {
            const int64_t forwardIncrease = forwardDelayOf(packet) - forwardDelayOf(previous);
            const int64_t reverseIncrease = reverseDelayOf(packet) - reverseDelayOf(previous);
            if (forwardIncrease >= 0) {
                forward.push_back(static_cast<uint64_t>(forwardIncrease));
            }
            if (reverseIncrease >= 0) {
                reverse.push_back(static_cast<uint64_t>(reverseIncrease));
            }
        });
    expectStatistics(forward, PmCounter::ipdvFwdAvg, PmCounter::ipdvFwdMax, PmCounter::ipdvFwdMin,
                     PmCounter::ipdvFwdP95, PmCounter::ipdvFwdP98, PmCounter::ipdvFwdP99,
                     expectation);
    expectStatistics(reverse, PmCounter::ipdvRevAvg, PmCounter::ipdvRevMax, PmCounter::ipdvRevMin,
                     PmCounter::ipdvRevP95, PmCounter::ipdvRevP98, PmCounter::ipdvRevP99,
                     expectation);
}

void MinuteOracle::expectDirections(const std::vector<const PacketTruth*>& sent,
                                    MinuteExpectation& expectation) {
    // Between the first and the last answered packet, a packet whose reply
    // was lost is reverse loss (the reflector numbered it); every other
    // packet without reply is forward loss.
    std::size_t first = sent.size();
    std::size_t last = 0;
    for (std::size_t index = 0; index < sent.size(); ++index) {
        if (sent[index]->copiesDelivered > 0) {
            first = std::min(first, index);
            last = index;
        }
    }
    int64_t reverseLost = 0;
    for (std::size_t index = first + 1; index < last; ++index) {
        if (sent[index]->copiesDelivered == 0 && sent[index]->reachedReflector) {
            ++reverseLost;
        }
    }
    auto& values = expectation.values;
    values.push_back({PmCounter::lostPktsFwd, expectation.totalLost - reverseLost});
    values.push_back({PmCounter::lostPktsRev, reverseLost});
    values.push_back({PmCounter::latePktsFwd, 0});
    values.push_back({PmCounter::latePktsRev, 0});
}

void MinuteOracle::expectLossPeriods(const std::vector<const PacketTruth*>& sent,
                                     MinuteExpectation& expectation) const {
    std::vector<int64_t> forwardRuns;
    std::vector<int64_t> reverseRuns;
    // Runs of packets without reply: the leading and trailing ones are
    // forward loss, those between answered packets lost in one direction.
    std::size_t runStart = 0;
    bool anyAnswered = false;
    for (std::size_t index = 0; index <= sent.size(); ++index) {
        const bool answered = index == sent.size() || sent[index]->copiesDelivered > 0;
        if (!answered) {
            continue;
        }
        const auto length = static_cast<int64_t>(index - runStart);
        if (length > 0) {
            const bool inside = anyAnswered && index < sent.size();
            const bool reverse = inside && sent[runStart]->reachedReflector;
            (reverse ? reverseRuns : forwardRuns).push_back(length);
        }
        anyAnswered |= index < sent.size();
        runStart = index + 1;
    }
    // Whole milliseconds per packet; the rate 0 keeps packets.
    const int64_t scale = packetsPerSecond != 0 ? 1000 / packetsPerSecond : 1;
    const auto expectRuns = [&expectation, scale](const std::vector<int64_t>& runs,
                                                  PmCounter::Index count, PmCounter::Index max,
                                                  PmCounter::Index min) {
        const bool any = !runs.empty();
        expectation.values.push_back({count, static_cast<int64_t>(runs.size())});
        expectation.values.push_back(
            {max, any ? *std::max_element(runs.begin(), runs.end()) * scale : 0});
        expectation.values.push_back(
            {min, any ? *std::min_element(runs.begin(), runs.end()) * scale : 0});
    };
    expectRuns(forwardRuns, PmCounter::lossPeriodsFwd, PmCounter::lossPeriodFwdMax,
               PmCounter::lossPeriodFwdMin);
    expectRuns(reverseRuns, PmCounter::lossPeriodsRev, PmCounter::lossPeriodRevMax,
               PmCounter::lossPeriodRevMin);
}

std::string MinuteOracle::describe(const MinuteKey& key) const {
    if (!knows(key)) {
        return "minute " + std::to_string(key.second) + " was compared before";
    }
    const MinuteTruth& minute = minuteTruths.at(key);
    const std::vector<const PacketTruth*> sent = packetsOf(minute);
    std::ostringstream text;
    text << "epoch " << key.first << ", minute " << key.second << " (bin " << key.second % 15
         << "), " << sent.size() << " packets";
    if (!sent.empty()) {
        text << " seq " << sent.front()->seqNo << ".." << sent.back()->seqNo;
    }
    // The unusual packets first, then the plainly lost ones.
    std::vector<std::string> unusual;
    std::vector<std::string> lost;
    uint64_t lastReady = 0;
    for (const PacketTruth* packet : sent) {
        const bool outOfOrder = packet->readyOrder != 0 && packet->readyOrder < lastReady;
        lastReady = std::max(lastReady, packet->readyOrder);
        const bool odd = packet->copiesDelivered > 1 || outOfOrder || packet->lateCopy ||
                         packet->copiesBeforeTimestamp > 0 || packet->timestampPending;
        if (!odd && packet->copiesDelivered == 1) {
            continue;
        }
        std::ostringstream line;
        line << "seq " << packet->seqNo << ": "
             << (packet->reachedReflector
                     ? "responder " + std::to_string(packet->responderSeqNo)
                     : std::string(packet->outbound ? "still outbound" : "lost outbound"))
             << ", copies " << packet->copiesDelivered << " (+" << packet->copiesPending
             << " on the way)" << (packet->lateCopy ? ", a copy later than 4 s" : "")
             << (outOfOrder ? ", analysed after a later packet" : "")
             << (packet->copiesBeforeTimestamp > 0
                     ? ", " + std::to_string(packet->copiesBeforeTimestamp) +
                           " before the transmit timestamp"
                     : std::string())
             << (packet->timestampPending ? ", timestamp pending" : "");
        (odd ? unusual : lost).push_back(line.str());
    }
    text << "\n  " << unusual.size() << " unusual and " << lost.size() << " lost packets:";
    unusual.insert(unusual.end(), lost.begin(), lost.end());
    for (std::size_t index = 0; index < unusual.size() && index < kDescribedPackets; ++index) {
        text << "\n    " << unusual[index];
    }
    // The order in which the session could analyse them, where it was not
    // the order of sending: sender sequence number / responder number.
    std::vector<const PacketTruth*> ready;
    for (const PacketTruth* packet : sent) {
        if (packet->readyOrder != 0) {
            ready.push_back(packet);
        }
    }
    if (!analysedInOrder(sent)) {
        std::sort(ready.begin(), ready.end(),
                  [](const PacketTruth* left, const PacketTruth* right) {
                      return left->readyOrder < right->readyOrder;
                  });
        text << "\n  analysed in this order (sender/responder):";
        for (std::size_t index = 0; index < ready.size() && index < kDescribedPackets * 4;
             ++index) {
            text << (index % 10 == 0 ? "\n    " : " ") << ready[index]->seqNo << "/"
                 << ready[index]->responderSeqNo;
        }
    }
    return text.str();
}

void MinuteOracle::forget(const MinuteKey& key) {
    const auto entry = minuteTruths.find(key);
    if (entry == minuteTruths.end()) {
        return;
    }
    for (uint32_t seqNo : entry->second.seqNos) {
        packets.erase(seqNo);
    }
    minuteTruths.erase(entry);
    if (minuteTruths.empty()) {
        return;
    }
    // Disturbances long before the oldest minute left touch no minute to come.
    const int64_t oldestStart = minuteTruths.begin()->second.startNs;
    if (!restartsUnseen.empty()) {
        return;  // their indices must stay valid
    }
    const auto past = [oldestStart](const Disturbance& disturbance) {
        return disturbance.toNs + kDisturbanceMarginNs < oldestStart - kDisturbanceMarginNs;
    };
    disturbances.erase(std::remove_if(disturbances.begin(), disturbances.end(), past),
                       disturbances.end());
}

PacketTruth* MinuteOracle::find(uint32_t seqNo) {
    const auto entry = packets.find(seqNo);
    return entry == packets.end() ? nullptr : &entry->second;
}

std::vector<const PacketTruth*> MinuteOracle::packetsOf(const MinuteTruth& minute) const {
    std::vector<const PacketTruth*> sent;
    for (uint32_t seqNo : minute.seqNos) {
        sent.push_back(&packets.at(seqNo));
    }
    return sent;
}

std::string MinuteOracle::disturbanceNear(const MinuteTruth& minute) const {
    for (const Disturbance& disturbance : disturbances) {
        if (disturbance.fromNs <= minute.endNs + kDisturbanceMarginNs &&
            disturbance.toNs >= minute.startNs - kDisturbanceMarginNs) {
            return disturbance.what;
        }
    }
    return std::string();
}

std::string MinuteOracle::unfinishedPacket(const std::vector<const PacketTruth*>& sent) {
    for (const PacketTruth* packet : sent) {
        if (packet->outbound || packet->timestampPending || packet->copiesPending > 0) {
            return "a packet was still on its way when the minute was finalised";
        }
    }
    return std::string();
}

bool MinuteOracle::beyondFourSeconds(const std::vector<const PacketTruth*>& sent) {
    // A round trip, or an increase of a one-way delay, beyond 4 s: only a
    // reflector clock that was set does that.
    for (const PacketTruth* packet : sent) {
        if (packet->copiesDelivered > 0 && roundTripOf(*packet) > kFourSecondsInMicroseconds) {
            return true;
        }
    }
    bool beyond = false;
    forEachIpdvPair(sent, [&beyond](const PacketTruth& previous, const PacketTruth& packet) {
        beyond |= forwardDelayOf(packet) - forwardDelayOf(previous) > kFourSecondsInMicroseconds ||
                  reverseDelayOf(packet) - reverseDelayOf(previous) > kFourSecondsInMicroseconds;
    });
    return beyond;
}

bool MinuteOracle::analysedInOrder(const std::vector<const PacketTruth*>& sent) {
    uint64_t lastReady = 0;
    for (const PacketTruth* packet : sent) {
        if (packet->copiesDelivered == 0) {
            continue;
        }
        if (packet->readyOrder < lastReady) {
            return false;
        }
        lastReady = packet->readyOrder;
    }
    return true;
}

bool MinuteOracle::gapsLostOneWay(const std::vector<const PacketTruth*>& sent) {
    // Between two answered packets, the unanswered ones all reached the
    // reflector or none did.
    bool anyAnswered = false;
    bool runReached = false;
    bool runNotReached = false;
    for (const PacketTruth* packet : sent) {
        if (packet->copiesDelivered > 0) {
            if (anyAnswered && runReached && runNotReached) {
                return false;
            }
            anyAnswered = true;
            runReached = false;
            runNotReached = false;
            continue;
        }
        runReached |= packet->reachedReflector;
        runNotReached |= !packet->reachedReflector;
    }
    return true;
}
