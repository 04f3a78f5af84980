#include "TwampTestSession.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AdoptedMockController.h"
#include "FakeClock.h"
#include "FakeItc.h"
#include "MockUdpSocket.h"
#include "itc.h"
#include "PmPeriodRecord.h"
#include "TestHour.h"
#include "TraceRecorder.h"
#include "TwtsiSignals.h"

namespace {

using ::testing::_;
using ::testing::Return;
using twamp_test::AdoptedMockController;
using twamp_test::FakeClock;
using twamp_test::FakeItc;
using twamp_test::kHourStart;
using twamp_test::minuteOfHour;
using twamp_test::SameReceiverKey;
using twamp_test::TraceRecorder;

std::unique_ptr<TwampTestSession> makeSession(Clock& clock, const char* address = "127.0.0.1",
                                              const char* port = "862",
                                              uint32_t packetsPerSecond = 10) {
    return std::make_unique<TwampTestSession>(address, port, packetsPerSecond, 0, 0, 64, 0, 0, 0,
                                              clock);
}

bool allNotAvailable(const PmPeriodRecord& record) {
    for (int64_t value : record.values) {
        if (value != -2) {
            return false;
        }
    }
    return true;
}

struct sockaddr_storage ipv4Address(const char* text, uint16_t port) {
    struct sockaddr_storage storage;
    std::memset(&storage, 0, sizeof(storage));
    auto* address = reinterpret_cast<struct sockaddr_in*>(&storage);
    address->sin_family = AF_INET;
    address->sin_port = htons(port);
    inet_pton(AF_INET, text, &address->sin_addr);
    return storage;
}

// A session under a mock controller whose socket and multiplexer are observed.
class TwampTestSessionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        TraceRecorder::reset();
        FakeItc::reset();
        clock.set(minuteOfHour(7));
    }
    void TearDown() override { EXPECT_EQ(0u, FakeItc::unknownSignalCalls()); }

    AdoptedMockController env;
    FakeClock clock;
};

// A null address text is refused with std::logic_error.
TEST_F(TwampTestSessionTest, NullAddressThrowsLogicError) {
    EXPECT_THROW(TwampTestSession(nullptr, "862", 1, 0, 0, 64, 0, 0, 0, clock), std::logic_error);
}

// A null port text is refused with std::logic_error.
TEST_F(TwampTestSessionTest, NullPortThrowsLogicError) {
    EXPECT_THROW(TwampTestSession("127.0.0.1", nullptr, 1, 0, 0, 64, 0, 0, 0, clock),
                 std::logic_error);
}

// Right after construction the completed interval is ready and all -2.
TEST_F(TwampTestSessionTest, NewSessionReportsCompletedIntervalAllNotAvailable) {
    auto session = makeSession(clock);
    const PmPeriodRecord* record = session->getPmCounters(true);
    ASSERT_NE(nullptr, record);
    EXPECT_TRUE(allNotAvailable(*record));
}

// Right after construction the interval in progress is all -2 as well.
TEST_F(TwampTestSessionTest, NewSessionReportsIntervalInProgressAllNotAvailable) {
    auto session = makeSession(clock);
    const PmPeriodRecord* record = session->getPmCounters(false);
    ASSERT_NE(nullptr, record);
    EXPECT_TRUE(allNotAvailable(*record));
}

// In minute 7 the interval in progress and the completed one are different records.
TEST_F(TwampTestSessionTest, MidIntervalReportsTheRecordInProgress) {
    auto session = makeSession(clock);
    EXPECT_NE(session->getPmCounters(true), session->getPmCounters(false));
}

// In the first minute of an interval the request for the interval in progress
// returns the interval just completed.
TEST_F(TwampTestSessionTest, FirstMinuteReportsTheCompletedRecord) {
    auto session = makeSession(clock);
    clock.set(minuteOfHour(15));
    EXPECT_EQ(session->getPmCounters(true), session->getPmCounters(false));
}

// The records alternate with the parity of the interval number.
TEST_F(TwampTestSessionTest, RecordsAlternateByIntervalParity) {
    auto session = makeSession(clock);
    const PmPeriodRecord* evenInProgress = session->getPmCounters(false);
    const PmPeriodRecord* evenCompleted = session->getPmCounters(true);
    clock.set(minuteOfHour(22));
    EXPECT_EQ(evenCompleted, session->getPmCounters(false));
    EXPECT_EQ(evenInProgress, session->getPmCounters(true));
}

// A clock failure gives no record and an ERROR trace with the errno.
TEST_F(TwampTestSessionTest, GetPmCountersClockFailure) {
    auto session = makeSession(clock);
    clock.failWith(EINVAL);
    EXPECT_EQ(nullptr, session->getPmCounters(false));
    EXPECT_EQ(std::vector<std::string>{"getPmCounters(): Failed clock_gettime: errno 22 - "
                                       "Invalid argument"},
              TraceRecorder::twampMessages("ERROR"));
}

// The active period is the minute of the hour modulo 15.
TEST_F(TwampTestSessionTest, ActivePeriodIsMinuteModulo15) {
    auto session = makeSession(clock);
    EXPECT_EQ(7, session->getActivePeriod());
    clock.set(minuteOfHour(59) + 59, 999999999);
    EXPECT_EQ(14, session->getActivePeriod());
    clock.set(minuteOfHour(45));
    EXPECT_EQ(0, session->getActivePeriod());
}

