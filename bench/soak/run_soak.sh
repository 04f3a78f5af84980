#!/usr/bin/env bash
# The soak run: S sessions at R packets/s through a private lab for a long
# time (an hour by default), sampling the daemon every minute into a CSV: its
# resident memory, its descriptor count, its CPU time, and the packets its
# sessions sent and had answered in the minute before (from their counters).
# At the end it prints a summary: memory and descriptors first and last,
# average CPU, and the minutes in which answered differed from sent.
#
# usage: run_soak.sh [--build DIR] [--minutes N] [--sessions S] [--rate R] [--out DIR]
#   --build DIR     build directory with the daemon and the bench/load programs
#                   (default: build)
#   --minutes N     minutes sampled (default 60); the run takes N + 1 to N + 2
#                   minutes: the sessions start at the first whole minute
#   --sessions S    sessions (1 to 2500, default 500)
#   --rate R        packets per second of each session (1 to 10000, default 10)
#   --out DIR       where the CSV, the summary and the logs are kept
#                   (default: a new /tmp/twamp-soak.*)
#
# Runs as root. Everything happens in a private mount namespace of its own,
# with its own /var/run/netns, so the namespace names cannot clash with any
# other lab: fib_soak (the daemon's side, 198.18.2.1) and soak_peer
# (198.18.2.2, one load_reflector answering ports 20000 to 20000 + S - 1),
# joined by the veth pair vs-fib/vs-peer; nothing is sent anywhere else. The
# namespaces go with the mount namespace at the end.
#
# CSV columns (soak.csv): utc, minute (since the sessions started), rss_kib,
# fds, cpu_s (daemon user + system since start), cpu_pct (over the last
# minute), sent and answered (all sessions, the minute before the sample),
# reporting (sessions whose counters came), rcvbuf_errors (datagrams the
# daemon's namespace dropped at a full socket receive buffer since it was
# made: replies lost before the daemon read them).
set -euo pipefail

ROOT="$(cd "$(dirname "$0")/../.." && pwd)"
BUILD="$ROOT/build"
MINUTES=60
SESSIONS=500
RATE=10
OUT=""

DAEMON_NS=fib_soak
PEER_NS=soak_peer
DAEMON_LINK=vs-fib
PEER_LINK=vs-peer
DAEMON_IPV4=198.18.2.1
PEER_IPV4=198.18.2.2
DAEMON_PORT=8620
REFLECTOR_BASE_PORT=20000
SERVICE=twamp_soak
# Seconds into a minute at which it is sampled: after the minute before was
# finalised (4 s after it ended) and with room for reading every session.
SAMPLE_SECOND=10

usage() {
    sed -n '2,/^set -euo/p' "$0" | sed '$d' | sed 's/^# \{0,1\}//' >&2
    exit 2
}

parse_arguments() {
    while [ $# -gt 0 ]; do
        case "$1" in
            --build) BUILD="$(cd "$2" && pwd)"; shift 2 ;;
            --minutes) MINUTES="$2"; shift 2 ;;
            --sessions) SESSIONS="$2"; shift 2 ;;
            --rate) RATE="$2"; shift 2 ;;
            --out) OUT="$2"; shift 2 ;;
            -h|--help) usage ;;
            *) echo "run_soak.sh: unknown argument $1" >&2; usage ;;
        esac
    done
    [[ "$MINUTES" =~ ^[1-9][0-9]*$ ]] || { echo "run_soak.sh: --minutes must be positive" >&2; exit 2; }
    [[ "$SESSIONS" =~ ^[1-9][0-9]*$ ]] && [ "$SESSIONS" -le 2500 ] ||
        { echo "run_soak.sh: --sessions must be 1 to 2500" >&2; exit 2; }
    [[ "$RATE" =~ ^[1-9][0-9]*$ ]] && [ "$RATE" -le 10000 ] ||
        { echo "run_soak.sh: --rate must be 1 to 10000" >&2; exit 2; }
}

say() {
    echo "[soak $(date -u +%H:%M:%S)] $*" >&2
}

# ---- outer part: checks, then the same script in a private mount namespace ----

