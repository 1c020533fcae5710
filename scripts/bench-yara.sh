#!/usr/bin/env bash
# YARA benchmark: builds an optimised tree (build/yara-bench) and runs
# bench_yara, which times whole runs (wall and CPU time) of `mavscan --adapter
# libkormoyara.so -j1` against libyara called directly (yr_rules_scan_file, one
# thread) on the same generated rules and corpus, in rotating order, and prints
# the medians and their ratios. The load average is printed before and after: the machine may
# be shared, and only ratios from one run count.
#   scripts/bench-yara.sh [OBJECTS [ROUNDS [RULES]]]
set -euo pipefail
cd "$(dirname "$0")/.."
objects=${1:-400}
rounds=${2:-7}
rules=${3:-500}
build=build/yara-bench

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DKORMO_SANITIZE=OFF -DKORMO_TSAN=OFF \
      -DKORMO_BUILD_TESTS=OFF -DKORMO_BUILD_JAVA=OFF -DKORMO_BUILD_ENGINES=ON >/dev/null
cmake --build "$build" -j2 --target bench_yara mavscan kormoyara kormomav

echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "== YARA adapter through mavscan against libyara direct =="
"$build/bench/bench_yara" "$build/mavscan" "$build/libkormoyara.so" "$objects" "$rounds" "$rules"
echo "load average after:  $(cut -d' ' -f1-3 /proc/loadavg)"
