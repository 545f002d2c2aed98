#!/bin/sh
# finish_tree.sh TREE PACKAGE VERSION: adds Debian's files to a staged tree: copyright, changelog, compressed
# manual pages. It sets one date on every file, so that the same commit gives the same bytes.
set -eu
here=$(dirname "$0")
doc=$1/usr/share/doc/$2
date=${SOURCE_DATE_EPOCH:-$(date +%s)}
mkdir -p "$doc"
cp "$here/copyright" "$doc/copyright"
{
    printf 'vswitchctl (%s) stable; urgency=medium\n\n  * See CHANGELOG.md.\n\n' "$3"
    printf ' -- vswitchctl maintainers <maintainers@vswitchctl.example>  %s\n' "$(date -u -R -d "@$date")"
} | gzip -9n >"$doc/changelog.Debian.gz"
gzip -9nc "$here/../CHANGELOG.md" >"$doc/changelog.gz"
find "$1" -path '*/man/man?/*' -type f ! -name '*.gz' -exec gzip -9n {} +
find "$1" -name __pycache__ -prune -exec rm -rf {} +
find "$1" -exec touch -h -d "@$date" {} +
