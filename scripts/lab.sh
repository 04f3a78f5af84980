#!/usr/bin/env bash
# The lab: the daemon's namespace fib_lab and the reflector's namespace
# twamp_peer, joined by a veth pair. Nothing in it is routed anywhere else.
#
#   fib_lab     veth-fib   198.18.0.1/24   2001:db8:18::1/64
#   twamp_peer  veth-peer  198.18.0.2/24   2001:db8:18::2/64
#
# usage: lab.sh up|down|status
#   up      creates what is missing (running it again changes nothing), and
#           /tmp/proc_1_ns_net, the daemon's handle of the initial namespace
#   down    deletes both namespaces and the pair (nothing to do is fine)
#   status  prints the lab; exit 0 when it is up, 1 when not or only partly
set -euo pipefail

DAEMON_NS=fib_lab
PEER_NS=twamp_peer
DAEMON_LINK=veth-fib
PEER_LINK=veth-peer
DAEMON_IPV4=198.18.0.1/24
PEER_IPV4=198.18.0.2/24
DAEMON_IPV6=2001:db8:18::1/64
PEER_IPV6=2001:db8:18::2/64
DEFAULT_NS_HANDLE=/tmp/proc_1_ns_net

usage() {
    echo "usage: lab.sh up|down|status" >&2
    exit 2
}

require_root() {
    if [ "$(id -u)" -ne 0 ]; then
        echo "lab.sh: must run as root (creating network namespaces needs CAP_SYS_ADMIN and CAP_NET_ADMIN)" >&2
        exit 1
    fi
}

namespace_exists() {
    [ -e "/var/run/netns/$1" ]
}

link_exists() {
    ip -n "$1" link show "$2" >/dev/null 2>&1
}

# The initial namespace's handle: pid 1's namespace when it can be opened,
# otherwise the opener's own (a link to /proc/self resolves per process).
ensure_default_namespace_handle() {
    if [ -e "$DEFAULT_NS_HANDLE" ] || [ -L "$DEFAULT_NS_HANDLE" ]; then
        return
    fi
    local target=/proc/self/ns/net
    if (exec </proc/1/ns/net) 2>/dev/null; then
        target=/proc/1/ns/net
    fi
    ln -s "$target" "$DEFAULT_NS_HANDLE"
}

ensure_namespace() {
    if ! namespace_exists "$1"; then
        ip netns add "$1"
    fi
    ip -n "$1" link set lo up
}

# One end of the pair left behind alone (the other namespace was deleted by hand) is replaced.
ensure_pair() {
    if link_exists "$DAEMON_NS" "$DAEMON_LINK" && link_exists "$PEER_NS" "$PEER_LINK"; then
        return
    fi
    ip -n "$DAEMON_NS" link del "$DAEMON_LINK" 2>/dev/null || true
    ip -n "$PEER_NS" link del "$PEER_LINK" 2>/dev/null || true
    ip -n "$DAEMON_NS" link add "$DAEMON_LINK" type veth peer name "$PEER_LINK" netns "$PEER_NS"
}

# nodad: the IPv6 addresses are usable at once, without duplicate address detection.
configure_end() {
    local ns="$1" link="$2" ipv4="$3" ipv6="$4"
    ip -n "$ns" addr replace "$ipv4" dev "$link"
    ip -n "$ns" -6 addr replace "$ipv6" dev "$link" nodad
    ip -n "$ns" link set "$link" up
}

lab_up() {
    ensure_default_namespace_handle
    ensure_namespace "$DAEMON_NS"
    ensure_namespace "$PEER_NS"
    ensure_pair
    configure_end "$DAEMON_NS" "$DAEMON_LINK" "$DAEMON_IPV4" "$DAEMON_IPV6"
    configure_end "$PEER_NS" "$PEER_LINK" "$PEER_IPV4" "$PEER_IPV6"
    echo "lab is up: $DAEMON_NS ${DAEMON_IPV4%/*} ${DAEMON_IPV6%/*} <-> $PEER_NS ${PEER_IPV4%/*} ${PEER_IPV6%/*}"
}

lab_down() {
    local ns
    for ns in "$DAEMON_NS" "$PEER_NS"; do
        if namespace_exists "$ns"; then
            ip netns del "$ns"
        fi
    done
    echo "lab is down"
}

# Exit 0 only when both ends are there with their addresses.
lab_status() {
    local complete=0 ns link ipv4 ipv6
    while read -r ns link ipv4 ipv6; do
        if ! namespace_exists "$ns"; then
            echo "$ns: missing"
            complete=1
            continue
        fi
        if ! link_exists "$ns" "$link"; then
            echo "$ns: $link missing"
            complete=1
            continue
        fi
        local addresses
        addresses="$(ip -n "$ns" -brief addr show dev "$link")"
        echo "$ns: $addresses"
        if ! grep -qF " ${ipv4} " <<<"$addresses " || ! grep -qF " ${ipv6} " <<<"$addresses "; then
            complete=1
        fi
    done <<EOT
$DAEMON_NS $DAEMON_LINK $DAEMON_IPV4 $DAEMON_IPV6
$PEER_NS $PEER_LINK $PEER_IPV4 $PEER_IPV6
EOT
    if [ -L "$DEFAULT_NS_HANDLE" ]; then
        echo "$DEFAULT_NS_HANDLE -> $(readlink "$DEFAULT_NS_HANDLE")"
    else
        echo "$DEFAULT_NS_HANDLE: missing"
    fi
    return "$complete"
}

[ $# -eq 1 ] || usage
case "$1" in
    up) require_root; lab_up ;;
    down) require_root; lab_down ;;
    status) require_root; lab_status ;;
    *) usage ;;
esac
