// The CSV of many sessions' counters.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "CountersCsv.h"

namespace {

class CountersCsvTest : public ::testing::Test {
  protected:
    std::string written() {
        char* text = nullptr;
        std::size_t length = 0;
        std::FILE* out = open_memstream(&text, &length);
        CountersCsv::write(out, sessions);
        std::fclose(out);
        std::string all(text, length);
        std::free(text);
        return all;
    }

    std::vector<std::string> lines() {
        std::vector<std::string> result;
        std::istringstream text(written());
        for (std::string line; std::getline(text, line);) {
            result.push_back(line);
        }
        return result;
    }

    std::vector<SessionCounters> sessions;
};

// The header names the session, the counter, its unit and the 15 bins by number.
TEST_F(CountersCsvTest, HeaderNamesTheBinsByNumber) {
    EXPECT_EQ("session,counter,unit,0,1,2,3,4,5,6,7,8,9,10,11,12,13,14\n", written());
}

// A session's counter line holds its raw values, -2 included.
TEST_F(CountersCsvTest, CounterLineHoldsTheRawValues) {
    SessionCounters session;
    session.index = 7;
    session.received = true;
    for (int bin = 0; bin < TWTSI_PM_COUNTER_BINS; ++bin) {
        session.reply.counters[0][bin] = TWTSI_PM_NOT_AVAILABLE;
    }
    session.reply.counters[0][3] = 250;
    sessions.push_back(session);
    const std::vector<std::string> all = lines();
    ASSERT_EQ(39u, all.size());
    EXPECT_EQ("load7,delayRtAvg,microseconds,-2,-2,-2,250,-2,-2,-2,-2,-2,-2,-2,-2,-2,-2,-2",
              all[1]);
}

// A session whose counters did not come has no lines.
TEST_F(CountersCsvTest, SessionWithoutCountersHasNoLines) {
    SessionCounters session;
    session.index = 3;
    sessions.push_back(session);
    EXPECT_EQ(1u, lines().size());
}

}  // namespace
