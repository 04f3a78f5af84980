#include "SessionRoster.h"

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "FakeClock.h"
#include "SessionKey.h"
#include "TraceRecorder.h"
#include "TwtsiSignals.h"

namespace {

using twamp_test::FakeClock;
using twamp_test::TraceRecorder;

// 2023-11-14 22:00:30 UTC: minute 28333320, half a minute in.
constexpr time_t kNow = 1699999230;

SessionKey keyOf(uint32_t number) {
    SessionKey key;
    std::memset(key.bytes, 0, sizeof(key.bytes));
    std::memcpy(key.bytes + 12, &number, sizeof(number));
    std::swap(key.bytes[12], key.bytes[15]);
    std::swap(key.bytes[13], key.bytes[14]);
    return key;
}

twtsiCreateTwampTestSession createOf(uint16_t port) {
    twtsiCreateTwampTestSession create;
    std::memset(&create, 0, sizeof(create));
    create.sigNo = TWTSI_CREATE_TWAMP_TEST_SESSION;
    create.dstUdpPort = port;
    create.packetsPerSecond = 10;
    create.dscp = 46;
    create.packetSize = 200;
    return create;
}

class SessionRosterTest : public ::testing::Test {
  protected:
    void SetUp() override {
        TraceRecorder::reset();
        clock.set(kNow);
    }

    std::vector<uint16_t> listedPorts() const {
        std::vector<uint16_t> ports;
        for (const auto& entry : roster.entries()) {
            ports.push_back(entry.second.dstUdpPort);
        }
        return ports;
    }

    FakeClock clock;
    SessionRoster roster{clock};
};

// A created session is listed with the create's settings and the minute of the create.
TEST_F(SessionRosterTest, CreatedSessionKeepsSettings) {
    roster.recordCreated(keyOf(1), createOf(862), "192.0.2.7");
    ASSERT_EQ(1u, roster.entries().size());
    const RosterEntry& entry = roster.entries().begin()->second;
    EXPECT_EQ("192.0.2.7", entry.dstIpAddress);
    EXPECT_EQ(862, entry.dstUdpPort);
    EXPECT_EQ(10u, entry.packetsPerSecond);
    EXPECT_EQ(46u, entry.dscp);
    EXPECT_EQ(200, entry.packetSize);
    EXPECT_EQ(28333320, entry.createdMinute);
    EXPECT_FALSE(entry.refused);
}

// A refused create is listed as refused.
TEST_F(SessionRosterTest, RefusedCreateIsListed) {
    roster.recordRefused(keyOf(1), createOf(862), "192.0.2.7");
    ASSERT_EQ(1u, roster.entries().size());
    EXPECT_TRUE(roster.entries().begin()->second.refused);
}

// Removing a key forgets it; removing it again does nothing.
TEST_F(SessionRosterTest, RemoveForgetsKey) {
    roster.recordCreated(keyOf(1), createOf(1001), "192.0.2.7");
    roster.recordCreated(keyOf(2), createOf(1002), "192.0.2.7");
    roster.remove(keyOf(1));
    roster.remove(keyOf(1));
    EXPECT_EQ(std::vector<uint16_t>{1002}, listedPorts());
}

// Entries are listed in key order, whatever the order of the creates.
TEST_F(SessionRosterTest, EntriesInKeyOrder) {
    roster.recordCreated(keyOf(3), createOf(1003), "192.0.2.7");
    roster.recordCreated(keyOf(1), createOf(1001), "192.0.2.7");
    roster.recordRefused(keyOf(2), createOf(1002), "192.0.2.7");
    EXPECT_EQ((std::vector<uint16_t>{1001, 1002, 1003}), listedPorts());
}

// Beyond 256 refusals the oldest refusal is forgotten; started sessions stay.
TEST_F(SessionRosterTest, OldestRefusalForgottenBeyondLimit) {
    roster.recordCreated(keyOf(0), createOf(1), "192.0.2.7");
    for (uint32_t number = 1; number <= 257; ++number) {
        roster.recordRefused(keyOf(number), createOf(2), "192.0.2.7");
    }
    EXPECT_EQ(257u, roster.entries().size());
    EXPECT_EQ(1u, roster.entries().count(keyOf(0)));
    EXPECT_EQ(0u, roster.entries().count(keyOf(1)));
    EXPECT_EQ(1u, roster.entries().count(keyOf(257)));
}

// A key refused again becomes the newest refusal; it outlives those refused
// between its two refusals.
TEST_F(SessionRosterTest, RefusedAgainBecomesNewest) {
    for (uint32_t number = 1; number <= 256; ++number) {
        roster.recordRefused(keyOf(number), createOf(2), "192.0.2.7");
    }
    roster.recordRefused(keyOf(1), createOf(3), "192.0.2.7");
    roster.recordRefused(keyOf(300), createOf(2), "192.0.2.7");
    EXPECT_EQ(256u, roster.entries().size());
    EXPECT_EQ(3, roster.entries().at(keyOf(1)).dstUdpPort);
    EXPECT_EQ(0u, roster.entries().count(keyOf(2)));
}

// A refused key that is then created no longer counts as a refusal: the
// limit forgets only refusals, never the session that replaced one.
TEST_F(SessionRosterTest, CreatedAfterRefusalLeavesTheRefusals) {
    roster.recordRefused(keyOf(0), createOf(1), "192.0.2.7");
    roster.recordCreated(keyOf(0), createOf(1), "192.0.2.7");
    for (uint32_t number = 1; number <= 257; ++number) {
        roster.recordRefused(keyOf(number), createOf(2), "192.0.2.7");
    }
    EXPECT_EQ(257u, roster.entries().size());
    EXPECT_FALSE(roster.entries().at(keyOf(0)).refused);
    EXPECT_EQ(0u, roster.entries().count(keyOf(1)));
}

// The straightforward roster: the oldest refusal found by a walk over every
// listed key. The roster must list exactly what it lists.
class WalkingRoster {
  public:
    void created(uint32_t key) {
        listed.erase(key);
        listed[key] = {false, 0};
    }
    void refused(uint32_t key) {
        listed.erase(key);
        std::size_t refusals = 0;
        for (const auto& entry : listed) {
            refusals += entry.second.refused ? 1 : 0;
        }
        if (refusals >= SessionRoster::kMaxRefused) {
            auto oldest = listed.end();
            for (auto entry = listed.begin(); entry != listed.end(); ++entry) {
                if (entry->second.refused &&
                    (oldest == listed.end() || entry->second.number < oldest->second.number)) {
                    oldest = entry;
                }
            }
            listed.erase(oldest);
        }
        listed[key] = {true, next++};
    }
    void removed(uint32_t key) { listed.erase(key); }

