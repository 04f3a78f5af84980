#!/usr/bin/env bash
# The load driver: runs S sessions at R packets/s through a private lab for
# whole minutes and prints, per run, the daemon's CPU time per 1000 answered
# packets, its timer overruns, the send-time lateness of its packets, the
# packets sent against those expected, and the CPU time of a program doing
# only the per-packet system calls at the same load (the floor).
#
# usage: run_load.sh [--build DIR] [--minutes N] [--floor-seconds N] [--out DIR] RUN...
#   RUN             SxR: S sessions at R packets/s each, e.g. 1x10 10x10 50x10 10x100
#   --build DIR     build directory with the daemon, twamp-ctl, twamp-reflector and
#                   the bench helpers (default: build)
#   --minutes N     whole minutes measured per run (default 2)
#   --floor-seconds N   seconds the floor program sends per run (default 30)
#   --out DIR       where results and logs are kept (default: a new /tmp/twamp-load.*)
#
# Runs as root. The lab is its own: namespaces fib_bench (the daemon's side,
# 198.18.1.1, 2001:db8:19::1) and bench_peer (198.18.1.2, 2001:db8:19::2)
# joined by the veth pair vb-fib/vb-peer, created here and deleted at the end;
# nothing is sent anywhere else. Traces are recorded by a private LTTng
# session daemon in a private mount namespace.
#
# A run: S reflectors (tools/twamp-reflector, ports 20000 + i) in bench_peer;
# the floor program for --floor-seconds; then t1_capture on vb-peer, the
# daemon in fib_bench with software timestamps, and S sessions created just
# before a whole minute (session i with start slot i, 400 us apart). The
# daemon's CPU time is read at the first and at the last whole minute's
# boundary; counters are read once the last minute is finalised (4 s later).
set -euo pipefail

ROOT="$(cd "$(dirname "$0")/../.." && pwd)"
BUILD="$ROOT/build"
MINUTES=2
FLOOR_SECONDS=30
OUT=""
RUNS=()

DAEMON_NS=fib_bench
PEER_NS=bench_peer
DAEMON_LINK=vb-fib
PEER_LINK=vb-peer
DAEMON_IPV4=198.18.1.1
PEER_IPV4=198.18.1.2
DAEMON_IPV6=2001:db8:19::1
PEER_IPV6=2001:db8:19::2
DAEMON_PORT=8620
FLOOR_PORT=8621
REFLECTOR_BASE_PORT=20000
SERVICE=twamp_bench_load
SPREADING_NS=400000

usage() {
    sed -n '2,/^set -euo/p' "$0" | sed '$d' | sed 's/^# \{0,1\}//' >&2
    exit 2
}

