#include "SessionSimulation.h"

#include <algorithm>
#include <cerrno>
#include <sstream>

#include "FinalisedMinuteRules.h"
#include "KernelMessage.h"
#include "OwampTestMessage.h"
#include "SimulationTime.h"
#include "TraceRecorder.h"
#include "TwampTestSessionPeer.h"

namespace {

using simulation_time::kMicrosecond;
using simulation_time::kMillisecond;
using simulation_time::kMinute;
using simulation_time::kSecond;
using simulation_time::ntpOfNs;
using simulation_time::toNs;
using simulation_time::toTimespec;
using twamp_test::KernelMessage;
using twamp_test::ScriptedSystemCalls;

// The session's create values that the simulation does not vary.
constexpr const char* kReflectorAddress = "127.0.0.1";
constexpr const char* kReflectorPort = "862";
constexpr int32_t kPacketSize = 64;
constexpr uint32_t kSessionDscp = 46;
// More expiries than this in one read: the session sends only this many
// and holds the minute end back to its next read.
constexpr uint64_t kMaxExpiriesPerRead = 8;
// The event loop serves a ready timer this late.
constexpr int64_t kTimerLatencyMaxNs = 300 * kMicrosecond;
// A failure report lists this many of the last traces.
constexpr std::size_t kReportedTraces = 40;
// Clock steps and stalls are this far apart, so that each is seen alone.
constexpr int64_t kMajorDisturbanceSpacingNs = 3 * kMinute;

std::string join(const std::vector<std::string>& lines, const char* separator) {
    std::string text;
    for (const std::string& line : lines) {
        text += (text.empty() ? "" : separator) + line;
    }
    return text;
}

// Whether bin of record holds the values of snapshot (compared in place:
// this runs after every timer read).
bool holdsBin(const PmPeriodRecord& record, int bin, const std::vector<int64_t>& snapshot) {
    for (int counter = 0; counter < PmPeriodRecord::kCounterCount; ++counter) {
        if (record.at(counter, bin) != snapshot[counter]) {
            return false;
        }
    }
    return true;
}

std::string describeBin(const std::vector<int64_t>& bin) {
    std::ostringstream text;
    for (int counter = 0; counter < PmPeriodRecord::kCounterCount; ++counter) {
        text << (counter % 6 == 0 ? "\n    " : ", ") << kPmCounterInfo[counter].name << " "
             << bin[counter];
    }
    return text.str();
}

std::string describeVerdict(const MinuteVerdict& verdict) {
    std::string text = verdict.clean ? "clean" : "not clean";
    if (verdict.clean) {
        text += verdict.inOrder ? ", in order" : ", not in order";
        text += verdict.periodsComparable ? ", loss periods compared" : "";
    }
    return text + (verdict.reason.empty() ? "" : " (" + verdict.reason + ")");
}

}  // namespace

void SessionSimulation::Totals::add(const Totals& other) {
    runs += other.runs;
    packets += other.packets;
    minutesChecked += other.minutesChecked;
    clean += other.clean;
    inOrder += other.inOrder;
    periodsCompared += other.periodsCompared;
    lostForwardVoid += other.lostForwardVoid;
    for (const auto& entry : other.notClean) {
        notClean[entry.first] += entry.second;
    }
}

SessionSimulation::SessionSimulation(const SimulationProfile& profile, uint64_t seed,
                                     int64_t startNs, twamp_test::FakeClock& clock,
                                     ScriptedSystemCalls& systemCalls)
    : profile(profile),
      random(seed),
      clock(clock),
      systemCalls(systemCalls),
      reflector(profile.statelessReflector, profile.firstResponderSeqNo,
                profile.reflectorClockOffsetNs),
      oracle(profile.packetsPerSecond, profile.statelessReflector),
      nowNs(startNs),
      replyDscp(profile.replyDscp),
      senderTtl(profile.senderTtl),
      replyTtl(profile.replyTtl) {}

SessionSimulation::~SessionSimulation() = default;

bool SessionSimulation::run() {
    counts.runs = 1;
    if (!startSession()) {
        return false;
    }
    scheduleDisturbances();
    runEndNs = nowNs + (profile.minutes + 2) * kMinute;
    while (!events.empty() && failureText.empty()) {
        Event event = events.top();
        events.pop();
        if (event.atNs > runEndNs) {
            break;
        }
        nowNs = event.atNs;
        dispatch(event);
    }
    session.reset();
    return failureText.empty();
}

const std::string& SessionSimulation::failure() const {
    return failureText;
}

