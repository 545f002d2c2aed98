#!/usr/bin/env bash
# Measures the library, the embedded store and the command beside their peers, and prints one table of ratios.
#   bench/run.sh          all sizes, 12 rounds: about ten minutes
#   bench/run.sh --quick  the small sizes, 4 rounds: about a minute
# VSWITCHCTL_BENCH_DIR names a directory on the disk to measure; it is build/bench by default.
set -euo pipefail
cd "$(dirname "$0")/.."
. cmake/install_packages.sh
install_packages
if [ ! -x /usr/sbin/ovsdb-server ]; then
    # The peer. Its service stays off; the measured server is started below.
    as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    echo "Installing openvswitch-switch"
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive RUNLEVEL=1 \
        apt-get install -y -qq --no-install-recommends openvswitch-switch >/dev/null
fi

rounds=12
sizes=()
[ "${1:-}" = --quick ] && rounds=4 sizes=(quick)

cmake --preset release >/dev/null
cmake --build --preset release --target bench -- --quiet
build=build/release

mkdir -p "${VSWITCHCTL_BENCH_DIR:-build/bench}"
work=$(mktemp -d "${VSWITCHCTL_BENCH_DIR:-$PWD/build/bench}/run.XXXXXX")
stop() {
    [ ! -s "$work/ovsdb.pid" ] || kill "$(cat "$work/ovsdb.pid")"
    rm -rf "$work"
}
trap stop EXIT
ovsdb-tool create "$work/ovs.db" /usr/share/openvswitch/vswitch.ovsschema
ovsdb-server --remote="punix:$work/ovsdb.sock" --pidfile="$work/ovsdb.pid" --unixctl="$work/ovsdb.ctl" \
    --log-file="$work/ovsdb.log" --detach "$work/ovs.db" 2>/dev/null

interleaved() { # results program arguments…
    local results=$1
    shift
    "$@" --benchmark_repetitions="$rounds" --benchmark_enable_random_interleaving=true \
        --benchmark_out="$results" --benchmark_out_format=json >"$work/log" 2>&1 || { cat "$work/log"; return 1; }
}
interleaved "$work/load.json" "$build/bench/load_bench"
VSWITCHCTL_BENCH_DIR=$work OVSDB_SOCKET=$work/ovsdb.sock \
    interleaved "$work/store.json" "$build/bench/store_bench" "${sizes[@]}"

bench/report.py "$work/store.json" "$work/load.json"
echo
bench/cost.py "$build/bench/operations" | sed -n '/by hand/,$p'
strip -o "$work/stripped" "$build/libvswitchctl.so"
echo
echo "Stripped library: $(stat -c %s "$work/stripped") bytes of 65536"
