#!/usr/bin/env bash
# build_packages.sh [BUILD_DIRECTORY]: the Debian packages, in BUILD_DIRECTORY/packages.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build/package}
export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git -C "$root" log -1 --format=%ct)}
umask 022
# Files contain no path of the build machine: the same commit gives the same bytes in any folder.
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_SKIP_INSTALL_ALL_DEPENDENCY=ON \
    -DCMAKE_BUILD_RPATH_USE_ORIGIN=ON -DCMAKE_C_FLAGS="-ffile-prefix-map=$root=." \
    -DCMAKE_CXX_FLAGS="-ffile-prefix-map=$root=." >/dev/null
cmake --build "$build" --target installed -- --quiet
rm -rf "$build/packages"
(cd "$build" && cpack -B packages >packages.log) || { cat "$build/packages.log" >&2; exit 1; }
ls "$build"/packages/*.deb
