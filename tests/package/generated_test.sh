#!/bin/sh
# generated_test.sh SOURCE XML: the Python module's generated files are what the header gives today.
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
PYTHONDONTWRITEBYTECODE=1 python3 "$1/bindings/python/generate.py" "$2" "$1/include/vswitchctl.h" "$work"
for file in "$work"/*; do
    diff -u "$1/bindings/python/vswitchctl/$(basename "$file")" "$file" || {
        echo "run bindings/python/generate.py $2 include/vswitchctl.h" >&2
        exit 1
    }
done
