#include "FinalisedMinuteRules.h"

#include <initializer_list>

#include "SimulationTime.h"

namespace {

constexpr int64_t kNotAvailable = PmPeriodRecord::kNotAvailable;

bool present(int64_t value) {
    return value != kNotAvailable;
}

std::string nameOf(int counter) {
    return kPmCounterInfo[counter].name;
}

std::string valueText(const FinalisedMinuteRules::Bin& bin, int counter) {
    return nameOf(counter) + " " + std::to_string(bin[counter]);
}

// Counters that only replies with delay samples fill.
constexpr PmCounter::Index kSampleCounters[] = {
    PmCounter::delayRtAvg, PmCounter::delayRtMax, PmCounter::delayRtMin, PmCounter::delayRtP95,
    PmCounter::delayRtP98, PmCounter::delayRtP99, PmCounter::dscpRevMax, PmCounter::dscpRevMin,
    PmCounter::ipdvFwdAvg, PmCounter::ipdvFwdMax, PmCounter::ipdvFwdMin, PmCounter::ipdvFwdP95,
    PmCounter::ipdvFwdP98, PmCounter::ipdvFwdP99, PmCounter::ipdvRevAvg, PmCounter::ipdvRevMax,
    PmCounter::ipdvRevMin, PmCounter::ipdvRevP95, PmCounter::ipdvRevP98, PmCounter::ipdvRevP99,
    PmCounter::ttlFwdMax,  PmCounter::ttlRevMax,  PmCounter::ttlFwdMin,  PmCounter::ttlRevMin,
};

}  // namespace

FinalisedMinuteRules::Bin FinalisedMinuteRules::binOf(const PmPeriodRecord& record, int bin) {
    Bin values;
    values.reserve(PmPeriodRecord::kCounterCount);
    for (int counter = 0; counter < PmPeriodRecord::kCounterCount; ++counter) {
        values.push_back(record.at(counter, bin));
    }
    return values;
}

std::vector<std::string> FinalisedMinuteRules::violations(const Bin& bin) {
    std::vector<std::string> found;
    for (int counter = 0; counter < PmPeriodRecord::kCounterCount; ++counter) {
        if (bin[counter] < 0 && bin[counter] != kNotAvailable) {
            found.push_back(valueText(bin, counter) + " is negative but not -2");
        }
    }
    checkPacketCounts(bin, found);
    checkVoidBin(bin, found);
    checkDelayStatistics(bin, PmCounter::delayRtAvg, PmCounter::delayRtMax, PmCounter::delayRtMin,
                         PmCounter::delayRtP95, PmCounter::delayRtP98, PmCounter::delayRtP99,
                         found);
    checkDelayStatistics(bin, PmCounter::ipdvFwdAvg, PmCounter::ipdvFwdMax, PmCounter::ipdvFwdMin,
                         PmCounter::ipdvFwdP95, PmCounter::ipdvFwdP98, PmCounter::ipdvFwdP99,
                         found);
    checkDelayStatistics(bin, PmCounter::ipdvRevAvg, PmCounter::ipdvRevMax, PmCounter::ipdvRevMin,
                         PmCounter::ipdvRevP95, PmCounter::ipdvRevP98, PmCounter::ipdvRevP99,
                         found);
    checkMinMaxRange(bin, PmCounter::dscpRevMin, PmCounter::dscpRevMax, 0, 63, found);
    checkMinMaxRange(bin, PmCounter::ttlFwdMin, PmCounter::ttlFwdMax, 1, 255, found);
    checkMinMaxRange(bin, PmCounter::ttlRevMin, PmCounter::ttlRevMax, 1, 255, found);
    checkMinMaxRange(bin, PmCounter::lossPeriodFwdMin, PmCounter::lossPeriodFwdMax, 0, INT64_MAX,
                     found);
    checkMinMaxRange(bin, PmCounter::lossPeriodRevMin, PmCounter::lossPeriodRevMax, 0, INT64_MAX,
                     found);
    checkNothingMeasuredWithoutReplies(bin, found);
    return found;
}

void FinalisedMinuteRules::checkVoidBin(const Bin& bin, std::vector<std::string>& found) {
    // A minute that was not measured or was invalidated is -2 throughout.
    if (present(bin[PmCounter::sentPkts])) {
        return;
    }
    for (int counter = 0; counter < PmPeriodRecord::kCounterCount; ++counter) {
        if (present(bin[counter])) {
            found.push_back(valueText(bin, counter) + " in a minute whose sentPkts is -2");
        }
    }
}

