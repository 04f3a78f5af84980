#include "ItcDispatcher.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AdoptedMockController.h"
#include "FakeClock.h"
#include "FakeItc.h"
#include "FakeSaLog.h"
#include "MockTwampTestSession.h"
#include "MockTwampTestSessionFactory.h"
#include "PmPeriodRecord.h"
#include "SessionKey.h"
#include "TestHour.h"
#include "tn_log_internal.h"
#include "TraceRecorder.h"
#include "TwtsiSignals.h"

namespace {

using ::testing::_;
using ::testing::DoAll;
using ::testing::Invoke;
using ::testing::NiceMock;
using ::testing::Return;
using ::testing::SaveArg;
using ::testing::StrEq;
using twamp_test::AdoptedMockController;
using twamp_test::FakeClock;
using twamp_test::FakeItc;
using twamp_test::FakeItcSent;
using twamp_test::FakeSaLog;
using twamp_test::kHourStart;
using twamp_test::MockTwampTestSession;
using twamp_test::MockTwampTestSessionFactory;
using twamp_test::TraceRecorder;

constexpr itc_mbox_id_t kOwnMailbox = 0x00010001;
constexpr itc_mbox_id_t kManager = 0x00020002;
constexpr itc_mbox_id_t kOtherManager = 0x00030003;
constexpr std::size_t kRequestBytesRead = 21;

SessionKey makeKey(uint8_t first) {
    SessionKey key;
    for (uint8_t index = 0; index < SessionKey::kSize; ++index) {
        key.bytes[index] = static_cast<uint8_t>(first + index);
    }
    return key;
}

bool sameKey(const SessionKey& left, const SessionKey& right) {
    return std::memcmp(left.bytes, right.bytes, SessionKey::kSize) == 0;
}

MATCHER_P(KeyIs, expected, "") {
    return sameKey(arg, expected);
}

twtsiCreateTwampTestSession createSignal(const SessionKey& key) {
    twtsiCreateTwampTestSession create;
    std::memset(&create, 0, sizeof(create));
    create.sigNo = TWTSI_CREATE_TWAMP_TEST_SESSION;
    std::strcpy(create.dstIpAddress, "192.0.2.7");
    create.dstUdpPort = 862;
    std::memcpy(create.sessionId, key.bytes, sizeof(create.sessionId));
    create.packetsPerSecond = 10;
    create.dscp = 46;
    create.spare1 = 11;
    create.spare2 = 12;
    create.packetSize = 200;
    create.startOffset = 7;
    create.spreadingBase = 5000;
    return create;
}

// The first 21 bytes of a counters request, all that is read of it.
std::vector<uint8_t> requestBytes(const SessionKey& key, uint8_t completedIntervalOnly) {
    twtsiGetTwampTestSessionPmCountersReq request;
    std::memset(&request, 0, sizeof(request));
    request.sigNo = TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_REQ;
    std::memcpy(request.sessionId, key.bytes, sizeof(request.sessionId));
    request.completedIntervalOnly = completedIntervalOnly;
    const auto* bytes = reinterpret_cast<const uint8_t*>(&request);
    return std::vector<uint8_t>(bytes, bytes + kRequestBytesRead);
}

void queueRequest(const SessionKey& key, uint8_t completedIntervalOnly, itc_mbox_id_t sender) {
    const std::vector<uint8_t> bytes = requestBytes(key, completedIntervalOnly);
    FakeItc::queueSignal(bytes.data(), bytes.size(), sender);
}

// A record whose value of counter k in bin m is 1000 * k + m.
PmPeriodRecord numberedRecord() {
    PmPeriodRecord record;
    for (int counter = 0; counter < PmPeriodRecord::kCounterCount; ++counter) {
        for (int bin = 0; bin < PmPeriodRecord::kBinCount; ++bin) {
            record.at(counter, bin) = 1000 * counter + bin;
        }
    }
    return record;
}

// A sent reply read back.
struct Reply {
    uint32_t sigNo;
    SessionKey sessionId;
    uint8_t padding[4];
    int64_t counters[38][15];
};

Reply readReply(const FakeItcSent& sent) {
    Reply reply;
    EXPECT_EQ(4584u, sent.bytes.size());
    std::memcpy(&reply.sigNo, sent.bytes.data(), 4);
    std::memcpy(reply.sessionId.bytes, sent.bytes.data() + 0x04, 16);
    std::memcpy(reply.padding, sent.bytes.data() + 0x14, 4);
    std::memcpy(reply.counters, sent.bytes.data() + 0x18, sizeof(reply.counters));
    return reply;
}

// Bins of the reply that differ from numberedRecord(), each checked to be -2
// in every row; -1 in the result marks a value that is neither.
std::vector<int> maskedBins(const Reply& reply) {
    std::vector<int> bins;
    for (int bin = 0; bin < 15; ++bin) {
        int masked = 0;
        for (int counter = 0; counter < 38; ++counter) {
            const int64_t value = reply.counters[counter][bin];
            if (value == -2) {
                ++masked;
            } else if (value != 1000 * counter + bin) {
                return {-1};
            }
        }
        if (masked == 38) {
            bins.push_back(bin);
        } else if (masked != 0) {
            return {-1};
        }
    }
    return bins;
}

// The dispatcher under a mock controller, with a mock factory and the fake ITC.
class ItcDispatcherTest : public ::testing::Test {
  protected:
    void SetUp() override {
        TraceRecorder::reset();
        FakeItc::reset();
    }
    void TearDown() override {
        EXPECT_EQ(0u, FakeItc::unknownSignalCalls());
        // Signals a test left waiting on purpose are freed with the fake.
        FakeItc::reset();
    }

    // A session registered under key with the mock controller; owned by the test.
    MockTwampTestSession& registerSession(const SessionKey& key) {
        sessions.push_back(std::make_unique<NiceMock<MockTwampTestSession>>(clock));
        MockTwampTestSession* session = sessions.back().get();
        ON_CALL(env.controller, getTwampTestSession(KeyIs(key))).WillByDefault(Return(session));
        return *session;
    }

    // The factory hands out a test-owned session and remembers the texts it got.
    MockTwampTestSession& expectCreate() {
        sessions.push_back(std::make_unique<NiceMock<MockTwampTestSession>>(clock));
        MockTwampTestSession* session = sessions.back().get();
        EXPECT_CALL(factory, createTwampTestSession(_, _, _, _, _, _, _, _, _))
            .WillOnce(
                Invoke([this, session](const char* address, const char* port, uint32_t, uint32_t,
                                       uint32_t, int32_t, uint32_t, uint32_t, uint32_t) {
                    createdAddress = address;
                    createdPort = port;
                    return session;
                }));
        return *session;
    }

