// Whole test sessions through the daemon's real parts: the controller with its
// event loop, the shared UDP socket on the loopback address with software
// timestamps, and the ITC dispatcher with a mailbox in a private run
// directory. A manager mailbox on its own thread creates, queries and deletes
// the session with signals; a reflector thread answers the test packets.
//
// The session reads a shifted clock: the test starts it a few seconds before
// a minute ends and moves it forward at the points that matter (the end of a
// minute, the start of the next one, the finalisation 4 s later), so whole
// minutes pass in a few seconds of real time. The counters are compared with
// what the reflector saw and did.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "IoMultiplexer.h"
#include "ItcDispatcher.h"
#include "LoopDaemon.h"
#include "LoopHeartbeat.h"
#include "LoopbackReflector.h"
#include "ManagerMailbox.h"
#include "MinuteArithmetic.h"
#include "NtpTimestamp.h"
#include "PercentileVector.h"
#include "PmPeriodRecord.h"
#include "ScenarioSessionFactory.h"
#include "SessionKey.h"
#include "ShiftedClock.h"
#include "TimestampSource.h"
#include "TraceRecorder.h"
#include "TwampTestSession.h"
#include "TwampTestSessionController.h"
#include "TwampTestSessionPeer.h"
#include "TwtsiSignals.h"
#include "UdpSocket.h"
#include "itc.h"

namespace scenario_test {
namespace {

using twamp_test::TraceRecorder;

// 2023-11-14 22:00:00 UTC, the first minute of a 15-minute interval.
constexpr time_t kIntervalStart = 1699999200;
constexpr int64_t kNanosecondsPerMillisecond = 1000000;
constexpr int kMinutesPerInterval = 15;

constexpr uint32_t kPacketsPerSecond = 10;
constexpr int64_t kPacketIntervalMs = 100;
constexpr int32_t kPacketSize = 64;
constexpr uint32_t kSessionDscp = 46;
// The daemon's socket sends with TTL (hop limit) 255; loopback takes no hop off.
constexpr int kForwardTtl = 255;
constexpr int kReplyTtl = 99;
constexpr int kReplyDscp = 10;
constexpr int kDscpToTos = 4;
// The reflector holds each request this long before taking T2.
constexpr int64_t kHoldMicroseconds = 2000;
// A loopback round trip far beyond this is a measuring error, not a delay.
constexpr int64_t kDelayBoundMicroseconds = 500000;

constexpr char kServiceName[] = "scenario_twamp";
constexpr char kManagerName[] = "scenario_manager";
// The daemon's mailbox and the manager's.
constexpr int32_t kMailboxCount = 2;
constexpr long kHeartbeatMs = 20;
// Longest wait for any one step; every step normally takes a few seconds at most.
constexpr auto kStepLimit = std::chrono::seconds(15);

// A moment of the shifted clock: second (and millisecond) of a minute
// counted from kIntervalStart.
int64_t shiftedTime(int minute, int second, int millisecond = 0) {
    const int64_t seconds = kIntervalStart + static_cast<int64_t>(minute) * 60 + second;
    return seconds * kNanosecondsPerSecond + millisecond * kNanosecondsPerMillisecond;
}

// The CLOCK_REALTIME minute number of a minute counted from kIntervalStart.
uint32_t minuteNumber(int minute) {
    return static_cast<uint32_t>(kIntervalStart / 60) + static_cast<uint32_t>(minute);
}

// The parity of a minute counted from kIntervalStart.
int parityOfTestMinute(int minute) {
    return parityOf(minuteNumber(minute));
}

// The milliseconds of an NTP timestamp within its minute (the NTP epoch lies
// a whole number of minutes before the POSIX one).
int64_t millisecondOfMinute(uint64_t ntpTimestamp) {
    const int64_t second = static_cast<int64_t>((ntpTimestamp >> 32) % 60);
    const int64_t millisecond = static_cast<int64_t>(((ntpTimestamp & 0xFFFFFFFFULL) * 1000) >> 32);
    return second * 1000 + millisecond;
}

// Runs of consecutive sequence numbers in an ascending list.
struct LossRunsTruth {
    int64_t count = 0;
    int64_t longest = 0;
    int64_t shortest = 0;
};

LossRunsTruth lossRunsOf(const std::vector<uint32_t>& ascending) {
    LossRunsTruth runs;
    std::size_t index = 0;
    while (index < ascending.size()) {
        std::size_t end = index + 1;
        while (end < ascending.size() && ascending[end] == ascending[end - 1] + 1) {
            ++end;
        }
        const auto length = static_cast<int64_t>(end - index);
        runs.longest = runs.count == 0 ? length : std::max(runs.longest, length);
        runs.shortest = runs.count == 0 ? length : std::min(runs.shortest, length);
        ++runs.count;
        index = end;
    }
    return runs;
}

// What the reflector saw of one sender minute.
struct MinuteTruth {
    int64_t requests = 0;
    int64_t answered = 0;
    std::vector<uint32_t> dropped;  // ascending
    int ttlMin = INT_MAX;           // arrival TTL of the answered requests
    int ttlMax = INT_MIN;
    int tosMin = INT_MAX;  // arrival TOS of all requests
    int tosMax = INT_MIN;
};

MinuteTruth truthOf(const std::vector<ReflectedRequest>& requests, uint32_t minute) {
    MinuteTruth truth;
    for (const ReflectedRequest& request : requests) {
        if (request.minute != minute) {
            continue;
        }
        ++truth.requests;
        truth.tosMin = std::min(truth.tosMin, request.receivedTos);
        truth.tosMax = std::max(truth.tosMax, request.receivedTos);
        if (!request.answered) {
            truth.dropped.push_back(request.senderSeqNo);
            continue;
        }
        ++truth.answered;
        truth.ttlMin = std::min(truth.ttlMin, request.receivedTtl);
        truth.ttlMax = std::max(truth.ttlMax, request.receivedTtl);
    }
    std::sort(truth.dropped.begin(), truth.dropped.end());
    return truth;
}

// A received counters reply.
struct CountersReply {
    twtsiGetTwampTestSessionPmCountersRsp body;

