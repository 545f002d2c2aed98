#!/bin/sh
# picture_test.sh SOURCE: each picture is what its text draws, the folders include from each other
# what the text says, and those of the platform and of the command only from folders further down.
set -eu
cd "$1"
for picture in docs/*.dot; do
    dot -Tsvg "$picture" | diff -q - "${picture%.dot}.svg"
done
for folder in core lifecycle policy kernel platform/*/ cli/*/ fleet/*/; do
    folder=${folder%/} part=${folder%/*}
    if grep -q '^#include "frontend/' "$folder"/*.[ch]*; then
        grep -q "${folder##*/} -> frontend\b" docs/architecture.dot || { echo "$folder includes from frontend" >&2; exit 1; }
    fi
    [ "$part" = "$folder" ] && part='' || part=$part/
    sed -n "s|^#include \"$part\([a-z]*\)/.*|\1|p" "$folder"/*.[ch]* 2>/dev/null | sort -u | while read -r other; do
        [ "${folder##*/}" = "$other" ] || grep -q "${folder##*/} -> $other\b" docs/architecture.dot || {
            echo "$folder includes from $part$other, which docs/architecture.dot doesn't say" >&2
            exit 1
        }
    done
done

# The folders of a part include downwards only, in the order in which they are given.
check_downwards() { # part, folders
    part=$1 order=$2
    for folder in "$part"/*/; do
        folder=$(basename "$folder")
        ls "$part/$folder"/*.[ch]* >/dev/null 2>&1 || continue
        below=${order#*"$folder"}
        [ "$below" != "$order" ] || { echo "$part/$folder has no place in the order" >&2; exit 1; }
        grep -ho "^#include \"$part/[a-z]*" "$part/$folder"/*.[ch]* | sed 's|.*/||' | sort -u | while read -r other; do
            case " $folder $below " in
            *" $other "*) ;;
            *) echo "$part/$folder includes from $part/$other, which stands above it" >&2; exit 1 ;;
            esac
        done
    done
}
check_downwards platform "preload launcher live scenario shell driver store testing host include"
check_downwards cli "verbs change base"
check_downwards fleet "command rollout agent protocol etcd"
! grep -l '#include "\(core\|lifecycle\|policy\|kernel\|platform\|cli\)/' -r fleet >&2
! grep -l '#include "\(core\|lifecycle\|policy\|kernel\|cli\)/' -r platform >&2
! grep '#include "' -r frontend | grep -v '"frontend/' >&2
! grep -l '#include "platform/' -r core lifecycle policy kernel >&2
