#include "TwampTestSession.h"

#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "IoMultiplexer.h"
#include "ReceiverKey.h"
#include "TraceFacade.h"
#include "TwampTestSessionController.h"
#include "UdpSocket.h"
#include "itc.h"

namespace {

constexpr uint32_t kSecondsPerMinute = 60;
constexpr uint32_t kMinutesPerInterval = 15;

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

}  // namespace

TwampTestSession::TwampTestSession(const char* dstIpAddress, const char* dstUdpPort,
                                   uint32_t packetsPerSecond, uint32_t spare1, uint32_t spare2,
                                   int32_t packetSize, uint32_t dscp, uint32_t startOffset,
                                   uint32_t spreadingBase, Clock& clock)
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
      clock(clock) {
    std::memset(&dstAddress, 0, sizeof(dstAddress));
    for (PmPeriodRecord& record : records) {
        record.fill(PmPeriodRecord::kNotAvailable);
    }
    // Contents stay undefined until the padding is written.
    packetBuffer.reset(new uint8_t[this->packetSize]);
}

TwampTestSession::~TwampTestSession() {
    if (timerFd != -1) {
        close(timerFd);
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
    // Arming the packet timer and writing the padding are not part of this
    // start-up: no timer descriptor exists and no packet is sent.
    return true;
}

void TwampTestSession::receiveMessage(struct msghdr* /*msg*/) {
    // Replies are not matched: nothing has been sent.
}

void TwampTestSession::receiveErrQueueMessage(struct msghdr* /*msg*/, ssize_t /*length*/) {
    // Transmit timestamps are not matched: nothing has been sent.
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

bool TwampTestSession::handlePacketTimer() {
    // init() arms no timer, so timerFd stays -1 and no expiry reaches here.
    return true;
}
