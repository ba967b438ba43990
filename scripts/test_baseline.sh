#!/usr/bin/env bash
# Runs the tests of the signal primitives on an emulated processor that has SSE4.1 and nothing above it:
# scripts/test_baseline.sh BUILD_DIRECTORY [gtest arguments]
# A fault means that code of a wider set ran outside its table.
set -euo pipefail
build=${1:?usage: test_baseline.sh BUILD_DIRECTORY [gtest arguments]}
shift
qemu=$(command -v qemu-x86_64 || command -v qemu-x86_64-static) ||
    { echo "test_baseline: needs qemu-user" >&2; exit 1; }
"$qemu" -cpu Nehalem "$build/bin/ipps_tests" "$@"
