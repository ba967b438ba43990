#!/usr/bin/env bash
# Installs the release build into a scratch folder and checks it as a user meets it: names, headers, pkg-config, CMake.
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(scripts/build.sh release | tail -n 1)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build" --prefix "$scratch/usr" >/dev/null

library=$(find "$scratch/usr" -name libtq_api.so.1.0.0)
readelf -d "$library" | grep -q 'SONAME.*\[libtq_api.so.1\]'
# Nothing at run time but libusb, the language's libraries and the system's.
needed=$(readelf -d "$library" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' | grep -vE '^(libusb-1\.0|libstdc\+\+|libm|libgcc_s|libc|ld-linux-x86-64)\.so' || true)
[ -z "$needed" ] || { echo "unexpected run-time dependency: $needed" >&2; exit 1; }

cat > "$scratch/client.c" <<'C'
#include <tq_api.h>
#include <stdio.h>
int main(void) { int n = 0; puts(tqGetAPIVersion()); return tqGetDeviceList(&n, &n) != tqNoError; }
C
export PKG_CONFIG_PATH=$(dirname "$(find "$scratch/usr" -name tq_api.pc)")
prefix=(--define-variable=prefix="$scratch/usr" --define-variable=libdir="$(dirname "$library")"
        --define-variable=includedir="$scratch/usr/include")
# shellcheck disable=SC2046
for standard in c99 c11; do
    gcc -std=$standard -pedantic-errors -Wall -Wextra -Werror "$scratch/client.c" -o "$scratch/client" \
        $(pkg-config "${prefix[@]}" --cflags --libs tq_api)
    [ "$(LD_LIBRARY_PATH=$(dirname "$library") "$scratch/client")" = 1.0.0 ]
done
echo '#include <tq_api_admin.h>
int main() { return tqCalGetTempFromIndex(2) != 0.0; }' > "$scratch/client.cpp"
cat > "$scratch/CMakeLists.txt" <<'C'
cmake_minimum_required(VERSION 3.22)
project(client LANGUAGES CXX)
find_package(tq_api 1.0 REQUIRED)
add_executable(client client.cpp)
target_link_libraries(client PRIVATE tq::tq_api)
C
cmake -S "$scratch" -B "$scratch/build" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/usr" >/dev/null
cmake --build "$scratch/build" >/dev/null
"$scratch/build/client"
echo "installation: headers, library, pkg-config and CMake package work"
