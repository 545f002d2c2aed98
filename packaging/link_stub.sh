#!/bin/sh
# link_stub.sh COMPILER LIBRARY STUB: a shared object with the names that LIBRARY takes from the store.
set -eu
names=$(nm -D --undefined-only "$2" | awk '$1 == "U" && $2 ~ /^DVS/ {print $2}')
[ -n "$names" ] || { echo "$2 takes nothing from the store" >&2; exit 1; }
mkdir -p "$(dirname "$3")"
printf 'void %s(void);\nvoid %s(void) {}\n' $(for name in $names; do echo "$name $name"; done) |
    "$1" -shared -fPIC -Wl,-soname,liborkPublic.so -Wl,--build-id=none -s -o "$3" -x c -