const SessionSimulation::Totals& SessionSimulation::totals() const {
    return counts;
}

int64_t SessionSimulation::endNs() const {
    return nowNs;
}

void SessionSimulation::recordRareTraces() {
    twamp_test::TraceRecorder::reset();
    for (const char* provider : {"com_quorin_tn_twamp", "com_quorin_tn_troubleshooting"}) {
        twamp_test::TraceRecorder::setEnabled(provider, "PACKET", false);
        twamp_test::TraceRecorder::setEnabled(provider, "INFO", false);
    }
}

bool SessionSimulation::startSession() {
    systemCalls.sendResults.clear();
    systemCalls.sent.clear();
    clock.set(toTimespec(wallNow()).tv_sec, toTimespec(wallNow()).tv_nsec);
    session = std::make_unique<TwampTestSession>(
        kReflectorAddress, kReflectorPort, profile.packetsPerSecond, 0, 0, kPacketSize,
        kSessionDscp, profile.startOffset, profile.spreadingBase, clock, &systemCalls);
    TwampTestSessionPeer::setSequenceNumber(*session, profile.firstSequenceNumber);
    timer.armingsSeen = systemCalls.settimeValues.size();
    if (!session->init()) {
        failureText = "the session did not start";
        return false;
    }
    observeArming();
    return true;
}

void SessionSimulation::scheduleDisturbances() {
    int64_t lastMajorNs = nowNs - kMajorDisturbanceSpacingNs;
    for (int minute = 0; minute < profile.minutes; ++minute) {
        const int64_t atNs = nowNs + (minute + 1) * kMinute + uniform(0, kMinute - 1);
        if (chance(profile.restartChance)) {
            Event restart;
            restart.kind = EventKind::kRestart;
            restart.atNs = atNs;
            // Short gaps look like renumbering, long ones like a restart.
            restart.amountNs = chance(0.5) ? uniform(300 * kMillisecond, 1500 * kMillisecond)
                                           : uniform(4500 * kMillisecond, 9 * kSecond);
            push(restart);
        }
        if (chance(profile.reflectorClockStepChance)) {
            Event step;
            step.kind = EventKind::kReflectorClockStep;
            step.atNs = atNs;
            step.amountNs = (chance(0.5) ? 1 : -1) * uniform(kMillisecond, kMinute);
            push(step);
        }
        if (chance(profile.outageChance)) {
            Event outage;
            outage.kind = EventKind::kOutage;
            outage.atNs = atNs;
            outage.amountNs = uniform(10 * kSecond, 150 * kSecond);
            push(outage);
        }
        if (atNs - lastMajorNs < kMajorDisturbanceSpacingNs) {
            continue;
        }
        Event major;
        major.atNs = atNs;
        if (chance(profile.clockStepChance)) {
            major.kind = EventKind::kClockStep;
            major.amountNs = (chance(0.5) ? 1 : -1) * uniform(20 * kSecond, 5 * kMinute);
        } else if (chance(profile.stallChance)) {
            major.kind = EventKind::kStall;
            major.amountNs = uniform(61 * kSecond, 80 * kSecond);
        } else {
            continue;
        }
        push(major);
        lastMajorNs = atNs;
    }
}

void SessionSimulation::push(Event event) {
    event.order = nextOrder++;
    events.push(event);
}

void SessionSimulation::dispatch(Event& event) {
    switch (event.kind) {
        case EventKind::kTimerRead:
            // A read of an earlier arming: the timer was set again since.
            if (event.generation == timer.generation && !deferredByStall(event)) {
                readTimer();
            }
            break;
        case EventKind::kTimestamp:
            if (!deferredByStall(event)) {
                deliverTimestamp(event);
            }
            break;
        case EventKind::kReply:
            // The kernel stamps the reply when it arrives, stall or not.
            if (!event.kernelTimeTaken) {
                event.kernelNs = wallNow();
                event.kernelTimeTaken = true;
            }
            if (!deferredByStall(event)) {
                deliverReply(event);
            }
            break;
        case EventKind::kAtReflector:
            atReflector(event);
            break;
        case EventKind::kClockStep:
            stepClock(event);
            break;
        case EventKind::kStall:
            stalledUntilNs = nowNs + event.amountNs;
            oracle.disturbance(nowNs, stalledUntilNs, "the event loop stalled");
            break;
        case EventKind::kOutage:
            // Minutes without replies are measured like any other.
            pathDownUntilNs = std::max(pathDownUntilNs, nowNs + event.amountNs);
            break;
        case EventKind::kReflectorClockStep:
            // T2 and T3 jump alike: the round trip stays, the one-way delays
            // and so the IPDV see the step, which the oracle reads from them.
            reflector.stepClock(event.amountNs);
            break;
        case EventKind::kRestart:
            reflector.restart(nowNs, event.amountNs);
            oracle.reflectorRestarted(nowNs);
            break;
    }
}

