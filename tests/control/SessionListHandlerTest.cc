#include "SessionListHandler.h"

#include <sys/socket.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AdoptedMockController.h"
#include "FakeClock.h"
#include "FakeItc.h"
#include "ItcDispatcher.h"
#include "MockTwampTestSession.h"
#include "MockTwampTestSessionFactory.h"
#include "PmPeriodRecord.h"
#include "SessionKey.h"
#include "TraceRecorder.h"
#include "TwtsiSignals.h"

namespace {

using ::testing::_;
using ::testing::Invoke;
using ::testing::NiceMock;
using ::testing::Return;
using twamp_test::AdoptedMockController;
using twamp_test::FakeClock;
using twamp_test::FakeItc;
using twamp_test::FakeItcSent;
using twamp_test::MockTwampTestSession;
using twamp_test::MockTwampTestSessionFactory;
using twamp_test::TraceRecorder;

constexpr itc_mbox_id_t kOwnMailbox = 0x00010001;
constexpr itc_mbox_id_t kManager = 0x00020002;
// 2023-11-14 22:00:00 UTC: the start of an interval (and of an hour).
constexpr time_t kIntervalStart = 1699999200;

SessionKey keyOf(uint32_t number) {
    SessionKey key;
    std::memset(key.bytes, 0, sizeof(key.bytes));
    for (int index = 0; index < 4; ++index) {
        key.bytes[15 - index] = static_cast<uint8_t>(number >> (8 * index));
    }
    return key;
}

twtsiCreateTwampTestSession createOf(const SessionKey& key, uint16_t port) {
    twtsiCreateTwampTestSession create;
    std::memset(&create, 0, sizeof(create));
    create.sigNo = TWTSI_CREATE_TWAMP_TEST_SESSION;
    std::strcpy(create.dstIpAddress, "192.0.2.7");
    create.dstUdpPort = port;
    std::memcpy(create.sessionId, key.bytes, sizeof(create.sessionId));
    create.packetsPerSecond = 10;
    create.dscp = 46;
    create.packetSize = 200;
    return create;
}

twtsiListTwampTestSessionsReq listRequest(uint32_t startIndex) {
    twtsiListTwampTestSessionsReq request;
    request.sigNo = TWTSI_LIST_TWAMP_TEST_SESSIONS_REQ;
    request.startIndex = startIndex;
    return request;
}

struct sockaddr_storage resolvedAddress() {
    struct sockaddr_storage address;
    std::memset(&address, 0, sizeof(address));
    address.ss_family = AF_INET;
    return address;
}

// A reply page read back from the bytes sent.
struct Page {
    twtsiListTwampTestSessionsRsp header;
    std::vector<twtsiTwampTestSessionEntry> entries;
};

Page readPage(const FakeItcSent& sent) {
    Page page;
    std::memset(&page.header, 0, sizeof(page.header));
    std::memcpy(&page.header, sent.bytes.data(), TWTSI_LIST_TWAMP_TEST_SESSIONS_RSP_HEADER_SIZE);
    for (uint32_t index = 0; index < page.header.count; ++index) {
        twtsiTwampTestSessionEntry entry;
        std::memcpy(&entry,
                    sent.bytes.data() + TWTSI_LIST_TWAMP_TEST_SESSIONS_RSP_HEADER_SIZE +
                        index * TWTSI_TWAMP_TEST_SESSION_ENTRY_SIZE,
                    sizeof(entry));
        page.entries.push_back(entry);
    }
    return page;
}

// The dispatcher with its session list, under a mock controller whose
// registry is a plain map, with a mock factory and the fake ITC.
class SessionListHandlerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        TraceRecorder::reset();
        FakeItc::reset();
        clock.set(kIntervalStart + 5 * 60 + 30);
        ON_CALL(env.controller, getTwampTestSession(_))
            .WillByDefault(Invoke([this](const SessionKey& key) -> TwampTestSession* {
                const auto found = registry.find(key);
                return found == registry.end() ? nullptr : found->second;
            }));
        ON_CALL(env.controller, addTwampTestSession(_, _))
            .WillByDefault(Invoke([this](const SessionKey& key, TwampTestSession* session) {
                registry.emplace(key, session);
            }));
        ON_CALL(env.controller, deleteTwampTestSession(_))
            .WillByDefault(Invoke([this](const SessionKey& key) { registry.erase(key); }));
        ON_CALL(factory, createTwampTestSession(_, _, _, _, _, _, _, _, _))
            .WillByDefault(
                Invoke([this](const char*, const char*, uint32_t, uint32_t, uint32_t, int32_t,
                              uint32_t, uint32_t, uint32_t) { return newSession(); }));
        record.fill(-2);
    }
    void TearDown() override { registry.clear(); }

    // A test-owned session that resolved its address and reports record.
    MockTwampTestSession* newSession() {
        sessions.push_back(std::make_unique<NiceMock<MockTwampTestSession>>(clock));
        MockTwampTestSession* session = sessions.back().get();
        ON_CALL(*session, init()).WillByDefault(Return(true));
        ON_CALL(*session, getDstAddress()).WillByDefault(Return(resolvedAddress()));
        ON_CALL(*session, getPmCounters(false)).WillByDefault(Return(&record));
        ON_CALL(*session, getActivePeriod()).WillByDefault(Return(activeBin));
        return session;
    }

    void create(uint32_t number, uint16_t port) {
        FakeItc::queueSignal(createOf(keyOf(number), port), kManager);
        dispatcher.handleInput(0);
    }

    Page list(uint32_t startIndex) {
        FakeItc::queueSignal(listRequest(startIndex), kManager);
        dispatcher.handleInput(0);
        EXPECT_EQ(1u, FakeItc::sent().size());
        const Page page = readPage(FakeItc::sent().back());
        FakeItc::reset();
        return page;
    }

    AdoptedMockController env;
    FakeClock clock;
    std::map<SessionKey, TwampTestSession*> registry;
    std::vector<std::unique_ptr<MockTwampTestSession>> sessions;
    NiceMock<MockTwampTestSessionFactory> factory;
    PmPeriodRecord record;
    int activeBin = 5;
    ItcDispatcher dispatcher{&factory, clock};
};

