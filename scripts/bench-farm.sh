#!/usr/bin/env bash
# clamd farm benchmarks, side by side in one run: builds an optimised tree
# (build/engines-bench), generates a corpus of files, starts two clamd
# servers on local sockets (test database, MaxThreads 4, every result logged)
# and measures
#  1. mavscan -j1/-j2/-j4 through the clamd adapter against
#     `clamdscan --multiscan --fdpass` on the same server and corpus, in paired
#     runs (the order alternates); ratios of wall times, median over rounds;
#  2. mavscan -j4 on one server against two servers, with each server's share
#     of the objects counted from its own log;
#  3. a latency-bound farm: two stand-in servers (bench/engines/delay_clamd)
#     that answer after a fixed service time, one scan at a time; throughput
#     of two servers against one.
#   scripts/bench-farm.sh [FILES [ROUNDS [DELAY_MS]]]   (400, 5, 10)
set -euo pipefail
cd "$(dirname "$0")/.."
files=${1:-400}
rounds=${2:-5}
delay=${3:-10}
build=build/engines-bench
jobs=$(( $(nproc) > 2 ? 2 : $(nproc) ))

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DKORMO_SANITIZE=OFF -DKORMO_TSAN=OFF \
      -DKORMO_BUILD_TESTS=OFF -DKORMO_BUILD_JAVA=OFF -DKORMO_BUILD_ENGINES=ON >/dev/null
cmake --build "$build" -j"$jobs" --target mavscan kormoclamd delay_clamd >/dev/null

work=$(mktemp -d /tmp/kormo-bench-farm-XXXXXX)
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; wait "$p" 2>/dev/null || true; done
    rm -rf "$work"
}
trap cleanup EXIT
unset PEL_LIB

scripts/make-testdb.sh "$work/db" >/dev/null

# The corpus: 40 % text of 2-64 KiB, 30 % random binary of 16-256 KiB, 20 %
# text of 64-512 KiB, 10 % text of 0.5-1 MiB; the same sizes on every run.
mkdir -p "$work/corpus"
RANDOM=14
for i in $(seq 1 "$files"); do
    k=$((i % 10)); r=$(( (RANDOM << 15) | RANDOM ))
    if [ $k -lt 4 ]; then size=$(( 2048 + r % 63488 )); kind=text
    elif [ $k -lt 7 ]; then size=$(( 16384 + r % 245760 )); kind=bin
    elif [ $k -lt 9 ]; then size=$(( 65536 + r % 458752 )); kind=text
    else size=$(( 524288 + r % 524288 )); kind=text; fi
    if [ $kind = bin ]; then
        head -c "$size" /dev/urandom >"$work/corpus/f$i.bin"
    else
        head -c $(( size * 3 / 4 )) /dev/urandom | base64 -w 76 >"$work/corpus/f$i.txt"
    fi
done
corpus_mb=$(du -sm "$work/corpus" | cut -f1)

start_clamd() { # name -> socket at $work/$name.sock, log at $work/$name.log
    cat >"$work/$1.conf" <<CONF
Foreground yes
LocalSocket $work/$1.sock
DatabaseDirectory $work/db
TemporaryDirectory $work
LogFile $work/$1.log
LogClean yes
LogFileMaxSize 0
MaxThreads 4
AlertExceedsMax yes
CONF
    /usr/sbin/clamd -c "$work/$1.conf" >/dev/null 2>&1 &
    pids+=($!)
    for _ in $(seq 1 600); do
        if clamdscan --config-file="$work/$1.conf" --ping 1 >/dev/null 2>&1; then return; fi
        sleep 0.1
    done
    echo "clamd $1 did not start" >&2
    exit 1
}

