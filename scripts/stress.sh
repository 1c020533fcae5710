#!/usr/bin/env bash
# Long runs of the thread stress test (every kind of call on 8 threads), built with
# AddressSanitizer (build/stress) or ThreadSanitizer (build/tsan), repeated
# until the time is used up. Each run is bounded and self-stopping; the script
# stops at the first failure and keeps its log.
#
# Usage: scripts/stress.sh [SECONDS] [asan|tsan]
#   SECONDS  total time (default 600); each run lasts up to 60 s of it
#   asan     AddressSanitizer + UndefinedBehaviorSanitizer (default)
#   tsan     ThreadSanitizer
# Prints the operations of every run and the totals.
set -euo pipefail
cd "$(dirname "$0")/.."

total=${1:-600}
mode=${2:-asan}
case "$total" in
  ''|*[!0-9]*) echo "usage: $0 [SECONDS] [asan|tsan]" >&2; exit 2 ;;
esac

jobs=$(nproc)
case "$mode" in
  asan)
    build=build/stress
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DKORMO_SANITIZE=ON -DKORMO_WERROR=ON \
      -DKORMO_BUILD_BENCH=OFF -DKORMO_BUILD_JAVA=OFF -DKORMO_BUILD_ENGINES=OFF >/dev/null
    ;;
  tsan)
    build=build/tsan
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DKORMO_TSAN=ON -DKORMO_WERROR=ON \
      -DKORMO_BUILD_BENCH=OFF -DKORMO_BUILD_JAVA=OFF -DKORMO_BUILD_ENGINES=OFF >/dev/null
    export TSAN_OPTIONS="halt_on_error=1 exitcode=66 second_deadlock_stack=1 ${TSAN_OPTIONS:-}"
    ;;
  *) echo "usage: $0 [SECONDS] [asan|tsan]" >&2; exit 2 ;;
esac

tests=(stress)
targets=(testpel)
for t in "${tests[@]}"; do targets+=("test_$t"); done
cmake --build "$build" -j"$jobs" --target "${targets[@]}"
export TESTPEL_DIR="$PWD/$build/adapters/testpel"

prefix=()
if [ "$mode" = tsan ] && command -v setarch >/dev/null && setarch "$(uname -m)" -R true 2>/dev/null; then
  prefix=(setarch "$(uname -m)" -R)
fi

logdir=$build/stress-logs
mkdir -p "$logdir"
end=$(( $(date +%s) + total ))
runs=0
ops=0
while [ "$(date +%s)" -lt "$end" ]; do
  for t in "${tests[@]}"; do
    left=$(( end - $(date +%s) ))
    [ "$left" -gt 0 ] || break
    slice=$(( left < 60 ? left : 60 ))
    runs=$((runs + 1))
    log="$logdir/run-$runs-$t.log"
    rc=0
    KORMO_SOAK_SECONDS=$slice KORMO_SOAK_ROUNDS=1000000000 \
      "${prefix[@]}" "$build/tests/test_$t" >"$log" 2>&1 || rc=$?
    done_ops=$(sed -n 's/^ *total operations *\([0-9]*\).*/\1/p' "$log" | tail -1)
    ops=$(( ops + ${done_ops:-0} ))
    printf 'run %-4d test_%-7s %10s operations  exit %d\n' "$runs" "$t" "${done_ops:-?}" "$rc"
    if [ "$rc" -ne 0 ] || grep -q "Sanitizer" "$log"; then
      cat "$log"
      echo "stress.sh: run $runs of test_$t failed (log: $log)" >&2
      exit 1
    fi
    rm -f "$log"
  done
done
echo "stress.sh: $runs runs, $ops operations in ${total}s ($mode), no failure"
