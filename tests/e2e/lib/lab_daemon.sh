# Helpers for end-to-end tests of the daemon against lab reflectors: the lab
# namespaces, a faked wall clock for the daemon, the daemons and the
# reflectors, each stopped by its pid on every way out. Source after
# e2e_common.sh and private_lttng.sh, then:
#   lab_enter LAB_SH "$@"       as root (else exit 77, skipped): brings the lab
#                               up, runs the calling script again in a private
#                               mount namespace at nice 0, then leaves the lab
#                               as found
#   fake_clock_init FILE        the daemons' clock file, the real time for now
#   fake_clock_start SECONDS_BEFORE BIN
#                               the daemons' clock: SECONDS_BEFORE seconds
#                               before a minute whose bin (minute mod 15) is BIN;
#                               that minute's number in FAKE_MINUTE
#   fake_clock_jump EPOCH       moves the running clock to EPOCH (seconds)
#   fake_clock_freeze EPOCH     stops the clock at EPOCH
#   fake_now                    the faked time, seconds with fraction
#   wait_fake_until EPOCH       sleeps until the faked clock reaches EPOCH
#   start_daemon SERVICE SRC PORT LOGDIR   the daemon in fib_lab on the faked
#                               clock, once its mailbox answers
#   launch_daemon SERVICE SRC PORT NAMESPACE STDERR
#                               a daemon not waited for (pid in
#                               LAB_DAEMON_PID), on the faked clock once
#                               fake_clock_init ran, else on the real one
#   stop_daemon PID [SIGNAL]    stops one daemon (TERM by default), waited for
#   start_reflector TRUTH PORT OPTION...   a reflector in twamp_peer
#   stop_lab_processes [SIGNAL] stops what was started (reflectors, daemons)
#   scratch_namespace NAME      a namespace of the test's own, loopback up
#   remove_scratch_namespaces   deletes those
# Daemons and reflectors run at real-time priority, so that whatever else the
# host runs meanwhile (other tests, builds) adds no scheduling delay to the
# delays they measure and make, and the daemon keeps up with its socket.

LAB_PEER_NS=twamp_peer
LAB_DAEMON_NS=fib_lab
LAB_DAEMON_PIDS=""
LAB_DAEMON_PID=""
LAB_REFLECTOR_PIDS=""
LAB_SCRATCH_NAMESPACES=""
FAKE_CLOCK_FILE=""
FAKE_CLOCK_OFFSET=0
FAKE_MINUTE=0

lab_enter() {
    local lab="$1"
    shift
    if [ -n "${TWAMP_LAB_ENTERED:-}" ]; then
        return 0
    fi
    if [ "$(id -u)" -ne 0 ]; then
        echo "skipped: the lab needs root"
        exit 77
    fi
    lab_harness_priority
    local was_up=0 status=0
    if bash "$lab" status >/dev/null 2>&1; then
        was_up=1
    fi
    bash "$lab" up >/dev/null
    # The lab's namespaces are mounted before the private mount namespace is
    # made, so the test sees them and the host keeps them afterwards.
    TWAMP_LAB_ENTERED=1 TWAMP_PRIVATE_LTTNG=1 unshare --mount --propagation private \
        bash "$0" "$@" || status=$?
    if [ "$was_up" -eq 0 ]; then
        bash "$lab" down >/dev/null || true
    fi
    exit "$status"
}

# The test around the daemons and reflectors has deadlines of its own: the
# sessions are created before their minute starts, the counters read before
# the next one ends, everything within the test's time-out. Started at nice
# 19 on a host whose CPUs run other work at nice 0 it gets about 1.5 % of a
# CPU: bringing the lab up alone took minutes, the daemons waited for the
# session daemon to register them, a dozen creates took longer than the
# lead before the minute, and the test timed out. The ordinary share is
# enough; the test itself uses little.
lab_harness_priority() {
    if [ "$(nice)" -gt 0 ] && ! renice -n 0 -p $$ >/dev/null 2>&1; then
        echo "note: the test runs at nice $(nice) (renice refused)"
    fi
}

# ---- the faked clock ----

