#!/usr/bin/env bash
# The load driver: runs S sessions at R packets/s through a private lab for
# whole minutes and prints, per run, the packets sent and answered against
# those expected, the replies lost at the daemon's socket, its timer overruns,
# the send-time lateness of its packets (overall and in the finalisation
# seconds), its CPU time per answered packet against that of a program doing
# only the per-packet system calls at the same load (the floor), its resident
# memory at 0 and S sessions, and how long creating and reading took.
#
# usage: run_load.sh [--build DIR] [--minutes N] [--floor-seconds N] [--out DIR] [--nice N]
#                    [--realtime P] RUN...
#   RUN             SxR: S sessions (1 to 2500) at R packets/s each (1 to 10000),
#                   e.g. the router-scale shapes 1000x10 2000x10 200x100 20x1000 2x5000;
#                   or rss: resident memory at 0, 1000 and 2000 sessions at 10 packets/s
#   --build DIR     build directory with the daemon and the bench/load programs
#                   (default: build)
#   --minutes N     whole minutes measured per SxR run (default 2)
#   --floor-seconds N   seconds the floor program sends per SxR run (default 30)
#   --out DIR       where results and logs are kept (default: a new /tmp/twamp-load.*)
#   --realtime P    run the daemon, the load reflector and the floor program
#                   SCHED_FIFO at priority P (1 to 99; default 0: not at all),
#                   as a node runs its measurement daemons, so that a busy
#                   machine delays them no more than the kernel must
#   --nice N        nice value (-20 to 19, default 0) of the lab's scheduling group.
#                   The lab's processes (daemon, floor, load reflector, capture,
#                   manager) run in a session of their own, which the kernel
#                   schedules as one group (autogroup) against every other session,
#                   whatever the nice values of the processes inside.
#
# Runs as root. The lab is its own: namespaces fib_bench (the daemon's side,
# 198.18.1.1, 2001:db8:19::1) and bench_peer (198.18.1.2, 2001:db8:19::2)
# joined by the veth pair vb-fib/vb-peer, created here and deleted at the end;
# nothing is sent anywhere else. Traces are recorded by a private LTTng
# session daemon in a private mount namespace.
#
# An SxR run: one load_reflector in bench_peer answering ports 20000 to
# 20000 + S - 1; the floor program for --floor-seconds; then t1_capture on
# vb-peer, the daemon in fib_bench with software timestamps, and S sessions
# created by load_manager before a whole minute (session i towards port
# 20000 + i with start slot i, 400 us apart). The daemon's memory is read
# after start-up; its CPU time 1 s before the first measured minute and at
# the end of the last, its memory again 3 s later, and the counters of all
# sessions once the last minute is finalised (5 s after it); then the
# sessions are deleted. The rss run keeps one daemon and adds 1000 sessions
# twice, reading the memory after each block has sent a whole minute.
set -euo pipefail

ROOT="$(cd "$(dirname "$0")/../.." && pwd)"
BUILD="$ROOT/build"
MINUTES=2
FLOOR_SECONDS=30
OUT=""
NICE=0
REALTIME=0
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
MAX_SESSIONS=2500       # start slots 0 to 2499 with the default spreading base
MAX_RATE=10000
RSS_BLOCK=1000          # the rss mode adds sessions in blocks of this many
RSS_RATE=10

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
            --nice) NICE="$2"; shift 2 ;;
            --realtime) REALTIME="$2"; shift 2 ;;
            -h|--help) usage ;;
            rss) RUNS+=("$1"); shift ;;
            [0-9]*x[0-9]*) check_shape "$1"; RUNS+=("$1"); shift ;;
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
    [[ "$REALTIME" =~ ^[0-9]+$ ]] && [ "$REALTIME" -le 99 ] || {
        echo "run_load.sh: --realtime must be 0 to 99" >&2
        exit 2
    }
    [[ "$NICE" =~ ^-?[0-9]+$ ]] && [ "$NICE" -ge -20 ] && [ "$NICE" -le 19 ] || {
        echo "run_load.sh: --nice must be -20 to 19" >&2
        exit 2
    }
}

