#!/usr/bin/env bash
# Deleting a session stops its traffic and frees its reflector address.
#
# Session A sends towards a reflector for a few seconds and is deleted: after
# a short grace the reflector's ground truth gets no further request, and the
# daemon no longer knows the session. Session B is then created towards the
# same reflector address and port: its packets reach the reflector, and its
# replies reach B (the socket routes replies by the reflector's address, so a
# registration left behind by A would keep them from B): B's finalised minute
# matches the replay of the ground truth, every packet answered.
#
# The daemon's clock is faked and moved forward, so that B's first minute and
# its finalisation come within seconds.
#
# usage: delete_e2e.sh LAB_SH DAEMON TWAMP_CTL REFLECTOR [TOLERANCE_US]
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
WORK="$(mktemp -d /tmp/delete_e2e.XXXXXX)"
RATE=10
SERVICE="delete_$$"
REFLECTOR_PORT=18831
KEEP_WORK="${TWAMP_E2E_KEEP:-0}"

cleanup() {
    stop_lab_processes
    private_lttng_stop
    discard_work "$WORK"
}
trap cleanup EXIT

e2e_environment "$WORK"
private_lttng_start "$WORK"
# The daemon's PACKET events: its own kernel times of each reply, for the oracle.
private_lttng_session delete "$WORK/trace" com_quorin_tn_twamp:PACKET
TRUTH="$WORK/truth.jsonl"
check "reflector starts" start_reflector "$TRUTH" "$REFLECTOR_PORT"

fake_clock_init "$WORK/faketime"
check "daemon starts" start_daemon "$SERVICE" 198.18.0.1 8620 "$WORK/log"
fake_clock_start 4 7
X="$FAKE_MINUTE"
create_session() {
    "$CTL" --service "$SERVICE" create --id "$1" --dst 198.18.0.2 --port "$REFLECTOR_PORT" \
        --rate "$RATE" --dscp 46
}
check "session A created" create_session session-a

wait_fake_until $((X * 60 + 3))
check "session A's packets reach the reflector" [ "$(request_lines "$TRUTH")" -gt 0 ]
check "session A deleted" "$CTL" --service "$SERVICE" delete --id session-a
# A packet may still be on its way; after the grace nothing more may come.
sleep 0.5
before="$(request_lines "$TRUTH")"
sleep 2
after="$(request_lines "$TRUTH")"
check "no request reaches the reflector after the delete ($before, then $after)" \
    [ "$before" -eq "$after" ]
check "the deleted session is unknown: counters read" \
    counters_json "$SERVICE" session-a "$WORK/deleted.json"
check "the deleted session is unknown: all -2" \
    python3 "$ORACLE" --counters "$WORK/deleted.json" --na-bins 0-14 --label session-a

# B is armed for the next whole minute: let that come soon.
fake_clock_jump $((X * 60 + 57))
check "session B created towards the same address and port" create_session session-b
wait_fake_until $(((X + 1) * 60 + 3))
requests_of_b() {
    grep -c "\"senderMinute\":$((X + 1))," "$TRUTH" || true
}
check "session B's packets reach the reflector" [ "$(requests_of_b)" -gt 0 ]
check "session B starts at sequence number 0" \
    grep -q "\"event\":\"reply\",\"senderSeq\":0,\"senderMinute\":$((X + 1))," "$TRUTH"
fake_clock_jump $(((X + 1) * 60 + 57))
# Minute X + 1 is finalised 4 s into X + 2.
wait_fake_until $(((X + 2) * 60 + 6))
check "session B: counters read" counters_json "$SERVICE" session-b "$WORK/session-b.json"
private_lttng_finish delete
private_lttng_read "$WORK/trace" "$WORK/events.txt"
check "session B: its minute matches the ground truth, every packet answered" \
    python3 "$ORACLE" --truth "$TRUTH" --counters "$WORK/session-b.json" --rate "$RATE" \
    --tolerance-us "$TOLERANCE_US" --label session-b --minute $((X + 1)) --expect valid \
    --na-bins "$(seq 0 14 | grep -vx $(((X + 1) % 15)) | paste -sd, -)" \
    --daemon-events "$WORK/events.txt" --start-offset 0 \
    --declarations "$WORK/log/TnNetworkLog.log" \
    --session-text "for dstIpAddress 198.18.0.2, dstUdpPort $REFLECTOR_PORT,"
answered_all() {
    python3 -c 'import json, sys
c = json.load(open(sys.argv[1]))["counters"]
b = int(sys.argv[2])
sys.exit(0 if c["sentPkts"][b] > 0 and c["receivedPkts"][b] == c["sentPkts"][b] else 1)' \
        "$WORK/session-b.json" $(((X + 1) % 15))
}
check "session B: every packet it sent came back to it" answered_all

if [ "$E2E_FAILURES" -ne 0 ]; then
    KEEP_WORK=1
fi
e2e_finish
