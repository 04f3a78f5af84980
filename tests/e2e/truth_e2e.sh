#!/usr/bin/env bash
# The daemon's counters against the lab reflectors' ground truth.
#
# Daemons in fib_lab, at least one per address family (a session resolves its
# reflector to an IPv4 or IPv6 address, and the shared socket has the family
# of its source address, so one socket cannot serve both), run sessions at 10
# packets per second, each towards its own reflector in twamp_peer with one
# profile of impairments. The profiles whose counts depend on the order in
# which replies arrive (duplicates, reordering) each have a daemon of their
# own: a daemon reads one transmit timestamp and one reply per turn of its
# loop, so after it was held up (on a busy host a real-time process still
# waits milliseconds now and then) a reply can be read before the timestamp
# of its own packet when other sessions' packets whose replies were lost or
# held come first, and the daemon then analyses in send order what arrived
# in another. Alone with one reflector that answers in order, each of its
# replies is preceded by at least as many replies as its timestamp by
# timestamps, bar one held for reordering. The daemons' clock is placed 20 s before a whole
# minute M: the sessions are armed in the minute before and send from M on.
# After M is finalised (4 s into M + 1), every session's counters are read,
# and those of M checked against the replay of the daemon's minute
# accounting on the ground truth (lib/truth_oracle.py): counts exactly,
# delays within the tolerance of the veth's own time (the truth holds the
# reflector's real times).
# The skewed reflector's minute is invalidated: all -2 and its two operator
# log records.
#
# usage: truth_e2e.sh LAB_SH DAEMON TWAMP_CTL REFLECTOR [TOLERANCE_US]
#        (exit 77: skipped, not root)
#        TWAMP_E2E_TRACE=1 records the daemons' trace events in the work
#        directory (kept on failure, read with babeltrace2), to see how they
#        handled each packet, and prints the spread of the delays that the
#        truth cannot know as the daemons measured them (lib/truth_spread.py).
set -euo pipefail
HERE="$(dirname "$(readlink -f "$0")")"
source "$HERE/lib/e2e_common.sh"
source "$HERE/lib/private_lttng.sh"
source "$HERE/lib/lab_daemon.sh"
lab_enter "$1" "$@"
private_lttng_enter "$@"

DAEMON="$2"
CTL="$3"
REFLECTOR="$4"
TOLERANCE_US="${5:-500}"
ORACLE="$HERE/lib/truth_oracle.py"
WORK="$(mktemp -d /tmp/truth_e2e.XXXXXX)"
RATE=10
KEEP_WORK="${TWAMP_E2E_KEEP:-0}"
LEAD_SECONDS=20

cleanup() {
    stop_lab_processes
    private_lttng_stop
    discard_work "$WORK"
}
trap cleanup EXIT

# daemon source-address source-port
DAEMONS=(
    "main4 198.18.0.1 8620"
    "duplicate4 198.18.0.1 8621"
    "reorder4 198.18.0.1 8622"
    "main6 2001:db8:18::1 8620"
    "reorder6 2001:db8:18::1 8621"
)
# name daemon port dscp reflector-options...
SESSIONS=(
    "clean4 main4 18801 46 --reply-ttl 64"
    "fwdloss4 main4 18802 46 --fwd-loss 5 --seed 11"
    "revloss4 main4 18803 46 --rev-loss 5 --seed 12"
    "duplicate4 duplicate4 18804 46 --duplicate 5 --seed 13"
    "reorder4 reorder4 18805 46 --reorder 5 --seed 14"
    "delay4 main4 18806 46 --fwd-delay 3 --fwd-jitter 20 --rev-delay 1 --rev-jitter 10 --seed 15"
    "restart4 main4 18807 46 --restart-after 200 --restart-gap 60"
    "skew4 main4 18808 46 --skew 50"
    "clean6 main6 18811 34 --reply-ttl 200"
    "loss6 main6 18812 34 --fwd-loss 3 --rev-loss 3 --seed 21"
    "reorder6 reorder6 18813 34 --reorder 5 --duplicate 5 --seed 22"
    "delay6 main6 18814 34 --fwd-delay 2 --fwd-jitter 10 --rev-delay 2 --rev-jitter 10 --seed 23"
)
declare -A SOURCE_ADDRESS SOURCE_PORT
for entry in "${DAEMONS[@]}"; do
    read -r daemon address port <<<"$entry"
    SOURCE_ADDRESS[$daemon]="$address"
    SOURCE_PORT[$daemon]="$port"
done
service_of() {
    echo "truth_$1_$$"
}
# The reflectors' address in the family of a daemon's source address.
destination_of() {
    case "${SOURCE_ADDRESS[$1]}" in
        *:*) echo 2001:db8:18::2 ;;
        *) echo 198.18.0.2 ;;
    esac
}
# What each profile's minute must turn out as, beyond the counters.
declare -A SCENARIO=([restart4]=restart [skew4]=invalidated)

