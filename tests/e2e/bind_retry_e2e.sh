#!/usr/bin/env bash
# End-to-end test of the bind rounds: with its port taken, the daemon's
# start-up blocks for 30 one-second rounds (no mailbox meanwhile), then
# retries every 10 seconds, and binds once the port is free. Takes about a
# minute.
#
# usage: bind_retry_e2e.sh DAEMON TWAMP_CTL UDP_PORT_HOLDER
set -euo pipefail
HERE="$(dirname "$(readlink -f "$0")")"
source "$HERE/lib/private_lttng.sh"
source "$HERE/lib/e2e_common.sh"
source "$HERE/lib/lab_daemon.sh"
private_lttng_enter "$@"

DAEMON="$1"
CTL="$2"
HOLDER="$3"
WORK="$(mktemp -d /tmp/bind_retry_e2e.XXXXXX)"
NS="fib_bind_$$"
SERVICE="bind_svc_$$"
PORT=18621
HOLDER_PID=""

cleanup() {
    if [ -n "$HOLDER_PID" ]; then
        kill -KILL "$HOLDER_PID" 2>/dev/null || true
        wait "$HOLDER_PID" 2>/dev/null || true
    fi
    scratch_lab_stop "$WORK"
}
trap cleanup EXIT

scratch_lab_start "$WORK" "$NS" bind

ip netns exec "$NS" "$HOLDER" 127.0.0.1 "$PORT" 120 >"$WORK/holder.txt" &
HOLDER_PID=$!
wait_for 10 grep -q bound "$WORK/holder.txt"

started=$(date +%s)
launch_daemon "$SERVICE" 127.0.0.1 "$PORT" "$NS" /dev/null
DAEMON_PID="$LAB_DAEMON_PID"

mailbox_ready() {
    "$CTL" --service "$SERVICE" --timeout 1 counters --id probe >/dev/null
}
sleep 20
check "no mailbox while the bind rounds block the start-up" bash -c "! ls '$ITC_RUNDIR' 2>/dev/null | grep -q '$SERVICE'"
check "mailbox after the 30 rounds" wait_for 20 mailbox_ready
ready=$(date +%s)
check "the rounds took about 30 seconds" [ $((ready - started)) -ge 29 ]

# Keep the port through the first retry (10 s after the rounds, plus the
# one-second sleep of its failed round), then free it.
sleep 13
kill "$HOLDER_PID"
wait "$HOLDER_PID" 2>/dev/null || true
HOLDER_PID=""
bound_by_daemon() {
    ip netns exec "$NS" ss -Huanp "sport = :$PORT" | grep -q "pid=$DAEMON_PID,"
}
check "the daemon binds within a retry period once the port is free" wait_for 15 bound_by_daemon
check "the daemon still answers" mailbox_ready

stop_daemon "$DAEMON_PID"
private_lttng_finish bind
babeltrace2 "$WORK/trace" >"$WORK/events.txt"
check "trace: the 30 failed rounds at INFO" \
    bash -c "grep -F 'com_quorin_tn_twamp:INFO:' '$WORK/events.txt' | grep -qF 'Failed IP 127.0.0.1 port $PORT socket bind: errno 98 - Address already in use\"'"
check "trace: a failed retry at LAB" \
    bash -c "grep -F 'com_quorin_tn_twamp:LAB:' '$WORK/events.txt' | grep -qF 'Failed IP 127.0.0.1 port $PORT socket bind: errno 98'"
check "trace: the retry succeeds after 0 seconds" \
    grep -qF "Succeeded IP 127.0.0.1 port $PORT socket bind after 0 seconds\"" "$WORK/events.txt"

e2e_finish
