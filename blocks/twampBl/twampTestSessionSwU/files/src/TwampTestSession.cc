#include "TwampTestSession.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "IoMultiplexer.h"
#include "ItcDispatcher.h"
#include "NtpTimestamp.h"
#include "OwampTestMessage.h"
#include "RandomFd.h"
#include "ReceiverKey.h"
#include "SocketHelper.h"
#include "TraceFacade.h"
#include "TwampTestSessionController.h"
#include "UdpSocket.h"
#include "itc.h"

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

// The minute number of a wall-clock time, kept in 32 bits.
uint32_t minuteOf(const struct timespec& now) {
    return static_cast<uint32_t>(now.tv_sec / kSecondsPerMinute);
}

// Index of the period record of a minute: parity of its 15-minute interval.
int recordIndexOf(uint32_t minute) {
    return static_cast<int>((minute / kMinutesPerInterval) & 1);
}

// Traces of the steps below name the operation they belong to.
constexpr const char* kInit = "init";
constexpr const char* kHandlePacketTimer = "handlePacketTimer";
constexpr const char* kSendMessage = "sendMessage";

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

void TwampTestSession::receiveMessage(struct msghdr* /*msg*/) {
    // Replies are not matched: a sent packet stays outstanding until its
    // minute is finalised.
}

void TwampTestSession::receiveErrQueueMessage(struct msghdr* /*msg*/, ssize_t /*length*/) {
    // Transmit timestamps are not matched: T1Prime of a sent packet stays 0.
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
        ReceiverKey(dstAddress));
    registeredWithSocket = false;
}

#ifdef TWAMP_UNIT_TEST
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

void TwampTestSession::finalizePmMember(PmPeriodRecord& /*record*/, int /*bin*/, int parity) {
    // The minute's counters are not computed from its PM state here: its
    // bin keeps what was counted during the minute. What is finished is the
    // release of the minute's outstanding packets, so that a late reply
    // finds nothing to match.
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
