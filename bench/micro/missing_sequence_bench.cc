// The list of sequence numbers presumed lost: one append per gap found, one
// removal per late packet (searched from the front), one failed search per
// duplicate, and one walk over the runs when the minute is finalised. The
// argument is the number of separate gaps in the list: a minute at
// 1000 packets/s with 1 % scattered loss holds about 600.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "MissingSequenceList.h"

namespace {

// gaps single missing numbers, every other number: no two form a run.
MissingSequenceList listOfGaps(int64_t gaps) {
    MissingSequenceList list;
    for (int64_t gap = 0; gap < gaps; ++gap) {
        list.append(static_cast<uint32_t>(2 * gap), 1);
    }
    return list;
}

void BM_MissingAppend(benchmark::State& state) {
    const int64_t gaps = state.range(0);
    MissingSequenceList list;
    for (auto _ : state) {
        list.clear();
        for (int64_t gap = 0; gap < gaps; ++gap) {
            list.append(static_cast<uint32_t>(2 * gap), 1);
        }
        benchmark::ClobberMemory();
    }
    state.counters["per_append"] = benchmark::Counter(
        static_cast<double>(gaps),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_MissingAppend)->ArgName("gaps")->Arg(10)->Arg(100)->Arg(1000);

// A late packet: the most recent gap, last in the list, so the search walks
// the whole list. Appending it again restores the list; that append is in
// the figure (see BM_MissingAppend for its own cost).
void BM_MissingRemoveLate(benchmark::State& state) {
    const int64_t gaps = state.range(0);
    MissingSequenceList list = listOfGaps(gaps);
    const auto lastGap = static_cast<uint32_t>(2 * (gaps - 1));
    for (auto _ : state) {
        benchmark::DoNotOptimize(list.remove(lastGap));
        list.append(lastGap, 1);
    }
}
BENCHMARK(BM_MissingRemoveLate)->ArgName("gaps")->Arg(10)->Arg(100)->Arg(1000);

// A duplicate: the number is not listed, so the search walks the whole list
// and fails.
void BM_MissingRemoveDuplicate(benchmark::State& state) {
    const int64_t gaps = state.range(0);
    MissingSequenceList list = listOfGaps(gaps);
    const auto absent = static_cast<uint32_t>(2 * gaps + 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(list.remove(absent));
    }
}
BENCHMARK(BM_MissingRemoveDuplicate)->ArgName("gaps")->Arg(10)->Arg(100)->Arg(1000);

void BM_MissingRuns(benchmark::State& state) {
    const MissingSequenceList list = listOfGaps(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(list.runs());
    }
}
BENCHMARK(BM_MissingRuns)->ArgName("gaps")->Arg(10)->Arg(100)->Arg(1000);

}  // namespace
