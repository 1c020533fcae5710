#!/usr/bin/env bash
# Scan benchmark: builds an optimised tree (build/bench), runs bench_scan
# (Google Benchmark: MavScanBytes on 4 KiB against the adapter's PelScan and
# PelReleaseScan called directly, on 1 and 2 threads), then counts with
# callgrind the instructions of N library scans and of N direct calls and
# prints instructions per scan for both and the difference.
#   scripts/bench.sh [N]     (N defaults to 100000)
set -euo pipefail
cd "$(dirname "$0")/.."
n=${1:-100000}
build=build/bench

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DKORMO_SANITIZE=OFF -DKORMO_TSAN=OFF \
      -DKORMO_BUILD_TESTS=OFF -DKORMO_BUILD_JAVA=OFF -DKORMO_BUILD_ENGINES=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target bench_scan bench_scan_count benchpel

# No trace while measuring.
unset PEL_LIB
echo "== Google Benchmark =="
"$build/bench/bench_scan" --benchmark_min_time=0.5 --benchmark_repetitions=5 \
  --benchmark_display_aggregates_only=true

if ! command -v valgrind >/dev/null; then
  echo "valgrind not installed: no instruction count" >&2
  exit 0
fi

count() { # mode function -> instructions inside the loop function
  local out
  out=$(mktemp)
  valgrind --tool=callgrind --callgrind-out-file="$out" --collect-atstart=no \
           --toggle-collect="$2" "$build/bench/bench_scan_count" "$1" "$n" >/dev/null 2>&1
  awk '/^(summary|totals):/ {print $2; exit}' "$out"
  rm -f "$out"
}

echo
echo "== callgrind: instructions per scan (N=$n) =="
lib=$(count lib BenchRunLibrary)
sum=$(count summary BenchRunSummary)
pro=$(count profile BenchRunProfile)
dir=$(count direct BenchRunDirect)
awk -v lib="$lib" -v sum="$sum" -v pro="$pro" -v dir="$dir" -v n="$n" 'BEGIN {
  printf "  library (MavScanBytes)         %8.1f instructions/scan\n", lib / n
  printf "  with summary, name \"a.txt\"    %8.1f instructions/scan\n", sum / n
  printf "  profile instance, same call    %8.1f instructions/scan\n", pro / n
  printf "  direct (PelScan+PelReleaseScan) %7.1f instructions/scan\n", dir / n
  printf "  library overhead               %8.1f instructions/scan\n", (lib - dir) / n
  printf "  overhead with summary          %8.1f instructions/scan\n", (sum - dir) / n
  printf "  profile instance over plain    %8.1f instructions/scan\n", (pro - sum) / n
}'
