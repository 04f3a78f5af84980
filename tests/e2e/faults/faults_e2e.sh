#!/usr/bin/env bash
# Faults end to end: the daemon survives them, and every finalised minute it
# reports is either exact (the replay of the reflector's ground truth) or -2,
# never a wrong number. One lab, seven daemons at once, each with its own
# reflector(s), so that the faults run side by side and the whole test takes
# about six minutes:
#
#   restart   the reflector is killed (SIGKILL) 30 s into the first minute M
#             and started again 10 s later on the same port
#   unreach   the reflector closes its port after 400 requests (M + 40 s) for
#             three minutes: the kernel answers with ICMP port unreachable
#   stepfwd   the daemon's wall clock steps 2 minutes forward (M + 30 s)
#   stepback  the daemon's wall clock steps 2 minutes back (M + 20 s)
#   stephour  the daemon's wall clock steps 1 hour forward (M + 30 s)
#   manager   managers that go away before their counters reply arrives (20
#             that send and exit at once, one that gives up on a held reply),
#             its operator log file removed while it runs, and 20 managers
#             reading counters at once
#   stall     (known defect, see below) the daemon is stopped (SIGSTOP) 55 s
#             into M for 70 s
#
# Every daemon runs on a wall clock faked by libfaketime (the step daemons
# each on a clock of its own, the others on one shared clock), placed so that
# every daemon's first minute of sending starts at the same real moment R0 (M
# of the shared clock is the last minute of an interval, bin 14). The daemons' LAB traces
# are recorded by a private LTTng session daemon. After its fault every
# daemon must still create a session and answer a counters request.
#
# The whole test runs in a mount namespace of its own with a private
# /var/run/netns, so its lab (the usual names fib_lab and twamp_peer) is its
# own and it may run beside the other lab tests.
#
# usage: faults_e2e.sh LAB_SH DAEMON TWAMP_CTL REFLECTOR ITC_PROBE [TOLERANCE_US]
#        (exit 77: skipped, not root)
#        TWAMP_FAULTS_STOP=0 leaves out the faults that stop a daemon: the
#        stall daemon (stopped for 70 s and continued), the manager daemon
#        held by SIGSTOP while a manager sends and exits, and with it the
#        trace of a counters reply that cannot be delivered.
#        TWAMP_E2E_KEEP=1 keeps the work directory.
set -euo pipefail
HERE="$(dirname "$(readlink -f "$0")")"
E2E="$(dirname "$HERE")"
source "$E2E/lib/e2e_common.sh"
source "$E2E/lib/private_lttng.sh"
source "$E2E/lib/lab_daemon.sh"

if [ -z "${TWAMP_FAULTS_PRIVATE:-}" ]; then
    if [ "$(id -u)" -ne 0 ]; then
        echo "skipped: the lab needs root"
        exit 77
    fi
    mkdir -p /var/run/netns
    TWAMP_FAULTS_PRIVATE=1 TWAMP_PRIVATE_LTTNG=1 exec unshare --mount --propagation private \
        bash "$0" "$@"
fi
# Namespaces made from here on are seen by this mount namespace only.
mount -t tmpfs -o mode=0755 tmpfs /var/run/netns
private_lttng_enter "$@"

LAB_SH="$1"
DAEMON="$2"
CTL="$3"
REFLECTOR="$4"
ITC_PROBE="$5"
TOLERANCE_US="${6:-500}"
ORACLE="$E2E/lib/truth_oracle.py"
RANGE_RULE="$HERE/range_rule.py"
WORK="$(mktemp -d /tmp/faults_e2e.XXXXXX)"
RATE=10
KEEP_WORK="${TWAMP_E2E_KEEP:-0}"
STOP_FAULTS="${TWAMP_FAULTS_STOP:-1}"
SOURCE_ADDRESS=198.18.0.1
PEER_ADDRESS=198.18.0.2
# A port nothing listens on: the sessions created after the faults.
SPARE_PORT=9

