#include "TwampTestSession.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <stdexcept>

#include "IoMultiplexer.h"
#include "ItcDispatcher.h"
#include "NtpTimestamp.h"
#include "OwampTestMessage.h"
#include "RandomFd.h"
#include "ReceiverKey.h"
#include "SocketHelper.h"
#include "TraceFacade.h"
#include "TwampTestMessage.h"
#include "TwampTestSessionController.h"
#include "UdpSocket.h"
#include "itc.h"
#include "tn_log_internal.h"

namespace {

constexpr uint32_t kSecondsPerMinute = 60;
constexpr uint32_t kMinutesPerInterval = 15;
constexpr int32_t kNanosecondsPerSecond = 1000000000;
// Sessions are spread inside the first second of the minute by startOffset
// times this factor; the base 5000 packs more offsets into that second.
constexpr uint32_t kDenseSpreadingBase = 5000;
constexpr long kDenseSpreadingFactorNs = 180000;
constexpr long kSpreadingFactorNs = 400000;
// Missed expiries are caught up back to back, at most this many at once.
constexpr uint64_t kMaxExpiriesPerRead = 8;
// A minute is finalised once replies to its last packets can no longer pass
// the 4 s round-trip limit.
constexpr time_t kReplyWaitSeconds = 4;
// The IPv6 control area holds the traffic class and the hop limit, 24 bytes each.
constexpr std::size_t kIpv6ControlLength = 48;
constexpr int kIpv6HopLimit = 255;
// The DSCP sits in the upper six bits of the TOS / traffic class byte.
constexpr uint32_t kDscpShift = 2;

// NTP difference to microseconds: 10^6 / 2^32 = 15625 / 2^26, unsigned, so a
// negative difference wraps to a large value on purpose.
constexpr uint64_t kMicrosecondsPerNtpNumerator = 15625;
constexpr unsigned kMicrosecondsPerNtpShift = 26;
// A reply must come back within 4 s of the transmit timestamp; the same
// bound, applied unchanged to the microsecond maxima, invalidates a minute.
constexpr uint64_t kRoundTripLimit = kNtpFourSeconds;
// Operator-log records of an invalidated minute: severity informational,
// network log stream only.
constexpr SaLogSeverityT kInvalidationLogSeverity = static_cast<SaLogSeverityT>(6);
constexpr const char* kOperatorLogUser = "TWAMP";
constexpr uint32_t kMillisecondsPerSecond = 1000;

// The counters of a minute slot that the minute start sets to 0; the others
// stay -2 until the minute is finalised.
constexpr PmCounter::Index kCountersZeroedAtMinuteStart[] = {
    PmCounter::sentPkts,         PmCounter::receivedPkts,     PmCounter::lostPktsFwd,
    PmCounter::lostPktsRev,      PmCounter::lossPeriodsFwd,   PmCounter::lossPeriodsRev,
    PmCounter::lossPeriodFwdMin, PmCounter::lossPeriodRevMin, PmCounter::lossPeriodFwdMax,
    PmCounter::lossPeriodRevMax, PmCounter::latePktsFwd,      PmCounter::latePktsRev,
    PmCounter::duplicatePktsFwd, PmCounter::duplicatePktsRev,
};

// The text of a create signal field; a null pointer is a programming error.
std::string requireText(const char* text, const char* what) {
    if (text == nullptr) {
        throw std::logic_error(std::string("TwampTestSession: null ") + what);
    }
    return text;
}

// The 8-bit sequence jump limit: four seconds of packets, truncated.
uint8_t jumpLimitFor(uint32_t packetsPerSecond) {
    return static_cast<uint8_t>(packetsPerSecond * 4);
}

// Sets every counter of one minute bin.
void fillBin(PmPeriodRecord& record, int bin, int64_t value) {
    for (int counter = 0; counter < PmPeriodRecord::kCounterCount; ++counter) {
        record.at(counter, bin) = value;
    }
}

// Empty text in place of a missing one, for traces and log records.
const char* textOrEmpty(const char* text) {
    return text != nullptr ? text : "";
}

// The minute number of a wall-clock time, kept in 32 bits.
uint32_t minuteOf(const struct timespec& now) {
    return static_cast<uint32_t>(now.tv_sec / kSecondsPerMinute);
}

// Index of the period record of a minute: parity of its 15-minute interval.
int recordIndexOf(uint32_t minute) {
    return static_cast<int>((minute / kMinutesPerInterval) & 1);
}

// The minute number of a 64-bit NTP timestamp (32 bits of seconds). The NTP
// epoch lies a whole even number of 15-minute intervals before the POSIX
// epoch, so parity, record and bin agree with those of the wall clock.
uint32_t minuteOfNtp(uint64_t ntpTimestamp) {
    return static_cast<uint32_t>(ntpTimestamp >> 32) / kSecondsPerMinute;
}

// An NTP time difference in microseconds.
uint64_t ntpToMicroseconds(uint64_t ntpDifference) {
    return (ntpDifference * kMicrosecondsPerNtpNumerator) >> kMicrosecondsPerNtpShift;
}

// The sequence tracker of one direction of one minute.
struct SequenceCounters {
    int64_t& lost;
    int64_t& late;
    int64_t& duplicate;
};

// Books received sequence number seq against the expected one: a gap beyond
// the allowance is counted lost and its numbers listed missing; an earlier
// number is late when it was listed missing, otherwise a duplicate. counted
// is shared by both directions of one packet, so a packet adds at most one
// late or duplicate count. Returns the number of packets newly counted lost.
uint32_t trackSequence(uint32_t seq, uint32_t& expected, MissingSequenceList& missing,
                       const SequenceCounters& counters, uint32_t allowance, bool& counted) {
    if (expected < seq) {
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
    } else {
        counters.duplicate += 1;
    }
    counted = true;
    return 0;
}

// Traces of the steps below name the operation they belong to.
constexpr const char* kInit = "init";
constexpr const char* kHandlePacketTimer = "handlePacketTimer";
constexpr const char* kSendMessage = "sendMessage";
constexpr const char* kUpdatePmMember = "updatePmMember";
constexpr const char* kFinalizePmMember = "finalizePmMember";

// Parity of a minute number: selects the per-minute state and outstanding map.
int parityOf(uint32_t minute) {
    return static_cast<int>(minute & 1);
}

}  // namespace

