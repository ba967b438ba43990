#!/usr/bin/env bash
# Compares what a built library exports with tests/exports.txt, both ways: scripts/check_exports.sh LIBTQ_API.SO
# A symbol that the list lacks leaks out of the library; one that the library lacks breaks applications.
set -euo pipefail
library=${1:?usage: check_exports.sh LIBTQ_API.SO}
list=$(dirname "$0")/../tests/exports.txt
for file in "$library" "$list"; do
    [ -s "$file" ] || { echo "check_exports: $file is missing or empty" >&2; exit 1; }
done

exported=$(nm -D --defined-only "$library" | sed -E 's/^[0-9a-f]+ //' | c++filt | LC_ALL=C sort)
if ! diff --label "$list" --label "$library" -u "$list" - <<<"$exported"; then
    echo "check_exports: the exports differ: - only in the list, + only in the library" >&2
    exit 1
fi
echo "check_exports: $(wc -l <"$list") symbols, as listed"