// A clock failure makes the active period 0, with an ERROR trace.
TEST_F(TwampTestSessionTest, ActivePeriodClockFailure) {
    auto session = makeSession(clock);
    clock.failWith(EPERM);
    EXPECT_EQ(0, session->getActivePeriod());
    EXPECT_EQ(std::vector<std::string>{"getActivePeriod(): Failed clock_gettime: errno 1 - "
                                       "Operation not permitted"},
              TraceRecorder::twampMessages("ERROR"));
}

// init resolves the destination and registers the session with the socket under it.
TEST_F(TwampTestSessionTest, InitRegistersWithSocket) {
    auto session = makeSession(clock);
    EXPECT_CALL(env.udpSocket,
                addMessageReceiver(SameReceiverKey(ReceiverKey(ipv4Address("127.0.0.1", 862))),
                                   static_cast<MessageReceiver*>(session.get())));
    EXPECT_TRUE(session->init());
}

// The resolved IPv4 destination is kept whole.
TEST_F(TwampTestSessionTest, InitKeepsIpv4Destination) {
    auto session = makeSession(clock, "127.0.0.1", "862");
    ASSERT_TRUE(session->init());
    const struct sockaddr_storage storage = session->getDstAddress();
    const auto* address = reinterpret_cast<const struct sockaddr_in*>(&storage);
    EXPECT_EQ(AF_INET, address->sin_family);
    EXPECT_EQ(htons(862), address->sin_port);
    EXPECT_EQ(htonl(INADDR_LOOPBACK), address->sin_addr.s_addr);
}

// An IPv6 destination with port 0 is resolved as such.
TEST_F(TwampTestSessionTest, InitKeepsIpv6Destination) {
    auto session = makeSession(clock, "::1", "0");
    ASSERT_TRUE(session->init());
    const struct sockaddr_storage storage = session->getDstAddress();
    const auto* address = reinterpret_cast<const struct sockaddr_in6*>(&storage);
    EXPECT_EQ(AF_INET6, address->sin6_family);
    EXPECT_EQ(0, address->sin6_port);
    EXPECT_TRUE(IN6_IS_ADDR_LOOPBACK(&address->sin6_addr));
}

// An unresolvable destination fails init with the resolver's text and
// registers nothing.
TEST_F(TwampTestSessionTest, InitResolveFailure) {
    auto session = makeSession(clock, "127.0.0.1", "no-such-service-name");
    EXPECT_CALL(env.udpSocket, addMessageReceiver(_, _)).Times(0);
    EXPECT_FALSE(session->init());
    EXPECT_EQ(std::vector<std::string>{"init(): Failed getaddrinfo: Servname not supported for "
                                       "ai_socktype"},
              TraceRecorder::twampMessages("ERROR"));
}

// The destructor leaves the multiplexer and removes its own socket registration.
TEST_F(TwampTestSessionTest, DestructorRemovesRegistrations) {
    auto session = makeSession(clock);
    ASSERT_TRUE(session->init());
    EXPECT_CALL(env.multiplexer, removeReadHandler(session.get()));
    EXPECT_CALL(env.udpSocket,
                removeMessageReceiver(SameReceiverKey(ReceiverKey(ipv4Address("127.0.0.1", 862))),
                                      static_cast<MessageReceiver*>(session.get())));
    session.reset();
}

// A session that never registered with the socket does not remove a registration.
TEST_F(TwampTestSessionTest, DestructorWithoutRegistration) {
    auto session = makeSession(clock);
    EXPECT_CALL(env.multiplexer, removeReadHandler(session.get()));
    EXPECT_CALL(env.udpSocket, removeMessageReceiver(_, _)).Times(0);
    session.reset();
}

// A held counters reply is freed with the session.
TEST_F(TwampTestSessionTest, DestructorFreesHeldReply) {
    auto session = makeSession(clock);
    session->setPendingPmReply(itc_alloc(4584, TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP));
    session.reset();
    EXPECT_EQ(std::vector<uint32_t>{0x01A11405u}, FakeItc::freedSignalNumbers());
    EXPECT_EQ(0u, FakeItc::liveSignals());
}

// A second held reply replaces the first, which is freed at once.
TEST_F(TwampTestSessionTest, SecondHeldReplyFreesTheFirst) {
    auto session = makeSession(clock);
    session->setPendingPmReply(itc_alloc(4584, TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP));
    session->setPendingPmReply(itc_alloc(4584, TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP));
    EXPECT_EQ(1u, FakeItc::liveSignals());
    EXPECT_EQ(std::vector<uint32_t>{0x01A11405u}, FakeItc::freedSignalNumbers());
}

// Without a timer the session watches no descriptor for reading.
TEST_F(TwampTestSessionTest, NoReadDescriptorsWithoutTimer) {
    auto session = makeSession(clock);
    EXPECT_EQ(std::set<int>{}, session->getReadFds());
}

// The write descriptor is the shared UDP socket's.
TEST_F(TwampTestSessionTest, WriteDescriptorIsTheSocket) {
    auto session = makeSession(clock);
    EXPECT_CALL(env.udpSocket, getSocketFd()).WillOnce(Return(9));
    EXPECT_EQ(std::set<int>{9}, session->getWriteFds());
}

// A descriptor that is not the packet timer is ignored with true.
TEST_F(TwampTestSessionTest, HandleInputOfOtherDescriptor) {
    auto session = makeSession(clock);
    EXPECT_TRUE(session->handleInput(5));
    EXPECT_TRUE(TraceRecorder::records().empty());
}

// handleOutput does nothing and returns true.
TEST_F(TwampTestSessionTest, HandleOutputReturnsTrue) {
    auto session = makeSession(clock);
    EXPECT_TRUE(session->handleOutput(9));
    EXPECT_TRUE(TraceRecorder::records().empty());
}

}  // namespace
