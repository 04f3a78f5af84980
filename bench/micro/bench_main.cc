// The entry of every micro-benchmark binary: the percentile library and the
// benchmark controller exist before the first benchmark, as in the daemon.
#include <benchmark/benchmark.h>

#include "BenchController.h"
#include "PercentileVector.h"

int main(int argc, char** argv) {
    percentile_init();
    BenchController::adopt();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
