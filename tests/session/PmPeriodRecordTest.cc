#include "PmPeriodRecord.h"

#include <string>

#include <gtest/gtest.h>

namespace {

// Counter k of bin m is stored at position 15k + m.
TEST(PmPeriodRecordTest, CounterMajorStorage) {
    PmPeriodRecord record{};
    record.at(PmCounter::sentPkts, 14) = 1234;
    record.at(PmCounter::delayRtMax, 2) = 77;
    EXPECT_EQ(1234, record.values[569]);
    EXPECT_EQ(77, record.values[17]);
}

// fill sets all 570 values.
TEST(PmPeriodRecordTest, FillSetsEveryValue) {
    PmPeriodRecord record{};
    record.fill(PmPeriodRecord::kNotAvailable);
    for (int index = 0; index < 570; ++index) {
        ASSERT_EQ(-2, record.values[index]) << "index " << index;
    }
}

// The counter indices follow the record order.
TEST(PmPeriodRecordTest, CounterIndices) {
    EXPECT_EQ(0, PmCounter::delayRtAvg);
    EXPECT_EQ(6, PmCounter::dscpRevMax);
    EXPECT_EQ(8, PmCounter::duplicatePktsFwd);
    EXPECT_EQ(21, PmCounter::ipdvRevP99);
    EXPECT_EQ(22, PmCounter::lossPeriodFwdMax);
    EXPECT_EQ(26, PmCounter::lossPeriodsFwd);
    EXPECT_EQ(28, PmCounter::lostPktsFwd);
    EXPECT_EQ(32, PmCounter::receivedPkts);
    EXPECT_EQ(33, PmCounter::ttlFwdMax);
    EXPECT_EQ(36, PmCounter::ttlRevMin);
    EXPECT_EQ(37, PmCounter::sentPkts);
}

// Every counter's printed name is its index constant's name.
TEST(PmPeriodRecordTest, NamesMatchIndices) {
    EXPECT_EQ(std::string("delayRtAvg"), kPmCounterInfo[PmCounter::delayRtAvg].name);
    EXPECT_EQ(std::string("dscpRevMin"), kPmCounterInfo[PmCounter::dscpRevMin].name);
    EXPECT_EQ(std::string("ipdvFwdP95"), kPmCounterInfo[PmCounter::ipdvFwdP95].name);
    EXPECT_EQ(std::string("lossPeriodRevMin"), kPmCounterInfo[PmCounter::lossPeriodRevMin].name);
    EXPECT_EQ(std::string("latePktsRev"), kPmCounterInfo[PmCounter::latePktsRev].name);
    EXPECT_EQ(std::string("ttlRevMax"), kPmCounterInfo[PmCounter::ttlRevMax].name);
    EXPECT_EQ(std::string("sentPkts"), kPmCounterInfo[PmCounter::sentPkts].name);
}

// Delays and IPDV are in microseconds, loss periods in milliseconds, counts in packets.
TEST(PmPeriodRecordTest, Units) {
    EXPECT_EQ(std::string("microseconds"), kPmCounterInfo[PmCounter::delayRtP99].unit);
    EXPECT_EQ(std::string("microseconds"), kPmCounterInfo[PmCounter::ipdvRevMin].unit);
    EXPECT_EQ(std::string("milliseconds"), kPmCounterInfo[PmCounter::lossPeriodFwdMax].unit);
    EXPECT_EQ(std::string("milliseconds"), kPmCounterInfo[PmCounter::lossPeriodRevMin].unit);
    EXPECT_EQ(std::string("packets"), kPmCounterInfo[PmCounter::lossPeriodsRev].unit);
    EXPECT_EQ(std::string("packets"), kPmCounterInfo[PmCounter::duplicatePktsFwd].unit);
    EXPECT_EQ(std::string("packets"), kPmCounterInfo[PmCounter::sentPkts].unit);
    EXPECT_EQ(std::string("DSCP"), kPmCounterInfo[PmCounter::dscpRevMax].unit);
    EXPECT_EQ(std::string("TTL"), kPmCounterInfo[PmCounter::ttlFwdMin].unit);
}

}  // namespace
