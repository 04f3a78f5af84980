#!/usr/bin/env bash
# The lab demo: one IPv4 and one IPv6 test session through the lab, measured
# for one whole minute, their counters printed as tables.
#
# On a fresh Debian machine, as root: installs what is missing, builds, brings
# the lab up (namespaces fib_lab and twamp_peer joined by a veth pair), starts
# a reflector in twamp_peer that adds 2 ms on the way out and loses 1 % of the
# replies, starts one daemon per address family in fib_lab with software
# timestamps, creates the two sessions with twamp-ctl, waits until their first
# minute of sending is finalised (4 s after it ends), prints the counters and
# tears everything down, also when interrupted. It also lists the IPv4
# daemon's sessions and draws the IPv4 session's interval with gnuplot into a
# PNG under /tmp, whose path it prints.
#
# usage: scripts/demo.sh            (DEMO_RATE=packets per second, default 10)
set -euo pipefail

ROOT="$(cd "$(dirname "$0")/.." && pwd)"
BUILD="$ROOT/build"
RATE="${DEMO_RATE:-10}"
FORWARD_DELAY_MS=2
REVERSE_LOSS_PERCENT=1
REFLECTOR_PORT=862
SERVICE_IPV4=twamp_demo_ipv4
SERVICE_IPV6=twamp_demo_ipv6
SESSION_IPV4=demo-ipv4
SESSION_IPV6=demo-ipv6

say() {
    echo "[demo] $*"
}

if [ "$(id -u)" -ne 0 ]; then
    echo "demo.sh: run as root: the lab creates network namespaces" >&2
    exit 1
fi

say "installing what is missing"
bash "$ROOT/scripts/setup.sh"

say "building"
cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$BUILD" -j"$(nproc)" --target twampTestSession twamp-ctl twamp-reflector >/dev/null

DAEMON="$BUILD/blocks/twampBl/twampTestSessionSwU/files/twampTestSession"
CTL="$BUILD/tools/twamp-ctl/twamp-ctl"
REFLECTOR="$BUILD/tools/twamp-reflector/twamp-reflector"

WORK="$(mktemp -d /tmp/twamp-demo.XXXXXX)"
LAB_WAS_UP=0
PIDS=()

