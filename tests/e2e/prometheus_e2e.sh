#!/usr/bin/env bash
# A real Prometheus server scrapes twamp-exporter, which reads a daemon's
# session list and counters; the values it stored are checked through its
# query API against the daemon's own counters.
#
# The whole test runs in a private mount namespace with its own
# /var/run/netns, so its lab namespaces (fib_lab, twamp_peer) are its own and
# other lab tests may run beside it. The daemon runs in fib_lab on a faked
# clock placed 6 s before a whole minute M, with a clean session and one
# whose reflector drops 10 % of the packets on the way out; the exporter
# (on the same faked clock), Prometheus (scraping every 2 s) and the queries
# all run in fib_lab too, on its loopback. Once minute M is final for the
# exporter (10 s after it ends) the test checks, before M + 1 is final:
#   - sent, received and lost totals equal the daemon's counters of M,
#     exactly (the minutes before M, created or not yet sending, are -2);
#   - the lossy session's loss ratio is near 10 %, the clean one's 0;
#   - the round-trip gauges of the clean session are present and positive;
#   - promtool accepts the exporter's live page and the alert rules load.
#
# usage: prometheus_e2e.sh LAB_SH DAEMON TWAMP_CTL REFLECTOR EXPORTER RULES
#        (exit 77: skipped, not root or Prometheus missing)
set -euo pipefail
HERE="$(dirname "$(readlink -f "$0")")"
source "$HERE/lib/e2e_common.sh"
source "$HERE/lib/lab_daemon.sh"

if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: the lab needs root"
    exit 77
fi
if ! command -v prometheus >/dev/null || ! command -v promtool >/dev/null; then
    echo "skipped: prometheus not installed (Debian package prometheus)"
    exit 77
fi
# Private namespace names: a tmpfs over /var/run/netns in a mount namespace
# of our own; private LTTng directories, so the daemon registers with no
# session daemon of another test.
if [ -z "${TWAMP_PROMETHEUS_E2E_INNER:-}" ]; then
    exec env TWAMP_PROMETHEUS_E2E_INNER=1 unshare --mount --propagation private \
        bash "$0" "$@"
fi
mkdir -p /var/run/netns /run/lttng
mount -t tmpfs tmpfs /var/run/netns
mount -t tmpfs -o mode=0755 tmpfs /run/lttng
mount -t tmpfs -o mode=1777 tmpfs /dev/shm

LAB="$1"
DAEMON="$2"
CTL="$3"
REFLECTOR="$4"
EXPORTER="$5"
RULES="$6"
WORK="$(mktemp -d /tmp/prometheus_e2e.XXXXXX)"
KEEP_WORK="${TWAMP_E2E_KEEP:-0}"
RATE=10
LOSS_PERCENT=10
EXPORTER_PORT=9862
PROMETHEUS_PORT=9090
SERVICE="prometheus_e2e_$$"
EXPORTER_PID=""
PROMETHEUS_PID=""

cleanup() {
    local pid
    for pid in $PROMETHEUS_PID $EXPORTER_PID; do
        kill -TERM "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    stop_lab_processes
    bash "$LAB" down >/dev/null 2>&1 || true
    if [ "$KEEP_WORK" -eq 0 ]; then
        rm -rf "$WORK"
    else
        echo "work directory kept: $WORK"
    fi
}
trap cleanup EXIT

in_lab() {
    ip netns exec "$LAB_DAEMON_NS" "$@"
}

# query EXPRESSION: the first value of an instant query, or nothing.
query() {
    in_lab curl -sf --get "http://127.0.0.1:$PROMETHEUS_PORT/api/v1/query" \
        --data-urlencode "query=$1" |
        python3 -c 'import json, sys
result = json.load(sys.stdin)["data"]["result"]
print(result[0]["value"][1] if result else "")'
}

# counter_sum FILE COUNTER BIN...: the sum of a counter of the daemon's JSON over bins.
counter_sum() {
    python3 - "$@" <<'PY'
import json, sys
counters = json.load(open(sys.argv[1]))["counters"][sys.argv[2]]
print(sum(counters[int(b)] for b in sys.argv[3:]))
PY
}

