#!/usr/bin/env bash
# ICAP benchmark: builds an optimised tree (build/icap-bench), makes the test
# signature database, starts a clamd (local socket, 4 threads) and a c-icap
# with its virus_scan service in front of it on a free loopback port, then
# runs bench_icap: mavscan -j1 and -j4 through the ICAP adapter against a
# kept-connection reference client on the same c-icap and the same files.
#   scripts/bench-icap.sh [OBJECTS [ROUNDS]]
set -euo pipefail
cd "$(dirname "$0")/.."
objects=${1:-200}
rounds=${2:-5}
build=build/icap-bench

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DKORMO_SANITIZE=OFF -DKORMO_TSAN=OFF \
      -DKORMO_BUILD_TESTS=OFF -DKORMO_BUILD_JAVA=OFF -DKORMO_BUILD_ENGINES=ON >/dev/null
cmake --build "$build" -j2 --target mavscan kormoicap bench_icap

work=$(mktemp -d /tmp/kormo-bench-icap-XXXXXX)
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill -- "-$p" 2>/dev/null || kill "$p" 2>/dev/null || true; done
    for p in "${pids[@]}"; do wait "$p" 2>/dev/null || true; done
    rm -rf "$work"
}
trap cleanup EXIT

scripts/make-testdb.sh "$work/db" >/dev/null
cat >"$work/clamd.conf" <<CONF
Foreground yes
LocalSocket $work/clamd.sock
DatabaseDirectory $work/db
TemporaryDirectory $work
LogFile $work/clamd.log
MaxThreads 4
AlertExceedsMax yes
CONF
setsid /usr/sbin/clamd -c "$work/clamd.conf" >/dev/null 2>&1 &
pids+=($!)
for _ in $(seq 1 600); do [ -S "$work/clamd.sock" ] && break; sleep 0.1; done

port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
modules=/usr/lib/$(gcc -print-multiarch)/c_icap
cat >"$work/c-icap.conf" <<CONF
PidFile $work/c-icap.pid
CommandsSocket $work/c-icap.ctl
Port 127.0.0.1:$port
StartServers 1
MaxServers 1
ThreadsPerChild 16
MaxKeepAliveRequests 0
TmpDir $work
ModulesDir $modules
ServicesDir $modules
TemplateDir /usr/share/c_icap/templates/
ServerLog $work/server.log
AccessLog /dev/null
Module common clamd_mod.so
clamd_mod.ClamdSocket $work/clamd.sock
Service antivirus_module virus_scan.so
ServiceAlias avscan virus_scan?allow204=on&sizelimit=off&mode=simple
virus_scan.ScanFileTypes TEXT DATA EXECUTABLE ARCHIVE
virus_scan.MaxObjectSize 100M
virus_scan.DefaultEngine clamd
CONF
setsid /usr/bin/c-icap -N -f "$work/c-icap.conf" >/dev/null 2>&1 &
pids+=($!)
for _ in $(seq 1 300); do (exec 3<>/dev/tcp/127.0.0.1/$port) 2>/dev/null && break; sleep 0.1; done

echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
"$build/bench/bench_icap" "$build/mavscan" "$build/libkormoicap.so" 127.0.0.1 "$port" \
    avscan "$objects" "$rounds"
echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
