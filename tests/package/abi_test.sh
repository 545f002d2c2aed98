#!/usr/bin/env bash
# abi_test.sh SOURCE BUILD [--write]: compares the binary interface with the recorded one. --write records
# the present interface, unless it would break programs under the same SONAME.
set -euo pipefail
source=$1 build=$2
kept=$source/packaging/vswitchctl.abi
library=$build/libvswitchctl.so
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

soname=$(readelf -d "$library" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
python3 "$source/tools/interface.py" "$build/reference/xml" "$source/include/vswitchctl.h" >"$work/interface.c"
gcc -std=c99 -g -shared -fPIC -I"$source/include" "$work/interface.c" -o "$work/interface.so" \
    -Wl,-soname,"$soname" -Wl,--version-script="$source/cmake/vswitchctl.map"
abidw --load-all-types --no-corpus-path --no-comp-dir-path --no-show-locs "$work/interface.so" >"$work/now.abi"

# The library exports what the header declares, version nodes included.
exported() { nm -D --defined-only --with-symbol-versions "$1" | awk '$3 !~ /^VSWITCHCTL_/ {print $3}' | sort; }
diff <(exported "$library") <(exported "$work/interface.so")

code=0
abidiff --non-reachable-types --harmless "$kept" "$work/now.abi" >"$work/report" || code=$?
if [ "${3:-}" = --write ]; then
    if grep -Eq '[1-9][0-9]* ([Rr]emoved|[Cc]hanged)' "$work/report" && grep -q "soname='$soname'" "$kept"; then
        cat "$work/report" >&2
        echo "This breaks programs linked to $soname: raise the major version in CMakeLists.txt first." >&2
        exit 1
    fi
    cp "$work/now.abi" "$kept"
elif ((code)); then
    cat "$work/report" >&2
    echo "The interface has changed. If it is meant: $0 $source $build --write, see docs/stability.md." >&2
    exit 1
fi
