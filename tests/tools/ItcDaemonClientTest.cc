#include "ItcDaemonClient.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ItcChild.h"
#include "TwtsiSignals.h"
#include "itc.h"

namespace {

using itc_test::ItcChild;

constexpr const char* kService = "fake_daemon";
constexpr uint32_t kSessionCount = 600;

// Answers list requests from a list of kSessionCount sessions whose port is
// 1000 + index, and counters requests with every value 7, until killed.
void serveAsDaemon(ItcChild& child) {
    if (itc_init(1, 0, nullptr, nullptr, 0) != 0 || itc_create_mailbox(kService, 0) == ITC_NO_ID) {
        child.report(-1);
        return;
    }
    child.report(1);
    for (;;) {
        union itc_msg* request = itc_receive(ITC_NOFILTER, ITC_NO_TMO, ITC_FROM_ALL);
        if (request == nullptr) {
            continue;
        }
        union itc_msg* reply = nullptr;
        if (request->sigNo == TWTSI_LIST_TWAMP_TEST_SESSIONS_REQ) {
            const uint32_t start = request->twtsiListTwampTestSessionsReq.startIndex;
            const uint32_t count = std::min<uint32_t>(
                kSessionCount - std::min(start, kSessionCount), TWTSI_LIST_PAGE_ENTRIES);
            reply = itc_alloc(TWTSI_LIST_TWAMP_TEST_SESSIONS_RSP_SIZE(count),
                              TWTSI_LIST_TWAMP_TEST_SESSIONS_RSP);
            auto& page = *reinterpret_cast<twtsiListTwampTestSessionsRsp*>(reply);
            page.startIndex = start;
            page.totalCount = kSessionCount;
            page.count = count;
            page.more = start + count < kSessionCount ? 1 : 0;
            for (uint32_t index = 0; index < count; ++index) {
                std::strcpy(page.entries[index].dstIpAddress, "198.18.0.2");
                page.entries[index].dstUdpPort = static_cast<uint16_t>(1000 + start + index);
            }
        } else if (request->sigNo == TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_REQ) {
            reply = itc_alloc(sizeof(twtsiGetTwampTestSessionPmCountersRsp),
                              TWTSI_GET_TWAMP_TEST_SESSION_PM_COUNTERS_RSP);
            auto& counters = reply->twtsiGetTwampTestSessionPmCountersRsp;
            std::memcpy(counters.sessionId,
                        request->twtsiGetTwampTestSessionPmCountersReq.sessionId,
                        sizeof(counters.sessionId));
            for (auto& row : counters.counters) {
                std::fill(std::begin(row), std::end(row), 7);
            }
        }
        if (reply != nullptr) {
            itc_send(&reply, itc_sender(request), itc_current_mbox());
        }
        itc_free(&request);
    }
}

// The client against a forked stand-in daemon over real mailboxes in a
// private run directory.
class ItcDaemonClientTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/itc_client_test.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        runDirectory = pattern;
        setenv("ITC_RUNDIR", (runDirectory + "/itc").c_str(), 1);
    }
    void TearDown() override {
        daemon.kill(SIGKILL);
        daemon.finish();
        std::string command = "rm -rf '" + runDirectory + "'";
        ASSERT_EQ(0, system(command.c_str()));
        unsetenv("ITC_RUNDIR");
    }

    void startDaemon() {
        ASSERT_TRUE(daemon.start(serveAsDaemon));
        int64_t ready = 0;
        ASSERT_TRUE(daemon.next(&ready));
        ASSERT_EQ(1, ready);
    }

    std::string runDirectory;
    ItcChild daemon;
};

// 600 sessions come in three pages and are all listed, in order.
TEST_F(ItcDaemonClientTest, ListsEveryPage) {
    startDaemon();
    ItcDaemonClient client(kService, 5000, "client_test");
    std::string error;
    ASSERT_TRUE(client.open(error)) << error;
    std::vector<SessionListing> sessions;
    ASSERT_TRUE(client.listSessions(sessions, error)) << error;
    ASSERT_EQ(600u, sessions.size());
    EXPECT_EQ(1000, sessions.front().dstUdpPort);
    EXPECT_EQ(1599, sessions.back().dstUdpPort);
    EXPECT_EQ("198.18.0.2", sessions[300].dstIpAddress);
}

// A counters reply is read whole.
TEST_F(ItcDaemonClientTest, FetchesCounters) {
    startDaemon();
    ItcDaemonClient client(kService, 5000, "client_test");
    std::string error;
    ASSERT_TRUE(client.open(error)) << error;
    const uint8_t id[16] = {1, 2, 3};
    CounterGrid counters;
    ASSERT_TRUE(client.fetchCounters(id, false, counters, error)) << error;
    EXPECT_EQ(7, counters[0][0]);
    EXPECT_EQ(7, counters[37][14]);
}

// Without a daemon the client says which mailbox is missing.
TEST_F(ItcDaemonClientTest, NoDaemon) {
    ItcDaemonClient client(kService, 500, "client_test");
    std::string error;
    ASSERT_TRUE(client.open(error)) << error;
    std::vector<SessionListing> sessions;
    EXPECT_FALSE(client.listSessions(sessions, error));
    EXPECT_EQ(0u, error.find("no mailbox named 'fake_daemon' in "));
}

}  // namespace