check_shape() {
    local sessions="${1%x*}" rate="${1#*x}"
    if ! [[ "$sessions" =~ ^[1-9][0-9]*$ && "$rate" =~ ^[1-9][0-9]*$ ]] ||
        [ "$sessions" -gt "$MAX_SESSIONS" ] || [ "$rate" -gt "$MAX_RATE" ]; then
        echo "run_load.sh: $1: S must be 1 to $MAX_SESSIONS and R 1 to $MAX_RATE" >&2
        exit 2
    fi
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
    for binary in "$DAEMON" "$LOAD_REFLECTOR" "$MANAGER" "$CAPTURE" "$FLOOR" "$PROC_CPU"; do
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
    trap 'stop_inner; exit 130' INT
    trap 'stop_inner; exit 143' TERM
    say "lab up: $DAEMON_NS $DAEMON_IPV4 <-> $PEER_NS $PEER_IPV4 ($DAEMON_LINK/$PEER_LINK)"
    lab_up
    # The namespaces are mounted before the private mount namespace is made,
    # so the inner part sees them and the host keeps its own view.
    local status=0
    # In a session of its own, the inner part is one process group to stop
    # and one scheduling group (see --nice).
    TWAMP_LOAD_INNER=1 TWAMP_PRIVATE_LTTNG=1 setsid unshare --mount --propagation private \
        bash "$0" --build "$BUILD" --minutes "$MINUTES" --floor-seconds "$FLOOR_SECONDS" \
        --nice "$NICE" --realtime "$REALTIME" --out "$OUT" "${RUNS[@]}" &
    INNER_PID=$!
    wait "$INNER_PID" || status=$?
    INNER_PID=""
    say "lab down; results and logs in $OUT"
    exit "$status"
}

