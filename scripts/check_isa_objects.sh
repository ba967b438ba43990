#!/usr/bin/env bash
# Looks for what must not be in the objects of one instruction set: scripts/check_isa_objects.sh BUILD_DIRECTORY
# A weak symbol there (a template, an inline function) may be the copy that the linker keeps for the whole library,
# which then faults on a processor without the set. Of global symbols each object exports its one table.
set -euo pipefail
build=${1:?usage: check_isa_objects.sh BUILD_DIRECTORY}
mapfile -t objects < <(find "$build" -path '*tq_kernels_*' -name '*_kernels.cpp.o' | sort)
[ "${#objects[@]}" -gt 0 ] || { echo "check_isa_objects: no kernel objects under $build" >&2; exit 1; }

failed=0
for object in "${objects[@]}"; do
    defined=$(nm --defined-only "$object" | c++filt)
    weak=$(grep -E ' [WVwvu] ' <<<"$defined" || true)
    tables=$(grep -E ' [A-TX-Z] ' <<<"$defined" | grep -E '^[0-9a-f]+ [BCDGRST] |^[0-9a-f]+ T ' || true)
    if [ -n "$weak" ] || [ "$(grep -cE ' [RD] ([a-z_:]*::)?[A-Z0-9]+_KERNELS_[a-z0-9]+$' <<<"$tables")" -ne 1 ] ||
        [ "$(wc -l <<<"$tables")" -ne 1 ]; then
        printf 'check_isa_objects: %s:\n%s\n%s\n' "$object" "$weak" "$tables" >&2
        failed=1
    fi
done
[ "$failed" -eq 0 ] && echo "check_isa_objects: ${#objects[@]} objects, one table each, nothing weak"
exit "$failed"