outer_main() {
    if [ "$(id -u)" -ne 0 ]; then
        echo "run_soak.sh: run as root: the lab creates network namespaces" >&2
        exit 1
    fi
    local binary
    for binary in "$DAEMON" "$LOAD_REFLECTOR" "$MANAGER"; do
        if [ ! -x "$binary" ]; then
            echo "run_soak.sh: $binary is missing; build with" >&2
            echo "  cmake -S $ROOT -B $BUILD -DCMAKE_BUILD_TYPE=RelWithDebInfo &&" \
                "cmake --build $BUILD -j2 --target twampTestSession load_manager load_reflector" >&2
            exit 1
        fi
    done
    if [ -z "$OUT" ]; then
        OUT="$(mktemp -d /tmp/twamp-soak.XXXXXX)"
    fi
    mkdir -p "$OUT"
    OUT="$(cd "$OUT" && pwd)"
    say "results and logs in $OUT"
    # In a session of its own, the inner part is one process group to stop.
    TWAMP_SOAK_INNER=1 exec setsid unshare --mount --propagation private \
        bash "$0" --build "$BUILD" --minutes "$MINUTES" --sessions "$SESSIONS" --rate "$RATE" \
        --out "$OUT"
}

# ---- inner part: the private lab and the run ----

PIDS=()

lab_up() {
    mkdir -p /var/run/netns
    mount -t tmpfs -o mode=0755 tmpfs /var/run/netns
    ip netns add "$DAEMON_NS"
    ip netns add "$PEER_NS"
    ip -n "$DAEMON_NS" link set lo up
    ip -n "$PEER_NS" link set lo up
    ip -n "$DAEMON_NS" link add "$DAEMON_LINK" type veth peer name "$PEER_LINK" netns "$PEER_NS"
    ip -n "$DAEMON_NS" addr add "$DAEMON_IPV4/24" dev "$DAEMON_LINK"
    ip -n "$PEER_NS" addr add "$PEER_IPV4/24" dev "$PEER_LINK"
    ip -n "$DAEMON_NS" link set "$DAEMON_LINK" up
    ip -n "$PEER_NS" link set "$PEER_LINK" up
}

lab_down() {
    local pid
    for pid in "${PIDS[@]}"; do
        kill -TERM "$pid" 2>/dev/null || true
    done
    for pid in "${PIDS[@]}"; do
        wait "$pid" 2>/dev/null || true
    done
    PIDS=()
    ip netns del "$DAEMON_NS" 2>/dev/null || true
    ip netns del "$PEER_NS" 2>/dev/null || true
}

wait_for_line() {
    local path="$1" line="$2" attempt
    for attempt in $(seq 1 100); do
        if grep -qF "$line" "$path" 2>/dev/null; then
            return 0
        fi
        sleep 0.1
    done
    return 1
}

start_reflector() {
    ip netns exec "$PEER_NS" "$LOAD_REFLECTOR" --listen "$PEER_IPV4" \
        --base-port "$REFLECTOR_BASE_PORT" --ports "$SESSIONS" \
        >"$OUT/reflector.out" 2>"$OUT/reflector.err" &
    PIDS+=("$!")
    wait_for_line "$OUT/reflector.out" "load_reflector: ready"
}

start_daemon() {
    export ITC_RUNDIR="$OUT/itc"
    export SA_LOG_DIR="$OUT/saflog"
    export QRN_NG_RESTART_LOG="$OUT/restart.log"
    export TWAMP_TIMESTAMPING=software
    mkdir -p "$SA_LOG_DIR"
    : >"$SA_LOG_DIR/TnApplicationLog.log"
    : >"$SA_LOG_DIR/TnNetworkLog.log"
    "$DAEMON" "$SERVICE" "$DAEMON_IPV4" "$DAEMON_PORT" "$DAEMON_NS" 0 >"$OUT/daemon.log" 2>&1 &
    DAEMON_PID=$!
    PIDS+=("$DAEMON_PID")
    local attempt
    for attempt in $(seq 1 100); do
        [ -e "$ITC_RUNDIR/name.$SERVICE" ] && return 0
        [ "$attempt" -lt 100 ] || break
        sleep 0.1
    done
    return 1
}

manage() {
    local command="$1"
    shift
    "$MANAGER" "$command" --service "$SERVICE" --sessions "$SESSIONS" "$@" 2>>"$OUT/manager.err"
}

resident_kib() {
    awk '$1 == "VmRSS:" { print $2 }' "/proc/$DAEMON_PID/status"
}

descriptors() {
    ls "/proc/$DAEMON_PID/fd" | wc -l
}

# User + system CPU seconds of the daemon (fields 14 and 15 of its stat, in ticks).
cpu_seconds() {
    awk -v tick="$(getconf CLK_TCK)" '{ sub(/.*\) /, ""); printf "%.2f", ($12 + $13) / tick }' \
        "/proc/$DAEMON_PID/stat"
}