// An empty daemon answers with an empty last page, sent to the requester from its own mailbox.
TEST_F(SessionListHandlerTest, EmptyList) {
    FakeItc::queueSignal(listRequest(0), kManager);
    dispatcher.handleInput(0);
    ASSERT_EQ(1u, FakeItc::sent().size());
    const FakeItcSent& sent = FakeItc::sent()[0];
    EXPECT_EQ(kManager, sent.to);
    EXPECT_EQ(kOwnMailbox, sent.from);
    EXPECT_EQ(24u, sent.bytes.size());
    const Page page = readPage(sent);
    EXPECT_EQ(TWTSI_LIST_TWAMP_TEST_SESSIONS_RSP, page.header.sigNo);
    EXPECT_EQ(0u, page.header.totalCount);
    EXPECT_EQ(0u, page.header.count);
    EXPECT_EQ(0, page.header.more);
}

// A created session is listed with the settings of its create signal.
TEST_F(SessionListHandlerTest, ListsCreateSettings) {
    create(7, 862);
    const Page page = list(0);
    ASSERT_EQ(1u, page.entries.size());
    const twtsiTwampTestSessionEntry& entry = page.entries[0];
    EXPECT_EQ(0, std::memcmp(entry.sessionId, keyOf(7).bytes, 16));
    EXPECT_STREQ("192.0.2.7", entry.dstIpAddress);
    EXPECT_EQ(862, entry.dstUdpPort);
    EXPECT_EQ(10u, entry.packetsPerSecond);
    EXPECT_EQ(46u, entry.dscp);
    EXPECT_EQ(200, entry.packetSize);
}

// A session in the minute of its create waits for its first minute.
TEST_F(SessionListHandlerTest, WaitingInCreateMinute) {
    create(1, 862);
    EXPECT_EQ(TWTSI_SESSION_STATE_WAITING, list(0).entries[0].state);
}

// From the next minute on the session is sending.
TEST_F(SessionListHandlerTest, SendingAfterCreateMinute) {
    create(1, 862);
    clock.set(kIntervalStart + 6 * 60 + 1);
    EXPECT_EQ(TWTSI_SESSION_STATE_SENDING, list(0).entries[0].state);
}

// A session whose address did not resolve is listed as unresolved.
TEST_F(SessionListHandlerTest, UnresolvedAddress) {
    create(1, 862);
    struct sockaddr_storage unresolved;
    std::memset(&unresolved, 0, sizeof(unresolved));
    ON_CALL(*sessions[0], getDstAddress()).WillByDefault(Return(unresolved));
    EXPECT_EQ(TWTSI_SESSION_STATE_UNRESOLVED, list(0).entries[0].state);
}

// A create outside the limits is listed as refused, with -2 counts.
TEST_F(SessionListHandlerTest, RefusedCreateListed) {
    twtsiCreateTwampTestSession bad = createOf(keyOf(1), 862);
    bad.packetSize = 20;
    FakeItc::queueSignal(bad, kManager);
    dispatcher.handleInput(0);
    const Page page = list(0);
    ASSERT_EQ(1u, page.entries.size());
    EXPECT_EQ(TWTSI_SESSION_STATE_REFUSED, page.entries[0].state);
    EXPECT_EQ(20, page.entries[0].packetSize);
    EXPECT_EQ(-2, page.entries[0].minuteSentPkts);
    EXPECT_EQ(-2, page.entries[0].minuteReceivedPkts);
    EXPECT_EQ(-2, page.entries[0].lastReplyAgeSeconds);
}

// A second create of a running key is refused but the running session stays listed.
TEST_F(SessionListHandlerTest, DuplicateCreateKeepsRunningEntry) {
    create(1, 862);
    create(1, 999);
    const Page page = list(0);
    ASSERT_EQ(1u, page.entries.size());
    EXPECT_EQ(862, page.entries[0].dstUdpPort);
    EXPECT_EQ(TWTSI_SESSION_STATE_WAITING, page.entries[0].state);
}

