#!/usr/bin/env bash
# The 15-minute interval records across a boundary, on a faked clock that is
# moved forward while the daemon runs, instead of waiting 15 minutes.
#
# One session sends from minute N (bin 0, the start of an interval) towards a
# clean reflector. The clock is moved on within minute N, lets N be finalised
# 4 s into N + 1, then jumps to the end of N + 13 and on to the end of N + 14.
# At the start of N + 15 the clock is stopped 2 s into the minute: a request
# for the completed interval must be held (the record is finalised only 4 s
# into the minute), and a request for the interval in progress in minute 0
# returns the previous record whole. Once the clock runs again the held
# request is answered with the record whose last bin is finalised.
#
# Expected record: bins 0, 13 and 14 as the replay of the ground truth gives
# them; bin 1 was measured for some seconds before the jump, which skipped
# its finalisation: it cannot be accounted and reads -2 throughout; bins 2
# to 12 saw no packet and stay -2.
#
# usage: interval_e2e.sh LAB_SH DAEMON TWAMP_CTL REFLECTOR [TOLERANCE_US]
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
WORK="$(mktemp -d /tmp/interval_e2e.XXXXXX)"
RATE=10
SERVICE="interval_$$"
REFLECTOR_PORT=18821
HELD_PID=""
KEEP_WORK="${TWAMP_E2E_KEEP:-0}"

cleanup() {
    if [ -n "$HELD_PID" ]; then
        kill -TERM "$HELD_PID" 2>/dev/null || true
        wait "$HELD_PID" 2>/dev/null || true
    fi
    stop_lab_processes
    private_lttng_stop
    discard_work "$WORK"
}
trap cleanup EXIT

e2e_environment "$WORK"
private_lttng_start "$WORK"
# The daemon's PACKET events: its own kernel times of each reply, for the oracle.
private_lttng_session interval "$WORK/trace" com_quorin_tn_twamp:PACKET
TRUTH="$WORK/truth.jsonl"
check "reflector starts" start_reflector "$TRUTH" "$REFLECTOR_PORT" --reply-ttl 100

fake_clock_init "$WORK/faketime"
check "daemon starts" start_daemon "$SERVICE" 198.18.0.1 8620 "$WORK/log"
fake_clock_start 4 0
N="$FAKE_MINUTE"
echo "daemon's clock: 4 s before minute $N, the start of an interval"
check "session created" "$CTL" --service "$SERVICE" create --id boundary --dst 198.18.0.2 \
    --port "$REFLECTOR_PORT" --rate "$RATE" --dscp 10 --size 100
check "session armed before minute $N starts" \
    awk -v now="$(fake_now)" -v start=$((N * 60)) 'BEGIN { exit !(now < start - 0.5) }'

# No interval has been completed yet: both records are complete from the
# start, so the request is answered at once, with nothing measured.
check "completed interval before any sending: answered at once" \
    counters_json "$SERVICE" boundary "$WORK/before.json" --completed
check "completed interval before any sending: all -2" \
    python3 "$ORACLE" --counters "$WORK/before.json" --na-bins 0-14 --label before

wait_fake_until $((N * 60 + 3))
fake_clock_jump $((N * 60 + 57))
# Minute N is finalised 4 s into N + 1.
wait_fake_until $(((N + 1) * 60 + 6))
fake_clock_jump $(((N + 13) * 60 + 57))
wait_fake_until $(((N + 14) * 60 + 6))
fake_clock_jump $(((N + 14) * 60 + 56))
wait_fake_until $(((N + 15) * 60 + 1))
# The clock stands 2 s into minute N + 15: the record of the interval that
# just ended cannot be finalised until it runs again.
fake_clock_freeze $(((N + 15) * 60 + 2))
sleep 0.5
# Every minute the records below check has been sent and answered.
private_lttng_finish interval
private_lttng_read "$WORK/trace" "$WORK/events.txt"

"$CTL" --service "$SERVICE" --timeout 60 counters --id boundary --completed --wait --json \
    >"$WORK/held.json" 2>"$WORK/held.err" &
HELD_PID=$!
check "interval in progress in minute 0: answered while the clock stands" \
    counters_json "$SERVICE" boundary "$WORK/minute0.json"
expected_record() {
    local file="$1" last="$2"
    python3 "$ORACLE" --truth "$TRUTH" --counters "$file" --rate "$RATE" \
        --tolerance-us "$TOLERANCE_US" --label "$(basename "$file" .json)" \
        --minute "$N" --minute "$((N + 1)):void" --minute "$((N + 13))" --minute "$((N + 14))$last" \
        --na-bins 2-12 --daemon-events "$WORK/events.txt" --start-offset 0 \
        --declarations "$WORK/log/TnNetworkLog.log" \
        --session-text "for dstIpAddress 198.18.0.2, dstUdpPort $REFLECTOR_PORT,"
}
check "interval in progress in minute 0: the previous record whole, its last minute not yet finalised" \
    expected_record "$WORK/minute0.json" :open
sleep 1.5
# twamp-ctl prints the record when the reply comes: nothing yet.
check "completed interval requested 2 s into the minute: held" [ ! -s "$WORK/held.json" ]

fake_clock_jump $(((N + 15) * 60 + 3))
check "held request answered once the clock runs on" wait_for 15 grep -q '"counters"' "$WORK/held.json"
held_status=0
wait "$HELD_PID" || held_status=$?
HELD_PID=""
check "held request: twamp-ctl exits 0" [ "$held_status" -eq 0 ]
check "held reply: the completed interval" grep -q '"completedIntervalOnly": true' "$WORK/held.json"
check "held reply: bins 0, 13 and 14 finalised, bin 1 open, bins 2 to 12 -2" \
    expected_record "$WORK/held.json" ""

wait_fake_until $(((N + 15) * 60 + 5))
check "interval in progress in minute 0, after the finalisation" \
    counters_json "$SERVICE" boundary "$WORK/after.json"
same_counters() {
    python3 -c 'import json, sys
a, b = (json.load(open(name))["counters"] for name in sys.argv[1:3])
sys.exit(0 if a == b else 1)' "$1" "$2"
}
check "interval in progress in minute 0 returns the previous record whole: the held reply" \
    same_counters "$WORK/after.json" "$WORK/held.json"

if [ "$E2E_FAILURES" -ne 0 ]; then
    KEEP_WORK=1
    cat "$WORK/held.err" 2>/dev/null || true
fi
e2e_finish
