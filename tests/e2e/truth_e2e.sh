#!/usr/bin/env bash
# The daemon's counters against the lab reflectors' ground truth.
#
# Two daemons in fib_lab, one per address family (a session resolves its
# reflector to an IPv4 or IPv6 address, and the shared socket has the family
# of its source address, so one socket cannot serve both), run sessions at 10
# packets per second, each towards its own reflector in twamp_peer with one
# profile of impairments. The daemons' clock is placed 6 s before a whole
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
SOURCE_PORT=8620
SERVICE4="truth4_$$"
SERVICE6="truth6_$$"
KEEP_WORK="${TWAMP_E2E_KEEP:-0}"

cleanup() {
    stop_lab_processes
    private_lttng_stop
    if [ "$KEEP_WORK" -eq 0 ]; then
        rm -rf "$WORK"
    else
        echo "work directory kept: $WORK"
    fi
}
trap cleanup EXIT

# name family port dscp reflector-options...
SESSIONS=(
    "clean4 4 18801 46 --reply-ttl 64"
    "fwdloss4 4 18802 46 --fwd-loss 5 --seed 11"
    "revloss4 4 18803 46 --rev-loss 5 --seed 12"
    "duplicate4 4 18804 46 --duplicate 5 --seed 13"
    "reorder4 4 18805 46 --reorder 5 --seed 14"
    "delay4 4 18806 46 --fwd-delay 3 --fwd-jitter 20 --rev-delay 1 --rev-jitter 10 --seed 15"
    "restart4 4 18807 46 --restart-after 200 --restart-gap 60"
    "skew4 4 18808 46 --skew 50"
    "clean6 6 18811 34 --reply-ttl 200"
    "loss6 6 18812 34 --fwd-loss 3 --rev-loss 3 --seed 21"
    "reorder6 6 18813 34 --reorder 5 --duplicate 5 --seed 22"
    "delay6 6 18814 34 --fwd-delay 2 --fwd-jitter 10 --rev-delay 2 --rev-jitter 10 --seed 23"
)
# What each profile's minute must turn out as, beyond the counters.
declare -A SCENARIO=([restart4]=restart [skew4]=invalidated)

e2e_environment "$WORK"
private_lttng_start "$WORK"

for entry in "${SESSIONS[@]}"; do
    read -r name family port dscp options <<<"$entry"
    # shellcheck disable=SC2086
    check "reflector $name starts" start_reflector "$WORK/$name.jsonl" "$port" $options
done

fake_clock_init "$WORK/faketime"
check "IPv4 daemon starts" start_daemon "$SERVICE4" 198.18.0.1 "$SOURCE_PORT" "$WORK/log4"
check "IPv6 daemon starts" start_daemon "$SERVICE6" 2001:db8:18::1 "$SOURCE_PORT" "$WORK/log6"
fake_clock_start 6 5
MINUTE="$FAKE_MINUTE"
BIN=$((MINUTE % 15))
echo "daemons' clock: 6 s before minute $MINUTE (bin $BIN)"

offset=1
for entry in "${SESSIONS[@]}"; do
    read -r name family port dscp _ <<<"$entry"
    if [ "$family" = 4 ]; then
        service="$SERVICE4" destination=198.18.0.2
    else
        service="$SERVICE6" destination=2001:db8:18::2
    fi
    check "session $name created" "$CTL" --service "$service" create --id "$name" \
        --dst "$destination" --port "$port" --rate "$RATE" --dscp "$dscp" --size 64 --offset "$offset"
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
    read -r name family _ <<<"$entry"
    service="$SERVICE4"
    if [ "$family" = 6 ]; then
        service="$SERVICE6"
    fi
    check "$name: counters read" counters_json "$service" "$name" "$WORK/$name.counters.json"
done
check "every session's counters read while minute $((MINUTE + 1)) runs" \
    awk -v now="$(fake_now)" -v end=$(((MINUTE + 2) * 60)) 'BEGIN { exit !(now < end) }'

other_bins="$(seq 0 14 | grep -vx "$BIN" | paste -sd, -)"
for entry in "${SESSIONS[@]}"; do
    read -r name family port _ <<<"$entry"
    if [ "$family" = 4 ]; then
        logdir="$WORK/log4" source=198.18.0.1 destination=198.18.0.2
    else
        logdir="$WORK/log6" source=2001:db8:18::1 destination=2001:db8:18::2
    fi
    check "$name: counters of minute $MINUTE match the ground truth" \
        python3 "$ORACLE" --truth "$WORK/$name.jsonl" --counters "$WORK/$name.counters.json" \
        --rate "$RATE" --minute "$MINUTE" --tolerance-us "$TOLERANCE_US" --label "$name" \
        --expect-sent $((RATE * 60)) --expect "${SCENARIO[$name]:-valid}" --na-bins "$other_bins" \
        --network-log "$logdir/TnNetworkLog.log" \
        --session-text "for dstIpAddress $destination, dstUdpPort $port, srcIpAddress $source and srcUdpPort $SOURCE_PORT."
done

check "IPv4 daemon: standard error holds only the argc line" \
    cmp -s "$WORK/log4/stderr" <(printf 'argc= 6\n')
check "IPv6 daemon: standard error holds only the argc line" \
    cmp -s "$WORK/log6/stderr" <(printf 'argc= 6\n')

if [ "$E2E_FAILURES" -ne 0 ]; then
    KEEP_WORK=1
fi
e2e_finish
