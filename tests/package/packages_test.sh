#!/usr/bin/env bash
# packages_test.sh: builds the packages of the last commit twice, in two folders, compares them byte by byte, looks
# for lintian errors, installs them into a fresh Debian root, and compiles and runs the first program there: with
# libvswitchctl-dev alone for linking, with vswitchctl-host for running, with vswitchctl-live on the machine's own host
# (machine_test.sh). Needs root, git, lintian, mmdebstrap, bpf and FUSE.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
say() { echo "== $*"; }

say "The same commit, built twice in two folders"
git clone -q "$root" "$work/one"
git clone -q "$work/one" "$work/another/folder"
for folder in one another/folder; do
    CCACHE_DISABLE=1 "$work/$folder/packaging/build_packages.sh" >/dev/null 2>"$work/log" || { cat "$work/log" >&2; exit 1; }
done
packages=$work/one/build/package/packages
for package in "$packages"/*.deb; do
    cmp "$package" "$work/another/folder/build/package/packages/$(basename "$package")"
    sha256sum "$package" | sed "s|$work/||"
done

say "lintian"
lintian --fail-on error --suppress-tags initial-upload-closes-no-bugs "$packages"/*.deb

say "A fresh root"
fresh=$work/fresh
mmdebstrap --variant=minbase --include=gcc,g++,cmake,make,pkg-config,python3,libsqlite3-0,libfmt9,libbpf1,libfuse3-3,libnl-route-3-200,libgrpc++1.51,libprotobuf32,libssl3,zlib1g,adduser,systemd,iproute2,iputils-ping bookworm "$fresh" 2>"$work/log" ||
    { cat "$work/log" >&2; exit 1; }
inside() { # with a /proc, which ends with the process
    unshare --mount --fork sh -c 'mount -t proc proc "$0/proc" && exec chroot "$0" env -i \
        PATH=/usr/bin:/bin:/usr/sbin:/sbin HOME=/root "$@"' "$fresh" "$@"
}
mkdir -p "$fresh/test/consumer" "$fresh/packages" "$fresh/dev/shm"
cp "$packages"/*.deb "$fresh/packages"
cp "$root/examples/first.c" "$root/tests/package/python_test.py" "$root/cmake/vswitchctl.map" "$fresh/test"
cp "$root"/tests/package/consumer/CMakeLists.txt "$fresh/test/consumer"

say "Linking with libvswitchctl-dev alone"
inside sh -c 'dpkg -i /packages/libvswitchctl1_* /packages/libvswitchctl-dev_*' >/dev/null
for language in "gcc -std=c99" "g++ -std=c++20 -x c++"; do
    inside sh -ec "cd /test; $language -Wall -Wextra -pedantic -Werror first.c -x none -o first-\$(echo $language | tr -dc a-z) \
        \$(pkg-config --cflags --libs vswitchctl)"
done
if inside /test/first-gccstdc 2>"$work/error"; then exit 1; fi
grep -q 'liborkPublic.so: cannot open shared object' "$work/error"

say "Running with vswitchctl-host, the module and the command"
inside sh -c 'dpkg -i $(ls /packages/*.deb | grep -v vswitchctl-live)' >/dev/null
inside sh -ec 'cd /test; for program in ./first-*; do vshost run -- $program; done
    cmake -S consumer -B build -DPROGRAM=/test/first.c >/dev/null; cmake --build build >/dev/null
    for program in build/c99 build/cxx build/in_test; do vshost run -- $program; done
    vshost run -- python3 python_test.py vswitchctl.map 2>&1 | tail -1
    if command -v vsctl >/dev/null; then vshost run -- vsctl switch list; fi
    vsfleet --version'

say "Units are enabled, and stay as the administrator has them"
enabled=$fresh/etc/systemd/system/multi-user.target.wants
inside systemctl disable --quiet vsfleet-drive.service
inside sh -c 'dpkg -i /packages/vsfleet_* /packages/vsctl_*' >/dev/null
[ -L "$enabled/vsctl-boot.service" ]
[ -L "$enabled/vsfleet-agent.service" ]
[ ! -L "$enabled/vsfleet-drive.service" ]
inside sh -c 'systemd-analyze verify --man=no /usr/lib/systemd/system/vs*.service'
"$(dirname "$0")/machine_test.sh" "$fresh" "$work/one"
say "Removal leaves nothing"
mkdir -p "$fresh/var/lib/vsctl" "$fresh/var/lib/vswitchctl/fleet"
inside sh -c 'dpkg -P vswitchctl-host vsfleet vsctl python3-vswitchctl libvswitchctl-dev libvswitchctl1' >/dev/null
if find "$fresh"/{usr,etc,var/lib,run} -name 'vs[cfhw]*' -o -name '*vswitchctl*' -o -name '*liborkPublic*' |
    grep -v '^[^ ]*/var/lib/dpkg/'; then exit 1; fi
say "All is well"