bool SessionSimulation::deferredByStall(Event& event) {
    if (nowNs >= stalledUntilNs) {
        return false;
    }
    // When the loop runs again it reads the timer first, then the messages
    // that queued up meanwhile, in their order.
    event.atNs = stalledUntilNs + (event.kind == EventKind::kTimerRead ? 0 : 1);
    push(event);
    return true;
}

void SessionSimulation::observeArming() {
    const auto& armings = systemCalls.settimeValues;
    if (armings.size() <= timer.armingsSeen) {
        return;
    }
    timer.armingsSeen = armings.size();
    timer.firstWallNs = toNs(armings.back().it_value);
    timer.intervalNs = toNs(armings.back().it_interval);
    timer.nextExpiry = 0;
    timer.cancelled = false;
    ++timer.generation;
    scheduleTimerRead();
}

void SessionSimulation::scheduleTimerRead() {
    const int64_t expiryWallNs =
        timer.firstWallNs + static_cast<int64_t>(timer.nextExpiry) * timer.intervalNs;
    Event read;
    read.kind = EventKind::kTimerRead;
    read.generation = timer.generation;
    read.atNs = std::max(expiryWallNs - wallOffsetNs, nowNs) + uniform(0, kTimerLatencyMaxNs);
    push(read);
}

void SessionSimulation::readTimer() {
    const int64_t wallNs = wallNow();
    const struct timespec wall = toTimespec(wallNs);
    clock.set(wall.tv_sec, wall.tv_nsec);
    if (timer.cancelled) {
        readCancelledTimer(wallNs);
        return;
    }
    const int64_t elapsedNs = wallNs - timer.firstWallNs;
    const uint64_t due =
        elapsedNs < 0 ? 0 : static_cast<uint64_t>(elapsedNs / timer.intervalNs) + 1;
    if (due <= timer.nextExpiry) {
        scheduleTimerRead();
        return;
    }
    const uint64_t count = due - timer.nextExpiry;
    latestMinuteOfEpoch = std::max(latestMinuteOfEpoch, simulation_time::minuteOfNs(wallNs));
    timer.nextExpiry = due;
    if (chance(profile.sendFailureChance)) {
        systemCalls.sendResults.push_back({-1, ENOBUFS});
        ++pendingSendFailures;
    }
    systemCalls.queueExpiries(count);
    session->handleInput(ScriptedSystemCalls::kTimerFd);
    collectSends(wallNs);
    checkFinalisedBinsUnchanged("a timer read");
    if (count <= kMaxExpiriesPerRead) {
        checkDueMinutes(wallNs);
    }
    scheduleTimerRead();
}

void SessionSimulation::readCancelledTimer(int64_t wallNs) {
    systemCalls.queueTimerFailure(ECANCELED);
    session->handleInput(ScriptedSystemCalls::kTimerFd);
    collectSends(wallNs);
    checkFinalisedBinsUnchanged("the timer read after a clock step");
    // Minutes measured again after the step are others.
    finalisedBins.clear();
    latestMinuteOfEpoch = 0;
    // The minutes the step interrupted are done with: they must obey the
    // rules like any other.
    checkMinutesOfEpoch(epoch);
    ++epoch;
    observeArming();
}

void SessionSimulation::collectSends(int64_t wallNs) {
    for (twamp_test::SentPacket& sent : systemCalls.sent) {
        // A send that was made to fail used up no sequence number.
        if (pendingSendFailures > 0) {
            --pendingSendFailures;
            continue;
        }
        OwampTestMessage message(sent.payload.data(), sent.payload.size());
        packetSent(message.getSequenceNumber(), message.getTimestamp(), wallNs);
    }
    systemCalls.sent.clear();
    systemCalls.events.clear();
    systemCalls.randomReadFds.clear();
    systemCalls.randomReadLengths.clear();
}

