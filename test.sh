#!/usr/bin/env bash
# Installs missing packages, builds, and runs every test. Needs only a Debian 12 machine.
#
#   ./test.sh                  the ordinary run: release and sanitizer builds, fuzz targets for a minute
#   ./test.sh --coverage       lines and branches of the library that the tests run
#   ./test.sh --mutation       activates each mutant of the library (a quarter of an hour)
#   ./test.sh --fuzz SECONDS   each fuzz target for this long
#   ./test.sh --crash ROUNDS   kills a writer this many times
#   ./test.sh --model SEEDS    random walks beside the model, this many of each kind
#   ./test.sh --walk WALKS     random walks over vsctl, this many of 125 commands
#   ./test.sh --fleet-soak [SCHEDULES]  a fleet with this many random schedules of faults (200), outages of a minute
#   ./test.sh --threads        the whole suite under the thread sanitizer
#   ./test.sh --cross          builds for aarch64 in a fresh root and runs the library's tests under qemu (as root)
#   ./test.sh --packages       Debian packages into a fresh root, identical bytes from two builds (as root)
set -euo pipefail
cd "$(dirname "$0")"
. cmake/install_packages.sh
install_packages

FUZZ_TARGETS=($(basename -s .cpp tests/fuzz/*.cpp))

check_format() {
    echo "== Format"
    git ls-files '*.h' '*.cpp' '*.c' | xargs clang-format --dry-run -Werror
    ! git ls-files '*.py' | xargs grep -nH '.\{121\}' || { echo "Python lines end at 120 characters" >&2; return 1; }
}

run_tests() { # preset, further arguments of ctest
    echo "== Build: $1"
    build_preset "$1"
    echo "== Test: $1"
    ctest --test-dir "build/$1" --output-on-failure -j2 "${@:2}"
}

run_fuzz_targets() { # seconds for each
    echo "== Fuzz targets, $1 s each"
    build_preset fuzz "${FUZZ_TARGETS[@]/#/fuzz_}" tybel
    local target corpus
    for target in "${FUZZ_TARGETS[@]}"; do
        corpus=$(mktemp -d)
        ASAN_OPTIONS=verify_asan_link_order=0 "build/fuzz/fuzz/fuzz_$target" -seed=20260101 -max_total_time="$1" \
            -max_len=8192 -timeout=10 -print_final_stats=1 -artifact_prefix=build/fuzz/ \
            "$corpus" "tests/fuzz/corpus/$target" >"build/fuzz/$target.log" 2>&1 || {
            tail -40 "build/fuzz/$target.log"
            return 1
        }
        rm -rf "$corpus"
        echo "$target: $(grep -o 'number_of_executed_units: *[0-9]*' "build/fuzz/$target.log" | grep -o '[0-9]*$') inputs"
    done
}

analyse() {
    echo "== Static analysis"
    git ls-files 'core/*.cpp' 'lifecycle/*.cpp' 'policy/*.cpp' 'kernel/*.cpp' |
        xargs -P2 -n4 clang-tidy -p build/release --quiet --warnings-as-errors='*' --extra-arg=-Wno-unknown-warning-option 2>/dev/null
}

case "${1-}" in
--coverage)
    run_tests coverage
    gcovr --root . --object-directory build/coverage --filter '(core|lifecycle|policy|kernel)/' \
        --exclude-throw-branches --exclude-unreachable-branches --branches --print-summary
    ;;
--mutation)
    tests/mutation/run.py "${@:2}"
    ;;
--fuzz)
    run_fuzz_targets "$2"
    ;;
--threads)
    VSWITCHCTL_MODEL_SEEDS=2 run_tests tsan # one thread, slow here
    ;;
--model)
    build_preset release
    VSWITCHCTL_MODEL_SEEDS=$2 build/release/tests/model_test
    ;;
--walk)
    build_preset release vsctl tybel vshost_launcher kill_at
    VSCTL_WALK_SEEDS=1000-$((999 + $2)) python3 -W ignore::DeprecationWarning tests/vsctl_walk_test.py build/release .
    ;;
--fleet-soak)
    build_preset release fleet_outages_test fleet_rollout_test
    FLEET_SCHEDULES=${2:-200} FLEET_OUTAGE=60 build/release/tests/fleet_outages_test
    FLEET_SLOW=30 build/release/tests/fleet_rollout_test --gtest_filter='RealHosts.*'
    ;;
--packages)
    install_packages lintian mmdebstrap
    tests/package/packages_test.sh
    ;;
--cross)
    install_packages mmdebstrap qemu-user-static
    tests/cross/cross_test.sh
    ;;
--crash)
    build_preset release
    VSWITCHCTL_CRASH_ROUNDS=$2 build/release/tests/crash_test
    ;;
"")
    check_format
    run_tests release
    VSWITCHCTL_MODEL_SEEDS=4 run_tests asan # a third of the release run's walks, slow here
    run_fuzz_targets 8
    analyse
    ;;
*)
    sed -n '2,14s/^# \{0,1\}//p' "$0"
    exit 2
    ;;
esac