    int64_t at(PmCounter::Index counter, int bin) const { return body.counters[counter][bin]; }
};

// Avg, max, min and the three percentiles of one measured quantity.
struct StatisticRows {
    PmCounter::Index avg, max, min, p95, p98, p99;
};

constexpr StatisticRows kDelayRows = {PmCounter::delayRtAvg, PmCounter::delayRtMax,
                                      PmCounter::delayRtMin, PmCounter::delayRtP95,
                                      PmCounter::delayRtP98, PmCounter::delayRtP99};
constexpr StatisticRows kIpdvFwdRows = {PmCounter::ipdvFwdAvg, PmCounter::ipdvFwdMax,
                                        PmCounter::ipdvFwdMin, PmCounter::ipdvFwdP95,
                                        PmCounter::ipdvFwdP98, PmCounter::ipdvFwdP99};
constexpr StatisticRows kIpdvRevRows = {PmCounter::ipdvRevAvg, PmCounter::ipdvRevMax,
                                        PmCounter::ipdvRevMin, PmCounter::ipdvRevP95,
                                        PmCounter::ipdvRevP98, PmCounter::ipdvRevP99};

// Min, avg and max lie in [lowest, highest] and in this order.
void expectMinAvgMax(const CountersReply& reply, int bin, const StatisticRows& rows, int64_t lowest,
                     int64_t highest) {
    const int64_t min = reply.at(rows.min, bin);
    const int64_t avg = reply.at(rows.avg, bin);
    const int64_t max = reply.at(rows.max, bin);
    EXPECT_GE(min, lowest) << "bin " << bin;
    EXPECT_LE(min, avg) << "bin " << bin;
    EXPECT_LE(avg, max) << "bin " << bin;
    EXPECT_LT(max, highest) << "bin " << bin;
}

// The percentiles lie between min and max and grow with the percentile.
void expectPercentiles(const CountersReply& reply, int bin, const StatisticRows& rows) {
    const int64_t p95 = reply.at(rows.p95, bin);
    const int64_t p98 = reply.at(rows.p98, bin);
    const int64_t p99 = reply.at(rows.p99, bin);
    EXPECT_LE(reply.at(rows.min, bin), p95) << "bin " << bin;
    EXPECT_LE(p95, p98) << "bin " << bin;
    EXPECT_LE(p98, p99) << "bin " << bin;
    EXPECT_LE(p99, reply.at(rows.max, bin)) << "bin " << bin;
}

// Every counter of a bin is -2.
void expectBinNotAvailable(const CountersReply& reply, int bin) {
    for (int counter = 0; counter < PmPeriodRecord::kCounterCount; ++counter) {
        EXPECT_EQ(PmPeriodRecord::kNotAvailable, reply.body.counters[counter][bin])
            << kPmCounterInfo[counter].name << " of bin " << bin;
    }
}

// The sequence counters of a finalised minute, against the reflector's record.
void expectFinalisedLoss(const CountersReply& reply, int bin, const MinuteTruth& truth) {
    EXPECT_EQ(truth.requests, reply.at(PmCounter::sentPkts, bin));
    EXPECT_EQ(truth.answered, reply.at(PmCounter::receivedPkts, bin));
    EXPECT_EQ(static_cast<int64_t>(truth.dropped.size()), reply.at(PmCounter::lostPktsFwd, bin));
    EXPECT_EQ(0, reply.at(PmCounter::lostPktsRev, bin));
    EXPECT_EQ(0, reply.at(PmCounter::latePktsFwd, bin));
    EXPECT_EQ(0, reply.at(PmCounter::latePktsRev, bin));
    EXPECT_EQ(0, reply.at(PmCounter::duplicatePktsFwd, bin));
    EXPECT_EQ(0, reply.at(PmCounter::duplicatePktsRev, bin));
    const LossRunsTruth runs = lossRunsOf(truth.dropped);
    EXPECT_EQ(runs.count, reply.at(PmCounter::lossPeriodsFwd, bin));
    EXPECT_EQ(runs.longest * kPacketIntervalMs, reply.at(PmCounter::lossPeriodFwdMax, bin));
    EXPECT_EQ(runs.shortest * kPacketIntervalMs, reply.at(PmCounter::lossPeriodFwdMin, bin));
    EXPECT_EQ(0, reply.at(PmCounter::lossPeriodsRev, bin));
    EXPECT_EQ(0, reply.at(PmCounter::lossPeriodRevMax, bin));
    EXPECT_EQ(0, reply.at(PmCounter::lossPeriodRevMin, bin));
}

// The header fields of a finalised minute: the forward TTL the reflector
// echoed, and the TTL and DSCP it sent its replies with.
void expectFinalisedHeaderFields(const CountersReply& reply, int bin, const MinuteTruth& truth) {
    EXPECT_EQ(truth.ttlMin, reply.at(PmCounter::ttlFwdMin, bin));
    EXPECT_EQ(truth.ttlMax, reply.at(PmCounter::ttlFwdMax, bin));
    EXPECT_EQ(kReplyTtl, reply.at(PmCounter::ttlRevMin, bin));
    EXPECT_EQ(kReplyTtl, reply.at(PmCounter::ttlRevMax, bin));
    EXPECT_EQ(kReplyDscp, reply.at(PmCounter::dscpRevMin, bin));
    EXPECT_EQ(kReplyDscp, reply.at(PmCounter::dscpRevMax, bin));
}

// A finalised minute with at least one answered packet.
void expectFinalisedBin(const CountersReply& reply, int bin, const MinuteTruth& truth) {
    expectFinalisedLoss(reply, bin, truth);
    expectFinalisedHeaderFields(reply, bin, truth);
    expectMinAvgMax(reply, bin, kDelayRows, kHoldMicroseconds, kDelayBoundMicroseconds);
    expectPercentiles(reply, bin, kDelayRows);
    // Increases of delay only, so never negative; never the -2 of a missing value.
    expectMinAvgMax(reply, bin, kIpdvFwdRows, 0, kDelayBoundMicroseconds);
    expectMinAvgMax(reply, bin, kIpdvRevRows, 0, kDelayBoundMicroseconds);
}

// The daemon's parts on this thread, the manager and the reflector on theirs;
// everything is torn down again after each test.
class SessionScenarioTest : public ::testing::Test {
  protected:
    void SetUp() override {
        TraceRecorder::reset();
        char pattern[] = "/tmp/session_scenario.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        runDirectory = pattern;
        setenv("ITC_RUNDIR", runDirectory.c_str(), 1);
        // Loopback takes no hardware timestamps; read when the socket is configured.
        setenv(TimestampSource::kEnvironmentVariable, "software", 1);
        ASSERT_TRUE(percentile_init());
        // Before the dispatcher's itc_init, which would allow one mailbox only.
        ASSERT_TRUE(manager.start(kMailboxCount));
        std::memset(sessionId, 0, sizeof(sessionId));
        std::memcpy(sessionId, "scenario", std::strlen("scenario"));
    }

