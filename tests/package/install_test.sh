#!/usr/bin/env bash
# install_test.sh SOURCE BUILD: installs into a new folder, compiles the first program against it in C99
# and C++ with pkg-config and with CMake, and runs each on the installed embedded host.
set -euo pipefail
source=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
stage=$work/usr
cmake --install "$build" --prefix "$stage" >/dev/null
lib=$(dirname "$(find "$stage" -name libvswitchctl.so)")
export PKG_CONFIG_PATH=$lib/pkgconfig LD_LIBRARY_PATH=$lib

# The installed command finds the library beside itself, whatever the environment.
env -u LD_LIBRARY_PATH "$stage/bin/vshost" run -- "$stage/bin/vsctl" switch list >/dev/null

# So does vshostd, which is beside vshost for `vshost stop`.
if [ -e "$build/platform/vshostd" ]; then
    env -u LD_LIBRARY_PATH "$stage/sbin/vshostd" --version | grep -q '^vshostd '
    [ "$(dirname "$(realpath "$stage/sbin/vshostd")")" = "$(dirname "$(realpath "$stage/bin/vshost")")" ]
    grep -q '^.SS vshost nic add' "$stage/share/man/man1/vshost.1"
    man --warnings -l "$stage/share/man/man8/vshostd.8" 2>"$work/warnings" | grep -q -- '--state'
    [ ! -s "$work/warnings" ]
fi

# A page for each noun, and one for what holds for all of them.
grep -q '^.SS vsctl port vlan' "$stage/share/man/man1/vsctl-port.1"
grep -q '^.BR vsctl.*port (1)$' "$stage/share/man/man1/vsctl.1"
grep -q '^.SH FILES$' "$stage/share/man/man1/vsctl.1"
man --warnings -l "$stage/share/man/man1/vsctl.1" 2>"$work/warnings" | grep -q -- '--columns'
[ ! -s "$work/warnings" ]

if [ -e "$build/vsfleet" ]; then
    grep -q '^.SS vsfleet push' "$stage/share/man/man1/vsfleet.1"
    man --warnings -l "$stage/share/man/man1/vsfleet.1" 2>"$work/warnings" | grep -q -- '--canary'
    [ ! -s "$work/warnings" ]
fi

# Without a platform it starts too, and says what is missing.
"$stage/bin/vsctl" --version | grep -q '^vsctl '
for words in doctor "switch list"; do
    code=0
    "$stage/bin/vsctl" $words >"$work/doctor" 2>&1 || code=$?
    [ "$code" = 6 ] && grep -q 'liborkPublic.so: cannot open shared object' "$work/doctor"
done

read -ra flags <<<"$(pkg-config --cflags --libs vswitchctl)"
read -ra strict <<<"-Wall -Wextra -pedantic -Werror"

gcc -std=c99 "${strict[@]}" "$source/examples/first.c" -o "$work/c99" "${flags[@]}"
g++ -std=c++20 "${strict[@]}" -x c++ "$source/examples/first.c" -x none -o "$work/cxx" "${flags[@]}"
cmake -S "$source/tests/package/consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$stage" \
    -DPROGRAM="$source/examples/first.c" >/dev/null
cmake --build "$work/cmake" >/dev/null

for program in "$work/c99" "$work/cxx" "$work/cmake/c99" "$work/cmake/cxx" "$work/cmake/in_test"; do
    "$stage/bin/vshost" run -- "$program" | grep -q 'status 0x00000000'
    # The loader finds neither the link stub nor the embedded host's store.
    if [ "$(basename "$program")" != in_test ] && "$program" 2>"$work/error"; then
        echo "$program runs without a platform" >&2
        exit 1
    fi
done
grep -q 'liborkPublic.so: cannot open shared object' "$work/error"
# It finds the store but no host; on a host that stays, it finds the switch of its last run.
{ "$work/cmake/in_test" 2>&1 || true; } | grep -q 'no switch driver answers; start this program with vshost run'
"$stage/bin/vshost" run --state "$work/host" -- "$work/c99" >/dev/null
{ "$stage/bin/vshost" run --state "$work/host" -- "$work/c99" 2>&1 || true; } | grep -q 'switch lab exists already, with id'

# The example of testing a program, against the installed host.
cmake -S "$source/examples/testing" -B "$work/testing" -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build "$work/testing" >/dev/null
"$work/testing/tenant_test" --gtest_brief=1
PYTHONDONTWRITEBYTECODE=1 PYTHONPATH=$stage/lib/python3/dist-packages "$stage/bin/vshost" run -- \
    /usr/bin/python3 -m pytest -q -p no:cacheprovider "$source/examples/testing"
echo "installed files serve C99 and C++ programs"
