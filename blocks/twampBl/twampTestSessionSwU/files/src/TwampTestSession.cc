#include "TwampTestSession.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <algorithm>
#include <stdexcept>
#include <vector>

#include "FinalisationPacer.h"
#include "IoMultiplexer.h"
#include "ItcDispatcher.h"
#include "MinuteArithmetic.h"
#include "NtpTimestamp.h"
#include "OwampTestMessage.h"
#include "PaddingVariation.h"
#include "RandomFd.h"
#include "SequenceTracker.h"
#include "ReceiverKey.h"
#include "SocketHelper.h"
#include "TraceFacade.h"
#include "TwampTestMessage.h"
#include "TwampTestSessionController.h"
#include "UdpSocket.h"
#include "itc.h"
#include "tn_log_internal.h"

namespace {

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
constexpr uint64_t kNtpFractionMask = 0xffffffffu;
constexpr int64_t kNtpSecond = int64_t{1} << 32;
constexpr int64_t kMicrosecondsPerSecond = 1000000;
// A reply must come back within 4 s of the transmit timestamp.
constexpr uint64_t kRoundTripLimit = kNtpFourSeconds;
// The same 4 s in microseconds bound a minute's round-trip delay and IPDV.
// Only a reflector clock that was set can exceed it: a round trip whose
// residence time T3 - T2 came out negative, or one-way delays that jumped
// by the step. Such a minute is invalidated.
constexpr uint64_t kSampleLimitMicroseconds = 4000000;
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

// How many times the packet timer can expire in one minute: one a second
// at rates of 0 and 1, otherwise a minute over the truncated interval, which
// is one more than rate x 60 when the rate does not divide a second.
uint32_t expiriesPerMinute(int32_t packetsPerSecond) {
    if (packetsPerSecond <= 1) {
        return kSecondsPerMinute;
    }
    const uint64_t intervalNs = static_cast<uint64_t>(kNanosecondsPerSecond / packetsPerSecond);
    const uint64_t minuteNs = static_cast<uint64_t>(kSecondsPerMinute) * kNanosecondsPerSecond;
    return static_cast<uint32_t>((minuteNs + intervalNs - 1) / intervalNs);
}

// Room for the packets outstanding at once: a minute, the 4 s its late
// replies may take, the half second its finalisation may wait for another
// session's, and a little more. A ring that had to grow would copy itself
// in the middle of the busiest second.
std::size_t outstandingCapacityFor(int32_t packetsPerSecond) {
    const std::size_t perMinute = expiriesPerMinute(packetsPerSecond);
    constexpr int64_t kWaitsPerMinute =
        int64_t{kSecondsPerMinute} * kNanosecondsPerSecond / FinalisationPacer::kLongestWaitNs;
    return perMinute + perMinute / 15 + perMinute / kWaitsPerMinute + 16;
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

// An NTP time difference in microseconds.
uint64_t ntpToMicroseconds(uint64_t ntpDifference) {
    return (ntpDifference * kMicrosecondsPerNtpNumerator) >> kMicrosecondsPerNtpShift;
}

// A one-way delay in microseconds. The clocks of sender and reflector need
// not agree, so the difference may be negative and is read as signed: a
// negative delay stays a small negative number instead of wrapping to about
// 2^38 us, and only its change from packet to packet is used. A difference
// of 0 to 2^50 gives the same value as ntpToMicroseconds.
int64_t ntpToSignedMicroseconds(uint64_t ntpDifference) {
    const uint64_t fraction = ntpDifference & kNtpFractionMask;
    // Exact division: the fraction's bits are taken off first.
    const int64_t seconds =
        (static_cast<int64_t>(ntpDifference) - static_cast<int64_t>(fraction)) / kNtpSecond;
    return seconds * kMicrosecondsPerSecond + static_cast<int64_t>(ntpToMicroseconds(fraction));
}

// Traces of the steps below name the operation they belong to.
constexpr const char* kInit = "init";
constexpr const char* kHandlePacketTimer = "handlePacketTimer";
constexpr const char* kSendMessage = "sendMessage";
constexpr const char* kUpdatePmMember = "updatePmMember";
constexpr const char* kFinalizePmMember = "finalizePmMember";

}  // namespace

// ---- Life: construction, start, the descriptors it serves ----

TwampTestSession::TwampTestSession(const char* dstIpAddress, const char* dstUdpPort,
                                   uint32_t packetsPerSecond, uint32_t spare1, uint32_t spare2,
                                   int32_t packetSize, uint32_t dscp, uint32_t startOffset,
                                   uint32_t spreadingBase, Clock& clock, SystemCalls* systemCalls)
    : dstIpAddress(requireText(dstIpAddress, "dstIpAddress")),
      dstUdpPort(requireText(dstUdpPort, "dstUdpPort")),
      packetsPerSecond(static_cast<int32_t>(packetsPerSecond)),
      spare1(spare1),
      spare2(spare2),
      packetSize(packetSize),
      startOffset(static_cast<int32_t>(startOffset)),
      spreadingBase(spreadingBase),
      dscp(dscp),
      outstanding(outstandingCapacityFor(static_cast<int32_t>(packetsPerSecond))),
      sequences(static_cast<int32_t>(packetsPerSecond)),
      clock(clock),
      systemCalls(systemCalls != nullptr ? *systemCalls : SystemCalls::real()) {
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
    outstanding.clear();
    if (timerFd != -1) {
        systemCalls.close(timerFd);
    }
    controller().getIoMultiplexer().removeReadHandler(this);
    removeFromSocket();
    packetBuffer.reset();
    if (pendingPmReply != nullptr) {
        itc_free(&pendingPmReply);
    }
}

bool TwampTestSession::init() {
    const int rc = resolveDestination();
    if (rc != 0) {
        TRACE_ERROR("Failed getaddrinfo: %s", gai_strerror(rc));
        return false;
    }
    initPmStates();
    // The descriptor comes before the socket: a session refused for want of
    // one has not yet taken the socket's routing of its destination, which
    // its removal would take away from a running session towards the same
    // reflector.
    if (!createTimer()) {
        return false;
    }
    if (!controller().getIoMultiplexer().registerReadHandler(this)) {
        descriptorFailure = "the event loop cannot watch its packet timer";
        return false;
    }
    registerWithSocket();
    if (!setAndStartTimer()) {
        return false;
    }
    return writeInitialPadding();
}

std::string TwampTestSession::getDescriptorFailure() const {
    return descriptorFailure;
}

int TwampTestSession::resolveDestination() {
    struct addrinfo hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_flags = AI_PASSIVE;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    struct addrinfo* result = nullptr;
    const int rc =
        systemCalls.getaddrinfo(dstIpAddress.c_str(), dstUdpPort.c_str(), &hints, &result);
    if (rc != 0) {
        return rc;
    }
    std::memcpy(&dstAddress, result->ai_addr, result->ai_addrlen);
    dstAddressLength = result->ai_addrlen;
    systemCalls.freeaddrinfo(result);
    return 0;
}

void TwampTestSession::initPmStates() {
    // A failure is traced by the state itself; the session runs without percentiles.
    // A minute holds its own expiries and those of the minute before that
    // were read after it ended, at most one read's worth: a vector any
    // smaller would refuse the last samples and leave them out of the average.
    const auto samples =
        static_cast<uint32_t>(expiriesPerMinute(packetsPerSecond) + kMaxExpiriesPerRead);
    for (int parity = 0; parity < kParityCount; ++parity) {
        for (std::unique_ptr<PmState>* states : {delayRt, ipdvFwd, ipdvRev}) {
            states[parity] = std::make_unique<PmState>();
            states[parity]->initForSamples(samples);
        }
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
        descriptorFailure = std::string("timerfd_create failed: ") + strerror(error);
        return false;
    }
    return true;
}

void TwampTestSession::registerWithSocket() {
    udpSocket().addMessageReceiver(ReceiverKey(dstAddress), static_cast<MessageReceiver*>(this));
    registeredWithSocket = true;
}

void TwampTestSession::removeFromSocket() {
    if (!registeredWithSocket) {
        return;
    }
    udpSocket().removeMessageReceiver(ReceiverKey(dstAddress), static_cast<MessageReceiver*>(this));
    registeredWithSocket = false;
}

bool TwampTestSession::writeInitialPadding() {
    OwampTestMessage message(packetBuffer.get(), static_cast<uint64_t>(packetSize));
    uint8_t* padding = nullptr;
    const uint64_t length = message.getPadding(&padding);
    return generateRandomPayload(padding, length);
}

bool TwampTestSession::generateRandomPayload(uint8_t* buffer, std::size_t length) {
    const int randomFd = controller().getRandomFd().getFd();
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

std::set<int> TwampTestSession::getReadFds() const {
    return readFds;
}

std::set<int> TwampTestSession::getWriteFds() const {
    return {udpSocket().getSocketFd()};
}

bool TwampTestSession::handleOutput(int /*fd*/) {
    return true;
}

// The session is created, run and deleted by the process-wide controller;
// it asks the controller for the shared parts each time, never keeps them.
TwampTestSessionControllerInterface& TwampTestSession::controller() {
    return *TwampTestSessionController::getInstance();
}

UdpSocket& TwampTestSession::udpSocket() {
    return controller().getUdpSocket();
}

// ---- Timer: the packet schedule and the start of each minute ----

bool TwampTestSession::handleInput(int fd) {
    if (fd == timerFd) {
        return handlePacketTimer();
    }
    return true;
}

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
    const uint32_t firstMinute = minuteOf(timerValue.it_value);
    minutePending[parityOf(firstMinute)] = 1;
    pendingMinute[parityOf(firstMinute)] = firstMinute;
    pendingMinuteStarted[parityOf(firstMinute)] = 0;
    currentMinute = minuteOf(now);
    lastTickMinute = currentMinute;
    finalisationDueSinceNs = -1;
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
            // The loop stood still: replies that came meanwhile are still
            // queued, so no minute is finalised before the next read.
            holdMinuteTick = true;
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
    holdMinuteTick = false;
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
    // Minutes interrupted by the step cannot be accounted: their replies may
    // have come on either side of it.
    for (int parity = 0; parity < kParityCount; ++parity) {
        if (minutePending[parity] != 0 && pendingMinuteStarted[parity] != 0) {
            declareMinuteUnaccountable(pendingMinute[parity], "wall clock set");
        }
        minutePending[parity] = 0;
    }
    outstanding.clear();
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
    if (tickMinute != lastTickMinute && !holdMinuteTick && mayFinaliseNow()) {
        lastTickMinute = tickMinute;
        finaliseAtPace(tickMinute);
    }
}

bool TwampTestSession::mayFinaliseNow() {
    int64_t nowNs = 0;
    if (!readMonotonicNs(nowNs)) {
        return true;  // without a clock to pace by, finalise at once
    }
    if (finalisationDueSinceNs < 0) {
        finalisationDueSinceNs = nowNs;
    }
    return controller().getFinalisationPacer().mayFinalise(nowNs, finalisationDueSinceNs);
}

void TwampTestSession::finaliseAtPace(uint32_t tickMinute) {
    finalisationDueSinceNs = -1;
    int64_t startNs = 0;
    const bool started = readMonotonicNs(startNs);
    minuteTick(tickMinute);
    int64_t endNs = 0;
    if (started && readMonotonicNs(endNs)) {
        controller().getFinalisationPacer().finalised(startNs, endNs);
    }
}

bool TwampTestSession::readMonotonicNs(int64_t& nowNs) {
    struct timespec now;
    if (!clock.getMonotonic(&now)) {
        return false;
    }
    nowNs = static_cast<int64_t>(now.tv_sec) * kNanosecondsPerSecond + now.tv_nsec;
    return true;
}

void TwampTestSession::startMinute(uint32_t minute) {
    abandonStaleMinutes(minute);
    const int bin = binOf(minute);
    const int recordIndex = recordIndexOf(minute);
    const int parity = parityOf(minute);
    const uint32_t interval = minute / kMinutesPerInterval;
    if (bin == 0 || recordInterval[recordIndex] != interval) {
        // A new interval, also when its first minute was never started.
        records[recordIndex].fill(PmPeriodRecord::kNotAvailable);
        recordComplete[recordIndex] = 0;
        recordInterval[recordIndex] = interval;
    }
    closeSkippedInterval(interval);
    minutePending[parity] = 1;
    pendingMinute[parity] = minute;
    pendingMinuteStarted[parity] = 1;
    receiveQueueOverflow[parity] = false;
    resetPmStates(parity);
    dscpRev[parity].clear();
    ttlFwd[parity].clear();
    ttlRev[parity].clear();
    ipdvHistory[parity].clear();
    sequenceErrorFlag = 0;
    // A minute measured again after the wall clock was set back into its
    // interval keeps nothing of its first measurement.
    fillBin(records[recordIndex], bin, PmPeriodRecord::kNotAvailable);
    for (PmCounter::Index counter : kCountersZeroedAtMinuteStart) {
        records[recordIndex].at(counter, bin) = 0;
    }
    sequences.startMinute(parity, sequenceNumber);
}

void TwampTestSession::abandonStaleMinutes(uint32_t minute) {
    // Normally only the minute before is still pending (it is finalised 4 s
    // into this one). Anything older was missed while the process or the
    // machine stood still and can no longer be accounted.
    for (int parity = 0; parity < kParityCount; ++parity) {
        if (minutePending[parity] != 0 && pendingMinuteStarted[parity] != 0 &&
            pendingMinute[parity] != minute - 1) {
            declareMinuteUnaccountable(pendingMinute[parity], "timer stalled");
        }
    }
}

void TwampTestSession::closeSkippedInterval(uint32_t interval) {
    // The record before holds the interval before, finished: when that
    // interval was skipped (a stall, a clock step), it is reported as such,
    // all -2, rather than with an older interval's values.
    const int previous = recordIndexOf((interval - 1) * kMinutesPerInterval);
    if (recordInterval[previous] == interval - 1) {
        return;
    }
    records[previous].fill(PmPeriodRecord::kNotAvailable);
    recordInterval[previous] = interval - 1;
    recordComplete[previous] = 1;
}

// ---- Send: one test packet on the shared socket ----

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
    UdpSocket& sharedSocket = udpSocket();
    const int socket = sharedSocket.getSocketFd();
    applySendOptions(socket, sharedSocket.getFamily());
    const ssize_t sent = systemCalls.sendmsg(socket, &messageHeader, 0);
    bookSendResult(sent, now, t1);
}