SessionSystemCalls::~SessionSystemCalls() = default;

int SessionSystemCalls::timerfdCreate(int clock, int flags) {
    return ::timerfd_create(clock, flags);
}

int SessionSystemCalls::timerfdSettime(int fd, int flags, const struct itimerspec* newValue,
                                       struct itimerspec* oldValue) {
    return ::timerfd_settime(fd, flags, newValue, oldValue);
}

ssize_t SessionSystemCalls::read(int fd, void* buffer, std::size_t count) {
    return ::read(fd, buffer, count);
}

ssize_t SessionSystemCalls::sendmsg(int fd, const struct msghdr* msg, int flags) {
    return ::sendmsg(fd, msg, flags);
}

int SessionSystemCalls::setsockopt(int fd, int level, int name, const void* value,
                                   socklen_t length) {
    return ::setsockopt(fd, level, name, value, length);
}

int SessionSystemCalls::close(int fd) {
    return ::close(fd);
}

SessionSystemCalls& SessionSystemCalls::real() {
    static SessionSystemCalls systemCalls;
    return systemCalls;
}

TwampTestSession::TwampTestSession(const char* dstIpAddress, const char* dstUdpPort,
                                   uint32_t packetsPerSecond, uint32_t spare1, uint32_t spare2,
                                   int32_t packetSize, uint32_t dscp, uint32_t startOffset,
                                   uint32_t spreadingBase, Clock& clock,
                                   SessionSystemCalls* systemCalls)
    : dstIpAddress(requireText(dstIpAddress, "dstIpAddress")),
      dstUdpPort(requireText(dstUdpPort, "dstUdpPort")),
      packetsPerSecond(static_cast<int32_t>(packetsPerSecond)),
      spare1(spare1),
      spare2(spare2),
      packetSize(packetSize),
      startOffset(static_cast<int32_t>(startOffset)),
      spreadingBase(spreadingBase),
      dscp(dscp),
      sequenceJumpLimit(jumpLimitFor(packetsPerSecond)),
      clock(clock),
      systemCalls(systemCalls != nullptr ? *systemCalls : SessionSystemCalls::real()) {
    std::memset(controlBuffer, 0, sizeof(controlBuffer));
    std::memset(&dstAddress, 0, sizeof(dstAddress));
    std::memset(&ioVector, 0, sizeof(ioVector));
    std::memset(&messageHeader, 0, sizeof(messageHeader));
    for (PmPeriodRecord& record : records) {
        record.fill(PmPeriodRecord::kNotAvailable);
    }
    // Contents stay undefined until the padding is written.
    packetBuffer.reset(new uint8_t[this->packetSize]);
}

TwampTestSession::~TwampTestSession() {
    for (OutstandingMap& outstanding : outstandingPackets) {
        outstanding.clear();
    }
    if (timerFd != -1) {
        systemCalls.close(timerFd);
    }
    TwampTestSessionController::getInstance()->getIoMultiplexer().removeReadHandler(this);
    removeFromSocket();
    packetBuffer.reset();
    if (pendingPmReply != nullptr) {
        itc_free(&pendingPmReply);
    }
}

std::set<int> TwampTestSession::getReadFds() const {
    return readFds;
}

std::set<int> TwampTestSession::getWriteFds() const {
    return {TwampTestSessionController::getInstance()->getUdpSocket().getSocketFd()};
}

bool TwampTestSession::handleInput(int fd) {
    if (fd == timerFd) {
        return handlePacketTimer();
    }
    return true;
}

bool TwampTestSession::handleOutput(int /*fd*/) {
    return true;
}

bool TwampTestSession::init() {
    const int rc = resolveDestination();
    if (rc != 0) {
        TRACE_ERROR("Failed getaddrinfo: %s", gai_strerror(rc));
        return false;
    }
    registerWithSocket();
    initPmStates();
    if (!createTimer()) {
        return false;
    }
    TwampTestSessionController::getInstance()->getIoMultiplexer().registerReadHandler(this);
    if (!setAndStartTimer()) {
        return false;
    }
    return writeInitialPadding();
}

void TwampTestSession::receiveMessage(struct msghdr* msg) {
    if (msg == nullptr || msg->msg_iov == nullptr || msg->msg_iovlen < 1) {
        return;
    }
    const struct iovec& payload = msg->msg_iov[0];
    // The socket hands over exactly the received datagram: the fields of a
    // shorter reply would be read from the previous datagram's bytes.
    if (payload.iov_len < TwampTestMessage::kPaddingOffset) {
        TRACE_LAB("Response packet of %zu bytes is too short and thus discarded", payload.iov_len);
        return;
    }
    TwampTestMessage message(static_cast<uint8_t*>(payload.iov_base), payload.iov_len);
    // The echoed T1 names the minute the packet was sent in.
    const uint32_t minute = minuteOfNtp(message.getSenderTimestamp());
    const uint32_t seqNo = message.getSenderSequenceNumber();
    OutstandingPacket* packet = findOutstandingPacket(parityOf(minute), seqNo);
    if (packet == nullptr) {
        TRACE_LAB("No outstanding packet found for seqNum: %u ", seqNo);
        return;
    }
    packet->setResponse(msg, TwampTestSessionController::getInstance()->getSocketHelper());
    if (packet->getT1Prime() == 0) {
        TRACE_LAB("Received response packet, but TX timestamp unknown, seqNum: %u ", seqNo);
        return;
    }
    analyzePM(*packet, recordIndexOf(minute), static_cast<int>(minute % kMinutesPerInterval),
              parityOf(minute));
}

