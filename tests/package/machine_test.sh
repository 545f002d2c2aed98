#!/usr/bin/env bash
# machine_test.sh ROOT CLONE: the package vswitchctl-live in a fresh Debian root that has the other packages: refused
# where another platform is, installed, used, upgraded, removed, purged. CLONE has built the packages, and builds two
# more versions, the second with other maps. Namespaces stand in for a kernel of the root's own; no systemd runs, so
# this script starts vshostd as the unit does. Needs root, bpf and FUSE.
set -euo pipefail
fresh=$1 clone=$2
library=$fresh/usr/lib/$(gcc -print-multiarch)/liborkPublic.so
state=/var/lib/vswitchctl/host
log=$fresh/vshostd.log
say() { echo "== $*"; }
fail() {
    echo "$*" >&2
    cat "$log" >&2 || true
    exit 1
}
wait_for() { # command that has to succeed
    for _ in $(seq 600); do
        if "$@" >/dev/null 2>&1; then return; fi
        sleep 0.05
    done
    fail "not seen in 30 s: $*"
}

unshare --mount --net sleep infinity &
holder=$!
clean_up() {
    if [ -e "$fresh$state/vshostd.pid" ]; then machine vshost stop || true; fi
    kill $holder
}
trap clean_up EXIT
in_namespaces() { nsenter "--mount=/proc/$holder/ns/mnt" "--net=/proc/$holder/ns/net" "$@"; }
machine() { in_namespaces chroot "$fresh" env -i PATH=/usr/bin:/bin:/usr/sbin:/sbin HOME=/root LANG=C.UTF-8 "$@"; }
wait_for sh -c "[ \$(readlink /proc/$holder/ns/net) != \$(readlink /proc/self/ns/net) ]"
in_namespaces sh -ec '
    mount --make-rprivate /
    mount --bind "$0" "$0"
    mount -t proc proc "$0/proc"
    mount -t sysfs sysfs "$0/sys"
    mount -t tmpfs none "$0/dev"
    mknod -m 666 "$0/dev/null" c 1 3
    mknod -m 666 "$0/dev/urandom" c 1 9
    mknod -m 666 "$0/dev/fuse" c 10 229
    mkdir -m 1777 "$0/dev/shm"
    ip link set lo up' "$fresh"

start() {
    local command
    command=$(sed -n 's/^ExecStart=//p' "$fresh/usr/lib/systemd/system/vshostd.service")
    machine $command 2>>"$log" &
    vshostd=$!
    # The first request is answered when vshostd works, and it refuses this one.
    wait_for refuses
}
refuses() { [[ $(machine vshost unplug none 2>&1) == *'is not plugged'* ]]; }
end() { # as a service manager does
    kill "$(cat "$fresh$state/vshostd.pid")"
    wait $vshostd
}
reaches() { machine ip netns exec a ping -q -c 1 -W 1 10.0.0.2; }
install() { machine sh -c "dpkg -i $1/*.deb" 2>&1; }
status() { machine dpkg-query -W -f '${db:Status-Abbrev}' vswitchctl-live 2>/dev/null | tr -d ' '; }

# Builds the packages again as release $1 into $fresh/$1; the rest is an edit of the sources.
build() {
    sed -i "s/\(CPACK_DEBIAN_PACKAGE_RELEASE\) [0-9]*/\1 $1/" "$clone/packaging/debian.cmake"
    [ $# = 1 ] || sed -i "${@:2}"
    CCACHE_DISABLE=1 "$clone/packaging/build_packages.sh" >/dev/null 2>"$fresh/build.log" || fail "$(cat "$fresh/build.log")"
    mkdir "$fresh/$1"
    cp "$clone"/build/package/packages/*.deb "$fresh/$1"
}

say "Refused where another platform is"
for other in "$library" "$fresh/usr/local/lib/liborkPublic.so" "$fresh/usr/bin/tybel"; do
    echo other >"$other"
    if said=$(install /packages); then fail "installed beside $other"; fi
    grep -q "vswitchctl-live: .*$(basename "$other") is here already" <<<"$said" || fail "$said"
    [ "$(cat "$other")" = other ] && [[ $(status) != ii ]] || fail "$other is replaced"
    rm "$other"
done

say "Installed"
install /packages >/dev/null
[ "$(status)" = ii ]
machine systemd-analyze verify --man=no /usr/lib/systemd/system/vshostd.service
machine getent group vswitchctl >/dev/null
if machine /test/first-gccstdc 2>/dev/null; then fail "a program runs before vshostd does"; fi

say "Used by programs that name no host"
start
machine /test/first-gccstdc | grep 'status 0x00000000' # makes the switch lab; its port0 is on VLAN 100
machine vsctl doctor >/dev/null
for number in 0 1; do
    name=$(tr 01 ab <<<$number)
    machine ip netns add $name
    machine ip link add v$name type veth peer name eth0 netns $name
    machine ip link set v$name up
    machine ip -n $name link set eth0 up
    machine ip -n $name address add 10.0.0.$((number + 1))/24 dev eth0
    machine vshost plug lab port$number v$name
done
if reaches >/dev/null; then fail "a frame has crossed VLANs"; fi
machine vsctl port vlan lab port1 100
wait_for reaches
machine vshost check

say "Upgraded with the same maps: no packet is lost"
build 2
machine ip netns exec a ping -q -c 6000 -i 0.01 -W 5 10.0.0.2 >"$fresh/ping" &
pinging=$!
install /2 | grep 'start vshostd again'
end
start
machine dpkg-query -W -f '${Version}\n' vswitchctl-live | grep -- '-2$'
kill -0 $pinging || fail "the upgrade took longer than the packets"
wait $pinging
grep ' 6000 received' "$fresh/ping" || fail "$(cat "$fresh/ping")"
if grep 'start afresh' "$log"; then fail "learned addresses are lost"; fi

say "Upgraded with other maps: it says what it loses"
layout=$(sed -n 's/#define LIVE_LAYOUT_VERSION \([0-9]*\).*/\1/p' "$clone/platform/live/maps.h")
build 3 "s/\(#define LIVE_LAYOUT_VERSION\) $layout/\1 $((layout + 1))/" "$clone/platform/live/maps.h"
install /3 | grep 'Learned addresses and counters start afresh'
end
start
grep 'addresses and counters start afresh' "$log"
wait_for reaches
machine vshost check

say "Stopped and started"
machine vshost stop
wait $vshostd
if machine tc filter show dev va ingress | grep .; then fail "a filter is left"; fi
start
machine vshost plug lab port0 va
machine vshost plug lab port1 vb
wait_for reaches

say "Removed while it forwards"
machine dpkg -r vswitchctl-live >/dev/null
wait $vshostd
if machine tc filter show dev va ingress | grep .; then fail "a filter is left"; fi
if in_namespaces grep "$state" /proc/mounts; then fail "a mount is left"; fi
for left in /dev/vswitch /krem /bin/tybel "${library#"$fresh"}"; do
    if machine test -e $left || machine test -L $left; then fail "$left is left"; fi
done
[ -e "$fresh$state/host.db" ]
machine dpkg -P vswitchctl-live >/dev/null
[ ! -e "$fresh/var/lib/vswitchctl" ]
if machine getent group vswitchctl; then fail "the group is left"; fi
