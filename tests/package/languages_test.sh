#!/usr/bin/env bash
# languages_test.sh SOURCE BUILD: the management program does the same in C, C++ and Python, and undoes the same.
set -euo pipefail
source=$1 build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export PYTHONPATH=$build/python PYTHONDONTWRITEBYTECODE=1 LD_LIBRARY_PATH=$build
cat >"$work/fault.json" <<'JSON'
{"faults": [{"kind": "store", "operation": "DVSZOR_GlobalPropSet", "nth": 5, "times": 1, "outcome": "STATUS_IO_ERROR"}]}
JSON
number=0
for program in "$build/examples/manage_c" "$build/examples/manage_cpp" "python3 $source/examples/manage/manage.py"; do
    number=$((number + 1))
    host=$work/host$number
    "$build/platform/vshost" run --state "$host" --durability process -- $program shop >"$work/out$number"
    cmp "$work/out1" "$work/out$number"
    if "$build/platform/vshost" run --state "$host" --scenario "$work/fault.json" -- $program broken >"$work/failed" \
        2>"$work/error"; then
        echo "$program succeeds although the store fails" >&2
        exit 1
    fi
    grep -q '0x0BAD0008' "$work/error"
    "$build/platform/vshost" show --state "$host" >"$work/show"
    if ! grep -q shop "$work/show" || grep -q broken "$work/show"; then
        cat "$work/show" >&2
        exit 1
    fi
done
cat "$work/out1"
