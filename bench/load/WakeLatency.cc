#include "WakeLatency.h"

#include <cinttypes>

std::size_t WakeLatency::bandOf(int64_t latenessNs) {
    std::size_t index = 0;
    while (index < kBandLimitsUs.size() && latenessNs >= kBandLimitsUs[index] * 1000) {
        ++index;
    }
    return index;
}

void WakeLatency::add(int64_t latenessNs, int64_t wallSecond) {
    if (latenessNs < 0) {
        latenessNs = 0;
    }
    ++count;
    ++bands[bandOf(latenessNs)];
    if (latenessNs > largestNs) {
        largestNs = latenessNs;
    }
    if (latenessNs < stallThresholdNs) {
        return;
    }
    ++stalls;
    if (kept.size() < maxStallsKept) {
        kept.push_back({latenessNs, wallSecond});
    }
}

void WakeLatency::merge(const WakeLatency& other) {
    for (std::size_t index = 0; index < bands.size(); ++index) {
        bands[index] += other.bands[index];
    }
    count += other.count;
    stalls += other.stalls;
    if (other.largestNs > largestNs) {
        largestNs = other.largestNs;
    }
    for (const WakeStall& stall : other.kept) {
        if (kept.size() >= maxStallsKept) {
            break;
        }
        kept.push_back(stall);
    }
}

void WakeLatency::print(std::FILE* out, const char* name) const {
    std::fprintf(out, "%s wakeups=%" PRIu64 " max_us=%.1f", name, count,
                 static_cast<double>(largestNs) / 1000.0);
    for (std::size_t index = 0; index < kBandLimitsUs.size(); ++index) {
        std::fprintf(out, " lt%" PRId64 "us=%" PRIu64, kBandLimitsUs[index], bands[index]);
    }
    std::fprintf(out, " ge%" PRId64 "us=%" PRIu64 " stalls=%" PRIu64 "\n", kBandLimitsUs.back(),
                 bands.back(), stalls);
}

void WakeLatency::printStalls(std::FILE* out, const char* name) const {
    for (const WakeStall& stall : kept) {
        std::fprintf(out, "%s stall_us=%.1f at=%" PRId64 "\n", name,
                     static_cast<double>(stall.latenessNs) / 1000.0, stall.wallSecond);
    }
}
