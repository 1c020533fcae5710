#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (build/fuzz) and runs each of them
# for a bounded time, starting from its seed corpus.
#
# Usage: scripts/fuzz.sh [SECONDS_PER_TARGET] [TARGET...]
#   SECONDS_PER_TARGET  run time of each target (default 60)
#   TARGET              names of fuzz/<name>.cpp to run (default: all)
#
# Prints per target the executions and the findings (crash, leak, timeout and
# out-of-memory inputs of this run, kept under build/fuzz/findings/<name>/).
# Exits 1 when any target found something.
set -euo pipefail
cd "$(dirname "$0")/.."

secs=${1:-60}
[ $# -gt 0 ] && shift
case "$secs" in
  ''|*[!0-9]*) echo "usage: $0 [SECONDS_PER_TARGET] [TARGET...]" >&2; exit 2 ;;
esac

if [ $# -gt 0 ]; then
  names=("$@")
else
  names=()
  for f in fuzz/*.cpp; do
    names+=("$(basename "$f" .cpp)")
  done
fi

root=$(pwd)
build=$root/build/fuzz
jobs=$(nproc)
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKORMO_FUZZ=ON -DKORMO_SANITIZE=ON -DKORMO_BUILD_JAVA=OFF -DKORMO_BUILD_BENCH=OFF \
  -DKORMO_BUILD_ENGINES=OFF >/dev/null
targets=()
for n in "${names[@]}"; do targets+=("fuzz_$n"); done
cmake --build "$build" -j"$jobs" --target "${targets[@]}"

status=0
results=()
for n in "${names[@]}"; do
  bin="$build/fuzz/fuzz_$n"
  work="$build/corpus/$n"
  findings="$build/findings/$n"
  log="$build/logs/$n.log"
  # Findings of an earlier run are dropped: the count is this run's.
  rm -rf "$findings"
  mkdir -p "$work" "$findings" "$(dirname "$log")"
  seeds=()
  [ -d "fuzz/corpus/$n" ] && seeds=("$root/fuzz/corpus/$n")
  echo "== fuzz_$n for ${secs}s"
  rc=0
  # New inputs go to the work corpus; the seeds are only read.
  (cd "$build/fuzz" && "$bin" -max_total_time="$secs" -print_final_stats=1 \
      -timeout=10 -max_len=4096 -artifact_prefix="$findings/" \
      "$work" "${seeds[@]}") >"$log" 2>&1 || rc=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  found=$(find "$findings" -type f \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' \
            -o -name 'oom-*' \) | wc -l)
  [ -n "$execs" ] || execs="?"
  if [ "$found" -gt 0 ] || [ "$rc" -ne 0 ]; then
    status=1
    tail -40 "$log"
  fi
  results+=("$(printf '%-22s executions %-12s findings %s (exit %s)' "fuzz_$n" "$execs" "$found" "$rc")")
done

echo
echo "== summary (${secs}s per target)"
printf '%s\n' "${results[@]}"
exit $status
