// The load manager against a scripted mailbox, on an injected clock.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "FakeControlChannel.h"
#include "FakeLoadClock.h"
#include "LoadManager.h"

namespace {

using load_test::FakeControlChannel;
using load_test::FakeLoadClock;

class LoadManagerTest : public ::testing::Test {
  protected:
    LoadManagerTest() {
        block.first = 0;
        block.count = 3;
        block.destination = "198.18.1.2";
        block.basePort = 20000;
        block.packetsPerSecond = 100;
        block.packetSize = 64;
        block.dscp = 46;
    }

    twtsiCreateTwampTestSession createAt(std::size_t position) const {
        twtsiCreateTwampTestSession create{};
        EXPECT_EQ(sizeof(create), channel.sent.at(position).size());
        std::memcpy(&create, channel.sent.at(position).data(), sizeof(create));
        return create;
    }

    static std::string label(const uint8_t* sessionId) {
        return std::string(reinterpret_cast<const char*>(sessionId),
                           strnlen(reinterpret_cast<const char*>(sessionId), 16));
    }

    FakeLoadClock clock;
    FakeControlChannel channel{clock};
    LoadManager manager{channel, clock};
    SessionBlock block;
    ReadSettings settings;
    std::vector<SessionCounters> counters;
};

// A create signal carries the block's fields, with port and start slot of the session's index.
TEST_F(LoadManagerTest, CreateCarriesTheSessionsFields) {
    manager.createSessions(block);
    ASSERT_EQ(3u, channel.sent.size());
    const twtsiCreateTwampTestSession create = createAt(2);
    EXPECT_EQ(TWTSI_CREATE_TWAMP_TEST_SESSION, create.sigNo);
    EXPECT_STREQ("198.18.1.2", create.dstIpAddress);
    EXPECT_EQ(20002, create.dstUdpPort);
    EXPECT_EQ("load2", label(create.sessionId));
    EXPECT_EQ(100u, create.packetsPerSecond);
    EXPECT_EQ(46u, create.dscp);
    EXPECT_EQ(64, create.packetSize);
    EXPECT_EQ(2u, create.startOffset);
    EXPECT_EQ(0u, create.spreadingBase);
}

// With one port, every session sends to the base port.
TEST_F(LoadManagerTest, OnePortSendsEverySessionToTheBasePort) {
    block.onePort = true;
    manager.createSessions(block);
    EXPECT_EQ(20000, createAt(0).dstUdpPort);
    EXPECT_EQ(20000, createAt(2).dstUdpPort);
}

// A block that starts at 1000 names, addresses and slots its sessions from 1000.
TEST_F(LoadManagerTest, BlockFromAThousandUsesIndicesFromAThousand) {
    block.first = 1000;
    block.count = 2;
    manager.createSessions(block);
    const twtsiCreateTwampTestSession create = createAt(1);
    EXPECT_EQ("load1001", label(create.sessionId));
    EXPECT_EQ(21001, create.dstUdpPort);
    EXPECT_EQ(1001u, create.startOffset);
}

// A create refused by the full mailbox is sent again after a pause of 200 us each time.
TEST_F(LoadManagerTest, RefusedCreateIsSentAgainAfterAPause) {
    channel.refusals = 3;
    const SendTally tally = manager.createSessions(block);
    EXPECT_EQ(3u, tally.sent);
    EXPECT_EQ(3u, tally.refusals);
    EXPECT_EQ(0u, tally.failed);
    EXPECT_EQ(3u, channel.sent.size());
    EXPECT_EQ(600000, clock.slept);
}

// A create refused for five seconds on end is given up.
TEST_F(LoadManagerTest, CreateRefusedForFiveSecondsIsGivenUp) {
    block.count = 1;
    channel.refusals = 1000000;
    const SendTally tally = manager.createSessions(block);
    EXPECT_EQ(0u, tally.sent);
    EXPECT_EQ(1u, tally.failed);
    EXPECT_EQ(EAGAIN, tally.lastErrno);
    EXPECT_EQ(25001u, tally.refusals);
}

// A send that fails otherwise than by a full mailbox is not repeated.
TEST_F(LoadManagerTest, CreateFailingForGoodIsNotRepeated) {
    channel.failure = ECONNREFUSED;
    const SendTally tally = manager.createSessions(block);
    EXPECT_EQ(3u, tally.failed);
    EXPECT_EQ(ECONNREFUSED, tally.lastErrno);
    EXPECT_EQ(3u, channel.attempts);
}

// Delete sends one delete signal per session, with the session's key.
TEST_F(LoadManagerTest, DeleteSendsOneSignalPerSession) {
    const SendTally tally = manager.deleteSessions(block);
    EXPECT_EQ(3u, tally.sent);
    ASSERT_EQ(3u, channel.sent.size());
    twtsiDeleteTwampTestSession remove{};
    ASSERT_EQ(sizeof(remove), channel.sent[1].size());
    std::memcpy(&remove, channel.sent[1].data(), sizeof(remove));
    EXPECT_EQ(TWTSI_DELETE_TWAMP_TEST_SESSION, remove.sigNo);
    EXPECT_EQ("load1", label(remove.sessionId));
}

// The counters of every session are read, each into its own entry.
TEST_F(LoadManagerTest, CountersOfEverySessionAreRead) {
    block.count = 20;
    const CountersTally tally = manager.readCounters(block, settings, counters);
    ASSERT_EQ(20u, counters.size());
    EXPECT_EQ(20u, tally.replies);
    EXPECT_EQ(20u, tally.requests);
    EXPECT_EQ(0u, tally.missing);
    EXPECT_TRUE(counters[13].received);
    EXPECT_EQ(13u, counters[13].index);
    EXPECT_EQ(1013, counters[13].reply.counters[0][0]);
}

// No more replies wait in the manager's mailbox than the window of requests allows.
TEST_F(LoadManagerTest, RepliesWaitingNeverExceedTheWindow) {
    block.count = 50;
    settings.window = 8;
    manager.readCounters(block, settings, counters);
    EXPECT_EQ(8u, channel.longestQueue);
}

// A request whose reply was lost is sent again once its time-out has passed.
TEST_F(LoadManagerTest, LostReplyIsRequestedAgain) {
    block.count = 5;
    channel.loseFirst = {3};
    const CountersTally tally = manager.readCounters(block, settings, counters);
    EXPECT_EQ(1u, tally.timeouts);
    EXPECT_EQ(6u, tally.requests);
    EXPECT_EQ(0u, tally.missing);
    EXPECT_EQ(2, channel.requestsOf[3]);
    EXPECT_EQ(1003, counters[3].reply.counters[0][0]);
}

// A session that never answers is given up after the attempts and reported missing.
TEST_F(LoadManagerTest, SilentSessionIsReportedMissing) {
    block.count = 4;
    settings.attempts = 3;
    channel.silent = {1};
    const CountersTally tally = manager.readCounters(block, settings, counters);
    EXPECT_EQ(1u, tally.missing);
    EXPECT_EQ(3u, tally.timeouts);
    EXPECT_EQ(3, channel.requestsOf[1]);
    EXPECT_FALSE(counters[1].received);
    EXPECT_TRUE(counters[2].received);
}

// A reply that comes after its time-out is still used, and the session is not asked again.
TEST_F(LoadManagerTest, LateReplyIsUsedWithoutAskingAgain) {
    settings.window = 1;
    channel.delayFirst = {0};
    const CountersTally tally = manager.readCounters(block, settings, counters);
    EXPECT_EQ(3u, tally.replies);
    EXPECT_EQ(3u, tally.requests);
    EXPECT_EQ(1u, tally.timeouts);
    EXPECT_EQ(0u, tally.missing);
    EXPECT_EQ(1, channel.requestsOf[0]);
    EXPECT_EQ(1000, counters[0].reply.counters[0][0]);
}

// A reply for a key of no session of the block is counted as a stray and not used.
TEST_F(LoadManagerTest, ReplyForAForeignKeyIsAStray) {
    twtsiGetTwampTestSessionPmCountersRsp foreign{};
    std::memcpy(foreign.sessionId, "probe1", 6);
    channel.inject(foreign);
    const CountersTally tally = manager.readCounters(block, settings, counters);
    EXPECT_EQ(1u, tally.strays);
    EXPECT_EQ(3u, tally.replies);
    EXPECT_EQ(0u, tally.missing);
}

// A counters request refused by the full mailbox is sent again.
TEST_F(LoadManagerTest, RefusedRequestIsSentAgain) {
    channel.refusals = 2;
    const CountersTally tally = manager.readCounters(block, settings, counters);
    EXPECT_EQ(2u, tally.refusals);
    EXPECT_EQ(3u, tally.replies);
    EXPECT_EQ(0u, tally.missing);
}

// A request for the completed interval says so in the signal.
TEST_F(LoadManagerTest, CompletedIntervalIsAskedFor) {
    settings.completedIntervalOnly = true;
    manager.readCounters(block, settings, counters);
    EXPECT_EQ(1, counters[0].reply.counters[1][0]);
}

// The index of a key made from an index is that index.
TEST_F(LoadManagerTest, KeyOfAnIndexGivesTheIndexBack) {
    uint32_t index = 0;
    EXPECT_TRUE(LoadManager::indexOf(LoadManager::sessionId(1234).data(), index));
    EXPECT_EQ(1234u, index);
}

// A key of another form is not one of the manager's sessions.
TEST_F(LoadManagerTest, KeyOfAnotherFormHasNoIndex) {
    uint8_t padded[16] = {'l', 'o', 'a', 'd', '0', '1'};
    uint8_t foreign[16] = {'p', 'r', 'o', 'b', 'e', '1'};
    uint32_t index = 0;
    EXPECT_FALSE(LoadManager::indexOf(padded, index));
    EXPECT_FALSE(LoadManager::indexOf(foreign, index));
}

// A block whose last session needs a start slot above 2499 is refused.
TEST_F(LoadManagerTest, SlotAboveTheDaemonsLimitIsRefused) {
    block.count = 2501;
    std::string error;
    EXPECT_FALSE(LoadManager::checkBlock(block, error));
    EXPECT_EQ("session 2500 would get start slot 2500; the daemon accepts up to 2499", error);
}

// With the dense spreading base the slots may go up to 5555.
TEST_F(LoadManagerTest, DenseSpreadingAllowsSlotsUpTo5555) {
    block.count = 5556;
    block.basePort = 10000;
    block.spreadingBase = 5000;
    std::string error;
    EXPECT_TRUE(LoadManager::checkBlock(block, error));
}

// A rate above what one session's timer keeps is refused.
TEST_F(LoadManagerTest, RateAboveTenThousandIsRefused) {
    block.packetsPerSecond = 10001;
    std::string error;
    EXPECT_FALSE(LoadManager::checkBlock(block, error));
    EXPECT_EQ("rate above 10000 packets/s", error);
}

}  // namespace
