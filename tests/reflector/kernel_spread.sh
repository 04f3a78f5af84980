#!/usr/bin/env bash
# Measures what the lab's ground truth cannot know of a delay: the veth
# pair's own time on the way out and back, as the daemon's kernel times see
# it. A probe in fib_lab (the daemon's place) sends test packets to a
# reflector in twamp_peer, both at real-time priority like the end-to-end
# tests' daemons and reflectors, and takes its kernel's transmit time T1' of
# each packet and receive time T4 of each reply. The reflector's truth gives
# the kernel's receive time rx of the request and transmit time tx of the
# reply. Per packet
#
#     spread = (T4 - T1') - (tx - rx) = (rx - T1') + (T4 - tx)
#
# which is what the truth oracle's tolerance must cover. Prints the figures
# per address family and packet size; asserts nothing (a measurement, not a
# test). Run it alone, and again while other load keeps the CPUs busy.
#
# usage: sudo kernel_spread.sh LAB_SH REFLECTOR PROBE [COUNT [INTERVAL_US]]
#        (build/tests/reflector/reflector_probe, build/tools/twamp-reflector/twamp-reflector)
set -euo pipefail

LAB="$1"
REFLECTOR="$2"
PROBE="$3"
COUNT="${4:-5000}"
INTERVAL_US="${5:-1000}"
PORT=18863
WORK="$(mktemp -d /tmp/kernel_spread.XXXXXX)"
REFLECTOR_PID=""

if [ "$(id -u)" -ne 0 ]; then
    echo "kernel_spread.sh: must run as root (lab namespaces, real-time priority)" >&2
    exit 1
fi
WAS_UP=0
if bash "$LAB" status >/dev/null 2>&1; then
    WAS_UP=1
fi

cleanup() {
    if [ -n "$REFLECTOR_PID" ]; then
        kill -TERM "$REFLECTOR_PID" 2>/dev/null || true
        wait "$REFLECTOR_PID" 2>/dev/null || true
    fi
    if [ "$WAS_UP" -eq 0 ]; then
        bash "$LAB" down >/dev/null || true
    fi
    rm -rf "$WORK"
}
trap cleanup EXIT
bash "$LAB" up >/dev/null

# measure LABEL ADDRESS SIZE: one reflector, one probe run, one line of figures.
measure() {
    local label="$1" address="$2" size="$3" truth="$WORK/$1.jsonl"
    ip netns exec twamp_peer chrt --fifo 20 "$REFLECTOR" --port "$PORT" --truth "$truth" \
        --quiet --seed 1 &
    REFLECTOR_PID=$!
    local attempt
    for attempt in $(seq 1 50); do
        grep -q '"event":"start"' "$truth" 2>/dev/null && break
        sleep 0.1
    done
    ip netns exec fib_lab chrt --fifo 20 "$PROBE" timing "$address" "$PORT" "$COUNT" \
        "$INTERVAL_US" "$size" >"$WORK/$label.probe" || true
    kill -TERM "$REFLECTOR_PID"
    wait "$REFLECTOR_PID" || true
    REFLECTOR_PID=""
    python3 - "$label" "$truth" "$WORK/$label.probe" <<'PYTHON'
import json, re, sys
label, truth_path, probe_path = sys.argv[1:4]
kernel = {}
for line in open(truth_path):
    event = json.loads(line)
    if event.get("event") == "reply" and event.get("copy") == 1:
        kernel[event["senderSeq"]] = (event["rxKernelNs"], event["txKernelNs"])
spreads, missing = [], 0
for line in open(probe_path):
    match = re.match(r"timing senderSeq=(\d+) t1PrimeNs=(\d+) t4Ns=(\d+)", line)
    if not match:
        continue
    seq, t1_prime, t4 = (int(value) for value in match.groups())
    rx, tx = kernel.get(seq, (None, None))
    if not (t1_prime and t4 and rx and tx):
        missing += 1
        continue
    spreads.append(((t4 - t1_prime) - (tx - rx)) / 1000.0)
spreads.sort()
def rank(fraction):
    return spreads[min(len(spreads) - 1, int(fraction * len(spreads)))]
if spreads:
    print("%-10s packets %6d  spread us: min %7.1f  p50 %7.1f  p99 %7.1f  p99.9 %7.1f  max %7.1f"
          "  (without times: %d)" % (label, len(spreads), spreads[0], rank(0.5), rank(0.99),
                                      rank(0.999), spreads[-1], missing))
else:
    print("%-10s no packet with all four times (without times: %d)" % (label, missing))
PYTHON
}

echo "spread = (T4 - T1') - (tx - rx), $COUNT packets each, one every $INTERVAL_US us"
measure ipv4-64 198.18.0.2 64
measure ipv6-64 2001:db8:18::2 64
measure ipv4-1500 198.18.0.2 1500
measure ipv4-65507 198.18.0.2 65507
measure ipv6-65507 2001:db8:18::2 65507
