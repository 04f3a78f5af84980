// One test session towards one reflector address and port.
//
// Created by the dispatcher from a create signal, started with init() and
// owned by the controller's registry. The session is an event source of the
// multiplexer (its packet timer) and a receiver of the UDP socket (replies and
// transmit timestamps for its destination address). It keeps two 15-minute
// period records of PM counters and alternates between them by the parity of
// the interval number; a counters request reads them through getPmCounters.
#ifndef TWAMP_TEST_SESSION_H
#define TWAMP_TEST_SESSION_H

#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "Clock.h"
#include "IoHandler.h"
#include "MessageReceiver.h"
#include "PmPeriodRecord.h"
#include "RealtimeClock.h"

union itc_msg;

class TwampTestSession : public IoHandler, public MessageReceiver {
  public:
    // Stores the create signal's fields; throws std::logic_error when either
    // text is null. clock is the wall clock the session reads.
    TwampTestSession(const char* dstIpAddress, const char* dstUdpPort, uint32_t packetsPerSecond,
                     uint32_t spare1, uint32_t spare2, int32_t packetSize, uint32_t dscp,
                     uint32_t startOffset, uint32_t spreadingBase,
                     Clock& clock = RealtimeClock::instance());
    TwampTestSession(const TwampTestSession&) = delete;
    TwampTestSession& operator=(const TwampTestSession&) = delete;
    // Leaves the multiplexer and the socket and frees a held counters reply.
    ~TwampTestSession() override;

    // IoHandler
    // The packet timer's descriptor once it exists.
    std::set<int> getReadFds() const override;
    // The shared UDP socket; the session never registers for writing.
    std::set<int> getWriteFds() const override;
    // Serves the packet timer; any other descriptor is ignored.
    bool handleInput(int fd) override;
    // Does nothing.
    bool handleOutput(int fd) override;

    // Starts the session; true when it was started.
    virtual bool init();

    // MessageReceiver
    // A reflected test packet for the destination address.
    void receiveMessage(struct msghdr* msg) override;
    // A looped-back frame with its transmit timestamp.
    void receiveErrQueueMessage(struct msghdr* msg, ssize_t length) override;

    // The record to report: the last completed interval (null while it is
    // not finalised) or the interval in progress; null when the clock fails.
    virtual const PmPeriodRecord* getPmCounters(bool completedIntervalOnly);
    // Holds a counters reply until the last completed interval is finalised.
    virtual void setPendingPmReply(union itc_msg* reply);
    // The bin of the running minute (minute of the hour mod 15); 0 when the clock fails.
    virtual int getActivePeriod();
    // The resolved destination socket address.
    virtual struct sockaddr_storage getDstAddress() const;

  private:
    static constexpr int kRecordCount = 2;

    // Resolves the destination into dstAddress; 0 or the getaddrinfo error.
    int resolveDestination();
    void registerWithSocket();
    void removeFromSocket();
    bool handlePacketTimer();

    std::unique_ptr<uint8_t[]> packetBuffer;  // the test packet, re-sent for every sequence number
    std::string dstIpAddress;
    std::string dstUdpPort;
    int32_t packetsPerSecond;
    uint32_t spare1;  // stored, never read
    uint32_t spare2;  // stored, never read
    int64_t packetSize;
    int32_t startOffset;
    uint32_t spreadingBase;
    uint32_t dscp;
    uint64_t sentOkCount = 0;
    uint64_t sendFailedCount = 0;
    uint64_t timerOverruns = 0;
    int timerFd = -1;
    std::set<int> readFds;
    struct sockaddr_storage dstAddress;
    uint32_t dstAddressLength = 0;
    uint32_t sequenceNumber = 0;
    int64_t lastSendResult = 0;
    int64_t lastSendErrno = 0;
    bool registeredWithSocket = false;
    uint8_t minutePending[2] = {0, 0};
    // Rates above 63 packets per second wrap: the limit is kept in 8 bits.
    uint8_t sequenceJumpLimit;
    uint8_t sequenceErrorFlag = 0;
    uint32_t currentMinute = 0;
    uint32_t lastTickMinute = 0;
    union itc_msg* pendingPmReply = nullptr;
    uint8_t recordComplete[kRecordCount] = {1, 1};
    PmPeriodRecord records[kRecordCount];
    Clock& clock;
};

#endif  // TWAMP_TEST_SESSION_H
