#!/usr/bin/env bash
# Sets the machine up, builds and runs every test: scripts/test.sh [release|asan|tsan]
set -euo pipefail
cd "$(dirname "$0")/.."
variant=${1:-release}
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

# Tests of lost links sleep through time-outs most of their time: four processes share two cores well.
jobs=$((2 * $(nproc)))

# A sanitized or emulated process takes long to start: one for each share of the tests, not one for each test.
run_shares() {
    local logs share failed=0 pids=()
    logs=$(mktemp -d)
    for ((share = 0; share < jobs; share++)); do
        GTEST_TOTAL_SHARDS=$jobs GTEST_SHARD_INDEX=$share timeout 900 "$@" >"$logs/$share" 2>&1 &
        pids+=($!)
    done
    for ((share = 0; share < jobs; share++)); do
        if wait "${pids[share]}"; then
            grep -F "[  PASSED  ]" "$logs/$share"
        else
            failed=1
            cat "$logs/$share"
        fi
    done
    rm -r "$logs"
    return $failed
}

case "$variant" in
    release)
        build=$(scripts/build.sh release | tail -n 1)
        ctest --test-dir "$build" --output-on-failure -j "$jobs" --timeout 300
        scripts/check_exports.sh "$build/lib/libtq_api.so"
        scripts/check_isa_objects.sh "$build"
        scripts/check_ends.sh "$build" 5
        run_shares scripts/test_baseline.sh "$build"
        ;;
    asan)
        build=$(scripts/build.sh asan ipps_tests tq_tests | tail -n 1)
        run_shares "$build/bin/ipps_tests"
        run_shares "$build/bin/tq_tests"
        ;;
    tsan) # the primitives know no threads, and the narrow sweep works on its caller's
        build=$(scripts/build.sh tsan tq_tests | tail -n 1)
        run_shares "$build/bin/tq_tests" '--gtest_filter=-EngineSweepNarrowTest.*'
        ;;
    *) echo "usage: $0 [release|asan|tsan]" >&2; exit 2 ;;
esac
