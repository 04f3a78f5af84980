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
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "Clock.h"
#include "IoHandler.h"
#include "MessageReceiver.h"
#include "MinMaxTracker.h"
#include "OutstandingPacket.h"
#include "OutstandingPacketStore.h"
#include "PmPeriodRecord.h"
#include "PmState.h"
#include "SystemClock.h"
#include "SequenceTracker.h"
#include "SystemCalls.h"

class TwampTestSessionControllerInterface;
class UdpSocket;
union itc_msg;

class TwampTestSession : public IoHandler, public MessageReceiver {
  public:
    // Stores the create signal's fields; throws std::logic_error when either
    // text is null. clock is the wall clock the session reads; systemCalls
    // null for the real system calls, otherwise not owned and must outlive
    // the session.
    TwampTestSession(const char* dstIpAddress, const char* dstUdpPort, uint32_t packetsPerSecond,
                     uint32_t spare1, uint32_t spare2, int32_t packetSize, uint32_t dscp,
                     uint32_t startOffset, uint32_t spreadingBase,
                     Clock& clock = SystemClock::instance(), SystemCalls* systemCalls = nullptr);
    TwampTestSession(const TwampTestSession&) = delete;
    TwampTestSession& operator=(const TwampTestSession&) = delete;
    // Deletes the outstanding packets, closes the timer, leaves the
    // multiplexer and the socket and frees a held counters reply.
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
    // Why init failed for want of a descriptor (no packet timer, or the
    // event loop cannot watch it); empty when it did not fail so.
    virtual std::string getDescriptorFailure() const;

    // MessageReceiver
    // A reflected test packet for the destination address.
    void receiveMessage(struct msghdr* msg) override;
    // A looped-back frame with its transmit timestamp.
    void receiveErrQueueMessage(struct msghdr* msg, ssize_t length) override;
    // True when the reply's sender sequence number and sender timestamp
    // name a packet outstanding here.
    bool ownsMessage(const struct msghdr* msg) const override;
    // True when the looped-back frame's sequence number and timestamp name a
    // packet outstanding here.
    bool ownsErrQueueMessage(const struct msghdr* msg, ssize_t length) const override;
    // Replies may have been dropped by the socket: every started minute still
    // pending cannot be accounted and is declared so when it is finalised.
    void receiveQueueOverflowed() override;

    // Books a matched packet in the minute it was sent: analysed when its
    // round trip (T4 - T1Prime) is at most 4 s, otherwise discarded.
    virtual void analyzePM(const OutstandingPacket& packet, int recordIndex, int bin, int parity);
    // Turns an analysed packet into the samples and counters of its minute.
    virtual void updatePmMember(PmPeriodRecord& record, int bin, const OutstandingPacket& packet,
                                int parity);

    // The record to report: the last completed interval (null while it is
    // not finalised) or the interval in progress; null when the clock fails.
    virtual const PmPeriodRecord* getPmCounters(bool completedIntervalOnly);
    // Holds a counters reply until the last completed interval is finalised.
    virtual void setPendingPmReply(union itc_msg* reply);
    // The bin of the running minute (minute of the hour mod 15); 0 when the clock fails.
    virtual int getActivePeriod();
    // Sets the IPv4 TOS byte of the shared socket to the session's DSCP; true on success.
    virtual bool setDscp(int socket);
    // The resolved destination socket address.
    virtual struct sockaddr_storage getDstAddress() const;

    // Arms the packet timer for the next whole minute plus the spreading; true on success.
    bool setAndStartTimer();
    // Fills length bytes with random bytes; true on success.
    bool generateRandomPayload(uint8_t* buffer, std::size_t length);

  private:
    // The tests' view of the state below (tests/support).
    friend class TwampTestSessionPeer;

    static constexpr int kRecordCount = 2;
    static constexpr int kParityCount = 2;
    static constexpr std::size_t kControlBufferSize = 256;
    static constexpr uint32_t kNoInterval = UINT32_MAX;

    // The half of a packet's measurement that has just arrived: the reply or
    // the transmit timestamp.
    enum class Arrival { reply, txTimestamp };

    // Forward and reverse delay of a packet, microseconds; negative when the
    // reflector's clock is behind the sender's by more than the delay.
    using DelayPair = std::pair<int64_t, int64_t>;