    void TearDown() override {
        reflector.reset();
        heartbeat.reset();
        if (controller != nullptr) {
            // The sessions reach the controller through the instance while they go.
            delete controller;
            TwampTestSessionController::resetInstanceForTest();
        }
        manager.stop();
        EXPECT_TRUE(percentile_uninit());
        unsetenv(TimestampSource::kEnvironmentVariable);
        TimestampSource::setCurrent(TimestampSource());
        unsetenv("ITC_RUNDIR");
        std::filesystem::remove_all(runDirectory);
    }

    // The daemon as its start-up builds it, with its socket bound to a free
    // port of address.
    ::testing::AssertionResult startDaemon(const char* address) {
        return startLoopDaemon(factory, address, kServiceName, kHeartbeatMs, controller, heartbeat,
                               daemonMailbox);
    }

    ::testing::AssertionResult startReflector(int family,
                                              std::function<bool(uint32_t, uint64_t)> drop) {
        ReflectorSettings settings;
        settings.family = family;
        settings.replyTtl = kReplyTtl;
        settings.replyTos = kReplyDscp * kDscpToTos;
        settings.hold = std::chrono::microseconds(kHoldMicroseconds);
        settings.drop = std::move(drop);
        reflector = std::make_unique<LoopbackReflector>(settings);
        if (!reflector->start()) {
            return ::testing::AssertionFailure() << "reflector socket not set up";
        }
        return ::testing::AssertionSuccess();
    }