void TwampTestSession::receiveErrQueueMessage(struct msghdr* msg, ssize_t length) {
    if (msg == nullptr || msg->msg_iov == nullptr || msg->msg_iovlen < 1 || length < 0) {
        return;
    }
    const auto frameLength = static_cast<std::size_t>(length);
    const auto* frame = static_cast<uint8_t*>(msg->msg_iov[0].iov_base);
    const int family = TwampTestSessionController::getInstance()->getUdpSocket().getFamily();
    const std::size_t headerLength = getLoopedFrameHeaderLength(frame, frameLength, family);
    // Sequence Number and Timestamp must lie inside the looped-back frame.
    if (frameLength < headerLength + OwampTestMessage::kErrorEstimateOffset) {
        TRACE_LAB("Looped-back frame of %zu bytes is too short and thus discarded", frameLength);
        return;
    }
    OwampTestMessage message(const_cast<uint8_t*>(frame) + headerLength,
                             frameLength - headerLength);
    const uint32_t minute = minuteOfNtp(message.getTimestamp());
    const uint32_t seqNo = message.getSequenceNumber();
    OutstandingPacket* packet = findOutstandingPacket(parityOf(minute), seqNo);
    if (packet == nullptr) {
        TRACE_LAB("No outstanding packet found for seqNum: %u ", seqNo);
        return;
    }
    packet->setTxTimestamp(msg);
    if (packet->getT4() == 0) {
        // The usual order: the timestamp came before the reply.
        return;
    }
    TRACE_LAB("Got late TX Timestamp, seqNum: %u ", seqNo);
    analyzePM(*packet, recordIndexOf(minute), static_cast<int>(minute % kMinutesPerInterval),
              parityOf(minute));
}

// Several sessions may share one reflector address; the socket asks each
// which reply is its own. The sequence number alone is not enough (every
// session counts from 0), the T1 it was sent at tells them apart.
bool TwampTestSession::ownsMessage(const struct msghdr* msg) const {
    if (msg == nullptr || msg->msg_iov == nullptr || msg->msg_iovlen < 1 ||
        msg->msg_iov[0].iov_len < TwampTestMessage::kPaddingOffset) {
        return false;
    }
    const TwampTestMessage reply(static_cast<uint8_t*>(msg->msg_iov[0].iov_base),
                                 msg->msg_iov[0].iov_len);
    return isOutstanding(reply.getSenderSequenceNumber(), reply.getSenderTimestamp());
}

bool TwampTestSession::ownsErrQueueMessage(const struct msghdr* msg, ssize_t length) const {
    if (msg == nullptr || msg->msg_iov == nullptr || msg->msg_iovlen < 1 || length < 0) {
        return false;
    }
    const auto frameLength = static_cast<std::size_t>(length);
    auto* frame = static_cast<uint8_t*>(msg->msg_iov[0].iov_base);
    const int family = TwampTestSessionController::getInstance()->getUdpSocket().getFamily();
    const std::size_t headerLength = getLoopedFrameHeaderLength(frame, frameLength, family);
    if (frameLength < headerLength + OwampTestMessage::kErrorEstimateOffset) {
        return false;
    }
    const OwampTestMessage sent(frame + headerLength, frameLength - headerLength);
    return isOutstanding(sent.getSequenceNumber(), sent.getTimestamp());
}

// Packet seqNo sent at t1 is outstanding here, in the map of its minute.
bool TwampTestSession::isOutstanding(uint32_t seqNo, uint64_t t1) const {
    const OutstandingPacket* packet = findOutstandingPacket(parityOf(minuteOfNtp(t1)), seqNo);
    return packet != nullptr && packet->getT1() == t1;
}

OutstandingPacket* TwampTestSession::findOutstandingPacket(int parity, uint32_t seqNo) const {
    const auto entry = outstandingPackets[parity].find(seqNo);
    return entry == outstandingPackets[parity].end() ? nullptr : entry->second.get();
}

// ---- PM analysis of a packet ----

void TwampTestSession::analyzePM(const OutstandingPacket& packet, int recordIndex, int bin,
                                 int parity) {
    const uint64_t roundTrip = packet.getT4() - packet.getT1Prime();
    if (roundTrip <= kRoundTripLimit) {
        updatePmMember(records[recordIndex], bin, packet, parity);
        return;
    }
    TRACE_LAB(
        "Packet not received within the time limit (4s) and thus discarded. Round-trip sec "
        "part = %u. StartOffset: %d. Packet data: SenderSequenceNo: %u, ResponderSequenceNo: "
        "%u, T1: %lx, T1Prime: %lx, T2: %lx, T3: %lx, T4: %lx",
        static_cast<uint32_t>(roundTrip >> 32), startOffset, packet.getSenderSeqNo(),
        packet.getResponderSeqNo(), static_cast<unsigned long>(packet.getT1()),
        static_cast<unsigned long>(packet.getT1Prime()), static_cast<unsigned long>(packet.getT2()),
        static_cast<unsigned long>(packet.getT3()), static_cast<unsigned long>(packet.getT4()));
}

void TwampTestSession::updatePmMember(PmPeriodRecord& record, int bin,
                                      const OutstandingPacket& packet, int parity) {
    record.at(PmCounter::receivedPkts, bin) += 1;
    if (sequenceErrorFlag != 0) {
        resynchroniseSequences(packet, parity);
        return;
    }
    if (isSequenceBroken(packet, parity)) {
        // The reflector restarted: sequence and delay accounting pause until
        // the next minute start, and a minute still being finalised is void.
        sequenceErrorFlag = 1;
        resynchroniseSequences(packet, parity);
        return;
    }
    bool counted = false;
    const uint32_t reverseGap = trackReverseSequence(record, bin, packet, parity, counted);
    // A packet lost on the way back advanced the reflector's number: it is
    // counted once, as reverse loss, not again as forward loss.
    trackSequence(packet.getSenderSeqNo(), lastSenderSeqNo[parity], missingSenderSeqNos[parity],
                  {record.at(PmCounter::lostPktsFwd, bin), record.at(PmCounter::latePktsFwd, bin),
                   record.at(PmCounter::duplicatePktsFwd, bin)},
                  reverseGap, counted);
    // Only the first reply of a packet feeds delays and header fields.
    if (packet.getReplyCount() != 1) {
        return;
    }
    addHeaderFields(packet, parity);
    if (packet.getT1Prime() == 0) {
        return;
    }
    addDelaySamples(packet, parity);
}

