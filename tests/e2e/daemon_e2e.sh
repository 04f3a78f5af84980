#!/usr/bin/env bash
# End-to-end test of the daemon's start-up and control path with the real
# binaries: namespace join, socket bound inside the namespace, the mailbox,
# counters of an unknown session, an unknown signal, twamp-ctl's failures,
# the traces, and the restart request for a missing namespace.
#
# usage: daemon_e2e.sh DAEMON TWAMP_CTL ITC_PROBE
set -euo pipefail
HERE="$(dirname "$(readlink -f "$0")")"
source "$HERE/lib/private_lttng.sh"
source "$HERE/lib/e2e_common.sh"
source "$HERE/lib/lab_daemon.sh"
private_lttng_enter "$@"

DAEMON="$1"
CTL="$2"
PROBE="$3"
WORK="$(mktemp -d /tmp/daemon_e2e.XXXXXX)"
NS="fib_e2e_$$"
SERVICE="e2e_svc_$$"
PORT=18620

cleanup() {
    scratch_lab_stop "$WORK"
}
trap cleanup EXIT

scratch_lab_start "$WORK" "$NS" e2e

launch_daemon "$SERVICE" 127.0.0.1 "$PORT" "$NS" "$WORK/stderr"
DAEMON_PID="$LAB_DAEMON_PID"
check "mailbox appears" wait_for 20 "$CTL" --service "$SERVICE" counters --id ready

never_created() {
    "$CTL" --service "$SERVICE" counters --id never-created "$@"
}

check "standard error holds exactly the argc line" \
    cmp -s "$WORK/stderr" <(printf 'argc= 6\n')
check "socket bound inside the namespace, by the daemon" \
    bash -c "ip netns exec '$NS' ss -Huanp 'sport = :$PORT' | grep -q 'pid=$DAEMON_PID,'"
check "socket not bound in the initial namespace" \
    bash -c "[ -z \"\$(ss -Huan 'sport = :$PORT')\" ]"

never_created >"$WORK/table.txt"
check "table of an unknown session shows 570 values as n/a" \
    [ "$(grep -o 'n/a' "$WORK/table.txt" | wc -l)" -eq 570 ]
never_created --json >"$WORK/counters.json"
check "JSON of an unknown session holds -2 for each of 570 values" \
    [ "$(grep -o -- '-2' "$WORK/counters.json" | wc -l)" -eq 570 ]
check "JSON names all 38 counters" \
    [ "$(grep -o '": \[' "$WORK/counters.json" | wc -l)" -eq 38 ]
check "JSON carries the session id" \
    grep -q '"sessionId": "6e657665722d63726561746564000000"' "$WORK/counters.json"

"$PROBE" send "$SERVICE" 0x01A11499 2000 >"$WORK/probe.txt" || true
check "an unknown signal gets no reply" grep -qx "no reply" "$WORK/probe.txt"
check "the daemon still answers afterwards" never_created --csv

set +e
"$CTL" --service "no_such_$$" counters --id x 2>"$WORK/ctl_err.txt"
status=$?
set -e
check "twamp-ctl: missing mailbox exits 3 with a message" \
    bash -c "[ $status -eq 3 ] && grep -q \"no mailbox named 'no_such_$$'\" '$WORK/ctl_err.txt'"
set +e
"$CTL" --service "$SERVICE" counters 2>"$WORK/ctl_err.txt"
status=$?
set -e
check "twamp-ctl: malformed arguments exit 2 with a message" \
    bash -c "[ $status -eq 2 ] && grep -q 'id is required' '$WORK/ctl_err.txt'"
"$PROBE" hold "silent_$$" 30 >"$WORK/hold.txt" &
HOLD_PID=$!
wait_for 10 grep -q holding "$WORK/hold.txt"
set +e
"$CTL" --service "silent_$$" --timeout 1 counters --id x 2>"$WORK/ctl_err.txt"
status=$?
set -e
kill "$HOLD_PID" 2>/dev/null || true
wait "$HOLD_PID" 2>/dev/null || true
check "twamp-ctl: no reply in time exits 4 with a message" \
    bash -c "[ $status -eq 4 ] && grep -q 'no counters reply' '$WORK/ctl_err.txt'"

stop_daemon "$DAEMON_PID"

# A namespace file that is no namespace: setns fails, the daemon carries on in
# the namespace it was started in.
NOTNS="fib_notns_$$"
: >"/var/run/netns/$NOTNS"
launch_daemon "notns_$$" 127.0.0.1 18622 "$NOTNS" /dev/null
DAEMON_PID="$LAB_DAEMON_PID"
check "unjoinable namespace: the daemon still opens its mailbox" \
    wait_for 20 "$CTL" --service "notns_$$" counters --id ready
check "unjoinable namespace: the socket is bound in the initial namespace" \
    bash -c "ss -Huanp 'sport = :18622' | grep -q 'pid=$DAEMON_PID,'"
stop_daemon "$DAEMON_PID"
rm -f "/var/run/netns/$NOTNS"

# A namespace file that does not exist: restart request, then the process waits.
rm -f /var/run/netns/fib_missing
launch_daemon "missing_$$" 127.0.0.1 "$PORT" fib_missing /dev/null
MISSING_PID="$LAB_DAEMON_PID"
check "missing namespace: restart request recorded" \
    wait_for 20 grep -q "message=\"Unable to open '/var/run/netns/fib_missing': No such file or directory.\"" \
    "$QRN_NG_RESTART_LOG"
check "restart request carries level 1, the line and the full source path" \
    grep -qE ' level=1 line=[0-9]+ file=/.*/TwampTestSessionMain\.cc data=0,0 ' "$QRN_NG_RESTART_LOG"
check "the process waits for its restart" kill -0 "$MISSING_PID"
stop_daemon "$MISSING_PID" KILL

private_lttng_finish e2e
babeltrace2 "$WORK/trace" >"$WORK/events.txt"
check "trace: argv[0] with the daemon's path" \
    grep -qF "message = \"main(): argv[0] = $DAEMON\"" "$WORK/events.txt"
check "trace: argv[4] with the namespace" \
    grep -qF "argv[4] = $NS\"" "$WORK/events.txt"
check "trace: bind succeeded at once" \
    grep -qF "Succeeded IP 127.0.0.1 port $PORT socket bind after 0 seconds\"" "$WORK/events.txt"
check "trace: the namespace choice" \
    grep -qF "getNsFd(): Namespace: ns_name=[$NS]\"" "$WORK/events.txt"
# babeltrace2 shows the quotes of the message escaped (\').
missing_namespace_traced() {
    grep -F 'com_quorin_tn_twamp:ERROR:' "$WORK/events.txt" |
        grep -qE "getNsFd\(\): Unable to open [\\]?'/var/run/netns/fib_missing[\\]?': No such file or directory\."
}
check "trace: the missing namespace at ERROR" missing_namespace_traced
join_failure_traced() {
    grep -F 'com_quorin_tn_twamp:ERROR:' "$WORK/events.txt" |
        grep -qE "main\(\): Can[\\]?'t join namespace: ns_name=$NOTNS, errno=[\\]?\"Invalid argument\(22\)[\\]?\""
}
check "trace: the failed namespace join at ERROR, from main" join_failure_traced

e2e_finish
