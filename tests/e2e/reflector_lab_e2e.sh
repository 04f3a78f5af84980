#!/usr/bin/env bash
# The lab end to end: lab.sh brings the namespaces up (twice), the peer answers
# pings over IPv4 and IPv6, the reflector in twamp_peer answers a probe in
# fib_lab over both, the largest requests whole (fragmented on the veth),
# records the kernel's receive and send time of every reply, stops cleanly on
# SIGTERM with its ground truth complete, and lab.sh takes everything down
# again (twice). A lab that was up before the test is brought up again at the
# end.
#
# usage: reflector_lab_e2e.sh LAB_SH REFLECTOR PROBE   (exit 77: skipped, not root)
set -uo pipefail
HERE="$(dirname "$(readlink -f "$0")")"
source "$HERE/lib/e2e_common.sh"
source "$HERE/lib/lab_daemon.sh"

LAB="$1"
REFLECTOR="$2"
PROBE="$3"
PORT=18862
WORK="$(mktemp -d /tmp/reflector_lab.XXXXXX)"

if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: the lab needs root"
    exit 77
fi

WAS_UP=0
if bash "$LAB" status >/dev/null 2>&1; then
    WAS_UP=1
fi

cleanup() {
    stop_lab_processes KILL
    if [ "$WAS_UP" -eq 1 ]; then
        bash "$LAB" up >/dev/null || true
    else
        bash "$LAB" down >/dev/null || true
    fi
    rm -rf "$WORK"
}
trap cleanup EXIT

exits_with() {
    local expected="$1"
    shift
    "$@" >"$WORK/out" 2>&1
    [ $? -eq "$expected" ]
}

check "usage mistake exits 2" exits_with 2 bash "$LAB" sideways
# The script is read by root and handed over on standard input: the
# unprivileged user need not be able to read the source tree.
if command -v setpriv >/dev/null; then
    check "up refuses to run without root" \
        exits_with 1 bash -c "setpriv --reuid=65534 --regid=65534 --clear-groups bash -s up <'$LAB'"
    check "the refusal says why" grep -q "must run as root" "$WORK/out"
fi

check "up" bash "$LAB" up
check "up again changes nothing" bash "$LAB" up
check "status reports the lab up" bash "$LAB" status
check "the initial namespace's handle can be opened" bash -c '(exec </tmp/proc_1_ns_net)'
check "fib_lab holds 198.18.0.1 and 2001:db8:18::1" \
    bash -c "ip -n fib_lab addr | grep -q ' 198.18.0.1/24 ' && ip -n fib_lab addr | grep -q ' 2001:db8:18::1/64 '"

check "ping 198.18.0.2 from fib_lab" ip netns exec fib_lab "$PROBE" echo 198.18.0.2
check "ping 2001:db8:18::2 from fib_lab" ip netns exec fib_lab "$PROBE" echo 2001:db8:18::2

TRUTH="$WORK/truth.jsonl"
check "reflector writes its start line" start_reflector "$TRUTH" "$PORT" --seed 1
REFLECTOR_PID="${LAB_REFLECTOR_PIDS##* }"

# probe_replies ADDRESS TTL TOS: five 64-byte packets, each answered in full.
probe_replies() {
    local address="$1" ttl="$2" tos="$3" out="$WORK/probe_$1.txt" seq
    ip netns exec fib_lab "$PROBE" send "$address" "$PORT" 5 64 "$ttl" "$tos" >"$out" || return 1
    for seq in 0 1 2 3 4; do
        grep -qx "reply senderSeq=$seq reflectorSeq=[0-9]* senderTtl=$ttl ttl=255 tos=$tos length=64 errorEstimate=0xa001 senderErrorEstimate=0x0586 ordered=yes" \
            "$out" || return 1
    done
}
check "IPv4 probe answered with TTL, DSCP and timestamps" probe_replies 198.18.0.2 64 184
check "IPv6 probe answered with hop limit, traffic class and timestamps" \
    probe_replies 2001:db8:18::2 17 32
# Each probe is a sender of its own (address and port): numbered from 0.
check "reflector sequence numbers count per sender" \
    bash -c "grep -o 'reflectorSeq=[0-9]*' '$WORK/probe_198.18.0.2.txt' '$WORK/probe_2001:db8:18::2.txt' |
             cut -d= -f2 | tr '\n' ' ' | grep -qx '0 1 2 3 4 0 1 2 3 4 '"

# probe_largest ADDRESS: three requests of the largest IPv4 UDP payload, each
# answered with its whole length.
probe_largest() {
    local address="$1" out="$WORK/largest_$1.txt"
    ip netns exec fib_lab "$PROBE" send "$address" "$PORT" 3 65507 64 0 >"$out" || return 1
    [ "$(grep -c ' length=65507 ' "$out")" -eq 3 ]
}
check "IPv4 requests of 65507 bytes answered whole" probe_largest 198.18.0.2
check "IPv6 requests of 65507 bytes answered whole" probe_largest 2001:db8:18::2

kill -TERM "$REFLECTOR_PID"
wait "$REFLECTOR_PID"
status=$?
LAB_REFLECTOR_PIDS=""
check "reflector exits 0 on SIGTERM" [ "$status" -eq 0 ]
check "ground truth: sixteen replies" [ "$(grep -c '"event":"reply"' "$TRUTH")" -eq 16 ]
# The kernel switches software receive timestamps on a moment after the
# reflector asks, so the very first requests may come without; the largest,
# sent later, have them.
check "ground truth: every reply with the kernel's send time, the largest also its receive time" \
    python3 -c 'import json, sys
replies = [e for e in map(json.loads, open(sys.argv[1])) if e["event"] == "reply"]
largest = [e for e in replies if e["length"] == 65507]
sys.exit(0 if len(largest) == 6 and all(isinstance(e["txKernelNs"], int) for e in replies) and
         all(isinstance(e["rxKernelNs"], int) and e["txKernelNs"] > e["rxKernelNs"]
             for e in largest) else 1)' "$TRUTH"
check "ground truth ends with the stop line" \
    bash -c "tail -n 1 '$TRUTH' | grep -q '\"event\":\"stop\".*\"accepted\":16,\"revLost\":0,\"sent\":16,'"

check "down" bash "$LAB" down
check "down again is fine" bash "$LAB" down
check "both namespaces are gone" bash -c "! ip netns list | grep -qE '^(fib_lab|twamp_peer)( |$)'"
check "status reports the lab down" exits_with 1 bash "$LAB" status

e2e_finish
