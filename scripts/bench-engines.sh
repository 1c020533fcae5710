#!/usr/bin/env bash
# Engine benchmarks: builds an optimised tree (build/engines-bench), makes the
# test signature database, then
#  1. bench_clamav: the ClamAV adapter through MavScanBytes against libclamav's
#     memory scan called directly on the same compiled engine (1 and 2 threads,
#     wall and CPU time), then, with valgrind, the instructions of one pass of
#     each way (deterministic, unaffected by other load on the machine);
#  2. bench_clamd: the clamd adapter (MavScanFile, MavScanBytes) against
#     `clamdscan --stream` on the same files and the same clamd, which this
#     script starts on a local socket and stops again;
#  3. scripts/bench-farm.sh (mavscan against clamdscan --multiscan --fdpass,
#     one clamd against two, a latency-bound farm).
#   scripts/bench-engines.sh [OBJECTS [ROUNDS [DBDIR]]]
# DBDIR defaults to the generated test database; give /var/lib/clamav to
# measure with the official databases (when installed).
set -euo pipefail
cd "$(dirname "$0")/.."
objects=${1:-200}
rounds=${2:-7}
build=build/engines-bench

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DKORMO_SANITIZE=OFF -DKORMO_TSAN=OFF \
      -DKORMO_BUILD_TESTS=OFF -DKORMO_BUILD_JAVA=OFF -DKORMO_BUILD_ENGINES=ON >/dev/null
cmake --build "$build" -j"$(nproc)" --target bench_clamav bench_clamd kormopel kormoclamd

work=$(mktemp -d /tmp/kormo-bench-engines-XXXXXX)
clamd_pid=
cleanup() {
    if [ -n "$clamd_pid" ]; then kill "$clamd_pid" 2>/dev/null || true; wait "$clamd_pid" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap cleanup EXIT

db=${3:-$work/db}
if [ -z "${3:-}" ]; then scripts/make-testdb.sh "$db" >/dev/null; fi
unset PEL_LIB

echo "== ClamAV adapter: MavScanBytes against cl_scanmap_callback on the same engine =="
"$build/bench/bench_clamav" "$build/libkormopel.so" "$db" "$objects" "$rounds"

if command -v valgrind >/dev/null; then
    echo
    echo "== Instructions for one pass over 30 objects (callgrind) =="
    base=
    for way in direct library results; do
        out="$work/callgrind.$way"
        valgrind --tool=callgrind --callgrind-out-file="$out" --collect-atstart=no \
            --toggle-collect=CountedPass "$build/bench/bench_clamav" "$build/libkormopel.so" \
            "$db" 30 1 "count-$way" >/dev/null 2>&1
        n=$(callgrind_annotate "$out" | awk '/PROGRAM TOTALS/ { gsub(",", "", $1); print $1; exit }')
        base=${base:-$n}
        printf '%-8s %14s instructions  ratio %s\n' "$way" "$n" \
            "$(awk -v b="$base" -v n="$n" 'BEGIN { printf "%.4f", b / n }')"
    done
fi

echo
echo "== clamd adapter against clamdscan --stream =="
cat >"$work/clamd.conf" <<CONF
Foreground yes
LocalSocket $work/clamd.sock
DatabaseDirectory $db
TemporaryDirectory $work
LogFile $work/clamd.log
MaxThreads 4
AlertExceedsMax yes
CONF
/usr/sbin/clamd -c "$work/clamd.conf" >/dev/null 2>&1 &
clamd_pid=$!
for _ in $(seq 1 600); do
    if clamdscan --config-file="$work/clamd.conf" --ping 1 >/dev/null 2>&1; then break; fi
    sleep 0.1
done
"$build/bench/bench_clamd" "$build/libkormoclamd.so" "$work/clamd.sock" "$work/clamd.conf" \
    "$objects" "$((rounds > 5 ? 5 : rounds))"

echo
echo "== clamd farm: mavscan against clamdscan --multiscan --fdpass, two servers, latency-bound =="
scripts/bench-farm.sh "$((objects > 452 ? objects : 452))" "$rounds"