void SessionSimulation::packetSent(uint32_t seqNo, uint64_t t1, int64_t wallNs) {
    ++counts.packets;
    const MinuteKey minute(epoch, simulation_time::minuteOfNs(wallNs));
    if (!oracle.knows(minute)) {
        oracle.minuteBegins(minute, static_cast<int64_t>(minute.second) * kMinute - wallOffsetNs);
    }
    const int64_t transmitNs = uniform(2 * kMicrosecond, 40 * kMicrosecond);
    const int64_t t1PrimeWallNs = wallNs + transmitNs;
    const int64_t leftNs = nowNs + transmitNs;
    oracle.packetSent(seqNo, t1, ntpOfNs(t1PrimeWallNs), minute);
    if (nowNs < pathDownUntilNs || drawLoss(profile.forwardLoss, forwardBurstLeft)) {
        oracle.packetLostOutbound(seqNo);
        scheduleTimestamp(leftNs + uniform(0, 20 * kMicrosecond), seqNo, t1, t1PrimeWallNs);
        return;
    }
    Event arrival;
    arrival.kind = EventKind::kAtReflector;
    arrival.atNs = leftNs + drawDelay(profile.forwardBaseNs, profile.forwardJitterNs);
    arrival.seqNo = seqNo;
    arrival.t1 = t1;
    arrival.kernelNs = t1PrimeWallNs;
    arrival.timestampAfterReply = chance(profile.lateTimestampChance);
    push(arrival);
    if (!arrival.timestampAfterReply) {
        scheduleTimestamp(leftNs + uniform(0, 20 * kMicrosecond), seqNo, t1, t1PrimeWallNs);
    }
}

void SessionSimulation::scheduleTimestamp(int64_t atNs, uint32_t seqNo, uint64_t t1,
                                          int64_t t1PrimeWallNs) {
    Event timestamp;
    timestamp.kind = EventKind::kTimestamp;
    timestamp.atNs = atNs;
    timestamp.seqNo = seqNo;
    timestamp.t1 = t1;
    timestamp.kernelNs = t1PrimeWallNs;
    push(timestamp);
}

void SessionSimulation::atReflector(const Event& event) {
    const SimulatedReflector::Answer answer = reflector.receive(nowNs, event.seqNo);
    if (!answer.answered) {
        oracle.packetLostOutbound(event.seqNo);
        if (event.timestampAfterReply) {
            scheduleTimestamp(nowNs + uniform(kMicrosecond, 3 * kMillisecond), event.seqNo,
                              event.t1, event.kernelNs);
        }
        return;
    }
    oracle.packetReachedReflector(event.seqNo, answer.responderSeqNo, answer.incarnation);
    const int64_t residenceNs = uniform(kMicrosecond, profile.residenceMaxNs);
    int64_t firstArrivalNs = nowNs + residenceNs;
    scheduleReplies(event, answer.responderSeqNo, answer.incarnation, residenceNs, firstArrivalNs);
    if (event.timestampAfterReply) {
        scheduleTimestamp(firstArrivalNs + uniform(kMicrosecond, 3 * kMillisecond), event.seqNo,
                          event.t1, event.kernelNs);
    }
}

int SessionSimulation::scheduleReplies(const Event& arrival, uint32_t responderSeqNo,
                                       uint32_t incarnation, int64_t residenceNs,
                                       int64_t& firstArrivalNs) {
    maybeChangeHeaders();
    if (drawLoss(profile.reverseLoss, reverseBurstLeft)) {
        return 0;
    }
    Event reply;
    reply.kind = EventKind::kReply;
    reply.seqNo = arrival.seqNo;
    reply.t1 = arrival.t1;
    reply.responderSeqNo = responderSeqNo;
    reply.incarnation = incarnation;
    reply.t2 = toNtpTimestamp(reflector.clockAt(nowNs));
    reply.t3 = toNtpTimestamp(reflector.clockAt(nowNs + residenceNs));
    reply.senderTtl = senderTtl;
    reply.replyTtl = replyTtl;
    // The ECN bits share the byte with the DSCP and must not leak into it.
    reply.replyTos = static_cast<uint8_t>((replyDscp << 2) | uniform(0, 3));
    const int copies = chance(profile.duplicateChance) ? 2 : 1;
    for (int copy = 0; copy < copies; ++copy) {
        reply.atNs =
            nowNs + residenceNs + drawDelay(profile.reverseBaseNs, profile.reverseJitterNs);
        firstArrivalNs = copy == 0 ? reply.atNs : std::min(firstArrivalNs, reply.atNs);
        push(reply);
        oracle.replyOnItsWay(arrival.seqNo);
    }
    return copies;
}

