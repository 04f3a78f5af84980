#include "CountersCsv.h"

#include <cinttypes>

#include "PmPeriodRecord.h"

void CountersCsv::write(std::FILE* out, const std::vector<SessionCounters>& sessions) {
    std::fprintf(out, "session,counter,unit");
    for (int bin = 0; bin < TWTSI_PM_COUNTER_BINS; ++bin) {
        std::fprintf(out, ",%d", bin);
    }
    std::fprintf(out, "\n");
    for (const SessionCounters& session : sessions) {
        if (!session.received) {
            continue;
        }
        for (int row = 0; row < TWTSI_PM_COUNTER_ROWS; ++row) {
            std::fprintf(out, "load%" PRIu32 ",%s,%s", session.index, kPmCounterInfo[row].name,
                         kPmCounterInfo[row].unit);
            for (int bin = 0; bin < TWTSI_PM_COUNTER_BINS; ++bin) {
                std::fprintf(out, ",%" PRId64, session.reply.counters[row][bin]);
            }
            std::fprintf(out, "\n");
        }
    }
}