bool TwampTestSession::readRandomByte(uint8_t& randomByte) {
    RandomFd& randomFd = controller().getRandomFd();
    if (randomFd.getFd() == -1) {
        TRACE_ERROR_AS(kSendMessage, "Failed to set packet padding: /dev/urandom not open");
        return false;
    }
    const ssize_t count =
        randomFd.takeByte(randomByte, [this](int fd, void* buffer, std::size_t length) {
            return systemCalls.read(fd, buffer, length);
        });
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
    if (packetSize <= static_cast<int64_t>(OwampTestMessage::kPaddingOffset)) {
        return;
    }
    varyPaddingBytes(packetBuffer.get(), OwampTestMessage::kPaddingOffset,
                     static_cast<std::size_t>(packetSize), randomByte);
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

bool TwampTestSession::setDscp(int socket) {
    const int tos = static_cast<int>(dscp << kDscpShift);
    UdpSocket& sharedSocket = udpSocket();
    // The TOS belongs to the shared socket and stays set: a system call is
    // needed only when the packet before left with another DSCP.
    if (sharedSocket.getAppliedTos() == tos) {
        return true;
    }
    if (systemCalls.setsockopt(socket, IPPROTO_IP, IP_TOS, &tos, sizeof(tos)) != 0) {
        const int error = errno;
        sharedSocket.setAppliedTos(-1);
        TRACE_ERROR("Failed to set socket option IP_TOS: errno %d - %s", error, strerror(error));
        return false;
    }
    sharedSocket.setAppliedTos(tos);
    return true;
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
    // A number still outstanding after the sequence number wrapped keeps its
    // packet; the new one is not stored.
    outstanding.add(sequenceNumber, t1, minute);
    ++sequenceNumber;
    records[recordIndexOf(minute)].at(PmCounter::sentPkts, binOf(minute)) += 1;
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

// ---- Receive: a reply or a transmit timestamp finds its packet ----

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
    const int family = udpSocket().getFamily();
    const std::size_t headerLength = getLoopedFrameHeaderLength(frame, frameLength, family);
    if (frameLength < headerLength + OwampTestMessage::kErrorEstimateOffset) {
        return false;
    }
    const OwampTestMessage sent(frame + headerLength, frameLength - headerLength);
    return isOutstanding(sent.getSequenceNumber(), sent.getTimestamp());
}

void TwampTestSession::receiveQueueOverflowed() {
    for (int parity = 0; parity < kParityCount; ++parity) {
        if (minutePending[parity] != 0 && pendingMinuteStarted[parity] != 0) {
            receiveQueueOverflow[parity] = true;
        }
    }
}

// Packet seqNo sent at t1 is outstanding here.
bool TwampTestSession::isOutstanding(uint32_t seqNo, uint64_t t1) const {
    const SentPacket* sent = outstanding.find(seqNo);
    return sent != nullptr && sent->t1 == t1;
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
    const uint64_t echoedT1 = message.getSenderTimestamp();
    const uint32_t seqNo = message.getSenderSequenceNumber();
    SentPacket* sent = findSentPacket(parityOf(minuteOfNtp(echoedT1)), seqNo);
    if (sent == nullptr) {
        TRACE_LAB("No outstanding packet found for seqNum: %u ", seqNo);
        return;
    }
    // A reply must echo the send time of the packet it answers; one that
    // does not cannot be placed in any minute.
    if (sent->t1 != echoedT1) {
        TRACE_LAB("Response sender timestamp %lx differs from %lx sent, seqNum: %u ",
                  static_cast<unsigned long>(echoedT1), static_cast<unsigned long>(sent->t1),
                  seqNo);
        return;
    }
    auto packet = std::make_unique<OutstandingPacket>(seqNo, sent->t1);
    packet->setResponse(msg, controller().getSocketHelper());
    if (!analyzeIfComplete(*packet, *sent, Arrival::reply)) {
        TRACE_LAB("Received response packet, but TX timestamp unknown, seqNum: %u ", seqNo);
        outstanding.holdReply(std::move(packet));
    }
}

void TwampTestSession::receiveErrQueueMessage(struct msghdr* msg, ssize_t length) {
    if (msg == nullptr || msg->msg_iov == nullptr || msg->msg_iovlen < 1 || length < 0) {
        return;
    }
    const auto frameLength = static_cast<std::size_t>(length);
    const auto* frame = static_cast<uint8_t*>(msg->msg_iov[0].iov_base);
    const int family = udpSocket().getFamily();
    const std::size_t headerLength = getLoopedFrameHeaderLength(frame, frameLength, family);
    // Sequence Number and Timestamp must lie inside the looped-back frame.
    if (frameLength < headerLength + OwampTestMessage::kErrorEstimateOffset) {
        TRACE_LAB("Looped-back frame of %zu bytes is too short and thus discarded", frameLength);
        return;
    }
    OwampTestMessage message(const_cast<uint8_t*>(frame) + headerLength,
                             frameLength - headerLength);
    const uint64_t t1 = message.getTimestamp();
    const uint32_t seqNo = message.getSequenceNumber();
    SentPacket* sent = findSentPacket(parityOf(minuteOfNtp(t1)), seqNo);
    if (sent == nullptr || sent->t1 != t1) {
        TRACE_LAB("No outstanding packet found for seqNum: %u ", seqNo);
        return;
    }
    const std::vector<OutstandingPacket*> held = outstanding.heldReplies(seqNo);
    if (held.empty() && sent->replyCount != 0 && sent->t1Prime != 0) {
        // The packet was answered and analysed already: a second timestamp
        // would count its reply twice.
        TRACE_LAB("Repeated TX Timestamp ignored, seqNum: %u ", seqNo);
        return;
    }
    sent->t1Prime = getTxTimestamp(msg);
    // The usual order: the timestamp came before the reply. A held reply
    // without a receive timestamp is never analysed.
    const auto complete = [sent](const OutstandingPacket* reply) {
        return isComplete(*reply, *sent, Arrival::txTimestamp);
    };
    if (std::none_of(held.begin(), held.end(), complete)) {
        return;
    }
    TRACE_LAB("Got late TX Timestamp, seqNum: %u ", seqNo);
    // Every copy that came meanwhile is analysed in the order it came: the
    // first one gives the delays, the others are duplicates.
    for (OutstandingPacket* reply : held) {
        analyzeIfComplete(*reply, *sent, Arrival::txTimestamp);
    }
    outstanding.releaseReplies(seqNo);
}

SentPacket* TwampTestSession::findSentPacket(int parity, uint32_t seqNo) {
    SentPacket* sent = outstanding.find(seqNo);
    // Each minute parity keeps its own packets: a number found under the
    // other parity is not this packet.
    if (sent == nullptr || parityOf(sent->minute) != parity) {
        return nullptr;
    }
    return sent;
}

// ---- Analyse: a matched packet becomes samples and counts of its minute ----

// A packet's measurement has two halves that arrive in either order: the
// reply and the transmit timestamp. The half that has just arrived is taken
// as it came (a transmit timestamp the kernel left out is analysed as 0);
// the other half must be known already.
bool TwampTestSession::isComplete(const OutstandingPacket& reply, const SentPacket& sent,
                                  Arrival arrival) {
    if (arrival == Arrival::reply) {
        return sent.t1Prime != 0;
    }
    return reply.getT4() != 0;
}

bool TwampTestSession::analyzeIfComplete(OutstandingPacket& reply, const SentPacket& sent,
                                         Arrival arrival) {
    if (!isComplete(reply, sent, arrival)) {
        return false;
    }
    analyzeReply(reply, sent);
    return true;
}

void TwampTestSession::analyzeReply(OutstandingPacket& reply, const SentPacket& sent) {
    // The reply counts, as the packet's next one, only when it came within
    // 4 s of the transmit timestamp: a later copy is discarded by analyzePM
    // and is neither a received packet nor a duplicate.
    reply.restore(sent.t1Prime, sent.replyCount + 1);
    if (reply.getT4() - sent.t1Prime <= kRoundTripLimit) {
        outstanding.countReply(reply.getSenderSeqNo());
    }
    const uint32_t minute = sent.minute;
    analyzePM(reply, recordIndexOf(minute), binOf(minute), parityOf(minute));
}

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
    const ReplyNumbers numbers{packet.getSenderSeqNo(), packet.getResponderSeqNo(),
                               packet.getReplyCount() == 1};
    if (sequenceErrorFlag != 0) {
        sequences.resynchronise(numbers, parity);
        return;
    }
    if (sequences.isBroken(numbers, parity)) {
        // The reflector restarted: sequence and delay accounting pause until
        // the next minute start, and a minute still being finalised is void.
        sequenceErrorFlag = 1;
        sequences.resynchronise(numbers, parity);
        return;
    }
    countSequenceNumbers(record, bin, numbers, parity);
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

void TwampTestSession::countSequenceNumbers(PmPeriodRecord& record, int bin,
                                            const ReplyNumbers& numbers, int parity) {
    bool counted = false;
    uint32_t reverseGap = 0;
    if (sequences.isResponderRenumbered(numbers, parity)) {
        sequences.followRenumbering(numbers, parity);
    } else {
        reverseGap = sequences.trackReverse(
            numbers, parity,
            {record.at(PmCounter::lostPktsRev, bin), record.at(PmCounter::latePktsRev, bin),
             record.at(PmCounter::duplicatePktsRev, bin)},
            counted);
    }
    if (reverseGap > 0 && numbers.responderSeqNo == numbers.senderSeqNo) {
        reportStatelessReflector();
    }
    // A packet lost on the way back advanced the reflector's number: it is
    // counted once, as reverse loss, not again as forward loss.
    sequences.trackForward(
        numbers, parity,
        {record.at(PmCounter::lostPktsFwd, bin), record.at(PmCounter::latePktsFwd, bin),
         record.at(PmCounter::duplicatePktsFwd, bin)},
        reverseGap, counted);
}

void TwampTestSession::reportStatelessReflector() {
    // A reflector that numbers its replies with the sender's number makes
    // a packet lost on the way out look lost on the way back.
    if (statelessReflectorReported) {
        return;
    }
    statelessReflectorReported = true;
    TRACE_INFO_AS(kUpdatePmMember,
                  "Reflector of dstIpAddress %s, dstUdpPort %s numbers its replies with the "
                  "sender sequence number: forward loss is counted as reverse loss",
                  dstIpAddress.c_str(), dstUdpPort.c_str());
}

void TwampTestSession::addHeaderFields(const OutstandingPacket& packet, int parity) {
    dscpRev[parity].add(packet.getReplyDscp() & 0xffU);
    // No packet arrives with TTL 0: a reflector that leaves its Sender TTL
    // at 0, or a reply without a hop-limit item, tells nothing.
    if (packet.getSenderTtl() != 0) {
        ttlFwd[parity].add(packet.getSenderTtl());
    }
    if (packet.getReplyTtl() != 0) {
        ttlRev[parity].add(packet.getReplyTtl());
    }
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
    addIpdvSamples(packet.getSenderSeqNo(), ntpToSignedMicroseconds(t2 - t1Prime),
                   ntpToSignedMicroseconds(t4 - t3), parity);
}

void TwampTestSession::addIpdvSamples(uint32_t senderSeqNo, int64_t forwardDelay,
                                      int64_t reverseDelay, int parity) {
    std::map<uint32_t, DelayPair>& history = ipdvHistory[parity];
    history.emplace(senderSeqNo, DelayPair(forwardDelay, reverseDelay));
    const auto previous = history.find(senderSeqNo - 1);
    if (previous == history.end()) {
        return;
    }
    const int64_t forwardVariation = forwardDelay - previous->second.first;
    const int64_t reverseVariation = reverseDelay - previous->second.second;
    // Only increases of delay are recorded.
    if (forwardVariation >= 0) {
        ipdvFwd[parity]->addSample(static_cast<uint64_t>(forwardVariation));
    }
    if (reverseVariation >= 0) {
        ipdvRev[parity]->addSample(static_cast<uint64_t>(reverseVariation));
    }
    history.erase(previous);
}

// ---- Finalise: 4 s after a minute ends its bin is written ----

void TwampTestSession::minuteTick(uint32_t minute) {
    // The tick of minute n finalises minute n - 1.
    const uint32_t finished = minute - 1;
    const int parity = parityOf(finished);
    const bool pendingIsOlder =
        static_cast<int32_t>(finished - pendingMinute[parity]) > 0 && pendingMinuteStarted[parity];
    if (minutePending[parity] != 0 &&
        (pendingMinuteStarted[parity] == 0 || pendingMinute[parity] == finished)) {
        const int recordIndex = recordIndexOf(minute);
        const int bin = binOf(minute);
        if (bin == 0) {
            // The last minute of the previous interval completes its record.
            finalizePmMember(records[1 - recordIndex], kMinutesPerInterval - 1, parity, finished);
            recordComplete[1 - recordIndex] = 1;
        } else {
            finalizePmMember(records[recordIndex], bin - 1, parity, finished);
        }
        minutePending[parity] = 0;
    } else if (minutePending[parity] != 0 && pendingIsOlder) {
        declareMinuteUnaccountable(pendingMinute[parity], "timer stalled");
    }
    sendPendingPmReply();
}

void TwampTestSession::finalizePmMember(PmPeriodRecord& record, int bin, int parity,
                                        uint32_t minute) {
    if (sequenceErrorFlag != 0) {
        // A reflector restart seen before this minute was finalised voids it.
        fillBin(record, bin, PmPeriodRecord::kNotAvailable);
        if (delayRt[parity] != nullptr && delayRt[parity]->getCount() > 0) {
            drainPercentiles(parity);
        }
        deleteOutstandingPackets(minute);
        return;
    }
    if (receiveQueueOverflow[parity]) {
        // A reply dropped by the full receive queue would count as lost
        // although the network delivered it.
        declareMinuteUnaccountable(minute, "receive queue overflow");
        return;
    }
    if (outstanding.awaitsTimestamp(minute)) {
        // A reply whose packet's transmit timestamp never came is neither
        // lost nor measured: the minute's counts would be wrong either way.
        declareMinuteUnaccountable(minute, "transmit timestamp missing");
        return;
    }
    if (delayRt[parity] != nullptr && delayRt[parity]->getCount() > 0) {
        if (exceedsRoundTripBound(parity)) {
            invalidateMinute(record, bin, parity);
            deleteOutstandingPackets(minute);
            return;
        }
        writeDelayCounters(record, bin, parity);
    }
    reconcileDuplicates(record, bin, minute);
    countUnansweredPackets(record, bin, parity, minute);
    writeLossPeriods(record, bin, parity);
    deleteOutstandingPackets(minute);
    if (!isBinConsistent(record, bin)) {
        declareMinuteUnaccountable(minute, "counts out of range");
    }
}

bool TwampTestSession::exceedsRoundTripBound(int parity) const {
    return delayRt[parity]->getMax() > kSampleLimitMicroseconds ||
           ipdvFwd[parity]->getMax() > kSampleLimitMicroseconds ||
           ipdvRev[parity]->getMax() > kSampleLimitMicroseconds;
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
    writeTracker(record, bin, dscpRev[parity], PmCounter::dscpRevMin, PmCounter::dscpRevMax);
    writeTracker(record, bin, ttlFwd[parity], PmCounter::ttlFwdMin, PmCounter::ttlFwdMax);
    writeTracker(record, bin, ttlRev[parity], PmCounter::ttlRevMin, PmCounter::ttlRevMax);
}

void TwampTestSession::writeTracker(PmPeriodRecord& record, int bin, const MinMaxTracker& tracker,
                                    PmCounter::Index min, PmCounter::Index max) {
    // A tracker that saw no value (TTLs of 0 are none) leaves its counters at -2.
    if (tracker.count == 0) {
        return;
    }
    record.at(min, bin) = static_cast<int64_t>(tracker.min);
    record.at(max, bin) = static_cast<int64_t>(tracker.max);
}

void TwampTestSession::reconcileDuplicates(PmPeriodRecord& record, int bin, uint32_t minute) const {
    // Every reply beyond a packet's first is a duplicate in one direction or
    // the other; what the sequence trackers missed is put on the forward side.
    const auto duplicates = static_cast<int64_t>(outstanding.extraRepliesOf(minute));
    int64_t& forward = record.at(PmCounter::duplicatePktsFwd, bin);
    const int64_t reverse = record.at(PmCounter::duplicatePktsRev, bin);
    if (duplicates != forward + reverse) {
        forward = duplicates - reverse;
    }
}

void TwampTestSession::countUnansweredPackets(PmPeriodRecord& record, int bin, int parity,
                                              uint32_t minute) {
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
    const std::size_t sentInMinute = outstanding.countOf(minute);
    if (unanswered == 0 || static_cast<uint64_t>(unanswered) > sentInMinute) {
        return;
    }
    // The last packets sent, in the order they were sent.
    const uint32_t last = outstanding.lastSeqNoOf(minute);
    sequences.appendMissingForward(parity, static_cast<uint32_t>(last - (unanswered - 1)),
                                   static_cast<uint64_t>(unanswered));
}

void TwampTestSession::writeLossPeriods(PmPeriodRecord& record, int bin, int parity) const {
    // Run lengths are turned from packets into milliseconds by the whole
    // packet interval (0 above 1000 packets per second); run counts stay counts.
    const int64_t millisecondsPerPacket =
        packetsPerSecond != 0
            ? static_cast<int64_t>(kMillisecondsPerSecond / static_cast<uint32_t>(packetsPerSecond))
            : 1;
    const LossRuns forward = sequences.forwardRuns(parity);
    const LossRuns reverse = sequences.reverseRuns(parity);
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
    UdpSocket& sharedSocket = udpSocket();
    const char* srcIpAddress = textOrEmpty(sharedSocket.getSrcIpAddress());
    const char* srcUdpPort = textOrEmpty(sharedSocket.getSrcUdpPort());
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

void TwampTestSession::deleteOutstandingPackets(uint32_t minute) {
    // A reply arriving later finds nothing to match.
    outstanding.dropMinute(minute);
}

bool TwampTestSession::isBinConsistent(const PmPeriodRecord& record, int bin) const {
    const int64_t sent = record.at(PmCounter::sentPkts, bin);
    const auto value = [&record, bin](PmCounter::Index counter) { return record.at(counter, bin); };
    const auto available = [](int64_t count) { return count != PmPeriodRecord::kNotAvailable; };
    for (PmCounter::Index counter : {PmCounter::lostPktsFwd, PmCounter::lostPktsRev,
                                     PmCounter::latePktsFwd, PmCounter::latePktsRev}) {
        if (available(value(counter)) && (value(counter) < 0 || value(counter) > sent)) {
            return false;
        }
    }
    const int64_t duplicates =
        value(PmCounter::duplicatePktsFwd) + value(PmCounter::duplicatePktsRev);
    if (value(PmCounter::duplicatePktsFwd) < 0 || value(PmCounter::duplicatePktsRev) < 0 ||
        value(PmCounter::receivedPkts) < 0) {
        return false;
    }
    int64_t accounted = value(PmCounter::receivedPkts);
    for (PmCounter::Index counter : {PmCounter::lostPktsFwd, PmCounter::lostPktsRev}) {
        if (available(value(counter))) {
            accounted += value(counter);
        }
    }
    return accounted <= sent + duplicates;
}

void TwampTestSession::declareMinuteUnaccountable(uint32_t minute, const char* reason) {
    const int parity = parityOf(minute);
    const int recordIndex = recordIndexOf(minute);
    const int bin = binOf(minute);
    TRACE_LAB_AS(kFinalizePmMember,
                 "Minute %u cannot be accounted (%s) for dstIpAddress %s, dstUdpPort %s so all "
                 "counters of period %d are reset to -2",
                 minute, reason, dstIpAddress.c_str(), dstUdpPort.c_str(), bin);
    tn_log_internal_log(
        kInvalidationLogSeverity, kTnNetworkLogMask, kOperatorLogUser,
        tn_log_format("TwampTestSession: minute %u cannot be accounted (%s) for "
                      "dstIpAddress %s, dstUdpPort %s so all counters of period "
                      "%d are reset to -2",
                      minute, reason, dstIpAddress.c_str(), dstUdpPort.c_str(), bin));
    // Only a record that still holds the minute's interval has its bin.
    if (recordInterval[recordIndex] == minute / kMinutesPerInterval) {
        fillBin(records[recordIndex], bin, PmPeriodRecord::kNotAvailable);
        if (bin == kMinutesPerInterval - 1) {
            recordComplete[recordIndex] = 1;
        }
    }
    if (minutePending[parity] != 0 && pendingMinute[parity] == minute) {
        if (delayRt[parity] != nullptr && delayRt[parity]->getCount() > 0) {
            drainPercentiles(parity);
        }
        resetPmStates(parity);
        minutePending[parity] = 0;
    }
    deleteOutstandingPackets(minute);
}

// ---- Counters: what a manager's request reads ----

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

int TwampTestSession::getActivePeriod() {
    struct timespec now;
    if (!clock.getRealtime(&now)) {
        const int error = errno;
        TRACE_ERROR("Failed clock_gettime: errno %d - %s", error, strerror(error));
        return 0;
    }
    return binOf(minuteOf(now));
}

void TwampTestSession::setPendingPmReply(union itc_msg* reply) {
    // Only one reply is held; an earlier one would be lost memory.
    if (pendingPmReply != nullptr && pendingPmReply != reply) {
        itc_free(&pendingPmReply);
    }
    pendingPmReply = reply;
}

void TwampTestSession::sendPendingPmReply() {
    if (pendingPmReply == nullptr) {
        return;
    }
    ItcDispatcher* dispatcher = controller().getItcDispatcher();
    if (dispatcher == nullptr) {
        // Kept, and freed with the session.
        return;
    }
    union itc_msg* reply = pendingPmReply;
    pendingPmReply = nullptr;
    dispatcher->sendPmCountersReply(this, reply);
}

struct sockaddr_storage TwampTestSession::getDstAddress() const {
    return dstAddress;
}