seconds() { # command... -> wall seconds; fails when the command does not exit 0
    local t0 t1
    t0=$(date +%s.%N)
    "$@" >/dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }
    t1=$(date +%s.%N)
    awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.3f", b - a }'
}
median() { tr ' ' '\n' | grep -v '^$' | sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
mavscan() { "$build/mavscan" -q --adapter "$build/libkormoclamd.so" --set "INITSERVERS=$1" "${@:3}" -j "$2" "$work/corpus"; }
served() { # results in a server's log, once clamd has written them all
    local n m
    n=$(grep -c ': OK$' "$work/$1.log" || true)
    for _ in $(seq 1 50); do
        sleep 0.2
        m=$(grep -c ': OK$' "$work/$1.log" || true)
        [ "$m" = "$n" ] && break
        n=$m
    done
    echo "$n"
}

start_clamd a
start_clamd b
echo "corpus: $files files, $corpus_mb MiB; $(nproc) CPUs; load average before: $(cut -d' ' -f1-3 /proc/loadavg)"

echo
echo "== 1. One clamd: mavscan through the clamd adapter against clamdscan --multiscan --fdpass =="
# Warm-up (page cache, clamd's first requests), not timed.
seconds clamdscan --multiscan --fdpass --no-summary --quiet --config-file="$work/a.conf" "$work/corpus" >/dev/null
seconds mavscan "unix:$work/a.sock" 4 >/dev/null
declare -A ratios
for r in $(seq 1 "$rounds"); do
    ref=0
    if [ $((r % 2)) -eq 1 ]; then
        ref=$(seconds clamdscan --multiscan --fdpass --no-summary --quiet --config-file="$work/a.conf" "$work/corpus")
    fi
    line="round $r:"
    for j in 1 2 4; do
        t=$(seconds mavscan "unix:$work/a.sock" "$j")
        eval "t$j=$t"
    done
    if [ $((r % 2)) -eq 0 ]; then
        ref=$(seconds clamdscan --multiscan --fdpass --no-summary --quiet --config-file="$work/a.conf" "$work/corpus")
    fi
    line="$line clamdscan ${ref}s"
    for j in 1 2 4; do
        eval "t=\$t$j"
        ratios[$j]="${ratios[$j]:-} $(awk -v a="$t" -v b="$ref" 'BEGIN { printf "%.3f", a / b }')"
        line="$line  -j$j ${t}s"
    done
    echo "$line"
done
for j in 1 2 4; do
    echo "mavscan -j$j / clamdscan: median ratio $(echo "${ratios[$j]}" | median)  (rounds:${ratios[$j]})"
done

echo
echo "== 2. mavscan -j4: one server against two =="
one=() two=() shares=()
for r in $(seq 1 "$rounds"); do
    one+=("$(seconds mavscan "unix:$work/a.sock" 4)")
    a0=$(served a); b0=$(served b)
    two+=("$(seconds mavscan "unix:$work/a.sock,unix:$work/b.sock" 4)")
    a1=$(served a); b1=$(served b)
    shares+=("$(awk -v a=$((a1 - a0)) -v b=$((b1 - b0)) 'BEGIN { printf "%.1f/%.1f", 100 * a / (a + b), 100 * b / (a + b) }')")
done
m1=$(echo "${one[*]}" | median); m2=$(echo "${two[*]}" | median)
echo "one server ${m1}s, two servers ${m2}s (medians), speed-up $(awk -v a="$m1" -v b="$m2" 'BEGIN { printf "%.2f", a / b }')"
echo "share of the objects (server a / b, %) per round: ${shares[*]}"

echo
echo "== 3. Latency-bound: two stand-in servers (${delay} ms per object, one at a time) =="
"$build/bench/delay_clamd" "$work/d1.sock" "$delay" & pids+=($!)
"$build/bench/delay_clamd" "$work/d2.sock" "$delay" & pids+=($!)
sleep 0.3
small="$work/small"
mkdir -p "$small"
ls "$work/corpus" | head -n 200 | while read -r f; do ln -s "$work/corpus/$f" "$small/$f"; done
lat() { "$build/mavscan" -q -L --adapter "$build/libkormoclamd.so" --set "INITSERVERS=$1" -j 4 "$small"; }
l1=() l2=()
for r in $(seq 1 "$rounds"); do
    l1+=("$(seconds lat "unix:$work/d1.sock")")
    l2+=("$(seconds lat "unix:$work/d1.sock,unix:$work/d2.sock")")
done
m1=$(echo "${l1[*]}" | median); m2=$(echo "${l2[*]}" | median)
echo "200 objects: one server ${m1}s, two servers ${m2}s (medians): throughput ratio $(awk -v a="$m1" -v b="$m2" 'BEGIN { printf "%.2f", a / b }')"
echo
echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