bool TwampTestSession::isSequenceBroken(const OutstandingPacket& packet, int parity) const {
    // The reflector's number went back while ours jumped ahead by more than
    // 4 s worth of packets.
    const auto senderJump = static_cast<int32_t>(packet.getSenderSeqNo() - lastSenderSeqNo[parity]);
    return expectedResponderSeqNo[parity] > packet.getResponderSeqNo() &&
           senderJump > sequenceJumpLimit;
}

void TwampTestSession::resynchroniseSequences(const OutstandingPacket& packet, int parity) {
    lastSenderSeqNo[parity] = packet.getSenderSeqNo() + 1;
    expectedResponderSeqNo[parity] = packet.getResponderSeqNo() + 1;
}

uint32_t TwampTestSession::trackReverseSequence(PmPeriodRecord& record, int bin,
                                                const OutstandingPacket& packet, int parity,
                                                bool& counted) {
    // 0 means no reply yet this minute: the first one only sets the pace.
    if (expectedResponderSeqNo[parity] == 0) {
        expectedResponderSeqNo[parity] = packet.getResponderSeqNo() + 1;
        return 0;
    }
    return trackSequence(
        packet.getResponderSeqNo(), expectedResponderSeqNo[parity], missingResponderSeqNos[parity],
        {record.at(PmCounter::lostPktsRev, bin), record.at(PmCounter::latePktsRev, bin),
         record.at(PmCounter::duplicatePktsRev, bin)},
        0, counted);
}

void TwampTestSession::addHeaderFields(const OutstandingPacket& packet, int parity) {
    dscpRev[parity].add(packet.getReplyDscp() & 0xffU);
    ttlFwd[parity].add(packet.getSenderTtl());
    ttlRev[parity].add(packet.getReplyTtl());
}

void TwampTestSession::addDelaySamples(const OutstandingPacket& packet, int parity) {
    const uint64_t t1Prime = packet.getT1Prime();
    const uint64_t t2 = packet.getT2();
    const uint64_t t3 = packet.getT3();
    const uint64_t t4 = packet.getT4();
    TRACE_PACKET_AS(
        kUpdatePmMember,
        "SenderSequenceNo: %u, ResponderSequenceNo: %u, StartOffset: %d, T1: %lx, T1Prime: %lx, "
        "T2: %lx, T3: %lx, T4: %lx",
        packet.getSenderSeqNo(), packet.getResponderSeqNo(), startOffset,
        static_cast<unsigned long>(packet.getT1()), static_cast<unsigned long>(t1Prime),
        static_cast<unsigned long>(t2), static_cast<unsigned long>(t3),
        static_cast<unsigned long>(t4));
    // The reflector's residence time T3 - T2 is taken out of the round trip.
    delayRt[parity]->addSample(ntpToMicroseconds(t4 + t2 - t1Prime - t3));
    // The two clocks need not agree: only the variation of one-way delays is used.
    addIpdvSamples(packet.getSenderSeqNo(), ntpToMicroseconds(t2 - t1Prime),
                   ntpToMicroseconds(t4 - t3), parity);
}

void TwampTestSession::addIpdvSamples(uint32_t senderSeqNo, uint64_t forwardDelay,
                                      uint64_t reverseDelay, int parity) {
    std::map<uint32_t, DelayPair>& history = ipdvHistory[parity];
    history.emplace(senderSeqNo, DelayPair(forwardDelay, reverseDelay));
    const auto previous = history.find(senderSeqNo - 1);
    if (previous == history.end()) {
        return;
    }
    const auto forwardVariation = static_cast<int64_t>(forwardDelay - previous->second.first);
    const auto reverseVariation = static_cast<int64_t>(reverseDelay - previous->second.second);
    // Only increases of delay are recorded.
    if (forwardVariation >= 0) {
        ipdvFwd[parity]->addSample(static_cast<uint64_t>(forwardVariation));
    }
    if (reverseVariation >= 0) {
        ipdvRev[parity]->addSample(static_cast<uint64_t>(reverseVariation));
    }
    history.erase(previous);
}

const PmPeriodRecord* TwampTestSession::getPmCounters(bool completedIntervalOnly) {
    struct timespec now;
    if (!clock.getRealtime(&now)) {
        const int error = errno;
        TRACE_ERROR("Failed clock_gettime: errno %d - %s", error, strerror(error));
        return nullptr;
    }
    const uint32_t minute = minuteOf(now);
    const int current = recordIndexOf(minute);
    const int previous = 1 - current;
    if (completedIntervalOnly) {
        return recordComplete[previous] != 0 ? &records[previous] : nullptr;
    }
    // In the first minute of an interval nothing of it is finished yet.
    if (minute % kMinutesPerInterval == 0) {
        return &records[previous];
    }
    return &records[current];
}

void TwampTestSession::setPendingPmReply(union itc_msg* reply) {
    // Only one reply is held; an earlier one would be lost memory.
    if (pendingPmReply != nullptr && pendingPmReply != reply) {
        itc_free(&pendingPmReply);
    }
    pendingPmReply = reply;
}

int TwampTestSession::getActivePeriod() {
    struct timespec now;
    if (!clock.getRealtime(&now)) {
        const int error = errno;
        TRACE_ERROR("Failed clock_gettime: errno %d - %s", error, strerror(error));
        return 0;
    }
    return static_cast<int>(minuteOf(now) % kMinutesPerInterval);
}

bool TwampTestSession::setDscp(int socket) {
    const int tos = static_cast<int>(dscp << kDscpShift);
    if (systemCalls.setsockopt(socket, IPPROTO_IP, IP_TOS, &tos, sizeof(tos)) != 0) {
        const int error = errno;
        TRACE_ERROR("Failed to set socket option IP_TOS: errno %d - %s", error, strerror(error));
        return false;
    }
    return true;
}

struct sockaddr_storage TwampTestSession::getDstAddress() const {
    return dstAddress;
}

int TwampTestSession::resolveDestination() {
    struct addrinfo hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_flags = AI_PASSIVE;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    struct addrinfo* result = nullptr;
    const int rc = getaddrinfo(dstIpAddress.c_str(), dstUdpPort.c_str(), &hints, &result);
    if (rc != 0) {
        return rc;
    }
    std::memcpy(&dstAddress, result->ai_addr, result->ai_addrlen);
    dstAddressLength = result->ai_addrlen;
    freeaddrinfo(result);
    return 0;
}

