#!/usr/bin/env bash
# cross_test.sh: builds the last commit for aarch64 in a fresh Debian root and runs the library's tests there, emulated
# by qemu. The kernel starts foreign programs by a binfmt_misc of the test's own user namespace, so that nothing on
# this machine changes. Needs root, git, mmdebstrap, qemu-user-static and Linux 6.7.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
say() { echo "== $*"; }
TESTS='fault|identity|kernel|lifecycle|mirror|model|mtu|operations|policy|property|thread|uplink|vlan'

say "A fresh root with the cross compiler"
fresh=$work/fresh
mmdebstrap --variant=minbase --architectures=amd64,arm64 --include="cmake,ninja-build,pkg-config,python3,g++,\
g++-aarch64-linux-gnu,nlohmann-json3-dev,libcli11-dev,libfmt-dev:arm64,libtomlplusplus-dev:arm64,libgtest-dev:arm64,\
libsqlite3-dev:arm64,zlib1g-dev:arm64" \
    --customize-hook='chroot "$1" sh -c "cd /root && apt-get download -qq dash:arm64"' bookworm "$fresh" 2>"$work/log" ||
    { cat "$work/log" >&2; exit 1; }
git clone -q "$root" "$fresh/source"
mkdir -p "$fresh/dev/shm"
cp "$(command -v qemu-aarch64-static)" "$fresh/usr/bin/"

# Runs a command in the root, with a /proc and a binfmt_misc that end with it.
inside() {
    unshare --user --map-root-user --mount --pid --fork sh -c '
        mount -t proc proc "$0/proc" && mount -t tmpfs tmpfs "$0/dev/shm" &&
        for node in null zero urandom full; do touch "$0/dev/$node"; mount --bind "/dev/$node" "$0/dev/$node"; done &&
        mount -t binfmt_misc none "$0/proc/sys/fs/binfmt_misc" &&
        printf "%s" ":aarch64:M::\x7fELF\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\xb7\x00:\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff:/usr/bin/qemu-aarch64-static:OCF" \
            >"$0/proc/sys/fs/binfmt_misc/register" &&
        exec chroot "$0" env -i PATH=/usr/bin:/bin:/usr/sbin:/sbin HOME=/root CI="${CI-}" "$@"' "$fresh" "$@"
}

say "Build for aarch64"
inside cmake -S /source -B /build -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE=/source/tests/cross/aarch64.cmake >"$work/log" || { cat "$work/log" >&2; exit 1; }
inside ninja -C /build --quiet
file=$(inside aarch64-linux-gnu-readelf -h /build/libvswitchctl.so)
grep -q 'Machine: *AArch64' <<<"$file"

say "The library's tests under qemu, with a shell that can load the preload"
inside sh -c 'dpkg-deb -x /root/dash_*_arm64.deb /root/shell && mv /root/shell/bin/dash /bin/dash'
inside env VSWITCHCTL_MODEL_SEEDS=2 ctest --test-dir /build --output-on-failure -j2 -R "^($TESTS)_test\$"