e2e_environment "$WORK"
private_lttng_start "$WORK"
# The daemons' PACKET events give their own kernel times of each reply: the
# oracle checks a reply whose veth time exceeded the tolerance with them.
if [ "${TWAMP_E2E_TRACE:-0}" = 1 ]; then
    private_lttng_session truth "$WORK/trace" 'com_quorin_tn_twamp:*'
else
    private_lttng_session truth "$WORK/trace" com_quorin_tn_twamp:PACKET
fi

for entry in "${SESSIONS[@]}"; do
    read -r name family port dscp options <<<"$entry"
    # shellcheck disable=SC2086
    check "reflector $name starts" start_reflector "$WORK/$name.jsonl" "$port" $options
done

# A dozen creates by twamp-ctl take seconds on a host whose CPUs are busy
# (each is a process of its own, at the test's share of the CPUs): all must
# be done before the minute starts.
start_daemons_before_minute "$LEAD_SECONDS" 5

offset=1
for entry in "${SESSIONS[@]}"; do
    read -r name daemon port dscp _ <<<"$entry"
    check "session $name created" "$CTL" --service "$(service_of "$daemon")" create --id "$name" \
        --dst "$(destination_of "$daemon")" --port "$port" --rate "$RATE" --dscp "$dscp" \
        --size 64 --offset "$offset"
    offset=$((offset + 1))
done
check "every session armed before minute $MINUTE starts" \
    awk -v now="$(fake_now)" -v start=$((MINUTE * 60)) 'BEGIN { exit !(now < start - 0.5) }'

# Minute M is finalised by the first packet 4 s into M + 1.
wait_fake_until $(((MINUTE + 1) * 60 + 6))

# Every session's counters are read first, while M + 1 is still the running
# minute (reported as -2); the replays come after, however long they take on
# a busy host.
for entry in "${SESSIONS[@]}"; do
    read -r name daemon _ <<<"$entry"
    check "$name: counters read" counters_json "$(service_of "$daemon")" "$name" \
        "$WORK/$name.counters.json"
done
check "every session's counters read while minute $((MINUTE + 1)) runs" \
    awk -v now="$(fake_now)" -v end=$(((MINUTE + 2) * 60)) 'BEGIN { exit !(now < end) }'

private_lttng_finish truth
private_lttng_read "$WORK/trace" "$WORK/events.txt"

# One replay per session, all in one interpreter: on a host whose CPUs are
# busy a dozen interpreters started one after the other took minutes.
other_bins="$(seq 0 14 | grep -vx "$BIN" | paste -sd, -)"
batch="$WORK/oracle.batch"
: >"$batch"
offset=0
for entry in "${SESSIONS[@]}"; do
    read -r name daemon port _ <<<"$entry"
    offset=$((offset + 1))
    session_text="for dstIpAddress $(destination_of "$daemon"), dstUdpPort $port,"
    session_text+=" srcIpAddress ${SOURCE_ADDRESS[$daemon]} and srcUdpPort ${SOURCE_PORT[$daemon]}."
    printf '%q ' --truth "$WORK/$name.jsonl" --counters "$WORK/$name.counters.json" \
        --rate "$RATE" --minute "$MINUTE" --tolerance-us "$TOLERANCE_US" --label "$name" \
        --expect-sent $((RATE * 60)) --expect "${SCENARIO[$name]:-valid}" --na-bins "$other_bins" \
        --network-log "$WORK/log_$daemon/TnNetworkLog.log" --session-text "$session_text" \
        --daemon-events "$WORK/events.txt" --start-offset "$offset" >>"$batch"
    echo >>"$batch"
done
check "every session's counters of minute $MINUTE match the ground truth (one line each above)" \
    python3 "$ORACLE" --batch "$batch"

for entry in "${DAEMONS[@]}"; do
    read -r daemon _ <<<"$entry"
    check "daemon $daemon: standard error holds only the argc line" \
        cmp -s "$WORK/log_$daemon/stderr" <(printf 'argc= 6\n')
done

if [ "${TWAMP_E2E_TRACE:-0}" = 1 ]; then
    spread_sessions=()
    offset=1
    for entry in "${SESSIONS[@]}"; do
        read -r name _ <<<"$entry"
        spread_sessions+=(--session "$offset:$WORK/$name.jsonl")
        offset=$((offset + 1))
    done
    python3 "$HERE/lib/truth_spread.py" --events "$WORK/events.txt" "${spread_sessions[@]}" || true
fi
if [ "$E2E_FAILURES" -ne 0 ]; then
    KEEP_WORK=1
fi
e2e_finish