void TwampTestSession::registerWithSocket() {
    TwampTestSessionController::getInstance()->getUdpSocket().addMessageReceiver(
        ReceiverKey(dstAddress), static_cast<MessageReceiver*>(this));
    registeredWithSocket = true;
}

void TwampTestSession::removeFromSocket() {
    if (!registeredWithSocket) {
        return;
    }
    TwampTestSessionController::getInstance()->getUdpSocket().removeMessageReceiver(
        ReceiverKey(dstAddress), static_cast<MessageReceiver*>(this));
    registeredWithSocket = false;
}

#ifdef TWAMP_UNIT_TEST
OutstandingPacket* TwampTestSession::getOutstandingPacketForTest(int parity, uint32_t seqNo) const {
    return findOutstandingPacket(parity, seqNo);
}

std::vector<uint32_t> TwampTestSession::getOutstandingSeqNosForTest(int parity) const {
    std::vector<uint32_t> seqNos;
    for (const auto& entry : outstandingPackets[parity]) {
        seqNos.push_back(entry.first);
    }
    return seqNos;
}
#endif

// ---- Set-up ----

void TwampTestSession::initPmStates() {
    // A failure is traced by the state itself; the session runs without percentiles.
    const auto rate = static_cast<uint32_t>(packetsPerSecond);
    for (int parity = 0; parity < kParityCount; ++parity) {
        delayRt[parity] = std::make_unique<PmState>();
        delayRt[parity]->init(rate);
        ipdvFwd[parity] = std::make_unique<PmState>();
        ipdvFwd[parity]->init(rate);
        ipdvRev[parity] = std::make_unique<PmState>();
        ipdvRev[parity]->init(rate);
    }
}

void TwampTestSession::resetPmStates(int parity) {
    for (std::unique_ptr<PmState>* states : {delayRt, ipdvFwd, ipdvRev}) {
        if (states[parity] != nullptr) {
            states[parity]->reset();
        }
    }
}

bool TwampTestSession::createTimer() {
    timerFd = systemCalls.timerfdCreate(CLOCK_REALTIME, 0);
    // Inserted before the check: a failed -1 lands in the set as well.
    readFds.insert(timerFd);
    if (timerFd == -1) {
        const int error = errno;
        TRACE_ERROR_AS(kInit, "Failed timerfd_create: errno %d - %s", error, strerror(error));
        return false;
    }
    return true;
}

bool TwampTestSession::writeInitialPadding() {
    OwampTestMessage message(packetBuffer.get(), static_cast<uint64_t>(packetSize));
    uint8_t* padding = nullptr;
    const uint64_t length = message.getPadding(&padding);
    return generateRandomPayload(padding, length);
}

bool TwampTestSession::generateRandomPayload(uint8_t* buffer, std::size_t length) {
    const int randomFd = TwampTestSessionController::getInstance()->getRandomFd().getFd();
    if (randomFd == -1) {
        TRACE_ERROR("Failed to set packet padding: /dev/urandom not open");
        return false;
    }
    const ssize_t count = systemCalls.read(randomFd, buffer, length);
    if (count == static_cast<ssize_t>(length)) {
        return true;
    }
    if (count == -1) {
        const int error = errno;
        TRACE_ERROR("Failed to set packet padding: errno %d - %s", error, strerror(error));
        return false;
    }
    TRACE_ERROR("Failed to set packet padding, expected %zd bytes, sent %zd bytes",
                static_cast<ssize_t>(length), count);
    return false;
}

// ---- Packet timer ----

struct timespec TwampTestSession::packetInterval() const {
    struct timespec interval = {0, 0};
    if (packetsPerSecond <= 1) {
        interval.tv_sec = 1;
    } else {
        interval.tv_nsec = kNanosecondsPerSecond / packetsPerSecond;
    }
    return interval;
}

bool TwampTestSession::setAndStartTimer() {
    struct itimerspec timerValue;
    std::memset(&timerValue, 0, sizeof(timerValue));
    timerValue.it_interval = packetInterval();
    struct timespec now;
    if (!clock.getRealtime(&now)) {
        const int error = errno;
        TRACE_ERROR("Failed clock_gettime: errno %d - %s", error, strerror(error));
        return false;
    }
    const long spreadingFactor =
        spreadingBase == kDenseSpreadingBase ? kDenseSpreadingFactorNs : kSpreadingFactorNs;
    timerValue.it_value.tv_sec = (now.tv_sec / kSecondsPerMinute) * kSecondsPerMinute +
                                 static_cast<time_t>(kSecondsPerMinute);
    timerValue.it_value.tv_nsec = spreadingFactor * startOffset;
    TRACE_LAB("Spreading factor for itimerspec.it_value set to %ld ns", spreadingFactor);
    if (systemCalls.timerfdSettime(timerFd, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET,
                                   &timerValue, nullptr) != 0) {
        const int error = errno;
        TRACE_ERROR("Failed timerfd_settime: errno %d - %s", error, strerror(error));
        return false;
    }
    minutePending[parityOf(minuteOf(timerValue.it_value))] = 1;
    currentMinute = minuteOf(now);
    lastTickMinute = currentMinute;
    return true;
}

bool TwampTestSession::handlePacketTimer() {
    uint64_t count = 0;
    if (systemCalls.read(timerFd, &count, sizeof(count)) != static_cast<ssize_t>(sizeof(count))) {
        handleTimerReadFailure();
        return true;
    }
    if (count == 0) {
        TRACE_ERROR("Expected one timer expiry, received none");
        return true;
    }
    if (count > 1) {
        timerOverruns += count - 1;
        TRACE_LAB("Expected one timer expiry, received %lu, accumulated overruns: %llu",
                  static_cast<unsigned long>(count),
                  static_cast<unsigned long long>(timerOverruns));
        if (count > kMaxExpiriesPerRead) {
            count = kMaxExpiriesPerRead;
        }
    }
    for (uint64_t expiry = 0; expiry < count; ++expiry) {
        struct timespec now;
        if (!clock.getRealtime(&now)) {
            const int error = errno;
            TRACE_ERROR("Failed clock_gettime: errno %d - %s", error, strerror(error));
            return true;
        }
        runExpiry(now);
    }
    return true;
}

