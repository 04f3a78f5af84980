#!/usr/bin/env bash
# Two daemons started with one service name, on loopback with the real ITC
# stand-in: the second cannot create its mailbox (the name is held by a live
# daemon), traces it at ERROR, asks for its restart and ends (the restart
# stand-in ends the process with QRN_NG_EXIT_STATUS); the first keeps
# answering. Traces are recorded by a private LTTng session daemon in a
# private mount namespace. Needs root; skipped (77) without it.
#
# usage: mailbox_clash_test.sh DAEMON TWAMP_CTL
set -euo pipefail
if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: needs root (private mount namespace, the initial network namespace's handle)"
    exit 77
fi
HERE="$(dirname "$(readlink -f "$0")")"
source "$HERE/../e2e/lib/private_lttng.sh"
source "$HERE/../e2e/lib/e2e_common.sh"
private_lttng_enter "$@"

DAEMON="$1"
CTL="$2"
WORK="$(mktemp -d /tmp/mailbox_clash.XXXXXX)"
SERVICE="clash_svc_$$"
# Ports of their own per run: 31000 to 38999.
FIRST_PORT=$((31000 + ($$ % 4000) * 2))
SECOND_PORT=$((FIRST_PORT + 1))
# An exit status of its own, so that the exit is known to come from the restart request.
RESTART_EXIT=73
FIRST_PID=""
SECOND_PID=""

cleanup() {
    for pid in $FIRST_PID $SECOND_PID; do
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    private_lttng_stop
    rm -rf "$WORK"
}
trap cleanup EXIT

e2e_environment "$WORK"
# The daemon's handle of the initial network namespace, as the lab makes it.
[ -e /tmp/proc_1_ns_net ] || ln -s /proc/1/ns/net /tmp/proc_1_ns_net

private_lttng_start "$WORK"
private_lttng_session clash "$WORK/trace" 'com_quorin_tn_twamp:ERROR'

"$DAEMON" "$SERVICE" 127.0.0.1 "$FIRST_PORT" default 0 2>/dev/null &
FIRST_PID=$!
check "the first daemon opens its mailbox" \
    wait_for 20 "$CTL" --service "$SERVICE" counters --id ready

set +e
QRN_NG_EXIT_STATUS=$RESTART_EXIT timeout 30 "$DAEMON" "$SERVICE" 127.0.0.1 "$SECOND_PORT" default 0 \
    2>/dev/null &
SECOND_PID=$!
wait "$SECOND_PID"
second_status=$?
set -e
SECOND_PID=""
check "the second daemon ends through its restart request (status $second_status)" \
    [ "$second_status" -eq "$RESTART_EXIT" ]
check "the restart request names the mailbox and the reason" \
    grep -qF "message=\"Unable to open mailbox '$SERVICE': File exists.\"" "$QRN_NG_RESTART_LOG"
check "exactly one restart request" [ "$(wc -l <"$QRN_NG_RESTART_LOG")" -eq 1 ]
check "the first daemon is still running" kill -0 "$FIRST_PID"
first_answers() {
    "$CTL" --service "$SERVICE" --timeout 2 counters --id after --csv >/dev/null
}
check "the first daemon still answers through the name entry" first_answers

kill -TERM "$FIRST_PID"
wait "$FIRST_PID" 2>/dev/null || true
FIRST_PID=""

private_lttng_finish clash
babeltrace2 "$WORK/trace" >"$WORK/events.txt"
check "trace: the failing mailbox creation at ERROR" \
    grep -qF "init(): Failed itc_create_mailbox $SERVICE: errno 17 - File exists" "$WORK/events.txt"
# babeltrace2 shows the quotes of the message escaped (\').
clash_traced() {
    grep -F 'com_quorin_tn_twamp:ERROR:' "$WORK/events.txt" |
        grep -qE "main\(\): Unable to open mailbox [\\]?'${SERVICE}[\\]?': File exists\."
}
check "trace: the fatal start-up failure at ERROR, from main" clash_traced

e2e_finish