# An interrupted driver stops its inner part: every process of its group,
# so that the run's own clean-up is not held up by a sleep.
stop_inner() {
    if [ -n "${INNER_PID:-}" ]; then
        kill -TERM -- "-$INNER_PID" 2>/dev/null || true
        wait "$INNER_PID" 2>/dev/null || true
    fi
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

start_load_reflector() {
    local ports="$1"
    ip netns exec "$PEER_NS" "${REALTIME_PREFIX[@]}" "$LOAD_REFLECTOR" --listen "$PEER_IPV4" \
        --base-port "$REFLECTOR_BASE_PORT" --ports "$ports" \
        >"$RUN_DIR/reflector.out" 2>"$RUN_DIR/reflector.err" &
    REFLECTOR_PID=$!
    PIDS+=("$REFLECTOR_PID")
    wait_for_line "$RUN_DIR/reflector.out" "load_reflector: ready" || {
        echo "run_load.sh: the load reflector did not start; see $RUN_DIR/reflector.err" >&2
        return 1
    }
}

# Seconds before the first minute at which the daemon is started and the
# sessions are created: 12 s for the daemon and its trace registration, and
# 1 s per 100 sessions, several times what creating them takes. It stays
# below a minute, so that every session is created in the same minute and
# starts at the next.
preparation_seconds() {
    echo $((12 + $1 / 100))
}

# The first minute of sending: at least lead seconds ahead, and the minutes
# counted inside one 15-minute interval, so one counters request holds them.
choose_first_minute() {
    local lead="$1" minutes="$2" minute
    minute=$((($(date +%s) + lead + 59) / 60))
    if [ $((minute % 15 + minutes)) -gt 15 ]; then
        minute=$((minute + 15 - minute % 15))
    fi
    echo "$minute"
}

run_floor() {
    local sessions="$1" rate="$2"
    ip netns exec "$DAEMON_NS" "${REALTIME_PREFIX[@]}" "$FLOOR" --source "$DAEMON_IPV4" --source-port "$FLOOR_PORT" \
        --reflector "$PEER_IPV4" --base-port "$REFLECTOR_BASE_PORT" --sessions "$sessions" \
        --rate "$rate" --seconds "$FLOOR_SECONDS" 2>"$RUN_DIR/floor.err"
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
    "${REALTIME_PREFIX[@]}" "$DAEMON" "$SERVICE" "$DAEMON_IPV4" "$DAEMON_PORT" "$DAEMON_NS" 0 >"$RUN_DIR/daemon.log" 2>&1 &
    DAEMON_PID=$!
    PIDS+=("$DAEMON_PID")
    wait_for_file "$ITC_RUNDIR/name.$SERVICE" || {
        echo "run_load.sh: the daemon did not open its mailbox; see $RUN_DIR" >&2
        return 1
    }
    # Start-up is over once the mailbox is open; a moment more for the loop to settle.
    sleep 1
}

# Resident memory of a process in KiB (VmRSS of /proc/<pid>/status).
resident_kib() {
    awk '$1 == "VmRSS:" { print $2 }' "/proc/$1/status"
}

# manage COMMAND FIRST COUNT [OPTION...]: load_manager on sessions FIRST ..
# FIRST + COUNT - 1; its summary line goes to $RUN_DIR/COMMAND.out (appended).
manage() {
    local command="$1" first="$2" count="$3" line
    shift 3
    line="$("$MANAGER" "$command" --service "$SERVICE" --first "$first" --sessions "$count" "$@" \
        2>>"$RUN_DIR/manager.err")" || true
    echo "$line" >>"$RUN_DIR/$command.out"
    echo "$line"
}

create_sessions() {
    local first="$1" count="$2" rate="$3"
    manage create "$first" "$count" --dst "$PEER_IPV4" --base-port "$REFLECTOR_BASE_PORT" \
        --rate "$rate"
}

# Sum of one counter over the counted bins of every session; bins without a
# value (-2) add nothing.
sum_counter() {
    local name="$1" first_bin="$2" minutes="$3" file="$4"
    awk -F, -v name="$name" -v first=$((first_bin + 4)) -v count="$minutes" '
        $2 == name { for (c = first; c < first + count; c++) if ($c > 0) s += $c }
        END { printf "%d", s }' "$file"
}

# Sessions whose counter NAME is above 0 in the counted bins.
sessions_with() {
    local name="$1" first_bin="$2" minutes="$3" file="$4"
    awk -F, -v name="$name" -v first=$((first_bin + 4)) -v count="$minutes" '
        $2 == name { s = 0; for (c = first; c < first + count; c++) if ($c > 0) s += $c; if (s > 0) n++ }
        END { printf "%d", n }' "$file"
}

# The daemon's LAB and ERROR traces of the run, as text.
trace_text() {
    babeltrace2 --clock-seconds "$RUN_DIR/trace" 2>/dev/null >"$RUN_DIR/trace.txt" || true
}

# Overrun traces whose time lies in [FROM, TO) (seconds since 1970): events
# and the expiries beyond one they report (received - 1 each).
count_overruns() {
    local from="$1" to="$2"
    { grep 'Expected one timer expiry, received' "$RUN_DIR/trace.txt" || true; } |
        sed -E 's/^\[([0-9]+)\.[0-9]+\].*received ([0-9]+),.*/\1 \2/' |
        awk -v from="$from" -v to="$to" '
            $1 >= from && $1 < to { events++; missed += $2 - 1 }
            END { printf "%d %d\n", events, missed }'
}

# ERROR traces over the daemon's life; their texts, numbers masked, with
# their counts go to errors.txt.
count_errors() {
    { grep -F 'com_quorin_tn_twamp:ERROR' "$RUN_DIR/trace.txt" || true; } |
        sed -E 's/.*message = "(.*)" \}.*/\1/; s/[0-9]+/N/g' | sort | uniq -c | sort -rn \
        >"$RUN_DIR/errors.txt"
    awk '{ n += $1 } END { printf "%d", n }' "$RUN_DIR/errors.txt"
}

# Session minutes the daemon declared it could not account (all counters -2),
# by reason, over the daemon's life.
count_declared() {
    { grep -F 'cannot be accounted (' "$RUN_DIR/trace.txt" || true; } |
        sed -E 's/.*cannot be accounted \(([^)]*)\).*/\1/' | sort | uniq -c | sort -rn \
        >"$RUN_DIR/declared.txt"
    awk '{ n += $1 } END { printf "%d", n }' "$RUN_DIR/declared.txt"
}

# Datagrams a namespace dropped because a socket's receive buffer was full
# (RcvbufErrors of /proc/net/snmp, counted since the namespace exists).
receive_buffer_errors() {
    ip netns exec "$1" cat /proc/net/snmp | awk '
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

# Microseconds of CPU per packet: CPU NANOSECONDS over PACKETS.
per_packet_us() {
    awk -v ns="$1" -v packets="$2" 'BEGIN { if (packets > 0) printf "%.1f", ns / 1000 / packets; else print "n/a" }'
}

# Cores a process kept busy: CPU NANOSECONDS over SECONDS of wall time.
cores() {
    awk -v ns="$1" -v seconds="$2" 'BEGIN { printf "%.2f", ns / 1e9 / seconds }'
}

ratio() {
    awk -v a="$1" -v b="$2" 'BEGIN { if (a + 0 > 0 && b + 0 > 0) printf "%.1f", a / b; else print "n/a" }'
}

per_session_kib() {
    awk -v grown="$1" -v sessions="$2" 'BEGIN { if (sessions > 0) printf "%.1f", grown / sessions; else print "n/a" }'
}

one_run() {
    local sessions="${1%x*}" rate="${1#*x}"
    local run_start
    run_start="$(date +%s)"
    RUN_DIR="$OUT/run-${sessions}x${rate}"
    mkdir -p "$RUN_DIR"
    local expected prep
    expected="$(expected_packets "$sessions" "$rate")"
    prep="$(preparation_seconds "$sessions")"
    say "run ${sessions}x${rate}: $sessions sessions at $rate packets/s, $MINUTES minute(s)"
    start_load_reflector "$sessions"

    local first_minute
    first_minute="$(choose_first_minute $((FLOOR_SECONDS + 5 + prep)) "$MINUTES")"
    say "floor: ${FLOOR_SECONDS} s of the per-packet system calls at the same load"
    local floor_line
    floor_line="$(run_floor "$sessions" "$rate")"
    echo "$floor_line" >"$RUN_DIR/floor.out"

    say "sending starts at $(date -u -d "@$((first_minute * 60))" +%H:%M:%S) UTC"
    sleep_until $((first_minute * 60 - prep))
    ip netns exec "$PEER_NS" "$CAPTURE" --interface "$PEER_LINK" \
        --base-port "$REFLECTOR_BASE_PORT" --sessions "$sessions" --rate "$rate" \
        --first-minute "$first_minute" --minutes "$MINUTES" --spreading-ns "$SPREADING_NS" \
        --dump "$RUN_DIR/t1.txt" >"$RUN_DIR/capture.out" 2>&1 &
    local capture_pid=$!
    PIDS+=("$capture_pid")
    private_lttng_session "load${sessions}x${rate}" "$RUN_DIR/trace" \
        'com_quorin_tn_twamp:LAB' 'com_quorin_tn_twamp:ERROR'
    start_daemon
    local rss_zero create_line
    rss_zero="$(resident_kib "$DAEMON_PID")"
    create_line="$(create_sessions 0 "$sessions" "$rate")"
    say "created: $create_line"
    if [ "$(date +%s)" -ge $((first_minute * 60 - 1)) ]; then
        echo "run_load.sh: creating the sessions ran into the first minute; run skipped" >&2
        return 1
    fi
    local cpu_start cpu_end machine_start machine_end drops_start drops_end
    local peer_drops_start peer_drops_end rss_full
    sleep_until $((first_minute * 60 - 1))
    cpu_start="$("$PROC_CPU" "$DAEMON_PID")"
    drops_start="$(receive_buffer_errors "$DAEMON_NS")"
    peer_drops_start="$(receive_buffer_errors "$PEER_NS")"
    machine_start="$(machine_cpu)"
    sleep_until $(((first_minute + MINUTES) * 60))
    cpu_end="$("$PROC_CPU" "$DAEMON_PID")"
    machine_end="$(machine_cpu)"
    sleep_until $(((first_minute + MINUTES) * 60 + 3))
    rss_full="$(resident_kib "$DAEMON_PID")"
    # The last measured minute is finalised 4 s after it ends.
    sleep_until $(((first_minute + MINUTES) * 60 + 5))
    local counters_line delete_line
    counters_line="$(manage counters 0 "$sessions" --out "$RUN_DIR/counters.csv")"
    drops_end="$(receive_buffer_errors "$DAEMON_NS")"
    peer_drops_end="$(receive_buffer_errors "$PEER_NS")"
    say "counters: $counters_line"
    delete_line="$(manage delete 0 "$sessions")"
    private_lttng_finish "load${sessions}x${rate}"
    kill -TERM "$capture_pid"
    wait "$capture_pid" || true
    stop_pids
    trace_text

    local first_bin=$((first_minute % 15)) csv="$RUN_DIR/counters.csv"
    local sent answered reporting sending
    sent="$(sum_counter sentPkts "$first_bin" "$MINUTES" "$csv")"
    answered="$(sum_counter receivedPkts "$first_bin" "$MINUTES" "$csv")"
    reporting="$(awk -F, '$2 == "sentPkts"' "$csv" | wc -l)"
    sending="$(sessions_with sentPkts "$first_bin" "$MINUTES" "$csv")"
    local runtime_ns shares capture_line overruns errors declared floor_answered floor_runtime
    runtime_ns=$(($(field runtime_ns "$cpu_end") - $(field runtime_ns "$cpu_start")))
    shares="$(machine_shares "$machine_start" "$machine_end")"
    capture_line="$(tail -n 1 "$RUN_DIR/capture.out")"
    overruns="$(count_overruns $((first_minute * 60 - 1)) $(((first_minute + MINUTES) * 60 + 5)))"
    errors="$(count_errors)"
    declared="$(count_declared)"
    floor_answered="$(field answered "$floor_line")"
    floor_runtime="$(field runtime_ns "$floor_line")"
    local daemon_us floor_us
    daemon_us="$(per_packet_us "$runtime_ns" "$answered")"
    floor_us="$(per_packet_us "$floor_runtime" "$floor_answered")"
    {
        echo "run=${sessions}x${rate} expected=$expected sent=$sent answered=$answered"
        echo "created=$(field sent "$create_line") create_refusals=$(field refusals "$create_line")"
        echo "create_s=$(field seconds "$create_line") reporting=$reporting sending=$sending"
        echo "counters_s=$(field seconds "$counters_line") missing=$(field missing "$counters_line")"
        echo "counter_timeouts=$(field timeouts "$counters_line") deleted=$(field sent "$delete_line")"
        echo "rcvbuf=$((drops_end - drops_start)) peer_rcvbuf=$((peer_drops_end - peer_drops_start))"
        echo "overruns=${overruns% *} missed=${overruns#* } errors=$errors declared=$declared"
        echo "captured=$(field packets "$capture_line") dropped=$(field dropped_expiries "$capture_line")"
        echo "p50=$(field p50_us "$capture_line") p99=$(field p99_us "$capture_line")"
        echo "max=$(field max_us "$capture_line") beyond=$(field beyond_interval "$capture_line")"
        echo "fin_packets=$(field fin_packets "$capture_line") fin_p50=$(field fin_p50_us "$capture_line")"
        echo "fin_p99=$(field fin_p99_us "$capture_line") fin_max=$(field fin_max_us "$capture_line")"
        echo "fin_dropped=$(field fin_dropped_expiries "$capture_line")"
        echo "fin_beyond=$(field fin_beyond_interval "$capture_line")"
        echo "daemon_us=$daemon_us daemon_sent_us=$(per_packet_us "$runtime_ns" "$sent")"
        echo "daemon_cores=$(cores "$runtime_ns" $((MINUTES * 60 + 1)))"
        echo "floor_sent=$(field sent "$floor_line") floor_answered=$floor_answered"
        echo "floor_us=$floor_us ratio=$(ratio "$daemon_us" "$floor_us")"
        echo "floor_p50=$(field late_p50_us "$floor_line") floor_p99=$(field late_p99_us "$floor_line")"
        echo "floor_max=$(field late_max_us "$floor_line")"
        echo "floor_beyond=$(field late_beyond_interval "$floor_line")"
        echo "rss0=$rss_zero rssS=$rss_full per_session=$(per_session_kib $((rss_full - rss_zero)) "$sessions")"
        echo "busy=${shares% *} steal=${shares#* } wall_s=$(($(date +%s) - run_start))"
    } | tr '\n' ' ' | sed 's/ $/\n/' >>"$OUT/results.txt"
    say "run ${sessions}x${rate} done: sent $sent of $expected, answered $answered"
}

# Resident memory at 0, RSS_BLOCK and 2 x RSS_BLOCK sessions at RSS_RATE
# packets/s, each reading 3 s after the newest block has sent a whole minute.
# The second block is created while the first sends; a daemon that takes its
# creates slowly then moves the second block's first minute, and the reading
# with it.
rss_run() {
    local run_start
    run_start="$(date +%s)"
    RUN_DIR="$OUT/run-rss"
    mkdir -p "$RUN_DIR"
    local total=$((2 * RSS_BLOCK)) prep
    prep="$(preparation_seconds "$RSS_BLOCK")"
    say "rss: resident memory at 0, $RSS_BLOCK and $total sessions at $RSS_RATE packets/s"
    start_load_reflector "$total"
    local first_minute
    first_minute="$(choose_first_minute $((prep + 5)) 2)"
    say "the first block sends from $(date -u -d "@$((first_minute * 60))" +%H:%M:%S) UTC"
    sleep_until $((first_minute * 60 - prep))
    private_lttng_session loadrss "$RUN_DIR/trace" 'com_quorin_tn_twamp:ERROR'
    start_daemon
    local rss_zero rss_one rss_two line one_sending two_sending create_one create_two
    rss_zero="$(resident_kib "$DAEMON_PID")"
    create_one="$(create_sessions 0 "$RSS_BLOCK" "$RSS_RATE")"
    say "created: $create_one"
    sleep_until $(((first_minute + 1) * 60 + 3))
    rss_one="$(resident_kib "$DAEMON_PID")"
    create_two="$(create_sessions "$RSS_BLOCK" "$RSS_BLOCK" "$RSS_RATE")"
    # Sessions send from the whole minute after their create.
    local second_minute=$(($(date +%s) / 60 + 1))
    say "created: $create_two; they send from $(date -u -d "@$((second_minute * 60))" +%H:%M:%S) UTC"
    line="$(manage counters 0 "$RSS_BLOCK" --out "$RUN_DIR/counters-1.csv")"
    say "counters: $line"
    one_sending="$(sessions_with sentPkts $((first_minute % 15)) 1 "$RUN_DIR/counters-1.csv")"
    sleep_until $(((second_minute + 1) * 60 + 3))
    rss_two="$(resident_kib "$DAEMON_PID")"
    sleep_until $(((second_minute + 1) * 60 + 5))
    line="$(manage counters 0 "$total" --out "$RUN_DIR/counters-2.csv")"
    say "counters: $line"
    two_sending="$(sessions_with sentPkts $((second_minute % 15)) 1 "$RUN_DIR/counters-2.csv")"
    manage delete 0 "$total" >/dev/null
    private_lttng_finish loadrss
    stop_pids
    trace_text
    {
        echo "rss0=$rss_zero rss1=$rss_one rss2=$rss_two block=$RSS_BLOCK"
        echo "per1=$(per_session_kib $((rss_one - rss_zero)) "$RSS_BLOCK")"
        echo "per2=$(per_session_kib $((rss_two - rss_zero)) "$total")"
        echo "sending1=$one_sending sending2=$two_sending errors=$(count_errors)"
        echo "create1_s=$(field seconds "$create_one") create2_s=$(field seconds "$create_two")"
        echo "refusals1=$(field refusals "$create_one") refusals2=$(field refusals "$create_two")"
        echo "wall_s=$(($(date +%s) - run_start))"
    } | tr '\n' ' ' | sed 's/ $/\n/' >"$OUT/rss.txt"
    say "rss done: $rss_zero, $rss_one, $rss_two KiB"
}

# table HEADER KEY...: one markdown row per SxR run of results.txt.
table() {
    local header="$1"
    shift
    echo "$header"
    echo "$header" | sed -E 's/[^|]+/---/g'
    awk -v keys="$*" '{
        delete v
        for (i = 1; i <= NF; i++) { split($i, kv, "="); v[kv[1]] = kv[2] }
        n = split(keys, k, " "); row = "|"
        for (i = 1; i <= n; i++) row = row " " (k[i] in v && v[k[i]] != "" ? v[k[i]] : "n/a") " |"
        print row }' "$OUT/results.txt"
}

print_results() {
    if [ -s "$OUT/results.txt" ]; then
        echo
        echo "Sessions: created (signals sent), reporting counters, sending in the measured minutes;"
        echo "creating and reading all counters (load_manager), counters that never came"
        echo
        table "| run SxR | created | refused sends (repeated) | create s | reporting | sending | counters s | counters missing | request time-outs | wall time s |" \
            run created create_refusals create_s reporting sending counters_s missing counter_timeouts wall_s
        echo
        echo "Packets in the measured minutes; overrun traces up to the last minute's finalisation;"
        echo "replies dropped at a full receive buffer (RcvbufErrors) from the first minute until the"
        echo "counters were read, at the daemon and at the load reflector; session minutes the daemon"
        echo "declared it could not account (all -2, reasons in the run's declared.txt)"
        echo
        table "| run SxR | expected | sent | answered | captured | expiries dropped (capture) | overrun traces | expiries missed (traces) | ERROR traces | RcvbufErrors daemon | RcvbufErrors reflector | minutes declared -2 |" \
            run expected sent answered captured dropped overruns missed errors rcvbuf peer_rcvbuf declared
        echo
        echo "Send-time lateness (T1 - scheduled expiry), microseconds: the measured minutes, and the"
        echo "finalisation seconds (second 4 of each minute after a measured one)"
        echo
        table "| run SxR | p50 | p99 | max | later than one interval | fin. packets | fin. p50 | fin. p99 | fin. max | fin. later than one interval | fin. expiries dropped |" \
            run p50 p99 max beyond fin_packets fin_p50 fin_p99 fin_max fin_beyond fin_dropped
        echo
        echo "The same lateness of the floor program at the same load: what the machine costs without"
        echo "the daemon's work"
        echo
        table "| run SxR | floor p50 | floor p99 | floor max | floor later than one interval |" \
            run floor_p50 floor_p99 floor_max floor_beyond
        echo
        echo "CPU (scheduler run time) per answered packet in microseconds, daemon and floor, the"
        echo "daemon's also per sent packet and in cores over the measured minutes; resident memory"
        echo "of the daemon (KiB) after start-up and after the last measured minute; the machine's"
        echo "busy and stolen share in the measured minutes (tick-sampled /proc/stat)"
        echo
        table "| run SxR | daemon µs/answered | daemon µs/sent | daemon cores | floor sent | floor answered | floor µs/packet | daemon ÷ floor | VmRSS 0 sessions | VmRSS S sessions | KiB per session | machine busy % | steal % |" \
            run daemon_us daemon_sent_us daemon_cores floor_sent floor_answered floor_us ratio rss0 rssS per_session busy steal
    fi
    if [ -s "$OUT/rss.txt" ]; then
        echo
        echo "Resident memory of the daemon (VmRSS, KiB) at $RSS_RATE packets/s per session, each"
        echo "reading 3 s into the minute after the newest sessions sent a whole minute; the second"
        echo "block is created while the first sends"
        echo
        awk '{
            for (i = 1; i <= NF; i++) { split($i, kv, "="); v[kv[1]] = kv[2] }
            print "| sessions | VmRSS | KiB per session since 0 | sessions sending in the last minute | creating the newest block s | refused creates (repeated) |"
            print "|---|---|---|---|---|---|"
            printf "| 0 | %s | – | – | – | – |\n", v["rss0"]
            printf "| %d | %s | %s | %s | %s | %s |\n", v["block"], v["rss1"], v["per1"], v["sending1"], v["create1_s"], v["refusals1"]
            printf "| %d | %s | %s | %s | %s | %s |\n", 2 * v["block"], v["rss2"], v["per2"], v["sending2"], v["create2_s"], v["refusals2"]
            printf "\nERROR traces: %s; wall time %s s\n", v["errors"], v["wall_s"] }' "$OUT/rss.txt"
    fi
}