// A deleted session leaves the list.
TEST_F(SessionListHandlerTest, DeletedSessionLeavesList) {
    create(1, 862);
    create(2, 863);
    twtsiDeleteTwampTestSession remove;
    remove.sigNo = TWTSI_DELETE_TWAMP_TEST_SESSION;
    std::memcpy(remove.sessionId, keyOf(1).bytes, 16);
    FakeItc::queueSignal(remove, kManager);
    dispatcher.handleInput(0);
    const Page page = list(0);
    ASSERT_EQ(1u, page.entries.size());
    EXPECT_EQ(863, page.entries[0].dstUdpPort);
}

// The running minute's sent and received packets come from its bin of the record.
TEST_F(SessionListHandlerTest, RunningMinuteCounts) {
    create(1, 862);
    record.at(PmCounter::sentPkts, 5) = 300;
    record.at(PmCounter::receivedPkts, 5) = 298;
    const Page page = list(0);
    EXPECT_EQ(300, page.entries[0].minuteSentPkts);
    EXPECT_EQ(298, page.entries[0].minuteReceivedPkts);
}

// In the first minute of an interval the running minute's counts are not known.
TEST_F(SessionListHandlerTest, FirstMinuteOfIntervalCountsUnknown) {
    activeBin = 0;
    clock.set(kIntervalStart + 20);
    create(1, 862);
    record.at(PmCounter::sentPkts, 0) = 600;
    const Page page = list(0);
    EXPECT_EQ(-2, page.entries[0].minuteSentPkts);
    EXPECT_EQ(-2, page.entries[0].minuteReceivedPkts);
}

// The reply age counts from the start of the running minute when it has replies.
TEST_F(SessionListHandlerTest, ReplyAgeInRunningMinute) {
    create(1, 862);
    record.at(PmCounter::receivedPkts, 5) = 1;
    EXPECT_EQ(30, list(0).entries[0].lastReplyAgeSeconds);
}

// Without replies in the running minute the age counts from the latest minute with replies.
TEST_F(SessionListHandlerTest, ReplyAgeFromEarlierMinute) {
    create(1, 862);
    record.at(PmCounter::receivedPkts, 2) = 10;
    record.at(PmCounter::receivedPkts, 3) = 0;
    EXPECT_EQ(3 * 60 + 30, list(0).entries[0].lastReplyAgeSeconds);
}

// In the first minute of an interval the age reaches back into the previous interval.
TEST_F(SessionListHandlerTest, ReplyAgeFromPreviousInterval) {
    activeBin = 0;
    clock.set(kIntervalStart + 20);
    create(1, 862);
    record.at(PmCounter::receivedPkts, 14) = 10;
    EXPECT_EQ(80, list(0).entries[0].lastReplyAgeSeconds);
}

// No reply in the reported record gives an age of -2.
TEST_F(SessionListHandlerTest, NoReplyAgeUnknown) {
    create(1, 862);
    EXPECT_EQ(-2, list(0).entries[0].lastReplyAgeSeconds);
}

// 600 sessions come in pages of 256, 256 and 88, each saying whether more follow.
TEST_F(SessionListHandlerTest, PagesLargeList) {
    for (uint32_t number = 0; number < 600; ++number) {
        create(number, static_cast<uint16_t>(1000 + number));
    }
    const Page first = list(0);
    EXPECT_EQ(600u, first.header.totalCount);
    EXPECT_EQ(256u, first.header.count);
    EXPECT_EQ(1, first.header.more);
    EXPECT_EQ(1000, first.entries[0].dstUdpPort);
    const Page second = list(256);
    EXPECT_EQ(256u, second.header.startIndex);
    EXPECT_EQ(256u, second.header.count);
    EXPECT_EQ(1, second.header.more);
    EXPECT_EQ(1256, second.entries[0].dstUdpPort);
    const Page last = list(512);
    EXPECT_EQ(88u, last.header.count);
    EXPECT_EQ(0, last.header.more);
    EXPECT_EQ(1599, last.entries[87].dstUdpPort);
}

// A full page is sent whole and stays within the ITC limit of 65536 bytes.
TEST_F(SessionListHandlerTest, FullPageSize) {
    for (uint32_t number = 0; number < 300; ++number) {
        create(number, 862);
    }
    FakeItc::queueSignal(listRequest(0), kManager);
    dispatcher.handleInput(0);
    ASSERT_EQ(1u, FakeItc::sent().size());
    EXPECT_EQ(24u + 256u * 104u, FakeItc::sent()[0].bytes.size());
}

// A start index past the end gives an empty last page.
TEST_F(SessionListHandlerTest, StartPastEnd) {
    create(1, 862);
    const Page page = list(5);
    EXPECT_EQ(1u, page.header.totalCount);
    EXPECT_EQ(0u, page.header.count);
    EXPECT_EQ(0, page.header.more);
}

// The request is traced at LAB like the other signals.
TEST_F(SessionListHandlerTest, RequestTraced) {
    list(0);
    EXPECT_EQ(std::vector<std::string>{"handleListRequest(): Received "
                                       "twtsiListTwampTestSessionsReq "},
              TraceRecorder::twampMessages("LAB"));
}

}  // namespace
