#!/usr/bin/env bash
# Installs the peers of the signal primitives, builds in Release and times all of them together:
#     scripts/bench.sh [--set sse41|avx2|avx512] [--only TEXT] [--seconds S]
# Leaves ipps_bench.txt and ipps_bench.json in the build folder. The first run takes two minutes more, in which FFTW
# finds its best plans for this machine; they stay in the build folder too.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(libfftw3-dev libvolk2-dev libliquid-dev libkissfft-dev)
missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
    run=()
    [ "$(id -u)" -eq 0 ] || run=(sudo)
    echo "installing: ${missing[*]}"
    "${run[@]}" apt-get update -qq
    "${run[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

build=$(scripts/build.sh release ipps_bench | tail -n 1)
"$build/bin/ipps_bench" --wisdom "$build/fftw_plans" --json "$build/ipps_bench.json" "$@" | tee "$build/ipps_bench.txt"