    AdoptedMockController env;
    FakeClock clock;
    std::vector<std::unique_ptr<MockTwampTestSession>> sessions;
    NiceMock<MockTwampTestSessionFactory> factory;
    std::string createdAddress;
    std::string createdPort;
    ItcDispatcher dispatcher{&factory};
};

// ---- init ----

// init initialises ITC with one mailbox, scheme 0, no parameters, no name space, flags 0.
TEST_F(ItcDispatcherTest, InitArguments) {
    ASSERT_TRUE(dispatcher.init("twamp_1"));
    ASSERT_EQ(1u, FakeItc::initCalls().size());
    EXPECT_EQ(1, FakeItc::initCalls()[0].mailboxCount);
    EXPECT_EQ(0, FakeItc::initCalls()[0].allocScheme);
    EXPECT_EQ(nullptr, FakeItc::initCalls()[0].schemeParams);
    EXPECT_EQ(nullptr, FakeItc::initCalls()[0].nameSpace);
    EXPECT_EQ(0u, FakeItc::initCalls()[0].flags);
}

// init opens the mailbox under the service name.
TEST_F(ItcDispatcherTest, InitCreatesMailbox) {
    ASSERT_TRUE(dispatcher.init("twamp_1"));
    EXPECT_EQ(std::vector<std::string>{"twamp_1"}, FakeItc::createdMailboxes());
}

// init watches the mailbox descriptor through the multiplexer.
TEST_F(ItcDispatcherTest, InitRegistersMailboxDescriptor) {
    FakeItc::setFd(17);
    EXPECT_CALL(env.multiplexer, registerReadHandler(&dispatcher));
    ASSERT_TRUE(dispatcher.init("twamp_1"));
    EXPECT_EQ(std::set<int>{17}, dispatcher.getReadFds());
}

// A mailbox descriptor the loop cannot watch fails init.
TEST_F(ItcDispatcherTest, InitFailsWhenMailboxCannotBeWatched) {
    EXPECT_CALL(env.multiplexer, registerReadHandler(&dispatcher)).WillOnce(Return(false));
    EXPECT_FALSE(dispatcher.init("twamp_1"));
}

// Before init no descriptor is watched.
TEST_F(ItcDispatcherTest, NoDescriptorBeforeInit) {
    EXPECT_EQ(std::set<int>{}, dispatcher.getReadFds());
}

// A failing itc_init is traced and nothing else is done.
TEST_F(ItcDispatcherTest, InitFailure) {
    FakeItc::setInitResult(-1);
    EXPECT_CALL(env.multiplexer, registerReadHandler(_)).Times(0);
    EXPECT_FALSE(dispatcher.init("twamp_1"));
    EXPECT_EQ(std::vector<std::string>{"init(): Failed to initialize ITC"},
              TraceRecorder::twampMessages("ERROR"));
    EXPECT_TRUE(FakeItc::createdMailboxes().empty());
    EXPECT_EQ(std::set<int>{}, dispatcher.getReadFds());
}

// A mailbox name already taken by a live daemon fails init: the failing call
// is traced with its errno, and nothing is watched.
TEST_F(ItcDispatcherTest, InitFailsWhenMailboxNameIsTaken) {
    FakeItc::failCreateMailbox(EEXIST);
    EXPECT_CALL(env.multiplexer, registerReadHandler(_)).Times(0);
    EXPECT_FALSE(dispatcher.init("twamp_1"));
    EXPECT_EQ(std::vector<std::string>{"init(): Failed itc_create_mailbox twamp_1: errno 17 - "
                                       "File exists"},
              TraceRecorder::twampMessages("ERROR"));
    EXPECT_EQ(std::set<int>{}, dispatcher.getReadFds());
}

// A failed init leaves errno as the failing call set it, for the caller's report.
TEST_F(ItcDispatcherTest, InitFailureKeepsErrno) {
    FakeItc::failCreateMailbox(EACCES);
    errno = 0;
    EXPECT_FALSE(dispatcher.init("twamp_1"));
    EXPECT_EQ(EACCES, errno);
}

// A mailbox that has no descriptor fails init, traced with the call's errno.
TEST_F(ItcDispatcherTest, InitFailsWithoutMailboxDescriptor) {
    FakeItc::setFd(-1);
    EXPECT_CALL(env.multiplexer, registerReadHandler(_)).Times(0);
    EXPECT_FALSE(dispatcher.init("twamp_1"));
    EXPECT_EQ(std::vector<std::string>{"init(): Failed itc_get_fd: errno 9 - Bad file descriptor"},
              TraceRecorder::twampMessages("ERROR"));
}

// A dispatcher whose mailbox could not be created deletes none when destroyed.
TEST_F(ItcDispatcherTest, DestructorAfterFailedMailboxCreation) {
    FakeItc::failCreateMailbox(EEXIST);
    auto local = std::make_unique<ItcDispatcher>(&factory);
    EXPECT_FALSE(local->init("twamp_1"));
    EXPECT_CALL(env.multiplexer, removeReadHandler(_)).Times(0);
    local.reset();
    EXPECT_TRUE(FakeItc::deletedMailboxes().empty());
}

// A dispatcher that opened its mailbox leaves the multiplexer and deletes the mailbox.
TEST_F(ItcDispatcherTest, DestructorAfterInit) {
    auto local = std::make_unique<ItcDispatcher>(&factory);
    ASSERT_TRUE(local->init("twamp_1"));
    EXPECT_CALL(env.multiplexer, removeReadHandler(local.get()));
    local.reset();
    EXPECT_EQ(std::vector<itc_mbox_id_t>{kOwnMailbox}, FakeItc::deletedMailboxes());
}

// A dispatcher whose ITC initialisation failed deletes no mailbox.
TEST_F(ItcDispatcherTest, DestructorAfterFailedInit) {
    FakeItc::setInitResult(-1);
    auto local = std::make_unique<ItcDispatcher>(&factory);
    local->init("twamp_1");
    EXPECT_CALL(env.multiplexer, removeReadHandler(_)).Times(0);
    local.reset();
    EXPECT_TRUE(FakeItc::deletedMailboxes().empty());
}

// ---- handleInput ----

// A receive takes any signal number from any sender without waiting.
TEST_F(ItcDispatcherTest, ReceiveArguments) {
    FakeItc::queueEmptyReceive(ETIMEDOUT);
    dispatcher.handleInput(42);
    ASSERT_EQ(1u, FakeItc::receiveCalls().size());
    EXPECT_EQ(nullptr, FakeItc::receiveCalls()[0].filter);
    EXPECT_EQ(0, FakeItc::receiveCalls()[0].tmo);
    EXPECT_EQ(0xFFF11111u, FakeItc::receiveCalls()[0].from);
}

// An empty receive with ETIMEDOUT is reported as time travel at INFO.
TEST_F(ItcDispatcherTest, EmptyReceiveTimedOut) {
    FakeItc::queueEmptyReceive(ETIMEDOUT);
    EXPECT_TRUE(dispatcher.handleInput(42));
    EXPECT_EQ(std::vector<std::string>{"handleInput(): ITC time travel detected"},
              TraceRecorder::twampMessages("INFO"));
    EXPECT_TRUE(TraceRecorder::twampMessages("EXCEPTION").empty());
}

// An empty receive with any other errno is traced at EXCEPTION with the errno text.
TEST_F(ItcDispatcherTest, EmptyReceiveOtherErrno) {
    FakeItc::queueEmptyReceive(EBADF);
    EXPECT_TRUE(dispatcher.handleInput(42));
    EXPECT_EQ(std::vector<std::string>{"handleInput(): Got NULL ITC message, errno: 9(Bad file "
                                       "descriptor)"},
              TraceRecorder::twampMessages("EXCEPTION"));
    EXPECT_TRUE(TraceRecorder::twampMessages("INFO").empty());
}

// A readable mailbox whose receive finds nothing valid (a datagram that was no
// ITC signal, discarded by the receive) is traced at LAB, not as an exception.
TEST_F(ItcDispatcherTest, EmptyReceiveAgainIsDrainedAtLab) {
    FakeItc::queueEmptyReceive(EAGAIN);
    EXPECT_TRUE(dispatcher.handleInput(42));
    EXPECT_EQ(std::vector<std::string>{"handleInput(): No valid ITC message to receive, errno: "
                                       "11(Resource temporarily unavailable)"},
              TraceRecorder::twampMessages("LAB"));
    EXPECT_TRUE(TraceRecorder::twampMessages("EXCEPTION").empty());
    EXPECT_EQ(1u, FakeItc::receiveCalls().size());
}

// The empty receive that ends a wake-up after signals were taken is not traced.
TEST_F(ItcDispatcherTest, EmptyReceiveAfterSignalsIsSilent) {
    const uint32_t signal[2] = {0x01A11402u, 0};
    FakeItc::queueSignal(signal, sizeof(signal), kManager);
    FakeItc::queueSignal(signal, sizeof(signal), kManager);
    EXPECT_TRUE(dispatcher.handleInput(42));
    EXPECT_EQ(3u, FakeItc::receiveCalls().size());
    EXPECT_TRUE(TraceRecorder::records().empty());
}

// One wake-up takes the waiting signals in order up to the bound of 64.
TEST_F(ItcDispatcherTest, OneWakeUpTakesAtMostTheBound) {
    std::vector<uint32_t> numbers;
    for (uint32_t index = 0; index < 100; ++index) {
        const uint32_t signal[2] = {0x7E000000u + index, 0};
        FakeItc::queueSignal(signal, sizeof(signal), kManager);
        numbers.push_back(signal[0]);
    }
    EXPECT_TRUE(dispatcher.handleInput(42));
    EXPECT_EQ(64u, FakeItc::receiveCalls().size());
    EXPECT_EQ(std::vector<uint32_t>(numbers.begin(), numbers.begin() + 64),
              FakeItc::freedSignalNumbers());
}

// Signals beyond the bound are taken at the next wake-up: none is lost.
TEST_F(ItcDispatcherTest, SignalsBeyondTheBoundTakenNextWakeUp) {
    std::vector<uint32_t> numbers;
    for (uint32_t index = 0; index < 100; ++index) {
        const uint32_t signal[2] = {0x7E000000u + index, 0};
        FakeItc::queueSignal(signal, sizeof(signal), kManager);
        numbers.push_back(signal[0]);
    }
    EXPECT_TRUE(dispatcher.handleInput(42));
    EXPECT_TRUE(dispatcher.handleInput(42));
    EXPECT_EQ(numbers, FakeItc::freedSignalNumbers());
    // 64, then 36 and the empty receive that ends the second wake-up.
    EXPECT_EQ(101u, FakeItc::receiveCalls().size());
    EXPECT_EQ(0u, FakeItc::liveSignals());
    EXPECT_TRUE(TraceRecorder::records().empty());
}

// Creates beyond the bound start their sessions at the next wake-up.
TEST_F(ItcDispatcherTest, CreatesBeyondTheBoundAllRegistered) {
    EXPECT_CALL(factory, createTwampTestSession(_, _, _, _, _, _, _, _, _))
        .Times(70)
        .WillRepeatedly(Invoke([this](const char*, const char*, uint32_t, uint32_t, uint32_t,
                                      int32_t, uint32_t, uint32_t, uint32_t) {
            sessions.push_back(std::make_unique<NiceMock<MockTwampTestSession>>(clock));
            return sessions.back().get();
        }));
    EXPECT_CALL(env.controller, addTwampTestSession(_, _)).Times(70);
    for (uint8_t index = 0; index < 70; ++index) {
        FakeItc::queueSignal(createSignal(makeKey(index)), kManager);
    }
    dispatcher.handleInput(42);
    EXPECT_EQ(64u, FakeItc::freedSignalNumbers().size());
    dispatcher.handleInput(42);
    EXPECT_EQ(70u, FakeItc::freedSignalNumbers().size());
}

// A time travel report ends the wake-up; the signals behind it wait for the next.
TEST_F(ItcDispatcherTest, TimeTravelEndsTheWakeUp) {
    const uint32_t signal[2] = {0x01A11402u, 0};
    FakeItc::queueSignal(signal, sizeof(signal), kManager);
    FakeItc::queueEmptyReceive(ETIMEDOUT);
    FakeItc::queueSignal(signal, sizeof(signal), kManager);
    EXPECT_TRUE(dispatcher.handleInput(42));
    EXPECT_EQ(2u, FakeItc::receiveCalls().size());
    EXPECT_EQ(1u, FakeItc::freedSignalNumbers().size());
    EXPECT_EQ(std::vector<std::string>{"handleInput(): ITC time travel detected"},
              TraceRecorder::twampMessages("INFO"));
}

// A signal of another number is freed with no reply and no trace.
TEST_F(ItcDispatcherTest, UnknownSignalFreedSilently) {
    const uint32_t signal[2] = {0x01A11402u, 0};
    FakeItc::queueSignal(signal, sizeof(signal), kManager);
    EXPECT_TRUE(dispatcher.handleInput(42));
    EXPECT_EQ(std::vector<uint32_t>{0x01A11402u}, FakeItc::freedSignalNumbers());
    EXPECT_TRUE(FakeItc::sent().empty());
    EXPECT_TRUE(TraceRecorder::records().empty());
    EXPECT_EQ(0u, FakeItc::liveSignals());
}

// ---- create ----

// A create signal is traced at LAB with the trailing blank.
TEST_F(ItcDispatcherTest, CreateTraced) {
    expectCreate();
    FakeItc::queueSignal(createSignal(makeKey(1)), kManager);
    dispatcher.handleInput(42);
    EXPECT_EQ(std::vector<std::string>{"handleTwtsiCreateTwampTestSession(): Received "
                                       "twtsiCreateTwampTestSession "},
              TraceRecorder::twampMessages("LAB"));
}

// The factory gets the fields in constructor order, the port as decimal text.
TEST_F(ItcDispatcherTest, CreatePassesFieldsInOrder) {
    sessions.push_back(std::make_unique<NiceMock<MockTwampTestSession>>(clock));
    EXPECT_CALL(factory, createTwampTestSession(StrEq("192.0.2.7"), StrEq("862"), 10u, 11u, 12u,
                                                200, 46u, 7u, 5000u))
        .WillOnce(Return(sessions.back().get()));
    FakeItc::queueSignal(createSignal(makeKey(1)), kManager);
    dispatcher.handleInput(42);
}

// The new session is started and registered under the signal's key; no reply.
TEST_F(ItcDispatcherTest, CreateStartsAndRegistersSession) {
    MockTwampTestSession& session = expectCreate();
    EXPECT_CALL(session, init()).WillOnce(Return(true));
    EXPECT_CALL(env.controller, addTwampTestSession(KeyIs(makeKey(1)), &session));
    FakeItc::queueSignal(createSignal(makeKey(1)), kManager);
    EXPECT_TRUE(dispatcher.handleInput(42));
    EXPECT_TRUE(FakeItc::sent().empty());
    EXPECT_EQ(std::vector<uint32_t>{0x01A11401u}, FakeItc::freedSignalNumbers());
}

// A session whose init failed is registered all the same.
TEST_F(ItcDispatcherTest, CreateRegistersSessionWhoseInitFailed) {
    MockTwampTestSession& session = expectCreate();
    EXPECT_CALL(session, init()).WillOnce(Return(false));
    EXPECT_CALL(env.controller, addTwampTestSession(KeyIs(makeKey(1)), &session));
    FakeItc::queueSignal(createSignal(makeKey(1)), kManager);
    dispatcher.handleInput(42);
}

// dstUdpPort 0 is passed on as the one-character text "0".
TEST_F(ItcDispatcherTest, CreatePortZero) {
    expectCreate();
    twtsiCreateTwampTestSession create = createSignal(makeKey(1));
    create.dstUdpPort = 0;
    FakeItc::queueSignal(create, kManager);
    dispatcher.handleInput(42);
    EXPECT_EQ("0", createdPort);
}

// dstUdpPort 65535 is passed on unsigned, without sign or padding.
TEST_F(ItcDispatcherTest, CreatePortHighest) {
    expectCreate();
    twtsiCreateTwampTestSession create = createSignal(makeKey(1));
    create.dstUdpPort = 65535;
    FakeItc::queueSignal(create, kManager);
    dispatcher.handleInput(42);
    EXPECT_EQ("65535", createdPort);
}

// A dstIpAddress of 46 bytes without terminator is read as those 46 characters.
TEST_F(ItcDispatcherTest, CreateAddressWithoutTerminator) {
    expectCreate();
    twtsiCreateTwampTestSession create = createSignal(makeKey(1));
    std::memset(create.dstIpAddress, '1', sizeof(create.dstIpAddress));
    create.dstUdpPort = 0x3131;  // "11" in memory, right behind the address
    FakeItc::queueSignal(create, kManager);
    dispatcher.handleInput(42);
    EXPECT_EQ(std::string(46, '1'), createdAddress);
}

// A dstIpAddress shorter than the field ends at its terminator.
TEST_F(ItcDispatcherTest, CreateAddressWithTerminator) {
    expectCreate();
    twtsiCreateTwampTestSession create = createSignal(makeKey(1));
    std::memset(create.dstIpAddress, 'x', sizeof(create.dstIpAddress));
    std::memcpy(create.dstIpAddress, "2001:db8::7", 12);
    FakeItc::queueSignal(create, kManager);
    dispatcher.handleInput(42);
    EXPECT_EQ("2001:db8::7", createdAddress);
}

// The dispatcher with the operator log open over the fake log service.
class ItcDispatcherRefusalTest : public ItcDispatcherTest {
  protected:
    void SetUp() override {
        ItcDispatcherTest::SetUp();
        FakeSaLog::reset();
        tn_log_uninit();
        ASSERT_TRUE(tn_log_init());
        FakeSaLog::forgetCalls();
    }
    void TearDown() override {
        tn_log_uninit();
        FakeSaLog::reset();
        ItcDispatcherTest::TearDown();
    }