cleanup() {
    local status=$?
    trap - EXIT INT TERM
    local pid
    for pid in "${PIDS[@]}"; do
        kill "$pid" 2>/dev/null || true
    done
    for pid in "${PIDS[@]}"; do
        wait "$pid" 2>/dev/null || true
    done
    if [ "$LAB_WAS_UP" -eq 0 ]; then
        bash "$ROOT/scripts/lab.sh" down >/dev/null 2>&1 || true
    fi
    if [ "$status" -eq 0 ]; then
        rm -rf "$WORK"
    else
        echo "[demo] stopped (status $status); logs kept in $WORK" >&2
    fi
    exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

if bash "$ROOT/scripts/lab.sh" status >/dev/null 2>&1; then
    LAB_WAS_UP=1
fi
say "bringing the lab up"
bash "$ROOT/scripts/lab.sh" up | sed 's/^/[demo] /'

# Mailboxes, operator log and restart log in the work directory, software
# timestamps: the same environment as the end-to-end tests.
# shellcheck source=../tests/e2e/lib/e2e_common.sh
source "$ROOT/tests/e2e/lib/e2e_common.sh"
e2e_environment "$WORK"
# No trace session daemon is expected: do not wait for one at start-up.
export LTTNG_UST_REGISTER_TIMEOUT=0

say "reflector in twamp_peer: +${FORWARD_DELAY_MS} ms forward, ${REVERSE_LOSS_PERCENT} % reverse loss"
ip netns exec twamp_peer "$REFLECTOR" --listen :: --port "$REFLECTOR_PORT" \
    --fwd-delay "$FORWARD_DELAY_MS" --rev-loss "$REVERSE_LOSS_PERCENT" --seed 2026 \
    --truth "$WORK/truth.jsonl" --quiet >"$WORK/reflector.log" 2>&1 &
PIDS+=($!)

# One daemon per address family: a daemon's one socket has one family.
start_daemon() {
    local service="$1" address="$2"
    "$DAEMON" "$service" "$address" 4000 fib_lab 0 >"$WORK/$service.log" 2>&1 &
    PIDS+=($!)
}
say "daemons in fib_lab: $SERVICE_IPV4 on 198.18.0.1, $SERVICE_IPV6 on 2001:db8:18::1"
start_daemon "$SERVICE_IPV4" 198.18.0.1
start_daemon "$SERVICE_IPV6" 2001:db8:18::1

wait_for_mailbox() {
    local service="$1" attempt
    for attempt in $(seq 1 100); do
        if [ -e "$ITC_RUNDIR/name.$service" ]; then
            return 0
        fi
        sleep 0.1
    done
    echo "demo.sh: the daemon $service did not open its mailbox; see $WORK/$service.log" >&2
    return 1
}
wait_for_mailbox "$SERVICE_IPV4"
wait_for_mailbox "$SERVICE_IPV6"

say "creating $SESSION_IPV4 -> 198.18.0.2:$REFLECTOR_PORT and $SESSION_IPV6 -> [2001:db8:18::2]:$REFLECTOR_PORT at $RATE packets/s"
"$CTL" --service "$SERVICE_IPV4" create --id "$SESSION_IPV4" --dst 198.18.0.2 \
    --port "$REFLECTOR_PORT" --rate "$RATE" --dscp 46
"$CTL" --service "$SERVICE_IPV6" create --id "$SESSION_IPV6" --dst 2001:db8:18::2 \
    --port "$REFLECTOR_PORT" --rate "$RATE" --dscp 46
CREATED="$(date +%s)"

# Sending starts at the next whole minute; that minute is finalised 4 s after
# it ends, by the first packet sent then.
FIRST_MINUTE=$((CREATED / 60 + 1))
READY=$(((FIRST_MINUTE + 1) * 60 + 5))
MINUTE_TEXT="$(date -u -d "@$((FIRST_MINUTE * 60))" +%H:%M)"
while :; do
    now="$(date +%s)"
    left=$((READY - now))
    if [ "$left" -le 0 ]; then
        break
    fi
    if [ "$now" -lt $((FIRST_MINUTE * 60)) ]; then
        phase="sending starts at $MINUTE_TEXT UTC"
    else
        phase="measuring the minute $MINUTE_TEXT UTC"
    fi
    if [ -t 1 ]; then
        printf '\r[demo] %s; counters in %3d s ' "$phase" "$left"
    elif [ $((left % 15)) -eq 0 ]; then
        say "$phase; counters in $left s"
    fi
    sleep 1
done
[ -t 1 ] && printf '\n'

BIN=$((FIRST_MINUTE % 15))
# One counter of the measured minute from the CSV: column 3 is bin 0.
counter_of() {
    local csv="$1" name="$2"
    awk -F, -v name="$name" -v column=$((BIN + 3)) '$1 == name { print $column }' <<<"$csv"
}

# Microseconds as milliseconds with two decimals.
milliseconds() {
    awk -v us="$1" 'BEGIN { if (us < 0) print "n/a"; else printf "%.2f", us / 1000 }'
}

show_session() {
    local service="$1" id="$2" family="$3"
    echo
    say "$id ($family): counters of the interval in progress; the minute $MINUTE_TEXT is finalised"
    "$CTL" --service "$service" counters --id "$id"
    local csv
    csv="$("$CTL" --service "$service" counters --id "$id" --csv)"
    say "$id, minute $MINUTE_TEXT: sent $(counter_of "$csv" sentPkts)," \
        "received $(counter_of "$csv" receivedPkts)," \
        "lost forward $(counter_of "$csv" lostPktsFwd), lost reverse $(counter_of "$csv" lostPktsRev)," \
        "round trip min/avg/max" \
        "$(milliseconds "$(counter_of "$csv" delayRtMin)")/$(milliseconds "$(counter_of "$csv" delayRtAvg)")/$(milliseconds "$(counter_of "$csv" delayRtMax)") ms" \
        "(injected: ${FORWARD_DELAY_MS} ms)"
}
show_session "$SERVICE_IPV4" "$SESSION_IPV4" IPv4
show_session "$SERVICE_IPV6" "$SESSION_IPV6" IPv6

echo
say "the IPv4 daemon's sessions:"
"$CTL" --service "$SERVICE_IPV4" list
# The plot outlives the work directory, which is removed at the end.
PLOT="/tmp/twamp-demo-plot-$(date -u +%Y%m%dT%H%M%SZ).png"
"$CTL" --service "$SERVICE_IPV4" plot --id "$SESSION_IPV4" --out "$PLOT" >/dev/null
say "plot of $SESSION_IPV4 (round trip, IPDV, loss per minute of the interval): $PLOT"

REPLIES_LOST="$(grep -c '"event":"rev_loss"' "$WORK/truth.jsonl" || true)"
echo
say "the reflector dropped $REPLIES_LOST replies in all (both sessions, every minute so far)"
say "done; tearing down"
