// The rules of a finalised minute catch what they are meant to catch: the
// simulation relies on them for every minute it cannot compare exactly.
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FinalisedMinuteRules.h"
#include "PmPeriodRecord.h"

namespace {

class FinalisedMinuteRulesTest : public ::testing::Test {
  protected:
    // A minute of 10 packets, 9 answered, one lost forward, delays in order.
    void SetUp() override {
        bin.assign(PmPeriodRecord::kCounterCount, PmPeriodRecord::kNotAvailable);
        set(PmCounter::sentPkts, 10);
        set(PmCounter::receivedPkts, 9);
        set(PmCounter::lostPktsFwd, 1);
        for (PmCounter::Index zero :
             {PmCounter::lostPktsRev, PmCounter::latePktsFwd, PmCounter::latePktsRev,
              PmCounter::duplicatePktsFwd, PmCounter::duplicatePktsRev, PmCounter::lossPeriodsRev,
              PmCounter::lossPeriodRevMax, PmCounter::lossPeriodRevMin}) {
            set(zero, 0);
        }
        set(PmCounter::lossPeriodsFwd, 1);
        set(PmCounter::lossPeriodFwdMax, 100);
        set(PmCounter::lossPeriodFwdMin, 100);
        setStatistics(PmCounter::delayRtAvg, 2000, PmCounter::delayRtMax, 3000,
                      PmCounter::delayRtMin, 1000, PmCounter::delayRtP95, 2900,
                      PmCounter::delayRtP98, 2950, PmCounter::delayRtP99, 3000);
        setStatistics(PmCounter::ipdvFwdAvg, 0, PmCounter::ipdvFwdMax, 0, PmCounter::ipdvFwdMin, 0,
                      PmCounter::ipdvFwdP95, -2, PmCounter::ipdvFwdP98, -2, PmCounter::ipdvFwdP99,
                      -2);
        setStatistics(PmCounter::ipdvRevAvg, 10, PmCounter::ipdvRevMax, 20, PmCounter::ipdvRevMin,
                      5, PmCounter::ipdvRevP95, 20, PmCounter::ipdvRevP98, 20,
                      PmCounter::ipdvRevP99, 20);
        set(PmCounter::dscpRevMin, 46);
        set(PmCounter::dscpRevMax, 46);
        set(PmCounter::ttlFwdMin, 60);
        set(PmCounter::ttlFwdMax, 64);
        set(PmCounter::ttlRevMin, 1);
        set(PmCounter::ttlRevMax, 255);
    }
    void set(PmCounter::Index counter, int64_t value) { bin[counter] = value; }
    void setStatistics(PmCounter::Index avg, int64_t avgValue, PmCounter::Index max,
                       int64_t maxValue, PmCounter::Index min, int64_t minValue,
                       PmCounter::Index p95, int64_t p95Value, PmCounter::Index p98,
                       int64_t p98Value, PmCounter::Index p99, int64_t p99Value) {
        set(avg, avgValue);
        set(max, maxValue);
        set(min, minValue);
        set(p95, p95Value);
        set(p98, p98Value);
        set(p99, p99Value);
    }
    std::vector<std::string> violations() const { return FinalisedMinuteRules::violations(bin); }

