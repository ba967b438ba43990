#!/usr/bin/env bash
# Builds the fuzzers of tests/fuzz/ and runs each on mutated inputs, RUNS of them (200000):
#     scripts/fuzz.sh [RUNS [FUZZER ...]]
# Stops at the first report and leaves its input in build/fuzz/reports/. What a run learns stays in build/fuzz/corpus/.
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-200000}
fuzzers=("${@:2}")
[ ${#fuzzers[@]} -gt 0 ] || fuzzers=(image gps_text gps_file cal_file)
build=$(scripts/build.sh fuzz fuzzers | tail -n 1)
# Some of them write a file for each input.
[ -w /dev/shm ] && export TMPDIR=/dev/shm
mkdir -p "$build/reports"
for fuzzer in "${fuzzers[@]}"; do
    corpus=$build/corpus/$fuzzer
    mkdir -p "$corpus"
    log=$build/$fuzzer.log
    # Longer inputs cost time and reach nothing more.
    "$build/bin/${fuzzer}_fuzz" -runs="$runs" -max_len=1024 -close_fd_mask=1 -print_final_stats=1 \
        -artifact_prefix="$build/reports/$fuzzer-" "$corpus" "tests/fuzz/seeds/$fuzzer" 2>"$log" ||
        { tail -n 60 "$log" >&2; exit 1; }
    printf '%-10s %s\n' "$fuzzer" "$(grep '^Done' "$log"), $(grep -c NEW "$log") finds"
done
