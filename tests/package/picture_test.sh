#!/bin/sh
# picture_test.sh SOURCE: the picture of the architecture is what its text draws, and the library's folders include
# from each other what the text says.
set -eu
cd "$1"
dot -Tsvg docs/architecture.dot | diff -q - docs/architecture.svg
for folder in core lifecycle policy kernel; do
    sed -n 's/^#include "\([a-z]*\)\/.*/\1/p' $folder/*.cpp $folder/*.h 2>/dev/null | sort -u | while read -r other; do
        [ "$folder" = "$other" ] || grep -q "$folder -> $other\b" docs/architecture.dot || {
            echo "$folder includes from $other, which docs/architecture.dot doesn't say" >&2
            exit 1
        }
    done
done
