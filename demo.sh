#!/usr/bin/env bash
# Builds the release and shows the main operations on an embedded host, then, as root, a live host that forwards
# packets. Every step really runs, in its own process, on a host in a temporary directory. With --fleet: three hosts
# that follow documents in etcd.
set -euo pipefail
cd "$(dirname "$0")"
. cmake/install_packages.sh
install_packages
echo "Building (build/release)"
if [ "${1:-}" = --fleet ]; then
    build_preset release vshost_launcher vshost tybel vsctl vsfleet
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    examples/fleet.sh build/release "$work"
    exit
fi
build_preset release first tour vshost_launcher tybel vsctl vshostd

build=$PWD/build/release
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'echo "The demonstration FAILED at line $LINENO" >&2' ERR

say() { printf '\n— %s\n' "$*"; }
on_host() { "$build/platform/vshost" run --state "$work/host" -- "$@"; }
tour() { on_host "$build/examples/tour" "$@"; }

say "A switch with 2 uplinks and 8 ports, a VLAN trunk and private VLANs"
tour create
say "Another process finds all of it"
tour show
say "The running switch, from the kernel's driver"
tour live
say "Policies, MAC table and MTU"
tour policies
say "One uplink is taken down; another process sees it"
tour link nic0 down
seen=$(tour live)
grep 'nic0 .*link down' <<<"$seen"
grep 'nic1 .*link up' <<<"$seen"
say "A process is killed (SIGKILL) in the middle of writing"
"$build/platform/vshost" run --state "$work/host" -- "$build/examples/tour" write "$work/log" &
writer=$!
until [ "$(wc -l <"$work/log")" -ge 100 ]; do # numbers of writes that have succeeded
    kill -0 $writer
    sleep 0.05
done 2>/dev/null
kill -KILL $writer
{ wait $writer || true; } 2>/dev/null
tour check "$work/log"
say "The host as it stands"
"$build/platform/vshost" show --state "$work/host"
say "The switch is destroyed"
tour destroy
! tour show 2>"$work/error"
grep -q 0x0BAD0003 "$work/error"
echo "and nothing finds it any more"
say "A live host"
if ! unshare --net --mount true 2>/dev/null; then
    echo "left out: switches that forward packets need root, and namespaces"
else
    code=0
    unshare --net --mount examples/live.sh build/release "$work/live" || code=$?
    case $code in
    0) ;;
    77) echo "left out: the line above says why this machine can't run switches that forward packets" ;;
    *) exit "$code" ;;
    esac
fi
say "Done"
