#include "CounterAccumulator.h"

#include "PmPeriodRecord.h"

namespace {

constexpr int64_t kMinuteSeconds = 60;

// The record's row of each total, in TotalCounter order.
constexpr PmCounter::Index kTotalRows[kTotalCounterCount] = {
    PmCounter::sentPkts,         PmCounter::receivedPkts,     PmCounter::lostPktsFwd,
    PmCounter::lostPktsRev,      PmCounter::latePktsFwd,      PmCounter::latePktsRev,
    PmCounter::duplicatePktsFwd, PmCounter::duplicatePktsRev,
};

}  // namespace

CounterAccumulator::CounterAccumulator(time_t startTime)
    // The first minute that ends at or after the start.
    : firstCountedMinute((static_cast<int64_t>(startTime) + kMinuteSeconds - 1) / kMinuteSeconds -
                         1) {}

void CounterAccumulator::observe(const std::string& key, int64_t firstMinute,
                                 const CounterGrid& counters, int64_t lastFinalMinute) {
    SessionTotals& session = sessions[key];
    for (int bin = 0; bin < TWTSI_PM_COUNTER_BINS; ++bin) {
        const int64_t minute = firstMinute + bin;
        if (minute > lastFinalMinute) {
            break;
        }
        if (minute > session.gaugeMinute) {
            session.gaugeMinute = minute;
            for (int row = 0; row < TWTSI_PM_COUNTER_ROWS; ++row) {
                session.gaugeValues[row] = counters[row][bin];
            }
        }
        if (minute < firstCountedMinute || !session.addedMinutes.insert(minute).second) {
            continue;
        }
        addMinute(session, counters, bin);
    }
}

void CounterAccumulator::addMinute(SessionTotals& session, const CounterGrid& counters, int bin) {
    for (std::size_t total = 0; total < kTotalCounterCount; ++total) {
        const int64_t value = counters[kTotalRows[total]][bin];
        // -2 (no valid value) and any other negative value add nothing.
        if (value > 0) {
            session.totals[total] += static_cast<uint64_t>(value);
        }
    }
}

void CounterAccumulator::markListed(const std::string& key, int64_t minute) {
    sessions[key].lastListedMinute = minute;
}

void CounterAccumulator::forgetOld(int64_t minute) {
    for (auto session = sessions.begin(); session != sessions.end();) {
        if (minute - session->second.lastListedMinute > kMemoryMinutes) {
            session = sessions.erase(session);
            continue;
        }
        auto& added = session->second.addedMinutes;
        added.erase(added.begin(), added.lower_bound(minute - kMemoryMinutes));
        ++session;
    }
}

bool CounterAccumulator::needsMinute(const std::string& key, int64_t minute) const {
    if (minute < firstCountedMinute) {
        return false;
    }
    const SessionTotals* session = find(key);
    return session == nullptr || session->addedMinutes.count(minute) == 0;
}

const SessionTotals* CounterAccumulator::find(const std::string& key) const {
    const auto found = sessions.find(key);
    return found == sessions.end() ? nullptr : &found->second;
}
