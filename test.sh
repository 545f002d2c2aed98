#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test. Needs a Debian 12 machine and nothing else.
set -euo pipefail
cd "$(dirname "$0")"
. cmake/install_packages.sh
install_packages

sources() { git ls-files '*.h' '*.cpp' '*.c' | grep -v '^tests/package/'; }

echo "== Format"
sources | xargs clang-format --dry-run -Werror

failed=0
for preset in release asan; do
    echo "== Build: $preset"
    build_preset "$preset"
    echo "== Test: $preset"
    ctest --test-dir "build/$preset" --output-on-failure -j2 || failed=1
done

echo "== Static analysis"
git ls-files 'core/*.cpp' 'lifecycle/*.cpp' 'policy/*.cpp' 'kernel/*.cpp' |
    xargs -P2 -n4 clang-tidy -p build/release --quiet --warnings-as-errors='*' 2>/dev/null || failed=1

exit $failed