cleanup() {
    stop_lab_processes
    private_lttng_stop
    bash "$LAB_SH" down >/dev/null 2>&1 || true
    discard_work "$WORK"
}
trap cleanup EXIT

# daemon source-port clock bin-of-first-minute
DAEMONS=(
    "restart 8631 shared 14"
    "unreach 8632 shared 14"
    "manager 8637 shared 14"
    "stepfwd 8633 fwd 3"
    "stepback 8634 back 5"
    "stephour 8635 hour 3"
)
# session daemon reflector-port reflector-options...
SESSIONS=(
    "restart restart 18831"
    "unreach unreach 18832 --unreachable-after 400 --unreachable-ms 180000"
    "clean manager 18837"
    "skewed manager 18838 --skew 5000"
    "stepfwd stepfwd 18833"
    "stepback stepback 18834"
    "stephour stephour 18835"
)
if [ "$STOP_FAULTS" = 1 ]; then
    DAEMONS+=("stall 8636 shared 14")
    SESSIONS+=("stall stall 18836")
fi
declare -A DAEMON_PORT DAEMON_CLOCK DAEMON_BIN DAEMON_PID SESSION_DAEMON SESSION_PORT
declare -A CLOCK_OFFSET CLOCK_MINUTE REFLECTOR_PID SESSION_OFFSET
for entry in "${DAEMONS[@]}"; do
    read -r daemon port clock bin <<<"$entry"
    DAEMON_PORT[$daemon]="$port"
    DAEMON_CLOCK[$daemon]="$clock"
    DAEMON_BIN[$clock]="$bin"
done
for entry in "${SESSIONS[@]}"; do
    read -r session daemon port _ <<<"$entry"
    SESSION_DAEMON[$session]="$daemon"
    SESSION_PORT[$session]="$port"
done

service_of() {
    echo "faults_$1_$$"
}

# ---- the daemons' clocks ----

clock_file() {
    echo "$WORK/clock_$1"
}

clock_write() {
    local clock="$1"
    printf '%+ds\n' "${CLOCK_OFFSET[$clock]}" >"$(clock_file "$clock").new"
    mv -f "$(clock_file "$clock").new" "$(clock_file "$clock")"
}

# clock_place CLOCK R0: the clock's first minute of sending (of the bin the
# clock was chosen for) starts at the real second R0.
clock_place() {
    local clock="$1" r0="$2" minute
    minute=$(((r0 + 59) / 60))
    while [ $((minute % 15)) -ne "${DAEMON_BIN[$clock]}" ]; do
        minute=$((minute + 1))
    done
    CLOCK_MINUTE[$clock]="$minute"
    CLOCK_OFFSET[$clock]=$((minute * 60 - r0))
    clock_write "$clock"
}

# clock_step CLOCK SECONDS: the running clock jumps by SECONDS.
clock_step() {
    CLOCK_OFFSET[$1]=$((CLOCK_OFFSET[$1] + $2))
    clock_write "$1"
}

# wait_real T: sleeps until T seconds after R0 (real time).
wait_real() {
    local target=$((R0 + $1))
    sleep "$(awk -v target="$target" -v now="$(date +%s.%N)" \
        'BEGIN { d = target - now; if (d < 0) d = 0; printf "%.3f\n", d }')"
}

# ---- reading and judging counters ----

ctl() {
    "$CTL" --service "$(service_of "$1")" "${@:2}"
}

# read_both SESSION NAME: the interval in progress and the completed one.
read_both() {
    local session="$1" name="$2" daemon="${SESSION_DAEMON[$1]}"
    check "$session: counters of the interval in progress read ($name)" \
        counters_json "$(service_of "$daemon")" "$session" "$WORK/$session.$name.json"
    check "$session: counters of the completed interval read ($name)" \
        counters_json "$(service_of "$daemon")" "$session" "$WORK/$session.$name.completed.json" \
        --completed
}

# range_ok SESSION NAME: every bin of both records is -2 or in range.
range_ok() {
    python3 "$RANGE_RULE" --rate "$RATE" --label "$1" \
        --counters "$WORK/$1.$2.json" --counters "$WORK/$1.$2.completed.json"
}