    // The process-wide controller, owner of the parts sessions share.
    static TwampTestSessionControllerInterface& controller();
    // The UDP socket shared by all sessions.
    static UdpSocket& udpSocket();
    // Resolves the destination into dstAddress; 0 or the getaddrinfo error.
    int resolveDestination();
    void registerWithSocket();
    void removeFromSocket();
    bool createTimer();
    void initPmStates();
    void resetPmStates(int parity);
    bool writeInitialPadding();
    struct timespec packetInterval() const;
    bool handlePacketTimer();
    void handleTimerReadFailure();
    void runExpiry(const struct timespec& now);
    void startMinute(uint32_t minute);
    // Whether the minute tick due now may run, or waits for the next expiry
    // because another session's finalisation has just held the loop.
    bool mayFinaliseNow();
    // Runs the minute tick and tells the pacer how long it took.
    void finaliseAtPace(uint32_t tickMinute);
    bool readMonotonicNs(int64_t& nowNs);
    void minuteTick(uint32_t minute);
    SentPacket* findSentPacket(int parity, uint32_t seqNo);
    static bool isComplete(const OutstandingPacket& reply, const SentPacket& sent, Arrival arrival);
    // Analyses reply once both halves are known; false while one is missing.
    bool analyzeIfComplete(OutstandingPacket& reply, const SentPacket& sent, Arrival arrival);
    void analyzeReply(OutstandingPacket& reply, const SentPacket& sent);
    bool isOutstanding(uint32_t seqNo, uint64_t t1) const;
    void countSequenceNumbers(PmPeriodRecord& record, int bin, const ReplyNumbers& numbers,
                              int parity);
    void addHeaderFields(const OutstandingPacket& packet, int parity);
    void addDelaySamples(const OutstandingPacket& packet, int parity);
    void addIpdvSamples(uint32_t senderSeqNo, int64_t forwardDelay, int64_t reverseDelay,
                        int parity);
    void abandonStaleMinutes(uint32_t minute);
    void closeSkippedInterval(uint32_t interval);
    void finalizePmMember(PmPeriodRecord& record, int bin, int parity, uint32_t minute);
    void declareMinuteUnaccountable(uint32_t minute, const char* reason);
    bool isBinConsistent(const PmPeriodRecord& record, int bin) const;
    void reportStatelessReflector();
    bool exceedsRoundTripBound(int parity) const;
    void writeDelayCounters(PmPeriodRecord& record, int bin, int parity);
    static void writeTracker(PmPeriodRecord& record, int bin, const MinMaxTracker& tracker,
                             PmCounter::Index min, PmCounter::Index max);
    void reconcileDuplicates(PmPeriodRecord& record, int bin, uint32_t minute) const;
    void countUnansweredPackets(PmPeriodRecord& record, int bin, int parity, uint32_t minute);
    void writeLossPeriods(PmPeriodRecord& record, int bin, int parity) const;
    void invalidateMinute(PmPeriodRecord& record, int bin, int parity);
    void drainPercentiles(int parity);
    void deleteOutstandingPackets(uint32_t minute);
    void sendPendingPmReply();
    void sendMessage(const struct timespec& now);
    bool readRandomByte(uint8_t& randomByte);
    void varyPadding(uint8_t randomByte);
    void prepareMessageHeader();
    void applySendOptions(int socket, int family);
    void bookSendResult(ssize_t sent, const struct timespec& now, uint64_t t1);
    void bookSentPacket(ssize_t sent, const struct timespec& now, uint64_t t1);
    void bookSendFailure();

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
    std::string descriptorFailure;
    alignas(struct cmsghdr) uint8_t controlBuffer[kControlBufferSize];
    struct sockaddr_storage dstAddress;
    uint32_t dstAddressLength = 0;
    struct iovec ioVector;
    struct msghdr messageHeader;
    uint32_t sequenceNumber = 0;
    int64_t lastSendResult = 0;
    int64_t lastSendErrno = 0;
    bool registeredWithSocket = false;
    // The packets sent and not yet finalised, of both minute parities.
    OutstandingPacketStore outstanding;
    // Per-minute measurement state, one set per minute parity.
    // Created by init: a session that never started holds no percentile vectors.
    std::unique_ptr<PmState> delayRt[kParityCount];
    std::unique_ptr<PmState> ipdvFwd[kParityCount];
    std::unique_ptr<PmState> ipdvRev[kParityCount];
    MinMaxTracker dscpRev[kParityCount];
    MinMaxTracker ttlFwd[kParityCount];
    MinMaxTracker ttlRev[kParityCount];
    std::map<uint32_t, DelayPair> ipdvHistory[kParityCount];
    uint8_t minutePending[2] = {0, 0};
    // The sender and reflector numbers of each minute parity's replies.
    SequenceTracker sequences;
    uint8_t sequenceErrorFlag = 0;
    // The minute each parity's pending state belongs to, and whether that
    // minute has started (the minute the timer is armed for has not).
    uint32_t pendingMinute[kParityCount] = {0, 0};
    uint8_t pendingMinuteStarted[kParityCount] = {0, 0};
    // Whether replies of the parity's pending minute may have been dropped by
    // the socket's full receive queue.
    bool receiveQueueOverflow[kParityCount] = {false, false};
    // The 15-minute interval each record holds.
    uint32_t recordInterval[kRecordCount] = {kNoInterval, kNoInterval};
    bool holdMinuteTick = false;
    bool statelessReflectorReported = false;
    uint32_t currentMinute = 0;
    uint32_t lastTickMinute = 0;
    // Since when (monotonic) the minute tick waits for the pacer; -1 while
    // no tick is due.
    int64_t finalisationDueSinceNs = -1;
    union itc_msg* pendingPmReply = nullptr;
    uint8_t recordComplete[kRecordCount] = {1, 1};
    PmPeriodRecord records[kRecordCount];
    Clock& clock;
    SystemCalls& systemCalls;
};

#endif  // TWAMP_TEST_SESSION_H
