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
    discard_work "$WORK"
}
trap cleanup EXIT

in_lab() {
    ip netns exec "$LAB_DAEMON_NS" "$@"
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
# Under the sanitizers the exporter needs their runtime first in the list.
preload="$(preload_list "$EXPORTER")"
# Started by ip itself, not through in_lab: $! must be the exporter's pid.
ip netns exec "$LAB_DAEMON_NS" env LD_PRELOAD="$preload" FAKETIME_TIMESTAMP_FILE="$FAKE_CLOCK_FILE" FAKETIME_NO_CACHE=1 \
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
ip netns exec "$LAB_DAEMON_NS" prometheus --config.file="$WORK/prometheus.yml" --storage.tsdb.path="$WORK/tsdb" \
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
# One process for all queries: on a busy host every process started costs.
if in_lab python3 "$HERE/lib/prometheus_check.py" --url "http://127.0.0.1:$PROMETHEUS_PORT" \
    --bin $((MINUTE % 15)) --rate "$RATE" --loss 0.051 0.149 \
    --session clean "$WORK/clean.counters.json" --session lossy "$WORK/lossy.counters.json"; then
    :
else
    E2E_FAILURES=$((E2E_FAILURES + $?))
    E2E_FAILED_CHECKS+=("the Prometheus queries (above)")
fi
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