    // Handles one create signal of key 1 after the test changed it.
    void handleCreate(const std::function<void(twtsiCreateTwampTestSession&)>& change) {
        twtsiCreateTwampTestSession create = createSignal(makeKey(1));
        change(create);
        FakeItc::queueSignal(create, kManager);
        EXPECT_TRUE(dispatcher.handleInput(42));
    }

    // The create of key 1 is refused: no session is built or registered.
    void expectRefused() {
        EXPECT_CALL(factory, createTwampTestSession(_, _, _, _, _, _, _, _, _)).Times(0);
        EXPECT_CALL(env.controller, addTwampTestSession(_, _)).Times(0);
    }

    // The create of key 1 is accepted: a session is built and registered.
    void expectAccepted() {
        sessions.push_back(std::make_unique<NiceMock<MockTwampTestSession>>(clock));
        EXPECT_CALL(factory, createTwampTestSession(_, _, _, _, _, _, _, _, _))
            .WillOnce(Return(sessions.back().get()));
        EXPECT_CALL(env.controller, addTwampTestSession(KeyIs(makeKey(1)), sessions.back().get()));
    }

    // The one operator-log record of a refused create of key 1 towards 192.0.2.7 port 862.
    static void expectRefusalRecord(const std::string& reason) {
        const auto& records = FakeSaLog::records();
        ASSERT_EQ(1u, records.size());
        EXPECT_EQ("TnApplicationLog", records[0].streamName);
        EXPECT_EQ("TWAMP", records[0].userName);
        EXPECT_EQ(SA_LOG_SEV_ERROR, records[0].severity);
        EXPECT_EQ(
            "TwampTestSession: create of sessionId 0102030405060708090a0b0c0d0e0f10 for "
            "dstIpAddress 192.0.2.7, dstUdpPort 862 refused: " +
                reason,
            records[0].text);
    }
};

class ItcDispatcherRejectedPacketSizeTest : public ItcDispatcherRefusalTest,
                                            public ::testing::WithParamInterface<int32_t> {};

// A packet size outside 41 to 65507 creates no session, is traced with the
// value and written to the application log.
TEST_P(ItcDispatcherRejectedPacketSizeTest, CreatesNoSession) {
    expectRefused();
    handleCreate([](twtsiCreateTwampTestSession& create) { create.packetSize = GetParam(); });
    EXPECT_EQ(std::vector<std::string>{"handleTwtsiCreateTwampTestSession(): Invalid packetSize " +
                                       std::to_string(GetParam()) + ", allowed 41 to 65507"},
              TraceRecorder::twampMessages("ERROR"));
    expectRefusalRecord("packetSize " + std::to_string(GetParam()) + ", allowed 41 to 65507");
    EXPECT_EQ(std::vector<uint32_t>{0x01A11401u}, FakeItc::freedSignalNumbers());
}

INSTANTIATE_TEST_SUITE_P(OutOfRange, ItcDispatcherRejectedPacketSizeTest,
                         ::testing::Values(13, 40, 65508, -1));

class ItcDispatcherAcceptedPacketSizeTest : public ItcDispatcherRefusalTest,
                                            public ::testing::WithParamInterface<int32_t> {};

// The bounds 41 and 65507 themselves are accepted.
TEST_P(ItcDispatcherAcceptedPacketSizeTest, CreatesSession) {
    sessions.push_back(std::make_unique<NiceMock<MockTwampTestSession>>(clock));
    EXPECT_CALL(factory, createTwampTestSession(_, _, _, _, _, GetParam(), _, _, _))
        .WillOnce(Return(sessions.back().get()));
    EXPECT_CALL(env.controller, addTwampTestSession(KeyIs(makeKey(1)), sessions.back().get()));
    handleCreate([](twtsiCreateTwampTestSession& create) { create.packetSize = GetParam(); });
    EXPECT_TRUE(TraceRecorder::twampMessages("ERROR").empty());
    EXPECT_TRUE(FakeSaLog::records().empty());
}

INSTANTIATE_TEST_SUITE_P(Bounds, ItcDispatcherAcceptedPacketSizeTest, ::testing::Values(41, 65507));

// A rate above 10000 packets per second creates no session, traced and logged.
TEST_F(ItcDispatcherRefusalTest, RateAboveLimitRefused) {
    expectRefused();
    handleCreate([](twtsiCreateTwampTestSession& create) { create.packetsPerSecond = 10001; });
    EXPECT_EQ(std::vector<std::string>{"handleTwtsiCreateTwampTestSession(): Invalid "
                                       "packetsPerSecond 10001, allowed 0 to 10000"},
              TraceRecorder::twampMessages("ERROR"));
    expectRefusalRecord("packetsPerSecond 10001, allowed 0 to 10000");
}

// Rates 0 and 1 (one packet a second) and the limit 10000 are accepted.
TEST_F(ItcDispatcherRefusalTest, RatesUpToLimitAccepted) {
    for (const uint32_t rate : {0u, 1u, 10000u}) {
        expectAccepted();
        handleCreate(
            [rate](twtsiCreateTwampTestSession& create) { create.packetsPerSecond = rate; });
    }
    EXPECT_TRUE(TraceRecorder::twampMessages("ERROR").empty());
    EXPECT_TRUE(FakeSaLog::records().empty());
}

// A start offset beyond 2499 with 400 us slots creates no session.
TEST_F(ItcDispatcherRefusalTest, StartOffsetBeyondLimitRefused) {
    expectRefused();
    handleCreate([](twtsiCreateTwampTestSession& create) {
        create.spreadingBase = 0;
        create.startOffset = 2500;
    });
    EXPECT_EQ(std::vector<std::string>{"handleTwtsiCreateTwampTestSession(): Invalid startOffset "
                                       "2500, allowed 0 to 2499 with spreadingBase 0"},
              TraceRecorder::twampMessages("ERROR"));
    expectRefusalRecord("startOffset 2500, allowed 0 to 2499 with spreadingBase 0");
}

// A start offset beyond 5555 with spreading base 5000 (180 us slots) creates no session.
TEST_F(ItcDispatcherRefusalTest, DenseStartOffsetBeyondLimitRefused) {
    expectRefused();
    handleCreate([](twtsiCreateTwampTestSession& create) {
        create.spreadingBase = 5000;
        create.startOffset = 5556;
    });
    EXPECT_EQ(std::vector<std::string>{"handleTwtsiCreateTwampTestSession(): Invalid startOffset "
                                       "5556, allowed 0 to 5555 with spreadingBase 5000"},
              TraceRecorder::twampMessages("ERROR"));
    expectRefusalRecord("startOffset 5556, allowed 0 to 5555 with spreadingBase 5000");
}

// The last slot of each spreading base is accepted: 2499 with 400 us slots,
// 5555 with spreading base 5000.
TEST_F(ItcDispatcherRefusalTest, LastStartSlotsAccepted) {
    expectAccepted();
    handleCreate([](twtsiCreateTwampTestSession& create) {
        create.spreadingBase = 4999;
        create.startOffset = 2499;
    });
    expectAccepted();
    handleCreate([](twtsiCreateTwampTestSession& create) {
        create.spreadingBase = 5000;
        create.startOffset = 5555;
    });
    EXPECT_TRUE(TraceRecorder::twampMessages("ERROR").empty());
    EXPECT_TRUE(FakeSaLog::records().empty());
}

// A DSCP above 63 creates no session; 63 is accepted.
TEST_F(ItcDispatcherRefusalTest, DscpAboveLimitRefused) {
    expectRefused();
    handleCreate([](twtsiCreateTwampTestSession& create) { create.dscp = 64; });
    EXPECT_EQ(std::vector<std::string>{"handleTwtsiCreateTwampTestSession(): Invalid dscp 64, "
                                       "allowed 0 to 63"},
              TraceRecorder::twampMessages("ERROR"));
    expectRefusalRecord("dscp 64, allowed 0 to 63");
}

// The highest DSCP, 63, is accepted.
TEST_F(ItcDispatcherRefusalTest, HighestDscpAccepted) {
    expectAccepted();
    handleCreate([](twtsiCreateTwampTestSession& create) { create.dscp = 63; });
    EXPECT_TRUE(TraceRecorder::twampMessages("ERROR").empty());
}

// A create for a key already registered builds no second session.
TEST_F(ItcDispatcherRefusalTest, KeyInUseRefused) {
    registerSession(makeKey(1));
    expectRefused();
    handleCreate([](twtsiCreateTwampTestSession&) {});
    EXPECT_EQ(std::vector<std::string>{"handleTwtsiCreateTwampTestSession(): Session "
                                       "0102030405060708090a0b0c0d0e0f10 already exists"},
              TraceRecorder::twampMessages("ERROR"));
    expectRefusalRecord("sessionId already in use");
}

// A session that got no descriptor is refused: destroyed, not registered,
// traced and logged with its key, destination and reason.
TEST_F(ItcDispatcherRefusalTest, SessionWithoutDescriptorRefused) {
    auto* session = new NiceMock<MockTwampTestSession>(clock);
    EXPECT_CALL(factory, createTwampTestSession(_, _, _, _, _, _, _, _, _))
        .WillOnce(Return(session));
    EXPECT_CALL(*session, init()).WillOnce(Return(false));
    ON_CALL(*session, getDescriptorFailure())
        .WillByDefault(Return("timerfd_create failed: Too many open files"));
    EXPECT_CALL(*session, destroyed());
    EXPECT_CALL(env.controller, addTwampTestSession(_, _)).Times(0);

    handleCreate([](twtsiCreateTwampTestSession&) {});

    EXPECT_EQ(std::vector<std::string>{"handleTwtsiCreateTwampTestSession(): Session "
                                       "0102030405060708090a0b0c0d0e0f10 for dstIpAddress "
                                       "192.0.2.7, dstUdpPort 862 refused: timerfd_create "
                                       "failed: Too many open files"},
              TraceRecorder::twampMessages("ERROR"));
    expectRefusalRecord("timerfd_create failed: Too many open files");
}

// A session whose packet timer the event loop cannot watch is refused the
// same way: destroyed, not registered, traced and logged with the reason.
TEST_F(ItcDispatcherRefusalTest, SessionWhoseTimerCannotBeWatchedRefused) {
    auto* session = new NiceMock<MockTwampTestSession>(clock);
    EXPECT_CALL(factory, createTwampTestSession(_, _, _, _, _, _, _, _, _))
        .WillOnce(Return(session));
    EXPECT_CALL(*session, init()).WillOnce(Return(false));
    ON_CALL(*session, getDescriptorFailure())
        .WillByDefault(Return("the event loop cannot watch its packet timer"));
    EXPECT_CALL(*session, destroyed());
    EXPECT_CALL(env.controller, addTwampTestSession(_, _)).Times(0);

    handleCreate([](twtsiCreateTwampTestSession&) {});

    EXPECT_EQ(std::vector<std::string>{"handleTwtsiCreateTwampTestSession(): Session "
                                       "0102030405060708090a0b0c0d0e0f10 for dstIpAddress "
                                       "192.0.2.7, dstUdpPort 862 refused: the event loop "
                                       "cannot watch its packet timer"},
              TraceRecorder::twampMessages("ERROR"));
    expectRefusalRecord("the event loop cannot watch its packet timer");
}

// A session whose init failed for another reason is registered, without a record.
TEST_F(ItcDispatcherRefusalTest, OtherInitFailureStillRegistered) {
    MockTwampTestSession& session = expectCreate();
    EXPECT_CALL(session, init()).WillOnce(Return(false));
    EXPECT_CALL(env.controller, addTwampTestSession(KeyIs(makeKey(1)), &session));
    handleCreate([](twtsiCreateTwampTestSession&) {});
    EXPECT_TRUE(FakeSaLog::records().empty());
}

// ---- delete ----

// A delete signal is traced and passed to the controller; no reply.
TEST_F(ItcDispatcherTest, DeletePassedToController) {
    twtsiDeleteTwampTestSession signal;
    signal.sigNo = TWTSI_DELETE_TWAMP_TEST_SESSION;
    std::memcpy(signal.sessionId, makeKey(5).bytes, 16);
    EXPECT_CALL(env.controller, deleteTwampTestSession(KeyIs(makeKey(5))));
    FakeItc::queueSignal(signal, kManager);
    EXPECT_TRUE(dispatcher.handleInput(42));
    EXPECT_EQ(std::vector<std::string>{"handleTwtsiDeleteTwampTestSession(): Received "
                                       "twtsiDeleteTwampTestSession "},
              TraceRecorder::twampMessages("LAB"));
    EXPECT_TRUE(FakeItc::sent().empty());
    EXPECT_EQ(std::vector<uint32_t>{0x01A11403u}, FakeItc::freedSignalNumbers());
}

// ---- counters request ----

// A counters request is traced at LAB with the trailing blank.
TEST_F(ItcDispatcherTest, RequestTraced) {
    queueRequest(makeKey(1), 0, kManager);
    dispatcher.handleInput(42);
    EXPECT_EQ(std::vector<std::string>{"handleTwtsiGetPmCountersReq(): Received "
                                       "twtsiGetTwampTestSessionPmCountersReq "},
              TraceRecorder::twampMessages("LAB"));
}

// A request for a key never created is answered at once: 4584 bytes, the
// request's key, all 570 values -2, to the requester from the own mailbox.
TEST_F(ItcDispatcherTest, RequestForUnknownKey) {
    queueRequest(makeKey(0xF0), 0, kManager);
    EXPECT_TRUE(dispatcher.handleInput(42));
    ASSERT_EQ(1u, FakeItc::sent().size());
    const FakeItcSent& sent = FakeItc::sent()[0];
    EXPECT_EQ(kManager, sent.to);
    EXPECT_EQ(kOwnMailbox, sent.from);
    ASSERT_EQ(4584u, sent.bytes.size());
    const Reply reply = readReply(sent);
    EXPECT_EQ(0x01A11405u, reply.sigNo);
    EXPECT_TRUE(sameKey(makeKey(0xF0), reply.sessionId));
    for (int counter = 0; counter < 38; ++counter) {
        for (int bin = 0; bin < 15; ++bin) {
            ASSERT_EQ(-2, reply.counters[counter][bin]) << counter << "/" << bin;
        }
    }
    EXPECT_EQ(std::vector<uint32_t>{0x01A11404u}, FakeItc::freedSignalNumbers());
    EXPECT_EQ(0u, FakeItc::liveSignals());
}

// A reply that cannot be allocated is traced; the request is freed and nothing is sent.
TEST_F(ItcDispatcherTest, ReplyAllocationFailure) {
    FakeItc::failNextAlloc(ENOMEM);
    queueRequest(makeKey(1), 0, kManager);
    EXPECT_TRUE(dispatcher.handleInput(42));
    EXPECT_EQ(
        std::vector<std::string>{"handleTwtsiGetPmCountersReq(): Failed itc_alloc: errno 12 - "
                                 "Cannot allocate memory"},
        TraceRecorder::twampMessages("ERROR"));
    EXPECT_TRUE(FakeItc::sent().empty());
    EXPECT_EQ(std::vector<uint32_t>{0x01A11404u}, FakeItc::freedSignalNumbers());
}

// Bytes 0x14 to 0x17 of the reply are left as itc_alloc returned them.
TEST_F(ItcDispatcherTest, ReplyPaddingNotWritten) {
    queueRequest(makeKey(1), 0, kManager);
    dispatcher.handleInput(42);
    ASSERT_EQ(1u, FakeItc::sent().size());
    const Reply reply = readReply(FakeItc::sent()[0]);
    EXPECT_EQ(std::vector<uint8_t>({0xA5, 0xA5, 0xA5, 0xA5}),
              std::vector<uint8_t>(reply.padding, reply.padding + 4));
}

// The interval in progress at minute 7: bin 7 of every row is -2, the rest as computed.
TEST_F(ItcDispatcherTest, RequestInProgressMasksActiveBin) {
    MockTwampTestSession& session = registerSession(makeKey(1));
    const PmPeriodRecord record = numberedRecord();
    EXPECT_CALL(session, getPmCounters(false)).WillOnce(Return(&record));
    EXPECT_CALL(session, getActivePeriod()).WillOnce(Return(7));
    queueRequest(makeKey(1), 0, kManager);
    dispatcher.handleInput(42);
    ASSERT_EQ(1u, FakeItc::sent().size());
    const Reply reply = readReply(FakeItc::sent()[0]);
    EXPECT_EQ(std::vector<int>{7}, maskedBins(reply));
    EXPECT_EQ(6006, reply.counters[6][6]);
    EXPECT_EQ(6008, reply.counters[6][8]);
    EXPECT_EQ(-2, reply.counters[37][7]);
    EXPECT_TRUE(sameKey(makeKey(1), reply.sessionId));
    EXPECT_EQ(kManager, FakeItc::sent()[0].to);
    EXPECT_EQ(kOwnMailbox, FakeItc::sent()[0].from);
}

// Minute of the hour read from the session's clock, and the bins then masked.
struct MaskCase {
    int minuteOfHour;
    std::vector<int> maskedBins;
};

void PrintTo(const MaskCase& maskCase, std::ostream* out) {
    *out << "minute " << maskCase.minuteOfHour;
}

class ItcDispatcherMaskTest : public ItcDispatcherTest,
                              public ::testing::WithParamInterface<MaskCase> {};

// The active bin comes from the session's clock; at minutes 0, 15, 30 and 45 nothing is masked.
TEST_P(ItcDispatcherMaskTest, MasksBinOfRunningMinute) {
    MockTwampTestSession& session = registerSession(makeKey(1));
    session.useRealActivePeriod();
    clock.set(kHourStart + GetParam().minuteOfHour * 60 + 30);
    const PmPeriodRecord record = numberedRecord();
    EXPECT_CALL(session, getPmCounters(false)).WillOnce(Return(&record));
    queueRequest(makeKey(1), 0, kManager);
    dispatcher.handleInput(42);
    ASSERT_EQ(1u, FakeItc::sent().size());
    EXPECT_EQ(GetParam().maskedBins, maskedBins(readReply(FakeItc::sent()[0])));
}

INSTANTIATE_TEST_SUITE_P(Minutes, ItcDispatcherMaskTest,
                         ::testing::Values(MaskCase{0, {}}, MaskCase{15, {}}, MaskCase{30, {}},
                                           MaskCase{45, {}}, MaskCase{7, {7}}, MaskCase{22, {7}},
                                           MaskCase{1, {1}}, MaskCase{59, {14}}));

// A ready completed interval is sent at once and unmasked.
TEST_F(ItcDispatcherTest, RequestCompletedReadyIsUnmasked) {
    MockTwampTestSession& session = registerSession(makeKey(1));
    const PmPeriodRecord record = numberedRecord();
    EXPECT_CALL(session, getPmCounters(true)).WillOnce(Return(&record));
    EXPECT_CALL(session, getActivePeriod()).Times(0);
    queueRequest(makeKey(1), 1, kManager);
    dispatcher.handleInput(42);
    ASSERT_EQ(1u, FakeItc::sent().size());
    EXPECT_EQ(std::vector<int>{}, maskedBins(readReply(FakeItc::sent()[0])));
    EXPECT_EQ(kManager, FakeItc::sent()[0].to);
}

// A counters reply to a manager that has gone is traced, and the next manager is answered.
TEST_F(ItcDispatcherTest, UndeliverableReplyIsTracedAndNextAnswered) {
    MockTwampTestSession& session = registerSession(makeKey(1));
    const PmPeriodRecord record = numberedRecord();
    EXPECT_CALL(session, getPmCounters(true)).WillRepeatedly(Return(&record));
    FakeItc::failNextSend(ECONNREFUSED);
    queueRequest(makeKey(1), 1, kManager);
    dispatcher.handleInput(42);
    queueRequest(makeKey(1), 1, kManager);
    dispatcher.handleInput(42);

    EXPECT_EQ((std::vector<std::string>{
                  "sendReply(): Failed itc_send of signal 0x1a11405 to mailbox 0x20002: "
                  "errno 111 - Connection refused"}),
              TraceRecorder::twampMessages("INFO"));
    EXPECT_EQ(1u, FakeItc::sent().size());
    EXPECT_EQ(0u, FakeItc::liveSignals());
}

// Any nonzero completedIntervalOnly byte asks for the completed interval.
TEST_F(ItcDispatcherTest, RequestAnyNonzeroFlagMeansCompleted) {
    MockTwampTestSession& session = registerSession(makeKey(1));
    const PmPeriodRecord record = numberedRecord();
    EXPECT_CALL(session, getPmCounters(true)).WillOnce(Return(&record));
    queueRequest(makeKey(1), 0x80, kManager);
    dispatcher.handleInput(42);
    EXPECT_EQ(1u, FakeItc::sent().size());
}

// A completed interval not yet finalised: no reply now, the prepared reply is
// held by the session.
TEST_F(ItcDispatcherTest, RequestCompletedNotReadyIsHeld) {
    MockTwampTestSession& session = registerSession(makeKey(1));
    union itc_msg* held = nullptr;
    EXPECT_CALL(session, getPmCounters(true)).WillOnce(Return(nullptr));
    EXPECT_CALL(session, setPendingPmReply(_))
        .WillOnce(DoAll(SaveArg<0>(&held), Invoke([&session](union itc_msg* reply) {
                            session.TwampTestSession::setPendingPmReply(reply);
                        })));
    queueRequest(makeKey(1), 1, kManager);
    EXPECT_TRUE(dispatcher.handleInput(42));
    EXPECT_TRUE(FakeItc::sent().empty());
    ASSERT_NE(nullptr, held);
    EXPECT_EQ(0x01A11405u, held->sigNo);
    EXPECT_TRUE(sameKey(makeKey(1), *reinterpret_cast<const SessionKey*>(
                                        held->twtsiGetTwampTestSessionPmCountersRsp.sessionId)));
    EXPECT_EQ(std::vector<uint32_t>{0x01A11404u}, FakeItc::freedSignalNumbers());
    EXPECT_EQ(1u, FakeItc::liveSignals());
}

// A held reply belongs to the session, which frees it when it is destroyed.
TEST_F(ItcDispatcherTest, HeldReplyFreedWithSession) {
    MockTwampTestSession& session = registerSession(makeKey(1));
    session.holdPendingRepliesForReal();
    EXPECT_CALL(session, getPmCounters(true)).WillOnce(Return(nullptr));
    queueRequest(makeKey(1), 1, kManager);
    dispatcher.handleInput(42);
    sessions.clear();
    EXPECT_TRUE(FakeItc::sent().empty());
    EXPECT_EQ(std::vector<uint32_t>({0x01A11404u, 0x01A11405u}), FakeItc::freedSignalNumbers());
    EXPECT_EQ(0u, FakeItc::liveSignals());
}

// A held reply is sent unmasked to the requester stored last, from the own mailbox.
TEST_F(ItcDispatcherTest, HeldReplyGoesToLastRequester) {
    MockTwampTestSession& first = registerSession(makeKey(1));
    MockTwampTestSession& second = registerSession(makeKey(2));
    union itc_msg* heldByFirst = nullptr;
    union itc_msg* heldBySecond = nullptr;
    const PmPeriodRecord record = numberedRecord();
    EXPECT_CALL(first, getPmCounters(true)).WillOnce(Return(nullptr)).WillOnce(Return(&record));
    EXPECT_CALL(second, getPmCounters(true)).WillOnce(Return(nullptr));
    EXPECT_CALL(first, setPendingPmReply(_)).WillOnce(SaveArg<0>(&heldByFirst));
    EXPECT_CALL(second, setPendingPmReply(_)).WillOnce(SaveArg<0>(&heldBySecond));
    EXPECT_CALL(first, getActivePeriod()).Times(0);
    queueRequest(makeKey(1), 1, kManager);
    queueRequest(makeKey(2), 1, kOtherManager);
    dispatcher.handleInput(42);
    dispatcher.handleInput(42);
    ASSERT_NE(nullptr, heldByFirst);
    ASSERT_NE(nullptr, heldBySecond);

    dispatcher.sendPmCountersReply(&first, heldByFirst);

    ASSERT_EQ(1u, FakeItc::sent().size());
    EXPECT_EQ(kOtherManager, FakeItc::sent()[0].to);
    EXPECT_EQ(kOwnMailbox, FakeItc::sent()[0].from);
    const Reply reply = readReply(FakeItc::sent()[0]);
    EXPECT_EQ(0x01A11405u, reply.sigNo);
    EXPECT_TRUE(sameKey(makeKey(1), reply.sessionId));
    EXPECT_EQ(std::vector<int>{}, maskedBins(reply));
    itc_free(&heldBySecond);
}

// A held reply whose interval is still not finalised is neither sent nor freed.
TEST_F(ItcDispatcherTest, HeldReplyStillNotReady) {
    MockTwampTestSession& session = registerSession(makeKey(1));
    union itc_msg* held = nullptr;
    EXPECT_CALL(session, getPmCounters(true)).WillOnce(Return(nullptr)).WillOnce(Return(nullptr));
    EXPECT_CALL(session, setPendingPmReply(_)).WillOnce(SaveArg<0>(&held));
    queueRequest(makeKey(1), 1, kManager);
    dispatcher.handleInput(42);
    ASSERT_NE(nullptr, held);

    dispatcher.sendPmCountersReply(&session, held);

    EXPECT_TRUE(FakeItc::sent().empty());
    EXPECT_EQ(std::vector<uint32_t>{0x01A11404u}, FakeItc::freedSignalNumbers());
    EXPECT_EQ(1u, FakeItc::liveSignals());
    itc_free(&held);
}

}  // namespace
