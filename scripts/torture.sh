#!/usr/bin/env bash
# Lets each single thing fail that the library asks the system for, in each mode (bench/torture.cpp):
#     scripts/torture.sh [--cut] [release|asan]
# --cut takes other ones at each call, as many as 2 minutes hold: TQ_TORTURE_SEED repeats those of an earlier call.
set -euo pipefail
cd "$(dirname "$0")/.."
lives=0
if [ "${1:-}" = --cut ]; then lives=6; shift; fi
variant=${1:-release}
seed=${TQ_TORTURE_SEED:-$(date +%s)}
kinds="memory heap threads submit control claim reap"
[ "$variant" = release ] || kinds=${kinds/heap /}  # the sanitizer has one of its own
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
build=$(scripts/build.sh "$variant" torture | tail -n 1)
logs=$(mktemp -d)
trap 'rm -r "$logs"' EXIT
export TMPDIR=$logs/tmp  # of children that crash something stays
mkdir "$TMPDIR"

# A life waits for the bus to fall silent most of its time: eight share two cores well.
for mode in realtime audio iq sweep narrow list fullband open first boot; do
    for kind in $kinds; do echo "$mode $kind"; done
done | xargs -P $((4 * $(nproc))) -L 1 sh -c \
    '"$0" "$4" "$5" "$2" "$3" >"$1/$4.$5" 2>&1 || echo "$4.$5" >>"$1/failed"' \
    "$build/bin/torture" "$logs" $lives "$seed"

cd "$logs"
if [ -f failed ]; then
    echo "torture: seed $seed, harm was done:" >&2
    xargs cat <failed >&2
    exit 1
fi
echo "torture: $(awk '/failures/ { n += $3 } END { print n }' ./*.*) failures, no harm (seed $seed)"
[ $lives -ne 0 ] || cat ./*.*
