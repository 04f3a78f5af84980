#include "LatenessReport.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>

namespace {

constexpr int64_t kNanosecondsPerSecond = 1000000000;
constexpr int64_t kNtpUnixEpochOffset = 2208988800LL;
constexpr int64_t kSecondsPerMinute = 60;
// The daemon sends at most this many packets per timer read.
constexpr int64_t kMaxExpiriesPerRead = 8;
// The daemon finalises a minute with the first expiry at least 4 s after it.
constexpr int64_t kFinalisationSecond = 4;

int64_t nanosecondsOfNtp(uint64_t ntp) {
    const auto seconds = static_cast<int64_t>(ntp >> 32) - kNtpUnixEpochOffset;
    const auto fraction =
        static_cast<int64_t>(((ntp & 0xFFFFFFFFULL) * kNanosecondsPerSecond) >> 32);
    return seconds * kNanosecondsPerSecond + fraction;
}

// Nearest rank of a sorted, non-empty list.
int64_t percentile(const std::vector<int64_t>& sorted, double share) {
    const auto rank =
        static_cast<std::size_t>(std::ceil(share * static_cast<double>(sorted.size())));
    return sorted[rank == 0 ? 0 : rank - 1];
}

double microseconds(int64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / 1000.0;
}

// Floor division: instants before the grid's start give negative indices.
int64_t floorDivide(int64_t numerator, int64_t denominator) {
    const int64_t quotient = numerator / denominator;
    return (numerator % denominator != 0 && numerator < 0) ? quotient - 1 : quotient;
}

}  // namespace

void LatenessReport::bookSession(std::size_t begin, std::size_t end, Totals& totals) const {
    const int64_t gridStart = schedule.firstMinuteNs +
                              static_cast<int64_t>(requests[begin].session) * schedule.spreadingNs;
    const int64_t windowEnd =
        schedule.firstMinuteNs + schedule.minutes * kSecondsPerMinute * kNanosecondsPerSecond;
    int64_t previousExpiry = -1;
    int64_t previousSeqNo = -1;
    for (std::size_t i = begin; i < end; ++i) {
        const int64_t t1 = nanosecondsOfNtp(requests[i].t1);
        const auto seqNo = static_cast<int64_t>(requests[i].seqNo);
        // A number missing from the capture still used an expiry.
        const int64_t next = previousExpiry + (seqNo - previousSeqNo);
        const int64_t newestAllowed =
            floorDivide(t1 - gridStart, schedule.intervalNs) - (kMaxExpiriesPerRead - 1);
        const int64_t expiry = std::max(next, newestAllowed);
        previousExpiry = expiry;
        previousSeqNo = seqNo;
        const int64_t scheduled = gridStart + expiry * schedule.intervalNs;
        const auto dropped = static_cast<uint64_t>(expiry - next);
        if (inFinalisationSecond(scheduled)) {
            bookPacket(t1 - scheduled, dropped, totals.finalisation);
        }
        if (scheduled < schedule.firstMinuteNs || scheduled >= windowEnd) {
            ++totals.outside;
            continue;
        }
        bookPacket(t1 - scheduled, dropped, totals.reported);
    }
}

void LatenessReport::bookPacket(int64_t latenessNs, uint64_t dropped, Share& share) const {
    share.droppedExpiries += dropped;
    if (latenessNs >= schedule.intervalNs) {
        ++share.beyondInterval;
    }
    share.latenessNs.push_back(latenessNs);
}

bool LatenessReport::inFinalisationSecond(int64_t scheduledNs) const {
    constexpr int64_t kMinuteNs = kSecondsPerMinute * kNanosecondsPerSecond;
    const int64_t sinceStart = scheduledNs - schedule.firstMinuteNs;
    const int64_t minute = floorDivide(sinceStart, kMinuteNs);
    const int64_t intoMinute = sinceStart - minute * kMinuteNs;
    return minute >= 1 && minute <= schedule.minutes &&
           intoMinute >= kFinalisationSecond * kNanosecondsPerSecond &&
           intoMinute < (kFinalisationSecond + 1) * kNanosecondsPerSecond;
}

void LatenessReport::print(std::FILE* out) {
    std::sort(requests.begin(), requests.end(),
              [](const CapturedRequest& left, const CapturedRequest& right) {
                  return left.session != right.session ? left.session < right.session
                                                       : left.seqNo < right.seqNo;
              });
    Totals totals;
    std::size_t begin = 0;
    while (begin < requests.size()) {
        std::size_t end = begin;
        while (end < requests.size() && requests[end].session == requests[begin].session) {
            ++end;
        }
        bookSession(begin, end, totals);
        begin = end;
    }
    Share& reported = totals.reported;
    std::fprintf(out,
                 "packets=%zu outside=%" PRIu64 " dropped_expiries=%" PRIu64
                 " beyond_interval=%" PRIu64,
                 reported.latenessNs.size(), totals.outside, reported.droppedExpiries,
                 reported.beyondInterval);
    printLateness(out, "", reported.latenessNs);
    double sum = 0;
    for (const int64_t value : reported.latenessNs) {
        sum += static_cast<double>(value);
    }
    if (reported.latenessNs.empty()) {
        std::fprintf(out, " mean_us=n/a");
    } else {
        std::fprintf(out, " mean_us=%.1f",
                     sum / static_cast<double>(reported.latenessNs.size()) / 1000.0);
    }
    Share& finalisation = totals.finalisation;
    std::fprintf(
        out, " fin_packets=%zu fin_dropped_expiries=%" PRIu64 " fin_beyond_interval=%" PRIu64,
        finalisation.latenessNs.size(), finalisation.droppedExpiries, finalisation.beyondInterval);
    printLateness(out, "fin_", finalisation.latenessNs);
    std::fprintf(out, "\n");
}

void LatenessReport::printLateness(std::FILE* out, const char* prefix,
                                   std::vector<int64_t>& lateness) {
    if (lateness.empty()) {
        std::fprintf(out, " %sp50_us=n/a %sp99_us=n/a %smax_us=n/a", prefix, prefix, prefix);
        return;
    }
    std::sort(lateness.begin(), lateness.end());
    std::fprintf(out, " %sp50_us=%.1f %sp99_us=%.1f %smax_us=%.1f", prefix,
                 microseconds(percentile(lateness, 0.50)), prefix,
                 microseconds(percentile(lateness, 0.99)), prefix, microseconds(lateness.back()));
}

void LatenessReport::dump(std::FILE* out) const {
    for (const CapturedRequest& request : requests) {
        std::fprintf(out, "%" PRIu32 " %" PRIu32 " %016" PRIx64 "\n", request.session,
                     request.seqNo, request.t1);
    }
}
