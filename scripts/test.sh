#!/usr/bin/env bash
# Sets the machine up, builds and runs every test: scripts/test.sh [release|asan|tsan]
set -euo pipefail
cd "$(dirname "$0")/.."
variant=${1:-release}
build=$(scripts/build.sh "$variant" | tail -n 1)
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
ctest --test-dir "$build" --output-on-failure -j "$(nproc)" --timeout 300
if [ "$variant" = release ]; then
    scripts/check_exports.sh "$build/lib/libtq_api.so"
    scripts/check_isa_objects.sh "$build"
    scripts/test_baseline.sh "$build" --gtest_brief=1
fi