parse_arguments() {
    while [ $# -gt 0 ]; do
        case "$1" in
            --build) BUILD="$(cd "$2" && pwd)"; shift 2 ;;
            --minutes) MINUTES="$2"; shift 2 ;;
            --floor-seconds) FLOOR_SECONDS="$2"; shift 2 ;;
            --out) OUT="$2"; shift 2 ;;
            -h|--help) usage ;;
            [0-9]*x[0-9]*) RUNS+=("$1"); shift ;;
            *) echo "run_load.sh: unknown argument $1" >&2; usage ;;
        esac
    done
    [ ${#RUNS[@]} -gt 0 ] || usage
    [[ "$MINUTES" =~ ^[1-9][0-9]*$ ]] && [ "$MINUTES" -le 14 ] || {
        echo "run_load.sh: --minutes must be 1 to 14" >&2
        exit 2
    }
    [[ "$FLOOR_SECONDS" =~ ^[1-9][0-9]*$ ]] || {
        echo "run_load.sh: --floor-seconds must be a positive number" >&2
        exit 2
    }
}

say() {
    echo "[load $(date -u +%H:%M:%S)] $*" >&2
}

# ---- the lab (outer part, in the host's mount namespace) ----

namespace_exists() {
    [ -e "/var/run/netns/$1" ]
}

lab_down() {
    local ns
    for ns in "$DAEMON_NS" "$PEER_NS"; do
        if namespace_exists "$ns"; then
            ip netns del "$ns"
        fi
    done
}

lab_up() {
    lab_down
    ip netns add "$DAEMON_NS"
    ip netns add "$PEER_NS"
    ip -n "$DAEMON_NS" link set lo up
    ip -n "$PEER_NS" link set lo up
    ip -n "$DAEMON_NS" link add "$DAEMON_LINK" type veth peer name "$PEER_LINK" netns "$PEER_NS"
    ip -n "$DAEMON_NS" addr add "$DAEMON_IPV4/24" dev "$DAEMON_LINK"
    ip -n "$PEER_NS" addr add "$PEER_IPV4/24" dev "$PEER_LINK"
    ip -n "$DAEMON_NS" -6 addr add "$DAEMON_IPV6/64" dev "$DAEMON_LINK" nodad
    ip -n "$PEER_NS" -6 addr add "$PEER_IPV6/64" dev "$PEER_LINK" nodad
    ip -n "$DAEMON_NS" link set "$DAEMON_LINK" up
    ip -n "$PEER_NS" link set "$PEER_LINK" up
}

outer_main() {
    if [ "$(id -u)" -ne 0 ]; then
        echo "run_load.sh: run as root: the lab creates network namespaces" >&2
        exit 1
    fi
    local binary
    for binary in "$DAEMON" "$CTL" "$REFLECTOR" "$CAPTURE" "$FLOOR" "$PROC_CPU"; do
        if [ ! -x "$binary" ]; then
            echo "run_load.sh: $binary is missing; build with" >&2
            echo "  cmake -S $ROOT -B $BUILD -DCMAKE_BUILD_TYPE=Release && cmake --build $BUILD -j2" >&2
            exit 1
        fi
    done
    if [ -z "$OUT" ]; then
        OUT="$(mktemp -d /tmp/twamp-load.XXXXXX)"
    fi
    mkdir -p "$OUT"
    OUT="$(cd "$OUT" && pwd)"
    trap 'lab_down' EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    say "lab up: $DAEMON_NS $DAEMON_IPV4 <-> $PEER_NS $PEER_IPV4 ($DAEMON_LINK/$PEER_LINK)"
    lab_up
    # The namespaces are mounted before the private mount namespace is made,
    # so the inner part sees them and the host keeps its own view.
    local status=0
    TWAMP_LOAD_INNER=1 TWAMP_PRIVATE_LTTNG=1 unshare --mount --propagation private \
        bash "$0" --build "$BUILD" --minutes "$MINUTES" --floor-seconds "$FLOOR_SECONDS" \
        --out "$OUT" "${RUNS[@]}" || status=$?
    say "lab down; results and logs in $OUT"
    exit "$status"
}

# ---- one run (inner part, private mount namespace) ----

PIDS=()

stop_pids() {
    local pid
    for pid in "${PIDS[@]}"; do
        kill -TERM "$pid" 2>/dev/null || true
    done
    for pid in "${PIDS[@]}"; do
        wait "$pid" 2>/dev/null || true
    done
    PIDS=()
}

now_seconds() {
    date +%s.%N
}

# Sleeps until the wall clock reaches EPOCH (seconds, fractions allowed).
sleep_until() {
    local left
    left="$(awk -v target="$1" -v now="$(now_seconds)" 'BEGIN { d = target - now; printf "%.3f", (d > 0 ? d : 0) }')"
    sleep "$left"
}

field() {
    # field NAME LINE: the value of NAME=value in a line of key=value pairs.
    tr ' ' '\n' <<<"$2" | awk -F= -v name="$1" '$1 == name { print $2 }'
}

start_reflectors() {
    local sessions="$1" i
    for ((i = 0; i < sessions; i++)); do
        ip netns exec "$PEER_NS" "$REFLECTOR" --listen "$PEER_IPV4" \
            --port $((REFLECTOR_BASE_PORT + i)) --seed 1 --quiet \
            >>"$RUN_DIR/reflectors.log" 2>&1 &
        PIDS+=($!)
    done
}

# The first minute of sending: at least lead seconds ahead, and the measured
# minutes inside one 15-minute interval, so one counters request holds them.
choose_first_minute() {
    local lead="$1" minute
    minute=$((($(date +%s) + lead + 59) / 60))
    if [ $((minute % 15 + MINUTES)) -gt 15 ]; then
        minute=$((minute + 15 - minute % 15))
    fi
    echo "$minute"
}

run_floor() {
    local sessions="$1" rate="$2"
    ip netns exec "$DAEMON_NS" "$FLOOR" --source "$DAEMON_IPV4" --source-port "$FLOOR_PORT" \
        --reflector "$PEER_IPV4" --base-port "$REFLECTOR_BASE_PORT" --sessions "$sessions" \
        --rate "$rate" --seconds "$FLOOR_SECONDS" 2>"$RUN_DIR/floor.err"
}

wait_for_file() {
    local path="$1" attempt
    for attempt in $(seq 1 100); do
        if [ -e "$path" ]; then
            return 0
        fi
        sleep 0.1
    done
    return 1
}

start_daemon() {
    export ITC_RUNDIR="$RUN_DIR/itc"
    export SA_LOG_DIR="$RUN_DIR/saflog"
    export QRN_NG_RESTART_LOG="$RUN_DIR/restart.log"
    export TWAMP_TIMESTAMPING=software
    # Registered with the session daemon before main, so no trace is missed.
    export LTTNG_UST_REGISTER_TIMEOUT=10000
    mkdir -p "$SA_LOG_DIR"
    : >"$SA_LOG_DIR/TnApplicationLog.log"
    : >"$SA_LOG_DIR/TnNetworkLog.log"
    "$DAEMON" "$SERVICE" "$DAEMON_IPV4" "$DAEMON_PORT" "$DAEMON_NS" 0 >"$RUN_DIR/daemon.log" 2>&1 &
    DAEMON_PID=$!
    PIDS+=("$DAEMON_PID")
    wait_for_file "$ITC_RUNDIR/name.$SERVICE" || {
        echo "run_load.sh: the daemon did not open its mailbox; see $RUN_DIR" >&2
        return 1
    }
}

create_sessions() {
    local sessions="$1" rate="$2" i
    for ((i = 0; i < sessions; i++)); do
        "$CTL" --service "$SERVICE" create --id "load$i" --dst "$PEER_IPV4" \
            --port $((REFLECTOR_BASE_PORT + i)) --rate "$rate" --offset "$i" >/dev/null
    done
}

# Sum of one counter over the measured bins of every session.
sum_counter() {
    local name="$1" first_bin="$2" sessions="$3" i total=0 value
    for ((i = 0; i < sessions; i++)); do
        value="$(awk -F, -v name="$name" -v first=$((first_bin + 3)) -v count="$MINUTES" \
            '$1 == name { s = 0; for (c = first; c < first + count; c++) s += $c; print s }' \
            "$RUN_DIR/counters.$i.csv")"
        total=$((total + value))
    done
    echo "$total"
}

save_counters() {
    local sessions="$1" i
    for ((i = 0; i < sessions; i++)); do
        "$CTL" --service "$SERVICE" counters --id "load$i" --csv >"$RUN_DIR/counters.$i.csv"
    done
}

# Overrun traces whose time lies in [FROM, TO) (seconds since 1970): events
# and the expiries beyond one they report (received - 1 each).
count_overruns() {
    local from="$1" to="$2"
    { babeltrace2 --clock-seconds "$RUN_DIR/trace" 2>/dev/null || true; } |
        { grep 'Expected one timer expiry, received' || true; } |
        sed -E 's/^\[([0-9]+)\.[0-9]+\].*received ([0-9]+),.*/\1 \2/' |
        awk -v from="$from" -v to="$to" '
            $1 >= from && $1 < to { events++; missed += $2 - 1 }
            END { printf "%d %d\n", events, missed }'
}

# Datagrams the daemon's namespace dropped because a socket's receive buffer
# was full (RcvbufErrors of /proc/net/snmp, counted since the namespace exists).
receive_buffer_errors() {
    ip netns exec "$DAEMON_NS" cat /proc/net/snmp | awk '
        $1 == "Udp:" && !named { for (i = 2; i <= NF; i++) column[$i] = i; named = 1; next }
        $1 == "Udp:" { print $column["RcvbufErrors"] }'
}

# The machine's CPU counters: the first line of /proc/stat without its name.
machine_cpu() {
    head -n 1 /proc/stat | cut -d' ' -f2- | sed 's/^ *//'
}

# Share of all CPUs busy (user, nice, system, irq, softirq) and stolen by the
# hypervisor between two machine_cpu readings, in percent: "busy steal".
machine_shares() {
    awk -v a="$1" -v b="$2" 'BEGIN {
        n = split(a, x, " "); split(b, y, " "); total = 0
        for (i = 1; i <= 8 && i <= n; i++) { d[i] = y[i] - x[i]; total += d[i] }
        if (total <= 0) { print "n/a n/a"; exit }
        printf "%.1f %.1f\n", 100 * (d[1] + d[2] + d[3] + d[6] + d[7]) / total, 100 * d[8] / total }'
}

