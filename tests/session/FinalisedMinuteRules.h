// The rules every finalised minute obeys, whatever happened in it: each
// counter is -2 (no valid value) or within its range, the packet counts add
// up, and the delay statistics are ordered.
#ifndef TWAMP_TESTS_FINALISED_MINUTE_RULES_H
#define TWAMP_TESTS_FINALISED_MINUTE_RULES_H

#include <cstdint>
#include <string>
#include <vector>

#include "PmPeriodRecord.h"

class FinalisedMinuteRules {
  public:
    // The 38 counters of one bin, in record order.
    using Bin = std::vector<int64_t>;

    // The counters of bin of record.
    static Bin binOf(const PmPeriodRecord& record, int bin);
    // Every rule bin breaks, one line each; empty when it obeys them all.
    static std::vector<std::string> violations(const Bin& bin);

  private:
    static void checkVoidBin(const Bin& bin, std::vector<std::string>& found);
    static void checkPacketCounts(const Bin& bin, std::vector<std::string>& found);
    static void checkDelayStatistics(const Bin& bin, PmCounter::Index avg, PmCounter::Index max,
                                     PmCounter::Index min, PmCounter::Index p95,
                                     PmCounter::Index p98, PmCounter::Index p99,
                                     std::vector<std::string>& found);
    static void checkMinMaxRange(const Bin& bin, PmCounter::Index min, PmCounter::Index max,
                                 int64_t lowest, int64_t highest, std::vector<std::string>& found);
    static void checkNothingMeasuredWithoutReplies(const Bin& bin, std::vector<std::string>& found);
};

#endif  // TWAMP_TESTS_FINALISED_MINUTE_RULES_H