# measured SESSION NAME BINS: the bins of the interval in progress hold measured minutes.
measured() {
    python3 "$RANGE_RULE" --rate "$RATE" --label "$1" --counters "$WORK/$1.$2.json" \
        --measured-bins "$3"
}

# exact SESSION FILE TRUTH MINUTE...: the minutes as the replay of the truth gives them.
exact() {
    local session="$1" file="$2" truth="$3" minute arguments=()
    shift 3
    for minute in "$@"; do
        arguments+=(--minute "$minute")
    done
    python3 "$ORACLE" --truth "$truth" --counters "$file" --rate "$RATE" \
        --tolerance-us "$TOLERANCE_US" --label "$session" "${arguments[@]}" \
        --daemon-events "$WORK/events.txt" --start-offset "${SESSION_OFFSET[$session]}" \
        --declarations "$WORK/log_${SESSION_DAEMON[$session]}/TnNetworkLog.log" \
        --session-text "for dstIpAddress $PEER_ADDRESS, dstUdpPort ${SESSION_PORT[$session]},"
}

# check_exact WHAT exact ...: a check of exact minutes, run at the end, once
# the daemons' PACKET events (their own kernel times of each reply) are in.
EXACT_CHECKS=()
check_exact() {
    EXACT_CHECKS+=("$(printf '%q ' "$@")")
}

# all_na FILE BINS: the bins are -2 throughout.
all_na() {
    python3 "$RANGE_RULE" --counters "$1" --na-bins "$2" --label "$(basename "$1")"
}

# unaccounted DAEMON SESSION MINUTE: the LAB trace and the TnNetworkLog
# record that declare the minute -2 (reason printed).
trace_unaccounted() {
    local session="$1" minute="$2" port="${SESSION_PORT[$1]}"
    grep -F "com_quorin_tn_twamp:LAB:" "$WORK/events.txt" |
        grep -F "Minute $minute cannot be accounted (" |
        grep -qF "dstUdpPort $port so all counters of period $((minute % 15)) are reset to -2"
}
log_unaccounted() {
    local session="$1" minute="$2" port="${SESSION_PORT[$1]}" log
    log="$WORK/log_${SESSION_DAEMON[$1]}/TnNetworkLog.log"
    grep -F "TwampTestSession: minute $minute cannot be accounted (" "$log" |
        grep -qF "dstUdpPort $port so all counters of period $((minute % 15)) are reset to -2"
}
reason_of() {
    grep -F "TwampTestSession: minute $2 cannot be accounted (" \
        "$WORK/log_${SESSION_DAEMON[$1]}/TnNetworkLog.log" | head -1 |
        sed -n 's/.*cannot be accounted (\([^)]*\)).*/\1/p'
}
# (the LAB traces are checked once the trace is complete, at the end)
check_unaccounted() {
    local session="$1" minute="$2"
    check "$session: TnNetworkLog: minute $minute cannot be accounted" \
        log_unaccounted "$session" "$minute"
    echo "$session: minute $minute declared -2, reason: $(reason_of "$session" "$minute")"
}

# still_answers DAEMON: a create and a counters request succeed, the process runs.
still_answers() {
    local daemon="$1"
    check "$daemon: still running" kill -0 "${DAEMON_PID[$daemon]}"
    check "$daemon: create after the fault" ctl "$daemon" create --id after --dst "$PEER_ADDRESS" \
        --port "$SPARE_PORT" --rate 1 --size 64
    check "$daemon: counters after the fault" \
        counters_json "$(service_of "$daemon")" after "$WORK/$daemon.after.json"
}

# truth_after TRUTH MINUTE OUT: the truth from the first line of MINUTE on,
# with its start line: what was sent after a backward clock step.
truth_after() {
    awk -v pattern="\"senderMinute\":$2," 'NR == 1 || seen || index($0, pattern) { if (NR > 1) seen = 1; print }' \
        "$1" >"$3"
}