# Expiries scheduled inside the measured minutes: session i starts i slots
# into the first minute, so a slot offset of one interval or more moves its
# last expiry into the minute after them.
expected_packets() {
    awk -v sessions="$1" -v rate="$2" -v minutes="$MINUTES" -v slot="$SPREADING_NS" 'BEGIN {
        interval = int(1e9 / rate); window = minutes * 60 * 1e9; total = 0
        for (i = 0; i < sessions; i++) total += int((window - i * slot + interval - 1) / interval)
        printf "%d", total }'
}

# CPU seconds per 1000 packets: CPU NANOSECONDS over PACKETS.
per_thousand() {
    awk -v ns="$1" -v packets="$2" 'BEGIN { if (packets > 0) printf "%.4f", ns / 1e9 / packets * 1000; else print "n/a" }'
}

one_run() {
    local sessions="${1%x*}" rate="${1#*x}"
    RUN_DIR="$OUT/run-${sessions}x${rate}"
    mkdir -p "$RUN_DIR"
    local expected
    expected="$(expected_packets "$sessions" "$rate")"
    say "run ${sessions}x${rate}: $sessions sessions at $rate packets/s, $MINUTES minute(s)"
    start_reflectors "$sessions"
    sleep 1

    local first_minute
    first_minute="$(choose_first_minute $((FLOOR_SECONDS + 25)))"
    say "floor: ${FLOOR_SECONDS} s of the per-packet system calls at the same load"
    local floor_line
    floor_line="$(run_floor "$sessions" "$rate")"
    echo "$floor_line" >"$RUN_DIR/floor.out"

    say "sending starts at $(date -u -d "@$((first_minute * 60))" +%H:%M:%S) UTC"
    sleep_until $((first_minute * 60 - 15))
    ip netns exec "$PEER_NS" "$CAPTURE" --interface "$PEER_LINK" \
        --base-port "$REFLECTOR_BASE_PORT" --sessions "$sessions" --rate "$rate" \
        --first-minute "$first_minute" --minutes "$MINUTES" --spreading-ns "$SPREADING_NS" \
        --dump "$RUN_DIR/t1.txt" >"$RUN_DIR/capture.out" 2>&1 &
    local capture_pid=$!
    PIDS+=("$capture_pid")
    private_lttng_session "load${sessions}x${rate}" "$RUN_DIR/trace" 'com_quorin_tn_twamp:LAB'
    start_daemon
    create_sessions "$sessions" "$rate"
    if [ "$(date +%s)" -ge $((first_minute * 60 - 1)) ]; then
        echo "run_load.sh: creating the sessions ran into the first minute; run skipped" >&2
        return 1
    fi
    local cpu_start cpu_end machine_start machine_end drops_start drops_end
    sleep_until $((first_minute * 60 - 1))
    cpu_start="$("$PROC_CPU" "$DAEMON_PID")"
    drops_start="$(receive_buffer_errors)"
    machine_start="$(machine_cpu)"
    sleep_until $(((first_minute + MINUTES) * 60))
    cpu_end="$("$PROC_CPU" "$DAEMON_PID")"
    machine_end="$(machine_cpu)"
    # The last measured minute is finalised 4 s after it ends.
    sleep_until $(((first_minute + MINUTES) * 60 + 5))
    save_counters "$sessions"
    drops_end="$(receive_buffer_errors)"
    private_lttng_finish "load${sessions}x${rate}"
    kill -TERM "$capture_pid"
    wait "$capture_pid" || true
    stop_pids

    local first_bin=$((first_minute % 15))
    local sent answered
    sent="$(sum_counter sentPkts "$first_bin" "$sessions")"
    answered="$(sum_counter receivedPkts "$first_bin" "$sessions")"
    local hz ticks runtime_ns shares
    hz="$(field tick_hz "$cpu_end")"
    ticks=$(($(field ticks "$cpu_end") - $(field ticks "$cpu_start")))
    shares="$(machine_shares "$machine_start" "$machine_end")"
    runtime_ns=$(($(field runtime_ns "$cpu_end") - $(field runtime_ns "$cpu_start")))
    local capture_line overruns
    capture_line="$(tail -n 1 "$RUN_DIR/capture.out")"
    overruns="$(count_overruns $((first_minute * 60 - 1)) $(((first_minute + MINUTES) * 60)))"
    local floor_answered floor_ticks floor_runtime floor_hz
    floor_answered="$(field answered "$floor_line")"
    floor_ticks="$(field ticks "$floor_line")"
    floor_hz="$(field tick_hz "$floor_line")"
    floor_runtime="$(field runtime_ns "$floor_line")"

    local daemon_stat daemon_sched floor_stat floor_sched
    daemon_stat="$(per_thousand $((ticks * 1000000000 / hz)) "$answered")"
    daemon_sched="$(per_thousand "$runtime_ns" "$answered")"
    floor_stat="$(per_thousand $((floor_ticks * 1000000000 / floor_hz)) "$floor_answered")"
    floor_sched="$(per_thousand "$floor_runtime" "$floor_answered")"
    # One line per run, fields separated by |; print_results lays them out.
    echo "${sessions}x${rate}|$expected|$sent|$answered|${overruns% *}|${overruns#* }|$(field dropped_expiries "$capture_line")|$(field packets "$capture_line")|$((drops_end - drops_start))|$(field p50_us "$capture_line")|$(field p99_us "$capture_line")|$(field max_us "$capture_line")|$(field beyond_interval "$capture_line")|$ticks|$daemon_stat|$daemon_sched|$floor_answered|$floor_stat|$floor_sched|${shares% *}|${shares#* }" \
        >>"$OUT/results.psv"
    say "run ${sessions}x${rate} done: sent $sent of $expected, answered $answered"
}