void SessionSimulation::deliverTimestamp(const Event& event) {
    KernelMessage frame(KernelMessage::kLoopedHeaderLength + KernelMessage::kPacketLength);
    KernelMessage::fillLoopedFrame(frame, event.seqNo, event.t1);
    frame.setKernelTime(toTimespec(event.kernelNs));
    session->receiveErrQueueMessage(frame.get(), frame.length());
    oracle.timestampDelivered(event.seqNo);
}

void SessionSimulation::deliverReply(const Event& event) {
    KernelMessage reply(KernelMessage::kPacketLength);
    KernelMessage::fillReply(reply, event.seqNo, event.t1, event.responderSeqNo, event.t2, event.t3,
                             event.senderTtl);
    reply.setKernelTime(toTimespec(event.kernelNs));
    reply.addReceivedTos(event.replyTos);
    reply.addReceivedTtl(event.replyTtl);
    session->receiveMessage(reply.get());
    oracle.replyOfIncarnation(event.incarnation, nowNs);
    oracle.replyDelivered(event.seqNo, event.t2, event.t3, ntpOfNs(event.kernelNs), event.senderTtl,
                          event.replyTtl, static_cast<uint8_t>(event.replyTos >> 2));
}

void SessionSimulation::stepClock(const Event& event) {
    wallOffsetNs += event.amountNs;
    oracle.disturbance(nowNs, nowNs, "the wall clock was set");
    // The kernel cancels the timer at once; the loop reads it soon after,
    // maybe after a reply or two.
    timer.cancelled = true;
    ++timer.generation;
    Event read;
    read.kind = EventKind::kTimerRead;
    read.generation = timer.generation;
    read.atNs = nowNs + uniform(0, 2 * kMillisecond);
    push(read);
}

void SessionSimulation::checkDueMinutes(int64_t wallNs) {
    // The first expiry at least 4 s after a minute ends finalises it.
    const int64_t finalisedBefore = (wallNs / kSecond - 4) / 60;
    for (const MinuteKey& minute : oracle.minutes()) {
        if (failureText.empty() && minute.first == epoch &&
            static_cast<int64_t>(minute.second) < finalisedBefore) {
            checkMinute(minute);
        }
    }
}

void SessionSimulation::checkMinutesOfEpoch(uint32_t ended) {
    for (const MinuteKey& minute : oracle.minutes()) {
        if (failureText.empty() && minute.first == ended) {
            checkMinute(minute);
        }
    }
}

void SessionSimulation::keepRecentTraces() {
    for (const twamp_test::TraceRecord& record : twamp_test::TraceRecorder::records()) {
        recentTraces.push_back(record.event + " " + record.message);
        if (recentTraces.size() > kReportedTraces) {
            recentTraces.pop_front();
        }
    }
    recordRareTraces();
}

void SessionSimulation::checkMinute(const MinuteKey& minute) {
    keepRecentTraces();
    const uint32_t number = minute.second;
    const std::vector<int64_t> bin = FinalisedMinuteRules::binOf(
        TwampTestSessionPeer::getRecord(*session, (number / 15) & 1), number % 15);
    ++counts.minutesChecked;
    const MinuteVerdict verdict = oracle.judge(minute);
    const std::vector<std::string> broken = FinalisedMinuteRules::violations(bin);
    if (!broken.empty()) {
        fail(minute, "breaks the rules of a finalised minute:\n    " + join(broken, "\n    "), bin,
             describeVerdict(verdict));
        return;
    }
    finalisedBins.emplace_back(minute, bin);
    if (verdict.clean) {
        compareWithTruth(minute, verdict, bin);
    } else {
        ++counts.notClean[verdict.reason];
    }
    oracle.forget(minute);
}

void SessionSimulation::checkFinalisedBinsUnchanged(const char* when) {
    // The record of a minute's interval is reused two intervals later; a
    // clock set back since does not make it valid again.
    const uint32_t currentMinute = latestMinuteOfEpoch;
    const auto reused = [this, currentMinute](const FinalisedBin& entry) {
        return entry.first.first != epoch || currentMinute >= (entry.first.second / 15 + 2) * 15;
    };
    finalisedBins.erase(std::remove_if(finalisedBins.begin(), finalisedBins.end(), reused),
                        finalisedBins.end());
    for (const FinalisedBin& entry : finalisedBins) {
        const uint32_t number = entry.first.second;
        const PmPeriodRecord& record = TwampTestSessionPeer::getRecord(*session, (number / 15) & 1);
        if (failureText.empty() && !holdsBin(record, static_cast<int>(number % 15), entry.second)) {
            fail(entry.first,
                 std::string("changed after it was finalised, at ") + when + " at wall minute " +
                     std::to_string(currentMinute) + "; it was:" + describeBin(entry.second),
                 FinalisedMinuteRules::binOf(record, number % 15), "checked before");
        }
    }
}

