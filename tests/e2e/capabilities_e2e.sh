#!/usr/bin/env bash
# The daemon needs no root, only two capabilities: it runs as user nobody in
# the mailbox group (here "users", the run directory's group) holding
# CAP_SYS_ADMIN (setns into its network namespace) and CAP_NET_ADMIN
# (SO_RCVBUFFORCE) as ambient capabilities and nothing else, in a network
# namespace of its own made inside a private mount namespace (its own
# /var/run/netns, so no name can clash with another lab). A session with
# DSCP 46 against tools/twamp-reflector in the same namespace sends, its
# packets arrive with TOS 184, and its counters come back with the packets
# answered. Needs root to set up; skipped (77) without it.
#
# usage: capabilities_e2e.sh DAEMON TWAMP_CTL REFLECTOR
set -euo pipefail
if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: needs root to set up the namespace and the users"
    exit 77
fi
if [ -z "${TWAMP_CAPS_PRIVATE:-}" ]; then
    export TWAMP_CAPS_PRIVATE=1
    exec unshare --mount --propagation private bash "$0" "$@"
fi
HERE="$(dirname "$(readlink -f "$0")")"
source "$HERE/lib/e2e_common.sh"

DAEMON="$1"
CTL="$2"
REFLECTOR="$3"
NS=fib_caps
GROUP=users
CAPS=+sys_admin,+net_admin
# CAP_NET_ADMIN is bit 12, CAP_SYS_ADMIN bit 21.
CAPS_MASK=0000000000201000
SERVICE="caps_svc_$$"
DAEMON_PORT=18630
REFLECTOR_PORT=18631
WORK="$(mktemp -d /tmp/capabilities_e2e.XXXXXX)"
DAEMON_PID=""
REFLECTOR_PID=""

cleanup() {
    for pid in $DAEMON_PID $REFLECTOR_PID; do
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    ip netns del "$NS" 2>/dev/null || true
    rm -rf "$WORK"
}
trap cleanup EXIT

mkdir -p /var/run/netns
mount -t tmpfs -o mode=0755 tmpfs /var/run/netns
ip netns add "$NS"
ip -n "$NS" link set lo up

e2e_environment "$WORK"
chmod 0755 "$WORK"
install -d -m 2770 -o root -g "$GROUP" "$ITC_RUNDIR"
chown -R nobody "$SA_LOG_DIR"
: >"$QRN_NG_RESTART_LOG"
chown nobody "$QRN_NG_RESTART_LOG"

ip netns exec "$NS" "$REFLECTOR" --listen 127.0.0.1 --port "$REFLECTOR_PORT" \
    --truth "$WORK/truth.jsonl" --quiet &
REFLECTOR_PID=$!
check "the reflector starts" wait_for 10 grep -q '"event":"start"' "$WORK/truth.jsonl"

setpriv --reuid=nobody --regid=nogroup --groups="$(getent group "$GROUP" | cut -d: -f3)" \
    --inh-caps="$CAPS" --ambient-caps="$CAPS" --bounding-set=-all,"$CAPS" \
    "$DAEMON" "$SERVICE" 127.0.0.1 "$DAEMON_PORT" "$NS" 0 2>"$WORK/stderr" &
DAEMON_PID=$!
check "the daemon opens its mailbox" wait_for 20 "$CTL" --service "$SERVICE" counters --id ready

check "the daemon runs as nobody" [ "$(stat -c %U "/proc/$DAEMON_PID")" = nobody ]
check "the daemon holds exactly CAP_SYS_ADMIN and CAP_NET_ADMIN" \
    grep -qx "CapEff:	$CAPS_MASK" "/proc/$DAEMON_PID/status"
check "the daemon joined its namespace" \
    [ "$(readlink "/proc/$DAEMON_PID/ns/net")" = "$(ip netns exec "$NS" readlink /proc/self/ns/net)" ]
check "its socket is bound inside the namespace" \
    bash -c "ip netns exec '$NS' ss -Huanp 'sport = :$DAEMON_PORT' | grep -q 'pid=$DAEMON_PID,'"
# SO_RCVBUFFORCE: 4 MiB whatever net.core.rmem_max says; the kernel reports it doubled.
check "its receive buffer is forced to 4 MiB" \
    bash -c "ip netns exec '$NS' ss -Huamp 'sport = :$DAEMON_PORT' | grep -q 'rb8388608'"

check "a session with DSCP 46 is created" \
    "$CTL" --service "$SERVICE" create --id caps --dst 127.0.0.1 --port "$REFLECTOR_PORT" \
    --rate 10 --dscp 46
# A minute's counters are reported once it is finalised, 4 s after it ends.
answered_minute() {
    "$CTL" --service "$SERVICE" counters --id caps --json >"$WORK/counters.json" &&
        python3 - "$WORK/counters.json" <<'PY'
import json, sys
counters = json.load(open(sys.argv[1]))["counters"]
sys.exit(0 if any(value > 0 for value in counters["receivedPkts"]) else 1)
PY
}
# Sessions start sending at the next whole minute.
check "counters come back with answered packets" wait_for 75 answered_minute
check "its packets reached the reflector with TOS 184" \
    grep -q '"event":"reply".*"tos":184' "$WORK/truth.jsonl"
check "no packet reached it with another TOS" \
    bash -c "! grep '\"event\":\"reply\"' '$WORK/truth.jsonl' | grep -vq '\"tos\":184'"
check "no restart request" [ ! -s "$QRN_NG_RESTART_LOG" ]
check "nothing in the application log" [ ! -s "$SA_LOG_DIR/TnApplicationLog.log" ]
check "standard error holds only the argc line" cmp -s "$WORK/stderr" <(printf 'argc= 6\n')

e2e_finish