    // Drives the daemon's event loop until done() holds; false when the
    // step limit passes first or the loop fails.
    bool runUntil(const std::function<bool()>& done) {
        return runLoopUntil(*controller, done, kStepLimit);
    }

    bool runUntilShiftedTime(int64_t shifted) {
        return runUntil([&] { return clock.nowNanoseconds() >= shifted; });
    }

    // Until the reflector has seen count requests sent in minute.
    bool runUntilRequestsInMinute(int minute, int64_t count) {
        return runUntil([&] { return requestsInMinute(minute) >= count; });
    }

    // Until the session has finalised minute.
    bool runUntilFinalised(int minute) {
        return runUntil([&] {
            const TwampTestSession* current = session();
            return current != nullptr &&
                   !TwampTestSessionPeer::isMinutePending(*current, parityOfTestMinute(minute));
        });
    }

    int64_t requestsInMinute(int minute) const {
        const std::vector<ReflectedRequest> requests = reflector->getRequests();
        return std::count_if(requests.begin(), requests.end(), [&](const ReflectedRequest& entry) {
            return entry.minute == minuteNumber(minute);
        });
    }

    MinuteTruth truthOfMinute(int minute) const {
        return truthOf(reflector->getRequests(), minuteNumber(minute));
    }

    TwampTestSession* session() { return controller->getTwampTestSession(sessionKey()); }