    FinalisedMinuteRules::Bin bin;
};

// A measured minute whose counters are all in range obeys the rules.
TEST_F(FinalisedMinuteRulesTest, MeasuredMinuteObeysTheRules) {
    EXPECT_EQ(std::vector<std::string>(), violations());
}

// A minute that was not measured or was invalidated is -2 throughout.
TEST_F(FinalisedMinuteRulesTest, VoidMinuteObeysTheRules) {
    bin.assign(PmPeriodRecord::kCounterCount, PmPeriodRecord::kNotAvailable);
    EXPECT_EQ(std::vector<std::string>(), violations());
}

// lostPktsFwd alone may be -2 when the loss arithmetic does not add up.
TEST_F(FinalisedMinuteRulesTest, LostForwardAloneMayBeVoid) {
    set(PmCounter::lostPktsFwd, PmPeriodRecord::kNotAvailable);
    EXPECT_EQ(std::vector<std::string>(), violations());
}

// A negative value other than -2 breaks the rules.
TEST_F(FinalisedMinuteRulesTest, NegativeValueOtherThanMinusTwo) {
    set(PmCounter::lossPeriodsFwd, -3);
    EXPECT_EQ(std::vector<std::string>{"lossPeriodsFwd -3 is negative but not -2"}, violations());
}

// More packets lost than sent breaks the rules.
TEST_F(FinalisedMinuteRulesTest, MoreLostThanSent) {
    set(PmCounter::lostPktsFwd, 0);
    set(PmCounter::lostPktsRev, 11);
    EXPECT_EQ((std::vector<std::string>{"lostPktsRev 11 exceeds sentPkts 10",
                                        "receivedPkts + lostPktsFwd + lostPktsRev = 20 exceeds "
                                        "sentPkts + duplicates = 10"}),
              violations());
}

// Replies and losses beyond the packets sent and their duplicates break the rules.
TEST_F(FinalisedMinuteRulesTest, MoreAccountedThanSent) {
    set(PmCounter::lostPktsRev, 1);
    EXPECT_EQ(std::vector<std::string>{"receivedPkts + lostPktsFwd + lostPktsRev = 11 exceeds "
                                       "sentPkts + duplicates = 10"},
              violations());
}

// A percentile above the maximum breaks the rules.
TEST_F(FinalisedMinuteRulesTest, PercentileAboveMaximum) {
    set(PmCounter::delayRtP99, 3001);
    EXPECT_EQ(std::vector<std::string>{"delayRtP99 3001 exceeds delayRtMax 3000"}, violations());
}

// A delay beyond the 4 s a reply may take breaks the rules.
TEST_F(FinalisedMinuteRulesTest, DelayBeyondFourSeconds) {
    set(PmCounter::ipdvRevMax, 4000001);
    set(PmCounter::ipdvRevP99, 4000001);
    set(PmCounter::ipdvRevP98, 4000001);
    set(PmCounter::ipdvRevP95, 4000001);
    EXPECT_EQ((std::vector<std::string>{
                  "ipdvRevMax 4000001 exceeds 4 s", "ipdvRevP95 4000001 exceeds 4 s",
                  "ipdvRevP98 4000001 exceeds 4 s", "ipdvRevP99 4000001 exceeds 4 s"}),
              violations());
}

// A TTL of 0 and a DSCP of 64 are no values a packet arrives with.
TEST_F(FinalisedMinuteRulesTest, TtlZeroAndDscpBeyondSixBits) {
    set(PmCounter::ttlFwdMin, 0);
    set(PmCounter::dscpRevMax, 64);
    EXPECT_EQ((std::vector<std::string>{"dscpRevMax 64 is outside 0..63",
                                        "ttlFwdMin 0 is outside 1..255"}),
              violations());
}

// Delays in a minute without a received packet break the rules.
TEST_F(FinalisedMinuteRulesTest, DelaysWithoutReceivedPackets) {
    bin.assign(PmPeriodRecord::kCounterCount, 0);
    set(PmCounter::sentPkts, 1);
    set(PmCounter::lostPktsFwd, 1);
    set(PmCounter::delayRtP95, PmPeriodRecord::kNotAvailable);
    set(PmCounter::delayRtP98, PmPeriodRecord::kNotAvailable);
    set(PmCounter::delayRtP99, PmPeriodRecord::kNotAvailable);
    for (PmCounter::Index counter :
         {PmCounter::ipdvFwdAvg, PmCounter::ipdvFwdMax, PmCounter::ipdvFwdMin,
          PmCounter::ipdvFwdP95, PmCounter::ipdvFwdP98, PmCounter::ipdvFwdP99,
          PmCounter::ipdvRevAvg, PmCounter::ipdvRevMax, PmCounter::ipdvRevMin,
          PmCounter::ipdvRevP95, PmCounter::ipdvRevP98, PmCounter::ipdvRevP99,
          PmCounter::dscpRevMax, PmCounter::dscpRevMin, PmCounter::ttlFwdMax, PmCounter::ttlFwdMin,
          PmCounter::ttlRevMax, PmCounter::ttlRevMin}) {
        set(counter, PmPeriodRecord::kNotAvailable);
    }
    EXPECT_EQ((std::vector<std::string>{"delayRtAvg 0 in a minute without received packets",
                                        "delayRtMax 0 in a minute without received packets",
                                        "delayRtMin 0 in a minute without received packets"}),
              violations());
}

}  // namespace