print_results() {
    echo
    echo "Packets and timer overruns in the measured minutes; replies dropped at the daemon's socket"
    echo "(receive buffer full) from the first minute until the counters were read"
    echo
    echo "| run SxR | expected | sent | answered | overrun traces | expiries missed (traces) | expiries dropped (capture) | captured | receive buffer drops |"
    echo "|---|---|---|---|---|---|---|---|---|"
    awk -F'|' '{ printf "| %s | %s | %s | %s | %s | %s | %s | %s | %s |\n", $1, $2, $3, $4, $5, $6, $7, $8, $9 }' \
        "$OUT/results.psv"
    echo
    echo "Send-time lateness (T1 - scheduled expiry), microseconds"
    echo
    echo "| run SxR | p50 | p99 | max | later than one interval |"
    echo "|---|---|---|---|---|"
    awk -F'|' '{ printf "| %s | %s | %s | %s | %s |\n", $1, $10, $11, $12, $13 }' "$OUT/results.psv"
    echo
    echo "CPU seconds per 1000 answered packets, daemon and floor (stat: utime+stime in clock ticks;"
    echo "schedstat: scheduler run time in ns), and the whole machine in the measured minutes"
    echo "(tick-sampled /proc/stat: it shows sustained load of other processes, not short bursts)"
    echo
    echo "| run SxR | daemon ticks | daemon (stat) | daemon (schedstat) | floor answered | floor (stat) | floor (schedstat) | machine busy % | steal % |"
    echo "|---|---|---|---|---|---|---|---|---|"
    awk -F'|' '{ printf "| %s | %s | %s | %s | %s | %s | %s | %s | %s |\n", $1, $14, $15, $16, $17, $18, $19, $20, $21 }' \
        "$OUT/results.psv"
}

inner_main() {
    # shellcheck source=../../tests/e2e/lib/private_lttng.sh
    source "$ROOT/tests/e2e/lib/private_lttng.sh"
    private_lttng_enter
    trap 'stop_pids; private_lttng_stop' EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    private_lttng_start "$OUT"
    : >"$OUT/results.psv"
    say "machine: $(nproc) CPUs, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), kernel $(uname -r)"
    local run
    for run in "${RUNS[@]}"; do
        one_run "$run"
    done
    print_results | tee "$OUT/results.md"
}

parse_arguments "$@"
DAEMON="$BUILD/blocks/twampBl/twampTestSessionSwU/files/twampTestSession"
CTL="$BUILD/tools/twamp-ctl/twamp-ctl"
REFLECTOR="$BUILD/tools/twamp-reflector/twamp-reflector"
CAPTURE="$BUILD/bench/load/t1_capture"
FLOOR="$BUILD/bench/load/syscall_floor"
PROC_CPU="$BUILD/bench/load/proc_cpu"
if [ -n "${TWAMP_LOAD_INNER:-}" ]; then
    inner_main
else
    outer_main
fi