void TwampTestSession::handleTimerReadFailure() {
    if (errno != ECANCELED) {
        TRACE_LAB_AS(kHandlePacketTimer, "Ignore failed request");
        return;
    }
    // The wall clock was set: the minute state no longer matches the clock.
    TWAMP_TRACE_STATEMENT_AS(com_quorin_tn_twamp, EXCEPTION, "TWAMP", kHandlePacketTimer,
                             "Timer cancelled - unexpected system clock update.");
    recordComplete[0] = 1;
    recordComplete[1] = 1;
    setAndStartTimer();
}

void TwampTestSession::runExpiry(const struct timespec& now) {
    const uint32_t minute = minuteOf(now);
    if (minute != currentMinute) {
        currentMinute = minute;
        startMinute(minute);
    }
    sendMessage(now);
    // Signed and truncating toward zero, like the seconds it is computed from.
    const uint32_t tickMinute =
        static_cast<uint32_t>((now.tv_sec - kReplyWaitSeconds) / kSecondsPerMinute);
    if (tickMinute != lastTickMinute) {
        lastTickMinute = tickMinute;
        minuteTick(tickMinute);
    }
}

// ---- Minutes ----

void TwampTestSession::startMinute(uint32_t minute) {
    const int bin = static_cast<int>(minute % kMinutesPerInterval);
    const int recordIndex = recordIndexOf(minute);
    const int parity = parityOf(minute);
    if (bin == 0) {
        records[recordIndex].fill(PmPeriodRecord::kNotAvailable);
        recordComplete[recordIndex] = 0;
    }
    minutePending[parity] = 1;
    resetPmStates(parity);
    dscpRev[parity].clear();
    ttlFwd[parity].clear();
    ttlRev[parity].clear();
    missingSenderSeqNos[parity].clear();
    missingResponderSeqNos[parity].clear();
    ipdvHistory[parity].clear();
    sequenceErrorFlag = 0;
    for (PmCounter::Index counter : kCountersZeroedAtMinuteStart) {
        records[recordIndex].at(counter, bin) = 0;
    }
    expectedResponderSeqNo[parity] = 0;
    lastSenderSeqNo[parity] = sequenceNumber;
}

void TwampTestSession::minuteTick(uint32_t minute) {
    // The tick of minute n finalises minute n - 1.
    const int parity = parityOf(minute - 1);
    if (minutePending[parity] != 0) {
        const int recordIndex = recordIndexOf(minute);
        const int bin = static_cast<int>(minute % kMinutesPerInterval);
        if (bin == 0) {
            // The last minute of the previous interval completes its record.
            finalizePmMember(records[1 - recordIndex], kMinutesPerInterval - 1, parity);
            recordComplete[1 - recordIndex] = 1;
        } else {
            finalizePmMember(records[recordIndex], bin - 1, parity);
        }
        minutePending[parity] = 0;
    }
    sendPendingPmReply();
}

void TwampTestSession::finalizePmMember(PmPeriodRecord& record, int bin, int parity) {
    if (sequenceErrorFlag != 0) {
        // A reflector restart seen before this minute was finalised voids it.
        fillBin(record, bin, PmPeriodRecord::kNotAvailable);
        if (delayRt[parity] != nullptr && delayRt[parity]->getCount() > 0) {
            drainPercentiles(parity);
        }
        deleteOutstandingPackets(parity);
        return;
    }
    if (delayRt[parity] != nullptr && delayRt[parity]->getCount() > 0) {
        if (exceedsRoundTripBound(parity)) {
            invalidateMinute(record, bin, parity);
            return;
        }
        writeDelayCounters(record, bin, parity);
    }
    reconcileDuplicates(record, bin, parity);
    countUnansweredPackets(record, bin, parity);
    writeLossPeriods(record, bin, parity);
    deleteOutstandingPackets(parity);
}

bool TwampTestSession::exceedsRoundTripBound(int parity) const {
    return delayRt[parity]->getMax() > kRoundTripLimit ||
           ipdvFwd[parity]->getMax() > kRoundTripLimit ||
           ipdvRev[parity]->getMax() > kRoundTripLimit;
}

void TwampTestSession::writeDelayCounters(PmPeriodRecord& record, int bin, int parity) {
    struct StateCounters {
        PmState& state;
        PmCounter::Index avg, max, min, p95, p98, p99;
    };
    const StateCounters states[] = {
        {*delayRt[parity], PmCounter::delayRtAvg, PmCounter::delayRtMax, PmCounter::delayRtMin,
         PmCounter::delayRtP95, PmCounter::delayRtP98, PmCounter::delayRtP99},
        {*ipdvFwd[parity], PmCounter::ipdvFwdAvg, PmCounter::ipdvFwdMax, PmCounter::ipdvFwdMin,
         PmCounter::ipdvFwdP95, PmCounter::ipdvFwdP98, PmCounter::ipdvFwdP99},
        {*ipdvRev[parity], PmCounter::ipdvRevAvg, PmCounter::ipdvRevMax, PmCounter::ipdvRevMin,
         PmCounter::ipdvRevP95, PmCounter::ipdvRevP98, PmCounter::ipdvRevP99},
    };
    for (const StateCounters& entry : states) {
        record.at(entry.avg, bin) = static_cast<int64_t>(entry.state.getAvg());
        record.at(entry.max, bin) = static_cast<int64_t>(entry.state.getMax());
        record.at(entry.min, bin) = static_cast<int64_t>(entry.state.getMin());
        // Without samples the percentiles stay -2.
        entry.state.updatePercentilePmCounters(
            &record.at(entry.p95, bin), &record.at(entry.p98, bin), &record.at(entry.p99, bin));
    }
    record.at(PmCounter::dscpRevMax, bin) = static_cast<int64_t>(dscpRev[parity].max);
    record.at(PmCounter::dscpRevMin, bin) = static_cast<int64_t>(dscpRev[parity].min);
    record.at(PmCounter::ttlFwdMax, bin) = static_cast<int64_t>(ttlFwd[parity].max);
    record.at(PmCounter::ttlRevMax, bin) = static_cast<int64_t>(ttlRev[parity].max);
    record.at(PmCounter::ttlFwdMin, bin) = static_cast<int64_t>(ttlFwd[parity].min);
    record.at(PmCounter::ttlRevMin, bin) = static_cast<int64_t>(ttlRev[parity].min);
}

