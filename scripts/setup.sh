#!/usr/bin/env bash
# Installs, on Debian 12, whatever building, testing and the demo need and the machine lacks.
set -euo pipefail

packages=(
    g++ cmake ninja-build pkg-config git
    libusb-1.0-0-dev                 # the library
    umockdev libumockdev-dev         # the virtual instrument's bus
    libgtest-dev libbenchmark-dev    # tests, benchmarks
    libsndfile1-dev                  # the example that writes audio
    clang-14 clang-format-14         # thread-safety build, formatting
    libclang-rt-14-dev               # fuzzers
    gnuplot-nox                      # the demo's picture
    fonts-dejavu-core                # its labels
    qemu-user                        # the primitives on a processor of the baseline
)
missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

run=()
[ "$(id -u)" -eq 0 ] || run=(sudo)
echo "installing: ${missing[*]}"
"${run[@]}" apt-get update -qq
"${run[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