    SessionKey sessionKey() const {
        SessionKey key;
        std::memcpy(key.bytes, sessionId, sizeof(key.bytes));
        return key;
    }

    bool sendCreate() {
        union itc_msg* msg = createSignalTowards(*reflector, sessionId, kPacketsPerSecond,
                                                 kPacketSize, kSessionDscp);
        if (msg == nullptr) {
            return false;
        }
        return manager.send(msg, daemonMailbox);
    }

    bool sendCountersRequest(bool completedIntervalOnly) {
        union itc_msg* msg = itc_alloc(sizeof(twtsiGetTwampTestSessionPmCountersReq),
                                       TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_REQ);
        if (msg == nullptr) {
            return false;
        }
        twtsiGetTwampTestSessionPmCountersReq& request = msg->twtsiGetTwampTestSessionPmCountersReq;
        std::memcpy(request.sessionId, sessionId, sizeof(request.sessionId));
        request.completedIntervalOnly = completedIntervalOnly ? 1 : 0;
        return manager.send(msg, daemonMailbox);
    }

    bool sendDelete() {
        union itc_msg* msg =
            itc_alloc(sizeof(twtsiDeleteTwampTestSession), TWTSI_DELETE_TWAMP_TEST_SESSION);
        if (msg == nullptr) {
            return false;
        }
        std::memcpy(msg->twtsiDeleteTwampTestSession.sessionId, sessionId, sizeof(sessionId));
        return manager.send(msg, daemonMailbox);
    }

    // The next signal the manager receives, which must be a counters reply
    // from the daemon for our session.
    ::testing::AssertionResult awaitCountersReply(CountersReply& reply) {
        if (!runUntil([&] { return manager.pendingCount() > 0; })) {
            return ::testing::AssertionFailure() << "no counters reply";
        }
        ReceivedSignal signal;
        manager.takeReceived(signal);
        if (signal.sigNo != TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP ||
            signal.bytes.size() != TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP_SIZE) {
            return ::testing::AssertionFailure() << "signal " << std::hex << signal.sigNo << " of "
                                                 << std::dec << signal.bytes.size() << " bytes";
        }
        if (signal.sender != daemonMailbox) {
            return ::testing::AssertionFailure() << "reply from mailbox " << signal.sender;
        }
        std::memcpy(&reply.body, signal.bytes.data(), sizeof(reply.body));
        if (std::memcmp(reply.body.sessionId, sessionId, sizeof(sessionId)) != 0) {
            return ::testing::AssertionFailure() << "reply for another session";
        }
        return ::testing::AssertionSuccess();
    }

    ::testing::AssertionResult requestCounters(bool completedIntervalOnly, CountersReply& reply) {
        if (!sendCountersRequest(completedIntervalOnly)) {
            return ::testing::AssertionFailure() << "counters request not sent";
        }
        return awaitCountersReply(reply);
    }

    std::size_t missingReceiverTraces() const {
        const std::vector<std::string> messages = TraceRecorder::twampMessages("LAB");
        return std::count(messages.begin(), messages.end(),
                          "handleInput(): Failed to find message receiver");
    }

    void runWholeMinuteScenario(int family, const char* daemonAddress);