# ---- the lab ----

bash "$LAB_SH" up >/dev/null
e2e_environment "$WORK"
private_lttng_start "$WORK"
private_lttng_session faults "$WORK/trace" 'com_quorin_tn_twamp:LAB' \
    'com_quorin_tn_twamp:EXCEPTION' 'com_quorin_tn_twamp:ERROR' 'com_quorin_tn_twamp:INFO' \
    'com_quorin_tn_twamp:PACKET'

for entry in "${SESSIONS[@]}"; do
    read -r session _ port options <<<"$entry"
    # shellcheck disable=SC2086
    check "reflector $session starts" start_reflector "$WORK/$session.jsonl" "$port" $options
    REFLECTOR_PID[$session]="${LAB_REFLECTOR_PIDS##* }"
done
for clock in shared fwd back hour; do
    CLOCK_OFFSET[$clock]=0
    clock_write "$clock"
done
for entry in "${DAEMONS[@]}"; do
    read -r daemon port clock _ <<<"$entry"
    FAKE_CLOCK_FILE="$(clock_file "$clock")"
    check "daemon $daemon starts" start_daemon "$(service_of "$daemon")" "$SOURCE_ADDRESS" "$port" \
        "$WORK/log_$daemon"
    DAEMON_PID[$daemon]="${LAB_DAEMON_PIDS##* }"
done

# Room for creating the sessions on a busy host: the test itself runs niced.
R0=$(($(date +%s) + 20))
for clock in shared fwd back hour; do
    clock_place "$clock" "$R0"
done
M="${CLOCK_MINUTE[shared]}"
MF="${CLOCK_MINUTE[fwd]}"
MB="${CLOCK_MINUTE[back]}"
MH="${CLOCK_MINUTE[hour]}"
echo "first minute of sending at $(date -u -d "@$R0" +%T) real: shared $M (bin $((M % 15))), " \
    "fwd $MF, back $MB, hour $MH"

offset=1
for entry in "${SESSIONS[@]}"; do
    read -r session daemon port _ <<<"$entry"
    SESSION_OFFSET[$session]="$offset"
    check "session $session created" ctl "$daemon" create --id "$session" --dst "$PEER_ADDRESS" \
        --port "$port" --rate "$RATE" --dscp 46 --size 64 --offset "$offset"
    offset=$((offset + 1))
done
check "every session armed before its first minute" \
    awk -v now="$(date +%s.%N)" -v start="$R0" 'BEGIN { exit !(now < start - 0.5) }'

# ---- the faults, in real time from R0 ----

# probe_and_leave: a manager sends a counters request and exits at once (its
# mailbox goes, whether or not the reply came first): itc_probe exits 0 when
# no reply had come, 1 when one had, 2 when it could not send.
probe_and_leave() {
    local status=0
    "$ITC_PROBE" send "$(service_of manager)" 0x01A11404 0 >>"$WORK/probe.out" || status=$?
    [ "$status" -le 1 ]
}

wait_real 20
clock_step back -120
probes_sent=0
for index in $(seq 1 20); do
    if probe_and_leave; then
        probes_sent=$((probes_sent + 1))
    fi
done
check "manager: 20 managers send a counters request and exit at once ($probes_sent)" \
    [ "$probes_sent" -eq 20 ]
echo "manager: $(grep -c '^no reply' "$WORK/probe.out" || true) of 20 left before their reply came"
if [ "$STOP_FAULTS" = 1 ]; then
    # Held for the moment it takes, the daemon replies to a mailbox surely gone.
    kill -STOP "${DAEMON_PID[manager]}"
    check "manager: a manager sends while the daemon is stopped and exits" probe_and_leave
    kill -CONT "${DAEMON_PID[manager]}"
fi

wait_real 30
kill -KILL "${REFLECTOR_PID[restart]}"
clock_step fwd 120
clock_step hour 3600

wait_real 40
check "reflector restart starts again" start_reflector "$WORK/restart.after.jsonl" \
    "${SESSION_PORT[restart]}"

