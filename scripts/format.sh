#!/usr/bin/env bash
# Formats all sources with clang-format 14; with --check only reports what is not formatted, and fails.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files --cached --others --exclude-standard -- '*.h' '*.cpp' '*.c')
if [ "${1:-}" = --check ]; then
    clang-format-14 --dry-run --Werror "${files[@]}"
else
    clang-format-14 -i "${files[@]}"
fi