# equals EXPRESSION VALUE: waits up to 30 s for Prometheus to hold VALUE.
equals() {
    local expression="$1" expected="$2" attempt value=""
    for attempt in $(seq 1 60); do
        value="$(query "$expression" || true)"
        if [ "$value" = "$expected" ]; then
            return 0
        fi
        sleep 0.5
    done
    echo "  $expression is '$value', expected $expected"
    return 1
}

# between EXPRESSION LOW HIGH
between() {
    local value
    value="$(query "$1")"
    echo "  $1 = $value"
    [ -n "$value" ] && awk -v v="$value" -v low="$2" -v high="$3" 'BEGIN { exit !(v >= low && v <= high) }'
}

bash "$LAB" up >/dev/null
e2e_environment "$WORK"
# No trace session daemon runs here: the daemon does not wait for one, and
# never finds one of another test in a shared home directory.
export LTTNG_UST_REGISTER_TIMEOUT=0
export LTTNG_HOME="$WORK/lttng-home"
check "reflector clean starts" start_reflector "$WORK/clean.jsonl" 18901
check "reflector lossy starts" start_reflector "$WORK/lossy.jsonl" 18902 \
    --fwd-loss "$LOSS_PERCENT" --seed 31

fake_clock_init "$WORK/faketime"
check "daemon starts" start_daemon "$SERVICE" 198.18.0.1 8630 "$WORK/log"
preload="$(faketime_library)"
in_lab env LD_PRELOAD="$preload" FAKETIME_TIMESTAMP_FILE="$FAKE_CLOCK_FILE" FAKETIME_NO_CACHE=1 \
    FAKETIME_DONT_FAKE_MONOTONIC=1 ITC_RUNDIR="$ITC_RUNDIR" \
    "$EXPORTER" --service "$SERVICE" --listen-address 127.0.0.1 --port "$EXPORTER_PORT" \
    2>"$WORK/exporter.stderr" &
EXPORTER_PID=$!
check "exporter serves /metrics" wait_for 10 in_lab curl -sf "http://127.0.0.1:$EXPORTER_PORT/metrics"

cat >"$WORK/prometheus.yml" <<EOT
global:
  scrape_interval: 2s
  evaluation_interval: 2s
rule_files:
  - $RULES
scrape_configs:
  - job_name: twamp
    static_configs:
      - targets: ['127.0.0.1:$EXPORTER_PORT']
EOT
in_lab prometheus --config.file="$WORK/prometheus.yml" --storage.tsdb.path="$WORK/tsdb" \
    --web.listen-address="127.0.0.1:$PROMETHEUS_PORT" >"$WORK/prometheus.log" 2>&1 &
PROMETHEUS_PID=$!
check "prometheus ready" wait_for 30 in_lab curl -sf "http://127.0.0.1:$PROMETHEUS_PORT/-/ready"

# Bin 5: minutes M and M + 1 lie inside one interval, well clear of its ends.
fake_clock_start 6 5
MINUTE="$FAKE_MINUTE"
echo "daemon's clock: 6 s before minute $MINUTE"
check "session clean created" "$CTL" --service "$SERVICE" create --id clean --dst 198.18.0.2 \
    --port 18901 --rate "$RATE" --dscp 46 --offset 1
check "session lossy created" "$CTL" --service "$SERVICE" create --id lossy --dst 198.18.0.2 \
    --port 18902 --rate "$RATE" --dscp 46 --offset 2
check "twamp-ctl list shows both sessions" \
    bash -c "'$CTL' --service '$SERVICE' list | grep -c waiting | grep -qx 2"

# The exporter takes a minute as final 10 s after it ends.
wait_fake_until $(((MINUTE + 1) * 60 + 11))
for name in clean lossy; do
    check "$name: daemon's counters read" counters_json "$SERVICE" "$name" \
        "$WORK/$name.counters.json"
