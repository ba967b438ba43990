#!/usr/bin/env bash
# Sets the machine up, configures and builds one variant, whole or only some targets:
#     scripts/build.sh [release|asan|tsan|clang [TARGET ...]]
# Prints the build folder on its last line.
set -euo pipefail
cd "$(dirname "$0")/.."
variant=${1:-release}
targets=("${@:2}")
options=()
case "$variant" in
    release) ;;
    asan) options+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DTQ_SANITIZE=address,undefined -DTQ_BUILD_BENCH=OFF) ;;
    tsan) options+=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DTQ_SANITIZE=thread -DTQ_BUILD_BENCH=OFF) ;;
    clang) options+=(-DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14) ;;
    *) echo "usage: $0 [release|asan|tsan|clang [TARGET ...]]" >&2; exit 2 ;;
esac
scripts/setup.sh >&2
build=build/$variant
cmake -S . -B "$build" -G Ninja "${options[@]}" >&2
cmake --build "$build" ${targets:+--target "${targets[@]}"} >&2
echo "$PWD/$build"