# Datagrams the daemon's namespace dropped at a full receive buffer
# (RcvbufErrors of /proc/net/snmp).
receive_buffer_errors() {
    ip netns exec "$DAEMON_NS" cat /proc/net/snmp | awk '
        $1 == "Udp:" && !named { for (i = 2; i <= NF; i++) column[$i] = i; named = 1; next }
        $1 == "Udp:" { print $column["RcvbufErrors"] }'
}

# Sum of counter NAME in minute bin BIN over every session of the CSV.
sum_counter() {
    awk -F, -v name="$1" -v column=$(($2 + 4)) '
        $2 == name && $column > 0 { s += $column } END { printf "%d", s }' "$3"
}

sleep_until() {
    local left
    left="$(awk -v target="$1" -v now="$(date +%s.%N)" 'BEGIN { d = target - now; printf "%.3f", (d > 0 ? d : 0) }')"
    sleep "$left"
}

# One row of the CSV for the minute before the sample.
sample() {
    local index="$1" previous_cpu="$2" csv="$OUT/counters.csv"
    local minute_now bin line cpu
    minute_now=$(($(date +%s) / 60))
    bin=$(((minute_now - 1) % 15))
    manage counters --out "$csv" >"$OUT/counters.out" || true
    cpu="$(cpu_seconds)"
    line="$(date -u +%Y-%m-%dT%H:%M:%SZ),$index,$(resident_kib),$(descriptors),$cpu"
    line="$line,$(awk -v a="$previous_cpu" -v b="$cpu" 'BEGIN { printf "%.1f", 100 * (b - a) / 60 }')"
    line="$line,$(sum_counter sentPkts "$bin" "$csv"),$(sum_counter receivedPkts "$bin" "$csv")"
    line="$line,$(awk -F, '$2 == "sentPkts"' "$csv" | wc -l),$(receive_buffer_errors)"
    echo "$line" >>"$OUT/soak.csv"
    say "sample $index: $line"
    LAST_CPU="$cpu"
}

summary() {
    awk -F, -v sessions="$SESSIONS" -v rate="$RATE" 'NR == 1 { next }
        { rows++; if (rows == 1) { rss0 = $3; fd0 = $4 } rss = $3; fd = $4; cpu += $6; rcv = $10
          if ($7 != $8) differ++; if ($9 != sessions) short++; expected = sessions * rate * 60
          if ($7 != expected) unexpected++ }
        END {
          printf "sessions=%d rate=%d minutes=%d\n", sessions, rate, rows
          printf "rss_kib first=%d last=%d growth=%d\n", rss0, rss, rss - rss0
          printf "fds first=%d last=%d\n", fd0, fd
          printf "cpu_pct average=%.1f\n", rows ? cpu / rows : 0
          printf "minutes answered!=sent: %d; sent!=%d: %d; counters missing: %d\n",
                 differ, expected, unexpected, short
          printf "rcvbuf_errors at the end: %d\n", rcv }' "$OUT/soak.csv" | tee "$OUT/summary.txt"
}

inner_main() {
    trap 'lab_down' EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    lab_up
    say "lab up: $DAEMON_NS $DAEMON_IPV4 <-> $PEER_NS $PEER_IPV4 ($DAEMON_LINK/$PEER_LINK)"
    start_reflector || { say "the load reflector did not start; see $OUT"; exit 1; }
    start_daemon || { say "the daemon did not open its mailbox; see $OUT"; exit 1; }
    sleep 1
    manage create --dst "$PEER_IPV4" --base-port "$REFLECTOR_BASE_PORT" --rate "$RATE" \
        >"$OUT/create.out"
    say "created: $(cat "$OUT/create.out")"
    echo "utc,minute,rss_kib,fds,cpu_s,cpu_pct,sent,answered,reporting,rcvbuf_errors" >"$OUT/soak.csv"
    # The sessions start at the next whole minute; the first sample is taken
    # once that minute has been finalised.
    local first_minute=$((($(date +%s) + 59) / 60)) index
    LAST_CPU="$(cpu_seconds)"
    for ((index = 1; index <= MINUTES; index++)); do
        sleep_until $(((first_minute + index) * 60 + SAMPLE_SECOND))
        sample "$index" "$LAST_CPU"
    done
    manage delete >"$OUT/delete.out"
    sleep 2
    say "after deleting every session: rss_kib=$(resident_kib) fds=$(descriptors)"
    summary
}

parse_arguments "$@"
DAEMON="$BUILD/blocks/twampBl/twampTestSessionSwU/files/twampTestSession"
LOAD_REFLECTOR="$BUILD/bench/load/load_reflector"
MANAGER="$BUILD/bench/load/load_manager"
if [ -n "${TWAMP_SOAK_INNER:-}" ]; then
    inner_main
else
    outer_main
fi
