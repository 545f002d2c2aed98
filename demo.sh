#!/usr/bin/env bash
# Builds the release and shows the main operations on an embedded host. Every step really runs, in its own
# process, on a host in a temporary directory.
set -euo pipefail
cd "$(dirname "$0")"
. cmake/install_packages.sh
install_packages
echo "Building (build/release)"
build_preset release first tour vshost_launcher tybel vsctl

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
sleep 1
pkill -KILL -f "^$build/examples/tour write $work/log"
{ wait $! || true; } 2>/dev/null
tour check "$work/log"
say "The host as it stands"
"$build/platform/vshost" show --state "$work/host"
say "The switch is destroyed"
tour destroy
! tour show 2>"$work/error"
grep -q 0x0BAD0003 "$work/error"
echo "and nothing finds it any more"
say "Done"