void FinalisedMinuteRules::checkPacketCounts(const Bin& bin, std::vector<std::string>& found) {
    const int64_t sent = bin[PmCounter::sentPkts];
    if (!present(sent)) {
        return;
    }
    // Only lostPktsFwd may become -2 on its own.
    for (PmCounter::Index counter :
         {PmCounter::receivedPkts, PmCounter::lostPktsRev, PmCounter::latePktsFwd,
          PmCounter::latePktsRev, PmCounter::duplicatePktsFwd, PmCounter::duplicatePktsRev}) {
        if (!present(bin[counter])) {
            found.push_back(nameOf(counter) + " is -2 while sentPkts is " + std::to_string(sent));
        }
    }
    for (PmCounter::Index counter : {PmCounter::lostPktsFwd, PmCounter::lostPktsRev,
                                     PmCounter::latePktsFwd, PmCounter::latePktsRev}) {
        if (present(bin[counter]) && bin[counter] > sent) {
            found.push_back(valueText(bin, counter) + " exceeds sentPkts " + std::to_string(sent));
        }
    }
    int64_t accounted = 0;
    for (PmCounter::Index counter :
         {PmCounter::receivedPkts, PmCounter::lostPktsFwd, PmCounter::lostPktsRev}) {
        accounted += present(bin[counter]) ? bin[counter] : 0;
    }
    int64_t duplicates = 0;
    for (PmCounter::Index counter : {PmCounter::duplicatePktsFwd, PmCounter::duplicatePktsRev}) {
        duplicates += present(bin[counter]) ? bin[counter] : 0;
    }
    if (accounted > sent + duplicates) {
        found.push_back("receivedPkts + lostPktsFwd + lostPktsRev = " + std::to_string(accounted) +
                        " exceeds sentPkts + duplicates = " + std::to_string(sent + duplicates));
    }
}

void FinalisedMinuteRules::checkDelayStatistics(const Bin& bin, PmCounter::Index avg,
                                                PmCounter::Index max, PmCounter::Index min,
                                                PmCounter::Index p95, PmCounter::Index p98,
                                                PmCounter::Index p99,
                                                std::vector<std::string>& found) {
    for (PmCounter::Index counter : {avg, max, min, p95, p98, p99}) {
        if (bin[counter] > simulation_time::kFourSecondsInMicroseconds) {
            found.push_back(valueText(bin, counter) + " exceeds 4 s");
        }
    }
    // Ascending where present: min <= avg <= max and min <= p95 <= p98 <= p99 <= max.
    const auto ordered = [&bin, &found](PmCounter::Index lower, PmCounter::Index upper) {
        if (present(bin[lower]) && present(bin[upper]) && bin[lower] > bin[upper]) {
            found.push_back(valueText(bin, lower) + " exceeds " + valueText(bin, upper));
        }
    };
    ordered(min, avg);
    ordered(avg, max);
    ordered(min, p95);
    ordered(p95, p98);
    ordered(p98, p99);
    ordered(p99, max);
}

void FinalisedMinuteRules::checkMinMaxRange(const Bin& bin, PmCounter::Index min,
                                            PmCounter::Index max, int64_t lowest, int64_t highest,
                                            std::vector<std::string>& found) {
    for (PmCounter::Index counter : {min, max}) {
        if (present(bin[counter]) && (bin[counter] < lowest || bin[counter] > highest)) {
            found.push_back(valueText(bin, counter) + " is outside " + std::to_string(lowest) +
                            ".." + std::to_string(highest));
        }
    }
    if (present(bin[min]) != present(bin[max])) {
        found.push_back(valueText(bin, min) + " and " + valueText(bin, max) +
                        " are not both present");
    } else if (present(bin[min]) && bin[min] > bin[max]) {
        found.push_back(valueText(bin, min) + " exceeds " + valueText(bin, max));
    }
}

void FinalisedMinuteRules::checkNothingMeasuredWithoutReplies(const Bin& bin,
                                                              std::vector<std::string>& found) {
    // Delays, IPDV, DSCP and TTL come from analysed replies only.
    if (bin[PmCounter::receivedPkts] != 0) {
        return;
    }
    for (PmCounter::Index counter : kSampleCounters) {
        if (present(bin[counter])) {
            found.push_back(valueText(bin, counter) + " in a minute without received packets");
        }
    }
}
