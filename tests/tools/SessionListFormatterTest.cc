#include "SessionListFormatter.h"

#include <gtest/gtest.h>

#include "TwtsiSignals.h"

namespace {

SessionListing sending() {
    SessionListing session;
    session.sessionId[0] = 0xab;
    session.sessionId[15] = 0x01;
    session.dstIpAddress = "198.18.0.2";
    session.dstUdpPort = 862;
    session.packetsPerSecond = 10;
    session.dscp = 46;
    session.packetSize = 64;
    session.state = TWTSI_SESSION_STATE_SENDING;
    session.lastReplyAgeSeconds = 12;
    session.minuteSentPkts = 120;
    session.minuteReceivedPkts = 119;
    return session;
}

// Each state has its name; an unknown one its number.
TEST(SessionListFormatterTest, StateNames) {
    EXPECT_EQ("waiting", sessionStateName(TWTSI_SESSION_STATE_WAITING));
    EXPECT_EQ("sending", sessionStateName(TWTSI_SESSION_STATE_SENDING));
    EXPECT_EQ("refused", sessionStateName(TWTSI_SESSION_STATE_REFUSED));
    EXPECT_EQ("unresolved", sessionStateName(TWTSI_SESSION_STATE_UNRESOLVED));
    EXPECT_EQ("state 9", sessionStateName(9));
}

// The table has a header, one row per session and the count.
TEST(SessionListFormatterTest, Table) {
    EXPECT_EQ(
        "session id                        destination                               port   "
        "rate dscp  size  state       last reply    sent received\n"
        "ab000000000000000000000000000001  198.18.0.2                                 862     "
        "10   46    64  sending          <12 s     120      119\n"
        "1 session\n",
        formatSessionTable({sending()}));
}

// Counts of -2 are shown as n/a in the table.
TEST(SessionListFormatterTest, TableNotAvailable) {
    SessionListing session = sending();
    session.state = TWTSI_SESSION_STATE_REFUSED;
    session.lastReplyAgeSeconds = -2;
    session.minuteSentPkts = -2;
    session.minuteReceivedPkts = -2;
    EXPECT_EQ(
        "session id                        destination                               port   "
        "rate dscp  size  state       last reply    sent received\n"
        "ab000000000000000000000000000001  198.18.0.2                                 862     "
        "10   46    64  refused            n/a     n/a      n/a\n"
        "1 session\n",
        formatSessionTable({session}));
}

// JSON keeps the raw values, -2 included.
TEST(SessionListFormatterTest, Json) {
    SessionListing session = sending();
    session.minuteSentPkts = -2;
    EXPECT_EQ(
        "{\"sessions\": [{\"sessionId\": \"ab000000000000000000000000000001\", "
        "\"dstIpAddress\": \"198.18.0.2\", \"dstUdpPort\": 862, \"packetsPerSecond\": 10, "
        "\"dscp\": 46, \"packetSize\": 64, \"state\": \"sending\", \"lastReplyAgeSeconds\": 12, "
        "\"minuteSentPkts\": -2, \"minuteReceivedPkts\": 119}]}\n",
        formatSessionJson({session}));
}

// An empty list is an empty array.
TEST(SessionListFormatterTest, EmptyJson) {
    EXPECT_EQ("{\"sessions\": []}\n", formatSessionJson({}));
}

}  // namespace