void TwampTestSession::reconcileDuplicates(PmPeriodRecord& record, int bin, int parity) const {
    // Every reply beyond a packet's first is a duplicate in one direction or
    // the other; what the sequence trackers missed is put on the forward side.
    int64_t duplicates = 0;
    for (const auto& entry : outstandingPackets[parity]) {
        const uint32_t replies = entry.second->getReplyCount();
        if (replies > 1) {
            duplicates += replies - 1;
        }
    }
    int64_t& forward = record.at(PmCounter::duplicatePktsFwd, bin);
    const int64_t reverse = record.at(PmCounter::duplicatePktsRev, bin);
    if (duplicates != forward + reverse) {
        forward = duplicates - reverse;
    }
}

void TwampTestSession::countUnansweredPackets(PmPeriodRecord& record, int bin, int parity) {
    // Packets that never came back and that no sequence gap revealed,
    // typically the last ones of the minute.
    const int64_t unanswered =
        record.at(PmCounter::sentPkts, bin) - record.at(PmCounter::receivedPkts, bin) +
        record.at(PmCounter::duplicatePktsFwd, bin) + record.at(PmCounter::duplicatePktsRev, bin) -
        record.at(PmCounter::lostPktsFwd, bin) - record.at(PmCounter::lostPktsRev, bin);
    if (unanswered < 0) {
        TRACE_LAB_AS(kFinalizePmMember, "lostPktsFwd statistic has negative number");
        record.at(PmCounter::lostPktsFwd, bin) = PmPeriodRecord::kNotAvailable;
        return;
    }
    record.at(PmCounter::lostPktsFwd, bin) += unanswered;
    const OutstandingMap& outstanding = outstandingPackets[parity];
    if (unanswered == 0 || static_cast<uint64_t>(unanswered) > outstanding.size()) {
        return;
    }
    // The highest sequence numbers, appended in ascending order.
    auto first = outstanding.end();
    std::advance(first, -unanswered);
    for (auto entry = first; entry != outstanding.end(); ++entry) {
        missingSenderSeqNos[parity].append(entry->first, 1);
    }
}

void TwampTestSession::writeLossPeriods(PmPeriodRecord& record, int bin, int parity) const {
    // Run lengths are turned from packets into milliseconds by the whole
    // packet interval (0 above 1000 packets per second); run counts stay counts.
    const int64_t millisecondsPerPacket =
        packetsPerSecond != 0
            ? static_cast<int64_t>(kMillisecondsPerSecond / static_cast<uint32_t>(packetsPerSecond))
            : 1;
    const LossRuns forward = missingSenderSeqNos[parity].runs();
    const LossRuns reverse = missingResponderSeqNos[parity].runs();
    record.at(PmCounter::lossPeriodsFwd, bin) = static_cast<int64_t>(forward.count);
    record.at(PmCounter::lossPeriodFwdMax, bin) =
        static_cast<int64_t>(forward.longest) * millisecondsPerPacket;
    record.at(PmCounter::lossPeriodFwdMin, bin) =
        static_cast<int64_t>(forward.shortest) * millisecondsPerPacket;
    record.at(PmCounter::lossPeriodsRev, bin) = static_cast<int64_t>(reverse.count);
    record.at(PmCounter::lossPeriodRevMax, bin) =
        static_cast<int64_t>(reverse.longest) * millisecondsPerPacket;
    record.at(PmCounter::lossPeriodRevMin, bin) =
        static_cast<int64_t>(reverse.shortest) * millisecondsPerPacket;
}

void TwampTestSession::invalidateMinute(PmPeriodRecord& record, int bin, int parity) {
    const uint64_t delayRtMax = delayRt[parity]->getMax();
    const uint64_t ipdvFwdMax = ipdvFwd[parity]->getMax();
    const uint64_t ipdvRevMax = ipdvRev[parity]->getMax();
    UdpSocket& udpSocket = TwampTestSessionController::getInstance()->getUdpSocket();
    const char* srcIpAddress = textOrEmpty(udpSocket.getSrcIpAddress());
    const char* srcUdpPort = textOrEmpty(udpSocket.getSrcUdpPort());
    TRACE_LAB_AS(
        kFinalizePmMember,
        "delayRtMax %lu or ipdvFwdMax %lu or ipdvRevMax %lu are larger than 4s for period %d for "
        "dstIpAddress %s, dstUdpPort %s, srcIpAddress %s and srcUdpPort %s so all counters are "
        "reset to -2",
        static_cast<unsigned long>(delayRtMax), static_cast<unsigned long>(ipdvFwdMax),
        static_cast<unsigned long>(ipdvRevMax), bin, dstIpAddress.c_str(), dstUdpPort.c_str(),
        srcIpAddress, srcUdpPort);
    tn_log_internal_log(kInvalidationLogSeverity, kTnNetworkLogMask, kOperatorLogUser,
                        tn_log_format("TwampTestSession: delayRtMax %llu or ipdvFwdMax %llu or "
                                      "ipdvRevMax %llu are larger than 4s for period %d so all "
                                      "counters are reset to -2",
                                      static_cast<unsigned long long>(delayRtMax),
                                      static_cast<unsigned long long>(ipdvFwdMax),
                                      static_cast<unsigned long long>(ipdvRevMax), bin));
    tn_log_internal_log(
        kInvalidationLogSeverity, kTnNetworkLogMask, kOperatorLogUser,
        tn_log_format("for dstIpAddress %s, dstUdpPort %s, srcIpAddress %s and "
                      "srcUdpPort %s.",
                      dstIpAddress.c_str(), dstUdpPort.c_str(), srcIpAddress, srcUdpPort));
    drainPercentiles(parity);
    fillBin(record, bin, PmPeriodRecord::kNotAvailable);
    // The minute's outstanding packets are left in place: they go with the
    // finalisation of the same parity two minutes later.
}