if [ "$STOP_FAULTS" = 1 ]; then
    wait_real 55
    kill -STOP "${DAEMON_PID[stall]}"
fi

# In the first 4 s of the interval M + 1 the completed interval (M's) is held;
# this manager gives up after a second and its mailbox is gone when the
# reply leaves.
wait_real 61
held_status=0
ctl manager --timeout 1 counters --id clean --completed >"$WORK/held.out" 2>&1 ||
    held_status=$?
check "manager: the held request gives up (twamp-ctl exit status 4, time-out)" [ "$held_status" -eq 4 ]

wait_real 66
check "manager: the completed interval answered at once once finalised" \
    counters_json "$(service_of manager)" clean "$WORK/clean.completed.json" --completed

wait_real 80
rm -f "$WORK/log_manager/TnNetworkLog.log"

if [ "$STOP_FAULTS" = 1 ]; then
    wait_real 125
    kill -CONT "${DAEMON_PID[stall]}"
fi

wait_real 127
# The step daemons: the minutes the steps spoilt, and the ones after.
for session in stepfwd stepback stephour restart clean; do
    read_both "$session" final
done
# Twenty managers at once, well before the next finalisation (4 s into the
# next minute): every one gets the same record, the one read before.
check "manager: counters read before the 20 managers" \
    counters_json "$(service_of manager)" clean "$WORK/many.before.json"
pids=()
for index in $(seq 1 20); do
    counters_json "$(service_of manager)" clean "$WORK/many.$index.json" &
    pids+=("$!")
done
many_failed=0
for pid in "${pids[@]}"; do
    wait "$pid" || many_failed=$((many_failed + 1))
done
check "20 managers at once: every request answered" [ "$many_failed" -eq 0 ]
same_as_before=0
for index in $(seq 1 20); do
    if [ -s "$WORK/many.before.json" ] && cmp -s "$WORK/many.before.json" "$WORK/many.$index.json"; then
        same_as_before=$((same_as_before + 1))
    fi
done
check "20 managers at once: 20 replies equal to the one read before ($same_as_before)" \
    [ "$same_as_before" -eq 20 ]

check "stepfwd: minutes $MF and $((MF + 1)) -2, the arming and running minutes -2" \
    all_na "$WORK/stepfwd.final.json" "$(((MF - 1) % 15))-$(((MF + 1) % 15)),$(((MF + 4) % 15))"
check "stepfwd: every bin -2 or in range" range_ok stepfwd final
check "stepfwd: the minutes after the fault measured" measured stepfwd final "$(((MF + 2) % 15))-$(((MF + 3) % 15))"
check_exact "stepfwd: minutes $((MF + 2)) (part) and $((MF + 3)) after the step exact" \
    exact stepfwd "$WORK/stepfwd.final.json" "$WORK/stepfwd.jsonl" $((MF + 2)) $((MF + 3))
check_unaccounted stepfwd "$MF"

truth_after "$WORK/stepback.jsonl" $((MB - 2)) "$WORK/stepback.after.jsonl"
check "stepback: minute $MB (running again) -2" all_na "$WORK/stepback.final.json" $((MB % 15))
check "stepback: every bin -2 or in range" range_ok stepback final
check "stepback: the minutes after the fault measured" measured stepback final "$(((MB - 2) % 15))-$(((MB - 1) % 15))"
check_exact "stepback: minutes $((MB - 2)) (part) and $((MB - 1)) after the step exact" \
    exact stepback "$WORK/stepback.final.json" "$WORK/stepback.after.jsonl" $((MB - 2)) $((MB - 1))
check_unaccounted stepback "$MB"

check "stephour: the skipped interval before the step: complete, all -2" \
    all_na "$WORK/stephour.final.completed.json" 0-14
check "stephour: every bin -2 or in range" range_ok stephour final
check "stephour: the minutes after the fault measured" measured stephour final "$(((MH + 60) % 15))-$(((MH + 61) % 15))"
check_exact "stephour: minutes $((MH + 60)) (part) and $((MH + 61)) after the step exact" \
    exact stephour "$WORK/stephour.final.json" "$WORK/stephour.jsonl" $((MH + 60)) $((MH + 61))