    ShiftedClock clock;
    ScenarioSessionFactory factory{clock};
    ManagerMailbox manager{kManagerName};
    TwampTestSessionControllerInterface* controller = nullptr;
    std::unique_ptr<LoopHeartbeat> heartbeat;
    std::unique_ptr<LoopbackReflector> reflector;
    itc_mbox_id_t daemonMailbox = ITC_NO_ID;
    uint8_t sessionId[TWTSI_SESSION_ID_SIZE];
    std::string runDirectory;
};

// Minutes of the whole-minute scenario, counted from kIntervalStart: the
// session is created in minute 6, sends from minute 7 on, and minute 7 is
// finalised 4 s into minute 8.
constexpr int kArmingMinute = 6;
constexpr int kMeasuredMinute = 7;
constexpr int kNextMinute = 8;
// Forward loss: one request in the middle of the minute (a gap counted at
// once) and those of the minute's last 250 ms (counted at finalisation).
constexpr uint32_t kDroppedSeqNo = 5;
constexpr int64_t kDroppedTailMs = 250;

// The session created 3 s before minute 7 sends its first packets at the
// start of minute 7; the clock then skips to the minute's last second, passes
// into minute 8 and skips to 4 s into it, when minute 7 is finalised. The
// counters of minute 7 match what the reflector saw; the other bins are -2.
void SessionScenarioTest::runWholeMinuteScenario(int family, const char* daemonAddress) {
    const uint32_t measured = minuteNumber(kMeasuredMinute);
    ASSERT_TRUE(startReflector(family, [measured](uint32_t seqNo, uint64_t t1) {
        const bool inTail = millisecondOfMinute(t1) >= 60000 - kDroppedTailMs;
        return seqNo == kDroppedSeqNo || (inTail && minuteOfNtp(t1) == measured);
    }));
    ASSERT_TRUE(startDaemon(daemonAddress));

    clock.jumpTo(shiftedTime(kArmingMinute, 57));
    ASSERT_TRUE(sendCreate());
    ASSERT_TRUE(runUntil([&] { return session() != nullptr; }));
    // Two seconds of packets from the start of the minute.
    ASSERT_TRUE(runUntilRequestsInMinute(kMeasuredMinute, 20));
    clock.jumpTo(shiftedTime(kMeasuredMinute, 59));
    ASSERT_TRUE(runUntilShiftedTime(shiftedTime(kNextMinute, 0, 500)));

    // Before the finalisation: the gap is counted, the unanswered tail is not
    // yet, nor are delays; the running minute is masked.
    CountersReply early;
    ASSERT_TRUE(requestCounters(false, early));
    const int bin = kMeasuredMinute;
    const MinuteTruth truth = truthOfMinute(kMeasuredMinute);
    ASSERT_GE(truth.dropped.size(), 2U);
    EXPECT_EQ(kDroppedSeqNo, truth.dropped.front());
    EXPECT_EQ(truth.requests, early.at(PmCounter::sentPkts, bin));
    EXPECT_EQ(truth.answered, early.at(PmCounter::receivedPkts, bin));
    EXPECT_EQ(1, early.at(PmCounter::lostPktsFwd, bin));
    EXPECT_EQ(0, early.at(PmCounter::lossPeriodsFwd, bin));
    EXPECT_EQ(PmPeriodRecord::kNotAvailable, early.at(PmCounter::delayRtMin, bin));
    expectBinNotAvailable(early, kNextMinute);

    clock.jumpTo(shiftedTime(kNextMinute, 4));
    ASSERT_TRUE(runUntilFinalised(kMeasuredMinute));

    CountersReply inProgress;
    ASSERT_TRUE(requestCounters(false, inProgress));
    expectFinalisedBin(inProgress, bin, truth);
    expectPercentiles(inProgress, bin, kIpdvFwdRows);
    expectPercentiles(inProgress, bin, kIpdvRevRows);
    for (int other = 0; other < kMinutesPerInterval; ++other) {
        if (other != bin) {
            expectBinNotAvailable(inProgress, other);
        }
    }
    // What reached the reflector: the session's DSCP, the socket's TTL.
    EXPECT_EQ(static_cast<int>(kSessionDscp) * kDscpToTos, truth.tosMin);
    EXPECT_EQ(static_cast<int>(kSessionDscp) * kDscpToTos, truth.tosMax);
    EXPECT_EQ(kForwardTtl, truth.ttlMin);
    EXPECT_EQ(kForwardTtl, truth.ttlMax);

    // The previous interval was never measured.
    CountersReply completed;
    ASSERT_TRUE(requestCounters(true, completed));
    for (int other = 0; other < kMinutesPerInterval; ++other) {
        expectBinNotAvailable(completed, other);
    }

    // Deleted: its receiver is gone, and a late reply finds none.
    ASSERT_TRUE(sendDelete());
    ASSERT_TRUE(runUntil([&] { return session() == nullptr; }));
    const std::size_t tracesBefore = missingReceiverTraces();
    ASSERT_TRUE(reflector->resendLastReply());
    ASSERT_TRUE(runUntil([&] { return missingReceiverTraces() > tracesBefore; }));

    EXPECT_EQ(std::vector<std::string>{}, TraceRecorder::twampMessages("ERROR"));
    EXPECT_EQ(std::vector<std::string>{}, TraceRecorder::twampMessages("EXCEPTION"));
}

// A whole minute of an IPv4 session, from the create signal to the delete.
TEST_F(SessionScenarioTest, Ipv4WholeMinuteFromCreateToDelete) {
    runWholeMinuteScenario(AF_INET, "127.0.0.1");
}

// The same minute over IPv6, whose TTL and traffic class travel as ancillary data.
TEST_F(SessionScenarioTest, Ipv6WholeMinuteFromCreateToDelete) {
    runWholeMinuteScenario(AF_INET6, "::1");
}

// A whole 15-minute interval, a few packets a minute: the request for the
// completed interval made in the first seconds of the next one is held, a
// request for the interval in progress meanwhile returns the previous record
// with its last minute still open, and the held reply comes when that minute
// is finalised, with all 15 minutes measured.
TEST_F(SessionScenarioTest, CompletedIntervalReplyIsHeldUntilItsLastMinuteIsFinalised) {
    ASSERT_TRUE(startReflector(AF_INET, nullptr));
    ASSERT_TRUE(startDaemon("127.0.0.1"));
    clock.jumpTo(shiftedTime(-1, 58, 500));
    ASSERT_TRUE(sendCreate());
    for (int minute = 0; minute < kMinutesPerInterval; ++minute) {
        ASSERT_TRUE(runUntilRequestsInMinute(minute, 1)) << "minute " << minute;
        if (minute > 0) {
            clock.jumpTo(shiftedTime(minute, 4));
            ASSERT_TRUE(runUntilFinalised(minute - 1)) << "minute " << minute - 1;
        }
        ASSERT_TRUE(runUntilRequestsInMinute(minute, 3)) << "minute " << minute;
        clock.jumpTo(shiftedTime(minute, 59, 850));
    }
    const int nextInterval = kMinutesPerInterval;
    ASSERT_TRUE(runUntilRequestsInMinute(nextInterval, 1));

    // Sent in this order, handled in this order: the held one cannot overtake.
    ASSERT_TRUE(sendCountersRequest(true));
    ASSERT_TRUE(sendCountersRequest(false));
    CountersReply previousRecord;
    ASSERT_TRUE(awaitCountersReply(previousRecord));
    const int lastBin = kMinutesPerInterval - 1;
    for (int bin = 0; bin < lastBin; ++bin) {
        expectFinalisedBin(previousRecord, bin, truthOfMinute(bin));
    }
    EXPECT_EQ(truthOfMinute(lastBin).requests, previousRecord.at(PmCounter::sentPkts, lastBin));
    EXPECT_EQ(PmPeriodRecord::kNotAvailable, previousRecord.at(PmCounter::delayRtMin, lastBin));
    EXPECT_EQ(0U, manager.pendingCount());

    clock.jumpTo(shiftedTime(nextInterval, 4));
    CountersReply held;
    ASSERT_TRUE(awaitCountersReply(held));
    for (int bin = 0; bin < kMinutesPerInterval; ++bin) {
        expectFinalisedBin(held, bin, truthOfMinute(bin));
    }
    EXPECT_EQ(std::vector<std::string>{}, TraceRecorder::twampMessages("ERROR"));
    EXPECT_EQ(std::vector<std::string>{}, TraceRecorder::twampMessages("EXCEPTION"));
}

}  // namespace
}  // namespace scenario_test
