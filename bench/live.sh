#!/usr/bin/env bash
# Measures a live host beside the kernel's bridge and Open vSwitch's user-space data path, as root. Everything
# happens in network namespaces of its own.
#   bench/live.sh          all sizes, 15 rounds: ten minutes
#   bench/live.sh --quick  the small sizes, 3 rounds: a minute
set -euo pipefail
cd "$(dirname "$0")/.."
. cmake/install_packages.sh
# The peers. Their services stay off: what is measured is started below.
RUNLEVEL=1 install_packages openvswitch-switch iperf3 ethtool iputils-ping
rounds=15 sizes=()
[ "${1:-}" = --quick ] && rounds=3 sizes=(quick)
build_preset release live_bench

# A flood to 1,000 ports is more than the kernel queues for a processor by default, whichever switch it is.
backlog=$(sysctl -n net.core.netdev_max_backlog)
trap 'sysctl -qw "net.core.netdev_max_backlog=$backlog"' EXIT
sysctl -qw net.core.netdev_max_backlog=100000
unshare --net --mount bench/live.py build/release "$rounds" "${sizes[@]}"
