#!/usr/bin/env bash
# Sets the machine up, configures and builds one variant, whole or only some targets:
#     scripts/build.sh [release|asan|tsan|clang|fuzz [TARGET ...]]
# Prints the build folder on its last line.
set -euo pipefail
cd "$(dirname "$0")/.."
variant=${1:-release}
targets=("${@:2}")
options=()
sanitized=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
case "$variant" in
    release) ;;
    asan) options+=("${sanitized[@]}" -DTQ_SANITIZE=address,undefined) ;;
    tsan) options+=("${sanitized[@]}" -DTQ_SANITIZE=thread) ;;
    # For its warnings alone.
    clang) options+=(-DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 -DCMAKE_BUILD_TYPE=Debug
                     -DTQ_BUILD_BENCH=OFF) ;;
    fuzz) options+=(-DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 -DCMAKE_BUILD_TYPE=RelWithDebInfo
                    -DTQ_SANITIZE=fuzzer-no-link,address,undefined,float-cast-overflow -DTQ_BUILD_FUZZERS=ON
                    -DTQ_BUILD_SIM=OFF -DTQ_BUILD_TESTS=OFF -DTQ_BUILD_BENCH=OFF -DTQ_BUILD_EXAMPLES=OFF) ;;
    *) echo "usage: $0 [release|asan|tsan|clang|fuzz [TARGET ...]]" >&2; exit 2 ;;
esac
scripts/setup.sh >&2
build=build/$variant
cmake -S . -B "$build" -G Ninja "${options[@]}" >&2
cmake --build "$build" ${targets:+--target "${targets[@]}"} >&2
echo "$PWD/$build"
