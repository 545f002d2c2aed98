#!/usr/bin/env bash
# live.sh BUILD DIRECTORY: a live host whose switch connects two network namespaces by VLAN, and to a network by two
# uplinks. As root, in namespaces of its own, where everything that it made ends with it:
#   unshare --net --mount examples/live.sh build/release /tmp/live
# Where the machine can't run a live host, it says why in one line, and ends with 77.
set -euo pipefail
build=$1 state=$2
export PATH=$PWD/$build:$PWD/$build/platform:$PATH
say() { printf '\n— %s\n' "$*"; }
on_host() { vshost run --state "$state" -- "$@"; }
wait_for() { # command that has to succeed
    for _ in $(seq 600); do
        if "$@" >/dev/null 2>&1; then return; fi
        sleep 0.05
    done
    echo "not seen in 30 s: $*" >&2
    return 1
}
reaches() { ip netns exec "$1" ping -q -c 3 -i 0.2 -W 1 "$2" >/dev/null; }
connect() { # namespace, interface outside, interface inside
    ip link add "$2" type veth peer name "$3" netns "$1"
    ip link set "$2" up
    ip -n "$1" link set "$3" up
}

mkdir -p /run/netns
mount -t tmpfs none /run/netns # the names are this demonstration's own
sysctl -qw net.ipv6.conf.default.disable_ipv6=1
vshostd --state "$state" 2>"$state.log" &
daemon=$!
# The first request is answered when vshostd works, and it refuses this one.
until [[ $(vshost unplug --state "$state" none 2>&1) == *'is not plugged'* ]]; do
    if ! kill -0 $daemon 2>/dev/null; then
        tail -1 "$state.log"
        exit 77
    fi
    sleep 0.05
done
trap 'vshost stop --state "$state" && wait $daemon' EXIT
for name in a b network; do
    ip netns add $name
    ip netns exec $name sysctl -qw net.ipv6.conf.default.disable_ipv6=1
done

say "Two namespaces on ports of one switch"
on_host vsctl switch create live --ports 4 >/dev/null
for name in a b; do
    connect $name v$name eth0
done
ip -n a address add 10.0.0.1/24 dev eth0
ip -n b address add 10.0.0.2/24 dev eth0
vshost plug --state "$state" live port0 va
vshost plug --state "$state" live port1 vb
for vlan in 100 200; do
    on_host vsctl port vlan live port0 100 >/dev/null
    on_host vsctl port vlan live port1 $vlan >/dev/null
    if reaches a 10.0.0.2; then answer="answers"; else answer="does not answer"; fi
    echo "a on VLAN 100 pings b on VLAN $vlan: b $answer"
    case "$vlan $answer" in "100 answers" | "200 does not answer") ;; *) exit 1 ;; esac
done

say "Two uplinks to a network"
ip -n network link add br0 type bridge
ip -n network link set br0 up
ip -n network address add 10.0.0.9/24 dev br0
for uplink in 0 1; do
    connect network net$uplink port$uplink
    ip -n network link set port$uplink master br0
    vshost nic add --state "$state" net$uplink
    on_host vsctl uplink add live uplink$uplink >/dev/null
done
on_host vsctl port vlan live port0 0 >/dev/null
wait_for reaches a 10.0.0.9
is_link() { on_host vsctl uplink live live | grep -q "^net$1 *$2 "; }
ip netns exec a ping -i 0.01 -c 400 -W 1 10.0.0.9 >"$state.pings" &
pings=$!
for uplink in 0 1; do
    ip -n network link set port$uplink down
    wait_for is_link $uplink no
    on_host vsctl uplink live live
    sleep 0.5 # pings go on
    ip -n network link set port$uplink up
    wait_for is_link $uplink yes
    sleep 0.5
done
wait $pings
awk '/transmitted/ { print $1 - $4 " of " $1 " pings were lost while each uplink in turn had no link" }' "$state.pings"
echo "What vshostd has logged:"
cat "$state.log"