    struct Entry {
        bool refused;
        uint64_t number;
    };
    std::map<uint32_t, Entry> listed;
    uint64_t next = 0;
};

// Random creates, refusals and removals over 1000 keys: after every step the
// roster lists the same keys, with the same outcome, as the walking roster.
TEST_F(SessionRosterTest, RandomStepsListAsTheWalkingRoster) {
    const char* seedText = std::getenv("TWAMP_TEST_SEED");
    const unsigned seed = (seedText != nullptr)
                              ? static_cast<unsigned>(std::strtoul(seedText, nullptr, 10))
                              : std::random_device{}();
    std::cout << "SessionRosterTest seed " << seed << " (TWAMP_TEST_SEED)" << std::endl;
    std::mt19937 random(seed);
    WalkingRoster reference;
    for (int step = 0; step < 20000; ++step) {
        const uint32_t key = random() % 1000;
        switch (random() % 4) {
            case 0:
                roster.recordCreated(keyOf(key), createOf(1), "192.0.2.7");
                reference.created(key);
                break;
            case 1:
                roster.remove(keyOf(key));
                reference.removed(key);
                break;
            default:
                roster.recordRefused(keyOf(key), createOf(2), "192.0.2.7");
                reference.refused(key);
                break;
        }
        ASSERT_EQ(reference.listed.size(), roster.entries().size()) << "step " << step;
        for (const auto& entry : reference.listed) {
            const auto found = roster.entries().find(keyOf(entry.first));
            ASSERT_NE(roster.entries().end(), found) << "step " << step << " key " << entry.first;
            ASSERT_EQ(entry.second.refused, found->second.refused) << "step " << step;
        }
    }
}

// A create whose time cannot be read is dated minute 0 and the failure traced.
TEST_F(SessionRosterTest, ClockFailureDatesMinuteZero) {
    clock.failWith(EINVAL);
    roster.recordCreated(keyOf(1), createOf(862), "192.0.2.7");
    EXPECT_EQ(0, roster.entries().begin()->second.createdMinute);
    EXPECT_EQ(std::vector<std::string>{"currentMinute(): Failed clock_gettime: errno 22 - Invalid "
                                       "argument"},
              TraceRecorder::twampMessages("ERROR"));
}

}  // namespace
