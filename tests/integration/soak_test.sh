#!/usr/bin/env bash
# The daemon neither leaks descriptors nor memory over many sessions: the real
# daemon on loopback, sessions created and deleted in bulk through its mailbox
# by load_manager. CYCLES sessions are created and deleted in blocks of 100
# (create 100, delete them, again), then SESSIONS sessions are created, left
# to send for a few seconds and all deleted. Afterwards the daemon's
# descriptor count (/proc/PID/fd) must be back at its baseline and its
# resident memory (VmRSS) must have grown by less than RSS_LIMIT_KIB.
#
# The sessions send to 127.0.0.1 port 9, where nobody answers: their packets
# stay outstanding until the session goes, which is the path that would leak.
#
# The memory baseline is taken after a warm-up of the same shape (SESSIONS
# created and deleted once): the first time, the heap grows to the size the
# largest block of sessions needs and the allocator keeps most of it for
# reuse, so memory measured before would count that growth as a leak. After
# it, a leak shows as growth over the many cycles; the descriptor baseline
# is taken right after start-up, since nothing is cached in descriptors.
#
# Needs root (the daemon joins the initial network namespace through its
# handle, which only root may open); skipped (77) without it.
#
# usage: soak_test.sh DAEMON LOAD_MANAGER TWAMP_CTL CYCLES SESSIONS RSS_LIMIT_KIB
set -euo pipefail
if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: needs root (the daemon opens the initial namespace's handle)"
    exit 77
fi
HERE="$(dirname "$(readlink -f "$0")")"
source "$HERE/../e2e/lib/e2e_common.sh"

DAEMON="$1"
MANAGER="$2"
CTL="$3"
CYCLES="$4"
SESSIONS="$5"
RSS_LIMIT_KIB="$6"
BLOCK=100
WORK="$(mktemp -d /tmp/soak.XXXXXX)"
SERVICE="soak_svc_$$"
PORT=$((43000 + ($$ % 4000)))
DAEMON_PID=""

cleanup() {
    if [ -n "$DAEMON_PID" ]; then
        kill -KILL "$DAEMON_PID" 2>/dev/null || true
        wait "$DAEMON_PID" 2>/dev/null || true
    fi
    rm -rf "$WORK"
}
trap cleanup EXIT

e2e_environment "$WORK"
# The sanitizers' quarantine holds freed memory back on purpose; without it
# their build is measured as the plain one is.
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}quarantine_size_mb=0:detect_leaks=0"
[ -e /tmp/proc_1_ns_net ] || ln -s /proc/1/ns/net /tmp/proc_1_ns_net

descriptors() {
    ls "/proc/$DAEMON_PID/fd" | wc -l
}
resident_kib() {
    awk '$1 == "VmRSS:" { print $2 }' "/proc/$DAEMON_PID/status"
}
# manage COMMAND FIRST COUNT: load_manager on sessions FIRST .. FIRST + COUNT - 1.
manage() {
    local command="$1" first="$2" count="$3"
    "$MANAGER" "$command" --service "$SERVICE" --first "$first" --sessions "$count" \
        --dst 127.0.0.1 --base-port 9 --one-port 1 --rate 1 >>"$WORK/manager.out"
}
# The daemon takes its mailbox's signals in order: a counters reply means
# that everything sent before it has been handled.
settled() {
    "$CTL" --service "$SERVICE" --timeout 30 counters --id settled --csv >/dev/null
}

"$DAEMON" "$SERVICE" 127.0.0.1 "$PORT" default 0 2>/dev/null &
DAEMON_PID=$!
check "the daemon opens its mailbox" wait_for 20 "$CTL" --service "$SERVICE" counters --id ready
fd_baseline="$(descriptors)"

manage create 0 "$SESSIONS"
settled
check "warm-up: $SESSIONS sessions took a descriptor each" \
    [ "$(descriptors)" -eq $((fd_baseline + SESSIONS)) ]
manage delete 0 "$SESSIONS"
settled
rss_baseline="$(resident_kib)"
echo "baseline: descriptors=$fd_baseline rss_kib=$rss_baseline (after the warm-up)"

started=$SECONDS
for ((done = 0; done < CYCLES; done += BLOCK)); do
    manage create 0 "$BLOCK"
    manage delete 0 "$BLOCK"
done
settled
echo "cycles: $CYCLES created and deleted in $((SECONDS - started)) s;" \
    "descriptors=$(descriptors) rss_kib=$(resident_kib)"
check "after $CYCLES create/delete cycles: descriptors back at the baseline" \
    [ "$(descriptors)" -eq "$fd_baseline" ]

manage create 0 "$SESSIONS"
settled
check "$SESSIONS sessions took a descriptor each" \
    [ "$(descriptors)" -eq $((fd_baseline + SESSIONS)) ]
# Long enough for every session to send (one packet a second, start slots
# spread over the first second).
sleep 3
manage delete 0 "$SESSIONS"
settled
fd_end="$(descriptors)"
rss_end="$(resident_kib)"
echo "end: descriptors=$fd_end rss_kib=$rss_end growth_kib=$((rss_end - rss_baseline))"
check "after $SESSIONS sessions deleted: descriptors back at the baseline" \
    [ "$fd_end" -eq "$fd_baseline" ]
check "resident memory grew by less than $RSS_LIMIT_KIB KiB" \
    [ $((rss_end - rss_baseline)) -lt "$RSS_LIMIT_KIB" ]
check "no signal refused for good" \
    bash -c "! grep -qv ' failed=0 ' '$WORK/manager.out'"
check "the daemon is still running" kill -0 "$DAEMON_PID"
check "no restart request" [ ! -s "$QRN_NG_RESTART_LOG" ]

e2e_finish