faketime_library() {
    local candidate
    for candidate in /usr/lib/*/faketime/libfaketime.so.1 /usr/lib/faketime/libfaketime.so.1; do
        if [ -e "$candidate" ]; then
            echo "$candidate"
            return 0
        fi
    done
    echo "FAIL: libfaketime not found (package libfaketime)" >&2
    return 1
}

# The file is re-read on every clock reading (FAKETIME_NO_CACHE), and
# replaced by a rename, so a reader never sees it half written.
fake_clock_write() {
    printf '%s\n' "$1" >"$FAKE_CLOCK_FILE.new"
    mv -f "$FAKE_CLOCK_FILE.new" "$FAKE_CLOCK_FILE"
}

fake_clock_init() {
    FAKE_CLOCK_FILE="$1"
    FAKE_CLOCK_OFFSET=0
    fake_clock_write "+0s"
}

# Placed once the daemons run, so that however long they take to start, the
# sessions are armed in the minute before the chosen one.
fake_clock_start() {
    local before="$1" bin="$2" now minute
    now="$(date +%s)"
    minute=$(((now + before + 59) / 60))
    while [ $((minute % 15)) -ne "$bin" ]; do
        minute=$((minute + 1))
    done
    FAKE_CLOCK_OFFSET=$((minute * 60 - before - now))
    FAKE_MINUTE="$minute"
    fake_clock_write "$(printf '%+ds' "$FAKE_CLOCK_OFFSET")"
}

# Starts the daemons of DAEMONS ("name address port" each, service_of NAME
# their mailbox, WORK/log_NAME their logs) on one fake clock, then places
# that clock lead seconds before the next minute in bin bin of its interval;
# MINUTE and BIN say which minute that is.
start_daemons_before_minute() {
    local lead="$1" bin="$2" entry daemon address port
    fake_clock_init "$WORK/faketime"
    for entry in "${DAEMONS[@]}"; do
        read -r daemon address port <<<"$entry"
        check "daemon $daemon starts" start_daemon "$(service_of "$daemon")" "$address" "$port" \
            "$WORK/log_$daemon"
    done
    fake_clock_start "$lead" "$bin"
    MINUTE="$FAKE_MINUTE"
    BIN=$((MINUTE % 15))
    echo "daemons' clock: $lead s before minute $MINUTE (bin $BIN)"
}

fake_now() {
    local real
    real="$(date +%s.%N)"
    awk -v real="$real" -v offset="$FAKE_CLOCK_OFFSET" 'BEGIN { printf "%.3f\n", real + offset }'
}

fake_clock_jump() {
    local target="$1" now
    now="$(date +%s)"
    FAKE_CLOCK_OFFSET=$((target - now))
    fake_clock_write "$(printf '%+ds' "$FAKE_CLOCK_OFFSET")"
}

# An absolute time without '@' stops libfaketime's clock there; fake_now then
# reports the real time shifted by the last offset, so jump before using it.
fake_clock_freeze() {
    fake_clock_write "$(TZ=UTC date -u -d "@$1" '+%Y-%m-%d %H:%M:%S')"
}

wait_fake_until() {
    local target="$1" delay
    delay="$(awk -v target="$target" -v now="$(fake_now)" 'BEGIN { d = target - now; if (d < 0) d = 0; printf "%.3f\n", d }')"
    sleep "$delay"
}

# ---- processes ----

# An AddressSanitizer runtime linked as a shared library must come first in
# the preload list.
preload_list() {
    local binary="$1" faketime asan
    faketime="$(faketime_library)" || return 1
    asan="$(ldd "$binary" | awk '/libasan/ { print $3; exit }')"
    if [ -n "$asan" ]; then
        echo "$asan:$faketime"
    else
        echo "$faketime"
    fi
}

# SCHED_FIFO for every thread of the process; where the host does not allow
# it the test runs on at normal priority, more exposed to other load.
realtime_priority() {
    if ! chrt --fifo --all-tasks --pid 20 "$1" >/dev/null 2>&1; then
        echo "note: pid $1 runs at normal priority (chrt refused)"
    fi
}

launch_daemon() {
    local service="$1" source="$2" port="$3" namespace="$4" stderr="$5" preload
    if [ -n "$FAKE_CLOCK_FILE" ]; then
        preload="$(preload_list "$DAEMON")" || return 1
        TZ=UTC LD_PRELOAD="$preload" FAKETIME_TIMESTAMP_FILE="$FAKE_CLOCK_FILE" \
            FAKETIME_NO_CACHE=1 FAKETIME_DONT_FAKE_MONOTONIC=1 \
            "$DAEMON" "$service" "$source" "$port" "$namespace" 0 2>"$stderr" &
    else
        "$DAEMON" "$service" "$source" "$port" "$namespace" 0 2>"$stderr" &
    fi
    LAB_DAEMON_PID=$!
    LAB_DAEMON_PIDS="$LAB_DAEMON_PIDS $LAB_DAEMON_PID"
    realtime_priority "$LAB_DAEMON_PID"
}

start_daemon() {
    local service="$1" source="$2" port="$3" logdir="$4"
    mkdir -p "$logdir"
    : >"$logdir/TnApplicationLog.log"
    : >"$logdir/TnNetworkLog.log"
    SA_LOG_DIR="$logdir" launch_daemon "$service" "$source" "$port" "$LAB_DAEMON_NS" \
        "$logdir/stderr" || return 1
    wait_for 20 "$CTL" --service "$service" counters --id ready
}

stop_daemon() {
    local pid="$1" signal="${2:-TERM}" kept="" other
    kill "-$signal" "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
    for other in $LAB_DAEMON_PIDS; do
        if [ "$other" != "$pid" ]; then
            kept="$kept $other"
        fi
    done
    LAB_DAEMON_PIDS="$kept"
}

start_reflector() {
    local truth="$1" port="$2"
    shift 2
    ip netns exec "$LAB_PEER_NS" "$REFLECTOR" --port "$port" --truth "$truth" --quiet "$@" &
    LAB_REFLECTOR_PIDS="$LAB_REFLECTOR_PIDS $!"
    realtime_priority "$!"
    wait_for 10 grep -q '"event":"start"' "$truth"
}

stop_lab_processes() {
    local signal="${1:-TERM}" pid
    for pid in $LAB_REFLECTOR_PIDS $LAB_DAEMON_PIDS; do
        kill "-$signal" "$pid" 2>/dev/null || true
    done
    for pid in $LAB_REFLECTOR_PIDS $LAB_DAEMON_PIDS; do
        wait "$pid" 2>/dev/null || true
    done
    LAB_REFLECTOR_PIDS=""
    LAB_DAEMON_PIDS=""
}

scratch_namespace() {
    ip netns add "$1" || return 1
    LAB_SCRATCH_NAMESPACES="$LAB_SCRATCH_NAMESPACES $1"
    ip -n "$1" link set lo up
}

remove_scratch_namespaces() {
    local namespace
    for namespace in $LAB_SCRATCH_NAMESPACES; do
        ip netns del "$namespace" 2>/dev/null || true
    done
    LAB_SCRATCH_NAMESPACES=""
}

# counters_json SERVICE ID FILE [OPTION...]: the counters as JSON in FILE.
counters_json() {
    local service="$1" id="$2" file="$3"
    shift 3
    "$CTL" --service "$service" counters --id "$id" --json "$@" >"$file"
}

# request_lines TRUTH: the number of requests the reflector has seen.
request_lines() {
    grep -cE '"event":"(fwd_loss|rev_loss|reply|send_error)"' "$1" || true
}

# The set-up of a test whose daemon runs in a scratch namespace of its own:
# the test environment in work, the namespace ns, and a private trace session
# name recording the daemon's events into work/trace.
scratch_lab_start() {
    local work="$1" ns="$2" name="$3"
    e2e_environment "$work"
    scratch_namespace "$ns"
    private_lttng_start "$work"
    private_lttng_session "$name" "$work/trace" 'com_quorin_tn_twamp:*'
}

# Its tear-down: the lab's processes killed, the trace daemon stopped, the
# scratch namespaces removed and work deleted.
scratch_lab_stop() {
    local work="$1"
    stop_lab_processes KILL
    private_lttng_stop
    remove_scratch_namespaces
    rm -rf "$work"
}
