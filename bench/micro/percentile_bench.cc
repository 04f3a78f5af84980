// The percentile library as one session uses it each minute: one sample per
// answered packet into a vector sized for a minute at the session's rate,
// then one read of the 95th, 98th and 99th percentiles, which empties it.
//
// The library keeps the largest 5 % of a minute's samples in a GLib sequence
// and finds a vector in a hash table by its identifier. An add costs O(log n)
// in the entries kept when the sample enters the top entries, and two
// comparisons when it does not; the number of other vectors (six per
// session) should not matter.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "PercentileVector.h"

namespace {

constexpr uint32_t kSecondsPerMinute = 60;
constexpr int32_t kLowestPercentile = 95;

// Round-trip delays in microseconds, 200 to 400 us, in a repeatable order.
std::vector<uint64_t> minuteOfSamples(uint32_t count) {
    std::vector<uint64_t> samples(count);
    uint64_t state = 0x9E3779B97F4A7C15ULL;
    for (uint64_t& sample : samples) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        sample = 200 + state % 200;
    }
    return samples;
}

// Round-trip delays that grow through the minute, 200 us plus 1 us per 100
// samples: every sample enters the top entries, the dearest path of an add.
std::vector<uint64_t> risingMinuteOfSamples(uint32_t count) {
    std::vector<uint64_t> samples(count);
    for (uint32_t i = 0; i < count; ++i) {
        samples[i] = 200 + i / 100;
    }
    return samples;
}

// Entries the library keeps for a vector of size samples (top 5 % plus spares).
uint32_t keptEntries(uint32_t size) {
    return static_cast<uint32_t>((100.0 - kLowestPercentile) * size / 100.0 + 0.5 + 2.0);
}

// Adds a minute of samples and reads the three percentiles, iteration by iteration.
void runMinutes(benchmark::State& state, uint32_t vectorId, const std::vector<uint64_t>& samples) {
    for (auto _ : state) {
        for (const uint64_t sample : samples) {
            percentile_add(vectorId, sample);
        }
        PercentileRequest requests[3] = {{95, 0}, {98, 0}, {99, 0}};
        uint32_t count = 0;
        percentile_get(vectorId, 3, requests, &count);
        benchmark::DoNotOptimize(requests);
    }
    const auto perMinute = static_cast<double>(samples.size());
    state.counters["samples"] = perMinute;
    state.counters["kept"] = keptEntries(static_cast<uint32_t>(samples.size()));
    // Seconds per sample, add and read shared out.
    state.counters["per_sample"] = benchmark::Counter(
        perMinute, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// One minute at the rate of the argument, the only vector in the library.
void BM_PercentileMinute(benchmark::State& state) {
    const auto size = static_cast<uint32_t>(state.range(0)) * kSecondsPerMinute;
    uint32_t vectorId = 0;
    percentile_create(size, kLowestPercentile, &vectorId);
    runMinutes(state, vectorId, minuteOfSamples(size));
    percentile_remove(vectorId);
}
BENCHMARK(BM_PercentileMinute)->ArgName("pps")->Arg(1)->Arg(10)->Arg(100)->Arg(1000);

// The same with delays growing through the minute.
void BM_PercentileMinuteRising(benchmark::State& state) {
    const auto size = static_cast<uint32_t>(state.range(0)) * kSecondsPerMinute;
    uint32_t vectorId = 0;
    percentile_create(size, kLowestPercentile, &vectorId);
    runMinutes(state, vectorId, risingMinuteOfSamples(size));
    percentile_remove(vectorId);
}
BENCHMARK(BM_PercentileMinuteRising)->ArgName("pps")->Arg(1)->Arg(10)->Arg(100)->Arg(1000);

// One minute at 10 packets/s into the vector created last, behind the
// argument's number of other vectors (six per session).
void BM_PercentileMinuteBehindVectors(benchmark::State& state) {
    const auto others = static_cast<uint32_t>(state.range(0));
    const uint32_t size = 10 * kSecondsPerMinute;
    std::vector<uint32_t> otherIds(others);
    for (uint32_t& id : otherIds) {
        percentile_create(size, kLowestPercentile, &id);
    }
    uint32_t vectorId = 0;
    percentile_create(size, kLowestPercentile, &vectorId);
    runMinutes(state, vectorId, minuteOfSamples(size));
    percentile_remove(vectorId);
    for (const uint32_t id : otherIds) {
        percentile_remove(id);
    }
}
BENCHMARK(BM_PercentileMinuteBehindVectors)
    ->ArgName("vectors_before")
    ->Arg(0)
    ->Arg(60)
    ->Arg(300)
    ->Arg(600)
    ->Arg(6000);

}  // namespace