check_unaccounted stephour "$MH"

check "restart: every bin -2 or in range" range_ok restart final
check_exact "restart: minute $((M + 1)) after the restart exact" \
    exact restart "$WORK/restart.final.json" "$WORK/restart.after.jsonl" $((M + 1))

# The manager: the held reply and the probe's went nowhere; the operator
# log record of minute M + 1 (written 4 s into M + 2) after the file was removed.
check "manager: every bin -2 or in range" range_ok clean final
check_exact "clean: minute $M exact" \
    exact clean "$WORK/clean.final.completed.json" "$WORK/clean.jsonl" "$M"
check_exact "clean: minute $((M + 1)) exact" \
    exact clean "$WORK/clean.final.json" "$WORK/clean.jsonl" $((M + 1))
check "manager: the operator log file removed while running is written again" \
    [ -f "$WORK/log_manager/TnNetworkLog.log" ]
check "manager: the invalidated minute $((M + 1)) is in the operator log written again" \
    grep -qF "larger than 4s for period $(((M + 1) % 15)) so all counters are reset to -2" \
    "$WORK/log_manager/TnNetworkLog.log"

check_exact "20 managers at once: the record exact" \
    exact clean "$WORK/many.before.json" "$WORK/clean.jsonl" $((M + 1))
still_answers manager
still_answers stepfwd
still_answers stepback
still_answers stephour
still_answers restart

if [ "$STOP_FAULTS" = 1 ]; then
    wait_real 246
    read_both stall final
    check "stall: minute $M (last of its interval) -2, its record complete" \
        all_na "$WORK/stall.final.completed.json" 0-14
    check "stall: every bin -2 or in range" range_ok stall final
    check "stall: the minutes after the fault measured" measured stall final 1-2
    check_exact "stall: minute $((M + 3)) exact" \
        exact stall "$WORK/stall.final.json" "$WORK/stall.jsonl" $((M + 3))
    check_unaccounted stall "$M"
    still_answers stall
fi

wait_real 306
read_both unreach final
check "unreach: every bin -2 or in range" range_ok unreach final
check "unreach: the minutes after the fault measured" measured unreach final 0-3
check_exact "unreach: minute $((M + 4)) after the port opened again exact" \
    exact unreach "$WORK/unreach.final.json" "$WORK/unreach.jsonl" $((M + 4))
check "unreach: the reflector was closed and opened again" \
    bash -c "grep -q '\"event\":\"closed\"' '$WORK/unreach.jsonl' && grep -q '\"event\":\"reopened\"' '$WORK/unreach.jsonl'"
still_answers unreach

private_lttng_finish faults
private_lttng_read "$WORK/trace" "$WORK/events.txt"
for item in "${EXACT_CHECKS[@]}"; do
    eval "check $item"
done
# The trace checks of the declarations need the events: run them now.
declared=("stepfwd $MF" "stepback $MB" "stephour $MH")
if [ "$STOP_FAULTS" = 1 ]; then
    declared+=("stall $M")
fi
for pair in "${declared[@]}"; do
    read -r session minute <<<"$pair"
    check "$session: LAB trace: minute $minute cannot be accounted" \
        trace_unaccounted "$session" "$minute"
done
if [ "$STOP_FAULTS" = 1 ]; then
    # A counters reply that cannot be delivered is traced.
    check "manager: the undeliverable counters replies are traced" \
        grep -qE 'itc_send' "$WORK/events.txt"
fi

for entry in "${DAEMONS[@]}"; do
    read -r daemon _ <<<"$entry"
    check "daemon $daemon: standard error holds only the argc line" \
        cmp -s "$WORK/log_$daemon/stderr" <(printf 'argc= 6\n')
done
if [ "$E2E_FAILURES" -ne 0 ]; then
    KEEP_WORK=1
fi
e2e_finish