inner_main() {
    # shellcheck source=../../tests/e2e/lib/private_lttng.sh
    source "$ROOT/tests/e2e/lib/private_lttng.sh"
    private_lttng_enter
    if [ "$NICE" -ne 0 ]; then
        # This session's scheduling group: its weight against the other sessions'.
        echo "$NICE" >/proc/self/autogroup || say "cannot set the nice value of the lab's group"
    fi
    trap 'stop_pids; private_lttng_stop' EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    private_lttng_start "$OUT"
    : >"$OUT/results.txt"
    say "machine: $(nproc) CPUs, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), kernel $(uname -r); lab group $(cat /proc/self/autogroup); SCHED_FIFO priority ${REALTIME} (0: not real-time)"
    local run status
    for run in "${RUNS[@]}"; do
        # Each run in a subshell of its own: a run that fails stops its own
        # processes and leaves the next runs to go on.
        set +e
        (
            set -e
            trap 'stop_pids' EXIT
            if [ "$run" = rss ]; then
                rss_run
            else
                one_run "$run"
            fi
        )
        status=$?
        set -e
        if [ "$status" -ne 0 ]; then
            say "run $run failed (status $status); see $OUT"
        fi
    done
    print_results | tee "$OUT/results.md"
}

parse_arguments "$@"
# The command prefix of the programs that run SCHED_FIFO with --realtime.
REALTIME_PREFIX=(env)
if [ "$REALTIME" -gt 0 ]; then
    REALTIME_PREFIX=(chrt --fifo "$REALTIME")
fi
DAEMON="$BUILD/blocks/twampBl/twampTestSessionSwU/files/twampTestSession"
LOAD_REFLECTOR="$BUILD/bench/load/load_reflector"
MANAGER="$BUILD/bench/load/load_manager"
CAPTURE="$BUILD/bench/load/t1_capture"
FLOOR="$BUILD/bench/load/syscall_floor"
PROC_CPU="$BUILD/bench/load/proc_cpu"
if [ -n "${TWAMP_LOAD_INNER:-}" ]; then
    inner_main
else
    outer_main
fi
