#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build-fuzz and runs each one in
# turn, at the lowest priority, from its seed corpus (tests/fuzz/corpus/<name>)
# plus what earlier runs found (build-fuzz/corpus/<name>).
#
#   scripts/fuzz.sh [--runs N | --seconds S] [--workers W] [TARGET...]
#
# TARGET is a target name without "fuzz_" (itc_dispatcher, udp_receive,
# looped_frame, itc_wire, ctl_options, reflector_options); all when none is
# given. By default each target runs 10,000,000 executions; --seconds S runs
# each for S seconds instead. --workers W runs W processes of each target at
# once on one shared corpus, each with its share of the executions (one per
# core makes the slow session targets finish W times sooner); the executions
# printed are their sum. Prints per target the executions, the coverage
# (cov: edges, ft: features), the corpus size and the crashes found; a crash
# input is kept in build-fuzz/artifacts/<name>/. Exits 1 when any target found
# a crash, a leak, a time-out or ran out of memory.
set -euo pipefail

ROOT="$(cd "$(dirname "$0")/.." && pwd)"
# TWAMP_FUZZ_BUILD_DIR: another build directory (CI time measurements).
BUILD="${TWAMP_FUZZ_BUILD_DIR:-$ROOT/build-fuzz}"
ALL_TARGETS=(itc_dispatcher udp_receive looped_frame itc_wire ctl_options reflector_options)

runs=10000000
seconds=""
workers=1
targets=()
while [ $# -gt 0 ]; do
    case "$1" in
        --runs)
            runs="$2"
            seconds=""
            shift 2
            ;;
        --seconds)
            seconds="$2"
            shift 2
            ;;
        --workers)
            workers="$2"
            if ! [[ "$workers" =~ ^[1-9][0-9]*$ ]]; then
                echo "--workers needs a whole number from 1 up, not '$workers'" >&2
                exit 2
            fi
            shift 2
            ;;
        -h | --help)
            sed -n '2,18p' "$0" | sed 's/^# \{0,1\}//'
            exit 0
            ;;
        *)
            targets+=("$1")
            shift
            ;;
    esac
done
if [ ${#targets[@]} -eq 0 ]; then
    targets=("${ALL_TARGETS[@]}")
fi

echo "=== building the fuzz targets (clang, build-fuzz) ==="
build_start=$SECONDS
CC=clang CXX=clang++ nice -n 19 cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTWAMP_FUZZ=ON -DTWAMP_BUILD_BENCH=OFF >/dev/null
build_targets=()
for target in "${targets[@]}"; do
    build_targets+=(--target "fuzz_$target")
done
nice -n 19 cmake --build "$BUILD" -j "$(nproc)" "${build_targets[@]}" >/dev/null
echo "built in $((SECONDS - build_start)) s"

# A small quarantine keeps the memory of freed blocks poisoned long enough to
# catch a use after free within one input at a fraction of the default's cost.
export ASAN_OPTIONS="${ASAN_OPTIONS:-quarantine_size_mb=16}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1}"

if [ -n "$seconds" ]; then
    limit=(-max_total_time="$seconds")
    echo "=== running each target for $seconds s ==="
else
    limit=(-runs="$runs")
    echo "=== running each target for $runs executions ==="
fi

failed=0
printf '%-18s %12s %8s %8s %8s %8s %8s\n' target executions seconds cov ft corpus crashes
for target in "${targets[@]}"; do
    binary="$BUILD/tests/fuzz/fuzz_$target"
    seeds="$ROOT/tests/fuzz/corpus/$target"
    corpus="$BUILD/corpus/$target"
    artifacts="$BUILD/artifacts/$target"
    log="$BUILD/fuzz_$target.log"
    mkdir -p "$corpus" "$artifacts"
    artifacts_before=$(find "$artifacts" -type f | wc -l)
    started=$SECONDS
    status=0
    # Plain processes, not libFuzzer's -jobs (that would run them in children
    # with their logs in the current directory). New inputs go to the first
    # directory, never into the seeds in the tree; each worker picks up what
    # the others add there.
    rm -f "$BUILD"/fuzz_"$target".[0-9]*.log
    worker_pids=()
    for worker in $(seq 1 "$workers"); do
        worker_limit=("${limit[@]}")
        if [ -z "$seconds" ]; then
            worker_limit=(-runs="$(((runs + workers - 1) / workers))")
        fi
        worker_log="$log"
        [ "$workers" -gt 1 ] && worker_log="$BUILD/fuzz_$target.$worker.log"
        nice -n 19 "$binary" "${worker_limit[@]}" -timeout=25 -print_final_stats=1 \
            -artifact_prefix="$artifacts/" "$corpus" "$seeds" >"$worker_log" 2>&1 &
        worker_pids+=($!)
    done
    for pid in "${worker_pids[@]}"; do
        wait "$pid" || status=$?
    done
    if [ "$workers" -gt 1 ]; then
        cat "$BUILD"/fuzz_"$target".[0-9]*.log >"$log"
    fi
    elapsed=$((SECONDS - started))
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" |
        awk '{ sum += $1 } END { if (NR) print sum }')
    # The widest coverage any worker reached.
    coverage=$(grep -E '^#[0-9]+.*cov: ' "$log" | sort -t: -k2 -n | tail -1 || true)
    cov=$(sed -n 's/.*cov: \([0-9]*\).*/\1/p' <<<"$coverage")
    ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$coverage")
    corpus_size=$(find "$corpus" "$seeds" -type f | wc -l)
    crashes=$(($(find "$artifacts" -type f | wc -l) - artifacts_before))
    if [ "$status" -ne 0 ]; then
        crashes=$((crashes > 0 ? crashes : 1))
        failed=1
    fi
    printf '%-18s %12s %8s %8s %8s %8s %8s\n' "$target" "${executions:-?}" "$elapsed" \
        "${cov:-?}" "${ft:-?}" "$corpus_size" "$crashes"
    if [ "$status" -ne 0 ]; then
        echo "--- fuzz_$target failed (exit status $status); the end of $log:"
        grep -E 'ERROR|SUMMARY|Test unit written|^    #[0-9]' "$log" | head -30
    fi
done
exit "$failed"
