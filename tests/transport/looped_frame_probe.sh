#!/bin/bash
# Shows what the kernel loops back on the error queue for sent datagrams of
# sizes that need fragmenting, with software transmit timestamps.
#
# usage: looped_frame_probe.sh PROBE [SIZE...]   (as root)
#
# Creates two namespaces of its own, wire_a and wire_b, joined by a veth pair
# with MTU 1500 (198.18.9.1/24 and 2001:db8:29::1/64 in wire_a, .2 and ::2 in
# wire_b), runs PROBE in wire_a towards wire_b in both families, and deletes
# both namespaces on every way out. Nothing is sent outside the pair.
set -euo pipefail

PROBE="${1:?usage: looped_frame_probe.sh PROBE [SIZE...]}"
shift
SIZES=("$@")
if [ "${#SIZES[@]}" -eq 0 ]; then
    SIZES=(1452 1453 2000 9000 65507)
fi

cleanup() {
    ip netns del wire_a 2>/dev/null || true
    ip netns del wire_b 2>/dev/null || true
}
trap cleanup EXIT

ip netns add wire_a
ip netns add wire_b
ip link add wire_va netns wire_a type veth peer name wire_vb netns wire_b
for side in a b; do
    ip -n "wire_$side" link set lo up
    ip -n "wire_$side" link set "wire_v$side" mtu 1500 up
done
ip -n wire_a addr add 198.18.9.1/24 dev wire_va
ip -n wire_b addr add 198.18.9.2/24 dev wire_vb
ip -n wire_a addr add 2001:db8:29::1/64 dev wire_va nodad
ip -n wire_b addr add 2001:db8:29::2/64 dev wire_vb nodad

echo "== IPv4 over veth, MTU 1500"
ip netns exec wire_a "$PROBE" 198.18.9.1 198.18.9.2 862 "${SIZES[@]}"
echo "== IPv6 over veth, MTU 1500"
ip netns exec wire_a "$PROBE" 2001:db8:29::1 2001:db8:29::2 862 "${SIZES[@]}"
echo "== IPv4 over loopback"
ip netns exec wire_a "$PROBE" 127.0.0.1 127.0.0.1 862 "${SIZES[@]}"
echo "== IPv6 over loopback"
ip netns exec wire_a "$PROBE" ::1 ::1 862 "${SIZES[@]}"
