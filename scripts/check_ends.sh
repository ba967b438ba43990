#!/usr/bin/env bash
# Lets a program end in the middle of a stream, in each mode and in each way, RUNS times (20):
#     scripts/check_ends.sh BUILD_DIRECTORY [RUNS]
# Each has to end by itself, with exit code 0 and without a word.
set -euo pipefail
build=${1:?usage: check_ends.sh BUILD_DIRECTORY [RUNS]}
runs=${2:-20}
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT

check() {
    local way run said failed=0
    for way in return exit dlclose; do
        for ((run = 1; run <= runs; run++)); do
            said=$(timeout 60 "$build/bin/tq-sim" --fast --home "$home/$1" -- \
                "$build/bin/ends_running" "$build/lib/libtq_api.so" "$1" $way 2>&1) && [ -z "$said" ] && continue
            printf 'ends: %s, %s, run %s: %s\n' "$1" $way "$run" "${said:-no word}" >&2
            failed=1
        done
    done
    return $failed
}

# They wait for time-outs most of their time.
pids=()
for mode in sweep realtime iq list audio; do check $mode & pids+=($!); done
for pid in "${pids[@]}"; do wait "$pid" || failed=1; done
[ -z "${failed:-}" ] || exit 1
echo "ends: $((15 * runs)) programs ended in the middle of a stream"
