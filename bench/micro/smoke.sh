#!/usr/bin/env bash
# Runs every benchmark binary once, briefly, to show that it still runs.
# Nothing is timed or compared: only the exit status counts.
# usage: smoke.sh MIN_TIME BINARY...
set -euo pipefail

min_time="$1"
shift
for binary in "$@"; do
    echo "== $(basename "$binary")"
    "$binary" --benchmark_min_time="$min_time"
done
