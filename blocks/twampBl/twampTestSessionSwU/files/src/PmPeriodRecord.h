// One 15-minute interval of PM counters: 38 counters of 15 one-minute bins.
//
// Stored counter by counter (counter k of bin m at 15k + m), which is also the
// row order of the counters reply, so a record is copied into a reply whole.
// The value -2 marks a value that is not available: minute not measured, not
// yet finalised, or invalidated.
#ifndef TWAMP_PM_PERIOD_RECORD_H
#define TWAMP_PM_PERIOD_RECORD_H

#include <cstddef>
#include <cstdint>

// Indices of the 38 counters, in record order.
struct PmCounter {
    enum Index : int {
        delayRtAvg = 0,
        delayRtMax = 1,
        delayRtMin = 2,
        delayRtP95 = 3,
        delayRtP98 = 4,
        delayRtP99 = 5,
        dscpRevMax = 6,
        dscpRevMin = 7,
        duplicatePktsFwd = 8,
        duplicatePktsRev = 9,
        ipdvFwdAvg = 10,
        ipdvFwdMax = 11,
        ipdvFwdMin = 12,
        ipdvFwdP95 = 13,
        ipdvFwdP98 = 14,
        ipdvFwdP99 = 15,
        ipdvRevAvg = 16,
        ipdvRevMax = 17,
        ipdvRevMin = 18,
        ipdvRevP95 = 19,
        ipdvRevP98 = 20,
        ipdvRevP99 = 21,
        lossPeriodFwdMax = 22,
        lossPeriodRevMax = 23,
        lossPeriodFwdMin = 24,
        lossPeriodRevMin = 25,
        lossPeriodsFwd = 26,
        lossPeriodsRev = 27,
        lostPktsFwd = 28,
        lostPktsRev = 29,
        latePktsFwd = 30,
        latePktsRev = 31,
        receivedPkts = 32,
        ttlFwdMax = 33,
        ttlRevMax = 34,
        ttlFwdMin = 35,
        ttlRevMin = 36,
        sentPkts = 37,
    };
};

// Name and unit of one counter, for printing.
struct PmCounterInfo {
    const char* name;
    const char* unit;
};

// The 38 counters in record order: delays and IPDV in microseconds, loss
// periods in milliseconds, DSCP and TTL as the header field's value, the
// rest in packets.
constexpr PmCounterInfo kPmCounterInfo[] = {
    {"delayRtAvg", "microseconds"},
    {"delayRtMax", "microseconds"},
    {"delayRtMin", "microseconds"},
    {"delayRtP95", "microseconds"},
    {"delayRtP98", "microseconds"},
    {"delayRtP99", "microseconds"},
    {"dscpRevMax", "DSCP"},
    {"dscpRevMin", "DSCP"},
    {"duplicatePktsFwd", "packets"},
    {"duplicatePktsRev", "packets"},
    {"ipdvFwdAvg", "microseconds"},
    {"ipdvFwdMax", "microseconds"},
    {"ipdvFwdMin", "microseconds"},
    {"ipdvFwdP95", "microseconds"},
    {"ipdvFwdP98", "microseconds"},
    {"ipdvFwdP99", "microseconds"},
    {"ipdvRevAvg", "microseconds"},
    {"ipdvRevMax", "microseconds"},
    {"ipdvRevMin", "microseconds"},
    {"ipdvRevP95", "microseconds"},
    {"ipdvRevP98", "microseconds"},
    {"ipdvRevP99", "microseconds"},
    {"lossPeriodFwdMax", "milliseconds"},
    {"lossPeriodRevMax", "milliseconds"},
    {"lossPeriodFwdMin", "milliseconds"},
    {"lossPeriodRevMin", "milliseconds"},
    {"lossPeriodsFwd", "packets"},
    {"lossPeriodsRev", "packets"},
    {"lostPktsFwd", "packets"},
    {"lostPktsRev", "packets"},
    {"latePktsFwd", "packets"},
    {"latePktsRev", "packets"},
    {"receivedPkts", "packets"},
    {"ttlFwdMax", "TTL"},
    {"ttlRevMax", "TTL"},
    {"ttlFwdMin", "TTL"},
    {"ttlRevMin", "TTL"},
    {"sentPkts", "packets"},
};

struct PmPeriodRecord {
    static constexpr int kCounterCount = 38;
    static constexpr int kBinCount = 15;
    static constexpr int kValueCount = kCounterCount * kBinCount;
    static constexpr int64_t kNotAvailable = -2;

    int64_t values[kValueCount];

    // The value of one counter in one minute bin.
    int64_t& at(int counter, int bin) { return values[counter * kBinCount + bin]; }
    int64_t at(int counter, int bin) const { return values[counter * kBinCount + bin]; }

    // Sets every value of the record.
    void fill(int64_t value) {
        for (int64_t& entry : values) {
            entry = value;
        }
    }
};

static_assert(sizeof(kPmCounterInfo) / sizeof(kPmCounterInfo[0]) == PmPeriodRecord::kCounterCount,
              "one name per counter");
static_assert(sizeof(PmPeriodRecord) == 4560, "38 x 15 signed 64-bit values");

#endif  // TWAMP_PM_PERIOD_RECORD_H