done
BINS="$((MINUTE % 15))"
CLEAN_ID="$(python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["sessionId"])' \
    "$WORK/clean.counters.json")"
LOSSY_ID="$(python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))["sessionId"])' \
    "$WORK/lossy.counters.json")"

for name in clean lossy; do
    id="$CLEAN_ID"
    [ "$name" = lossy ] && id="$LOSSY_ID"
    file="$WORK/$name.counters.json"
    # shellcheck disable=SC2086
    sent="$(counter_sum "$file" sentPkts $BINS)"
    # shellcheck disable=SC2086
    received="$(counter_sum "$file" receivedPkts $BINS)"
    # shellcheck disable=SC2086
    lost_fwd="$(counter_sum "$file" lostPktsFwd $BINS)"
    # shellcheck disable=SC2086
    lost_rev="$(counter_sum "$file" lostPktsRev $BINS)"
    echo "$name: daemon's minute $MINUTE: sent $sent, received $received, lost $lost_fwd + $lost_rev"
    check "$name: sent $((RATE * 60)) in the minute" test "$sent" -eq $((RATE * 60))
    check "$name: sent total equals the daemon's" \
        equals "twamp_session_sent_packets_total{id=\"$id\"}" "$sent"
    check "$name: received total equals the daemon's" \
        equals "twamp_session_received_packets_total{id=\"$id\"}" "$received"
    check "$name: forward loss total equals the daemon's" \
        equals "twamp_session_lost_packets_total{id=\"$id\",direction=\"forward\"}" "$lost_fwd"
    check "$name: reverse loss total equals the daemon's" \
        equals "twamp_session_lost_packets_total{id=\"$id\",direction=\"reverse\"}" "$lost_rev"
done
LOSS_RATIO="sum(twamp_session_lost_packets_total{id=\"%s\"}) / sum(twamp_session_sent_packets_total{id=\"%s\"})"
# shellcheck disable=SC2059
check "clean: loss ratio 0" between "$(printf "$LOSS_RATIO" "$CLEAN_ID" "$CLEAN_ID")" 0 0
# 600 packets at 10 %: the standard deviation is 1.22 %; 4 of them either way.
# shellcheck disable=SC2059
check "lossy: loss ratio near $LOSS_PERCENT %" \
    between "$(printf "$LOSS_RATIO" "$LOSSY_ID" "$LOSSY_ID")" 0.051 0.149
check "clean: round-trip average gauge positive" \
    between "twamp_session_round_trip_avg_seconds{id=\"$CLEAN_ID\"}" 0.000001 0.5
check "clean: round-trip p99 gauge at least the average" \
    between "twamp_session_round_trip_p99_seconds{id=\"$CLEAN_ID\"} - twamp_session_round_trip_avg_seconds{id=\"$CLEAN_ID\"}" 0 0.5
check "info series of the sending session" \
    equals "twamp_session_info{id=\"$CLEAN_ID\",state=\"sending\",port=\"18901\",dscp=\"46\"}" 1
check "daemon up" equals "twamp_exporter_daemon_up" 1
check "alert rules loaded" \
    bash -c "ip netns exec $LAB_DAEMON_NS curl -sf http://127.0.0.1:$PROMETHEUS_PORT/api/v1/rules | grep -q TwampSessionLoss"
in_lab curl -sf "http://127.0.0.1:$EXPORTER_PORT/metrics" >"$WORK/metrics.txt" || true
check "promtool accepts the live page" bash -c "promtool check metrics <'$WORK/metrics.txt'"
# Had minute M + 1 become final meanwhile, the totals above would hold it too.
check "checked before minute $((MINUTE + 1)) was final for the exporter" \
    awk -v now="$(fake_now)" -v end=$(((MINUTE + 2) * 60 + 10)) 'BEGIN { exit !(now < end) }'
echo "test time: $SECONDS s"

if [ "$E2E_FAILURES" -ne 0 ]; then
    KEEP_WORK=1
    tail -n 20 "$WORK/exporter.stderr" "$WORK/prometheus.log" || true
fi
e2e_finish
