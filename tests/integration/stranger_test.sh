#!/usr/bin/env bash
# A user outside the mailbox group cannot create, delete or read sessions: the
# run directory's group grants access, and nothing else does. The daemon runs
# as root on loopback with a run directory set up as an operator does
# (set-group-id, mode 2770, group "users" standing in for the mailbox group).
# A member of the group (user nobody with the group) creates a session; a
# stranger (user nobody with no group at all) tries to create, delete and
# read: twamp-ctl says permission denied and exits non-zero, and nothing
# reaches the daemon (its traces and its descriptor count). The modes the ITC
# stand-in gives the directory and the socket are checked too.
# Traces are recorded by a private LTTng session daemon in a private mount
# namespace. Needs root; skipped (77) without it.
#
# usage: stranger_test.sh DAEMON TWAMP_CTL
set -euo pipefail
if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: needs root (other users, private mount namespace)"
    exit 77
fi
HERE="$(dirname "$(readlink -f "$0")")"
source "$HERE/../e2e/lib/private_lttng.sh"
source "$HERE/../e2e/lib/e2e_common.sh"
private_lttng_enter "$@"

DAEMON="$1"
CTL="$2"
GROUP=users
WORK="$(mktemp -d /tmp/stranger.XXXXXX)"
SERVICE="stranger_svc_$$"
PORT=$((39000 + ($$ % 4000)))
DAEMON_PID=""

cleanup() {
    if [ -n "$DAEMON_PID" ]; then
        kill -KILL "$DAEMON_PID" 2>/dev/null || true
        wait "$DAEMON_PID" 2>/dev/null || true
    fi
    private_lttng_stop
    rm -rf "$WORK"
}
trap cleanup EXIT

e2e_environment "$WORK"
# Everyone may pass through the work directory (and the binaries' build
# tree): the run directory's own mode is what keeps strangers out.
chmod 0755 "$WORK"
install -d -m 2770 -o root -g "$GROUP" "$ITC_RUNDIR"
[ -e /tmp/proc_1_ns_net ] || ln -s /proc/1/ns/net /tmp/proc_1_ns_net

member() {
    setpriv --reuid=nobody --regid=nogroup --groups="$(getent group "$GROUP" | cut -d: -f3)" \
        env ITC_RUNDIR="$ITC_RUNDIR" "$CTL" --service "$SERVICE" "$@"
}
stranger() {
    setpriv --reuid=nobody --regid=nogroup --clear-groups \
        env ITC_RUNDIR="$ITC_RUNDIR" "$CTL" --service "$SERVICE" "$@"
}
descriptors() {
    ls "/proc/$DAEMON_PID/fd" | wc -l
}

private_lttng_start "$WORK"
private_lttng_session stranger "$WORK/trace" 'com_quorin_tn_twamp:*'

"$DAEMON" "$SERVICE" 127.0.0.1 "$PORT" default 0 2>/dev/null &
DAEMON_PID=$!
check "the daemon opens its mailbox" wait_for 20 "$CTL" --service "$SERVICE" counters --id ready

socket="$(readlink "$ITC_RUNDIR/name.$SERVICE")"
check "the run directory is mode 2770, group $GROUP" \
    [ "$(stat -c '%a %G' "$ITC_RUNDIR")" = "2770 $GROUP" ]
check "the mailbox socket is mode 660, group $GROUP" \
    [ "$(stat -c '%a %G' "$ITC_RUNDIR/$socket")" = "660 $GROUP" ]

member_reads() {
    member counters --id "$1" --csv >/dev/null
}
check "a member reads counters" member_reads ready
before="$(descriptors)"
check "a member creates a session" member create --id member --dst 127.0.0.1 --port 9 --rate 1
check "the member's session took its descriptor" wait_for 10 [ "$(descriptors)" -eq $((before + 1)) ]
with_session="$(descriptors)"

# stranger_refused DESCRIPTION COMMAND...: non-zero exit and a clear message.
stranger_refused() {
    local what="$1" status=0
    shift
    stranger "$@" >"$WORK/out.txt" 2>"$WORK/err.txt" || status=$?
    check "stranger $what: non-zero exit ($status)" [ "$status" -ne 0 ]
    check "stranger $what: says permission denied" grep -q 'permission denied' "$WORK/err.txt"
    check "stranger $what: prints no counters" [ ! -s "$WORK/out.txt" ]
}
stranger_refused create create --id stranger --dst 127.0.0.1 --port 9 --rate 1
stranger_refused delete delete --id member
stranger_refused counters --timeout 2 counters --id member
# Straight at the socket, without looking the name up: the directory is shut.
check "stranger cannot reach the socket itself" \
    bash -c "! setpriv --reuid=nobody --regid=nogroup --clear-groups test -w '$ITC_RUNDIR/$socket'"

# A member's datagram that is no ITC signal: the daemon drains it with a LAB
# trace, not an exception, and answers on.
garbage() {
    setpriv --reuid=nobody --regid=nogroup --groups="$(getent group "$GROUP" | cut -d: -f3)" \
        /usr/bin/python3 -c 'import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.sendto(b"no ITC signal", sys.argv[1])' "$ITC_RUNDIR/$socket"
}
# Datagrams waiting on the mailbox socket (its Recv-Q).
mailbox_queue_empty() {
    [ "$(ss -Hxa | awk -v path="$ITC_RUNDIR/$socket" '$5 == path { print $3 }')" = 0 ]
}
check "a member sends a datagram that is no signal" garbage
check "the daemon drains it" wait_for 10 mailbox_queue_empty

# The member's signal behind the strangers' attempts: handled, so theirs would have been too.
check "a member still reads counters" member_reads member
check "nothing of the stranger's reached the daemon: no new session" \
    [ "$(descriptors)" -eq "$with_session" ]

kill -TERM "$DAEMON_PID"
wait "$DAEMON_PID" 2>/dev/null || true
DAEMON_PID=""

private_lttng_finish stranger
babeltrace2 "$WORK/trace" >"$WORK/events.txt"
count_of() {
    grep -cF "$1" "$WORK/events.txt" || true
}
check "trace: one create, the member's" \
    [ "$(count_of 'Received twtsiCreateTwampTestSession')" -eq 1 ]
check "trace: no delete" [ "$(count_of 'Received twtsiDeleteTwampTestSession')" -eq 0 ]
check "trace: the datagram that was no signal drained at LAB" \
    [ "$(count_of 'No valid ITC message to receive, errno: 11')" -eq 1 ]
check "trace: no EXCEPTION" [ "$(count_of 'com_quorin_tn_twamp:EXCEPTION')" -eq 0 ]
# ready (root), then ready and member (the member).
check "trace: three counters requests, none of the stranger's" \
    [ "$(count_of 'Received twtsiGetTwampTestSessionPmCountersReq')" -eq 3 ]

e2e_finish
