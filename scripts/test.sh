#!/usr/bin/env bash
# The whole test run: set-up, build, CTest, then the same suite again under
# AddressSanitizer and UndefinedBehaviorSanitizer, then every fuzz target for
# 30 seconds (a crash fails the run; docs/RELIABILITY.md). Needs root (network
# namespaces, a private trace session daemon, apt-get on a fresh machine).
set -euo pipefail

ROOT="$(cd "$(dirname "$0")/.." && pwd)"
JOBS="$(nproc)"

bash "$ROOT/scripts/setup.sh"

run_suite() {
    local dir="$1"
    shift
    cmake -S "$ROOT" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@"
    cmake --build "$dir" -j "$JOBS"
    # A test without a time limit of its own gets two minutes: a hang fails, it
    # does not stall the run. Twice as many tests as CPUs: the end-to-end
    # tests, nine tenths of the run's time, mostly wait for minute boundaries
    # (their daemons and reflectors run at real-time priority).
    ctest --test-dir "$dir" --output-on-failure --timeout 120 -j "$((JOBS * 2))"
}

echo "=== tests ==="
run_suite "$ROOT/build"
echo "=== tests under AddressSanitizer and UndefinedBehaviorSanitizer ==="
run_suite "$ROOT/build-sanitize" -DTWAMP_SANITIZE=ON
echo "=== fuzz targets, 30 s each ==="
bash "$ROOT/scripts/fuzz.sh" --seconds 30