void SessionSimulation::compareWithTruth(const MinuteKey& minute, const MinuteVerdict& verdict,
                                         const std::vector<int64_t>& bin) {
    if (TwampTestSessionPeer::isMinutePending(*session, static_cast<int>(minute.second & 1))) {
        fail(minute, "was not finalised by the first expiry 4 s after its end", bin,
             describeVerdict(verdict));
        return;
    }
    ++counts.clean;
    counts.inOrder += verdict.inOrder ? 1 : 0;
    counts.periodsCompared += verdict.periodsComparable ? 1 : 0;
    const MinuteExpectation expectation = oracle.expect(minute, verdict);
    std::vector<std::string> differences;
    for (const ExpectedValue& expected : expectation.values) {
        if (bin[expected.counter] != expected.value) {
            differences.push_back(std::string(kPmCounterInfo[expected.counter].name) +
                                  ": reported " + std::to_string(bin[expected.counter]) +
                                  ", truth " + std::to_string(expected.value));
        }
    }
    const int64_t lostForward = bin[PmCounter::lostPktsFwd];
    const int64_t lostReverse = bin[PmCounter::lostPktsRev];
    const bool forwardVoid =
        lostForward == PmPeriodRecord::kNotAvailable && verdict.lostForwardMayBeVoid;
    counts.lostForwardVoid += forwardVoid ? 1 : 0;
    if (!expectation.invalidated && !forwardVoid &&
        (lostForward + lostReverse != expectation.totalLost || lostForward < 0 ||
         lostReverse < 0)) {
        differences.push_back("lostPktsFwd + lostPktsRev: reported " + std::to_string(lostForward) +
                              " + " + std::to_string(lostReverse) + ", truth " +
                              std::to_string(expectation.totalLost));
    }
    if (!differences.empty()) {
        fail(minute, "differs from the truth:\n    " + join(differences, "\n    "), bin,
             describeVerdict(verdict));
    }
}

void SessionSimulation::fail(const MinuteKey& minute, const std::string& what,
                             const std::vector<int64_t>& bin, const std::string& verdict) {
    std::ostringstream text;
    text << "minute " << minute.second << " (record " << ((minute.second / 15) & 1) << ", bin "
         << minute.second % 15 << ", clock epoch " << minute.first << ") " << what << "\n  judged "
         << verdict << "\n  bin:" << describeBin(bin) << "\n  truth: " << oracle.describe(minute)
         << "\n  run: " << profile.describe() << "\n  last traces:";
    for (const std::string& trace : recentTraces) {
        text << "\n    " << trace;
    }
    failureText = text.str();
}

int64_t SessionSimulation::drawDelay(int64_t baseNs, int64_t jitterNs) {
    int64_t delayNs = baseNs + uniform(0, jitterNs);
    if (chance(profile.spikeChance)) {
        delayNs += uniform(500 * kMillisecond, 5 * kSecond);
    }
    return delayNs;
}

bool SessionSimulation::drawLoss(double lossChance, int& burstLeft) {
    if (burstLeft > 0) {
        --burstLeft;
        return true;
    }
    if (chance(profile.burstChance)) {
        burstLeft = static_cast<int>(uniform(1, 29));
        return true;
    }
    return chance(lossChance);
}

void SessionSimulation::maybeChangeHeaders() {
    if (!chance(profile.headerChangeChance)) {
        return;
    }
    switch (uniform(0, 2)) {
        case 0:
            replyDscp = static_cast<uint8_t>(uniform(0, 63));
            break;
        case 1:
            // A reflector that leaves the Sender TTL empty keeps doing so.
            if (senderTtl != 0) {
                senderTtl = static_cast<uint8_t>(uniform(1, 255));
            }
            break;
        default:
            replyTtl = static_cast<uint8_t>(uniform(1, 255));
            break;
    }
}

int64_t SessionSimulation::uniform(int64_t low, int64_t high) {
    return std::uniform_int_distribution<int64_t>(low, high)(random);
}

bool SessionSimulation::chance(double probability) {
    return probability > 0.0 && std::bernoulli_distribution(probability)(random);
}

int64_t SessionSimulation::wallNow() const {
    return nowNs + wallOffsetNs;
}