void TwampTestSession::drainPercentiles(int parity) {
    // Read only to empty the vectors for the next minute of this parity.
    for (std::unique_ptr<PmState>* states : {delayRt, ipdvFwd, ipdvRev}) {
        int64_t p95 = 0;
        int64_t p98 = 0;
        int64_t p99 = 0;
        states[parity]->updatePercentilePmCounters(&p95, &p98, &p99);
    }
}

void TwampTestSession::deleteOutstandingPackets(int parity) {
    // A reply arriving later finds nothing to match.
    outstandingPackets[parity].clear();
}

void TwampTestSession::sendPendingPmReply() {
    if (pendingPmReply == nullptr) {
        return;
    }
    ItcDispatcher* dispatcher = TwampTestSessionController::getInstance()->getItcDispatcher();
    if (dispatcher == nullptr) {
        // Kept, and freed with the session.
        return;
    }
    union itc_msg* reply = pendingPmReply;
    pendingPmReply = nullptr;
    dispatcher->sendPmCountersReply(this, reply);
}

// ---- Sending ----

void TwampTestSession::sendMessage(const struct timespec& now) {
    const uint64_t t1 = toNtpTimestamp(now);
    OwampTestMessage message(packetBuffer.get(), static_cast<uint64_t>(packetSize));
    message.setSequenceNumber(sequenceNumber);
    message.setTimestamp(t1);
    message.setErrorEstimate();
    uint8_t randomByte = 0;
    if (!readRandomByte(randomByte)) {
        return;
    }
    varyPadding(randomByte);
    prepareMessageHeader();
    UdpSocket& udpSocket = TwampTestSessionController::getInstance()->getUdpSocket();
    const int socket = udpSocket.getSocketFd();
    applySendOptions(socket, udpSocket.getFamily());
    const ssize_t sent = systemCalls.sendmsg(socket, &messageHeader, 0);
    bookSendResult(sent, now, t1);
}

bool TwampTestSession::readRandomByte(uint8_t& randomByte) {
    const int randomFd = TwampTestSessionController::getInstance()->getRandomFd().getFd();
    if (randomFd == -1) {
        TRACE_ERROR_AS(kSendMessage, "Failed to set packet padding: /dev/urandom not open");
        return false;
    }
    const ssize_t count = systemCalls.read(randomFd, &randomByte, 1);
    if (count == -1) {
        const int error = errno;
        TRACE_ERROR_AS(kSendMessage, "Failed to set packet padding: errno %d - %s", error,
                       strerror(error));
        return false;
    }
    if (count != 1) {
        TRACE_ERROR_AS(kSendMessage,
                       "Failed to set packet padding, expected %zu bytes, sent %zu bytes",
                       static_cast<std::size_t>(1), static_cast<std::size_t>(count));
        return false;
    }
    return true;
}

void TwampTestSession::varyPadding(uint8_t randomByte) {
    // One random byte per packet; the XORs accumulate over the packets.
    for (int64_t index = OwampTestMessage::kPaddingOffset; index < packetSize; ++index) {
        packetBuffer[index] ^= randomByte;
    }
}

void TwampTestSession::prepareMessageHeader() {
    std::memset(controlBuffer, 0, sizeof(controlBuffer));
    ioVector.iov_base = packetBuffer.get();
    ioVector.iov_len = static_cast<std::size_t>(packetSize);
    messageHeader.msg_name = &dstAddress;
    messageHeader.msg_namelen = dstAddressLength;
    messageHeader.msg_iov = &ioVector;
    messageHeader.msg_iovlen = 1;
    messageHeader.msg_control = controlBuffer;
    messageHeader.msg_controllen = 0;
    messageHeader.msg_flags = 0;
}

void TwampTestSession::applySendOptions(int socket, int family) {
    if (family == AF_INET) {
        // The option belongs to the shared socket, so it is set before every packet.
        setDscp(socket);
        return;
    }
    if (family != AF_INET6) {
        return;
    }
    const int trafficClass = static_cast<int>(dscp << kDscpShift);
    const int hopLimit = kIpv6HopLimit;
    messageHeader.msg_controllen = kIpv6ControlLength;
    setAncillaryData(&messageHeader, IPPROTO_IPV6, IPV6_TCLASS, &trafficClass,
                     sizeof(trafficClass));
    setAncillaryData(&messageHeader, IPPROTO_IPV6, IPV6_HOPLIMIT, &hopLimit, sizeof(hopLimit));
}

void TwampTestSession::bookSendResult(ssize_t sent, const struct timespec& now, uint64_t t1) {
    if (sent == packetSize) {
        bookSentPacket(sent, now, t1);
        return;
    }
    if (sent != -1) {
        TRACE_LAB_AS(kSendMessage, "Partial/failed sendmsg, expected %zu bytes, sent %zu bytes",
                     static_cast<std::size_t>(packetSize), static_cast<std::size_t>(sent));
        lastSendErrno = 0;
        ++sendFailedCount;
        lastSendResult = sent;
        return;
    }
    bookSendFailure();
}

void TwampTestSession::bookSentPacket(ssize_t sent, const struct timespec& now, uint64_t t1) {
    ++sentOkCount;
    lastSendResult = sent;
    const uint32_t minute = minuteOf(now);
    // A key still present after the sequence number wrapped keeps its packet;
    // the new one is freed at once.
    outstandingPackets[parityOf(minute)].try_emplace(
        sequenceNumber, std::make_unique<OutstandingPacket>(sequenceNumber, t1));
    ++sequenceNumber;
    records[recordIndexOf(minute)].at(PmCounter::sentPkts,
                                      static_cast<int>(minute % kMinutesPerInterval)) += 1;
}

void TwampTestSession::bookSendFailure() {
    const int error = errno;
    // A failure repeating the previous one is counted but not traced again.
    if (lastSendResult != -1 || lastSendErrno != error) {
        TRACE_LAB_AS(kSendMessage, "Failed sendmsg: errno %d - %s", error, strerror(error));
    }
    lastSendErrno = error;
    ++sendFailedCount;
    lastSendResult = -1;
}
