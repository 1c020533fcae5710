#!/usr/bin/env bash
# The demo: installs what is missing, builds the library, the ClamAV adapter and
# mavscan, makes a test signature database and a sample folder (clean files and
# an EICAR test file assembled on the spot), and scans the folder with mavscan
# using the built-in default configuration.
# Exits 0 when the demo showed what it should (the findings were found).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
. scripts/deps.sh
# Only what the demo builds and runs: no test, benchmark or Java tools.
kormo_install_packages build-essential cmake pkg-config libclamav-dev libmagic-dev zlib1g-dev

build=$root/build/demo
echo "Building libkormomav, the ClamAV adapter and mavscan in $build ..."
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DKORMO_BUILD_TESTS=OFF \
      -DKORMO_BUILD_BENCH=OFF -DKORMO_BUILD_JAVA=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target mavscan kormopel >/dev/null

work=$(mktemp -d /tmp/kormomav-demo.XXXXXX)
trap 'rm -rf "$work"' EXIT
scripts/make-testdb.sh "$work/db" >/dev/null

samples=$work/samples
mkdir -p "$samples/docs" "$samples/downloads"
printf 'Quarterly report: nothing to see here.\n' >"$samples/docs/report.txt"
printf '<html><body>Hello</body></html>\n' >"$samples/docs/index.html"
head -c 65536 /dev/urandom >"$samples/downloads/random.bin"
cp "$work/db/samples/hash1.bin" "$samples/downloads/known-bad.bin"
# The EICAR test file, assembled here and never stored in the repository.
printf '%s%s%s' 'X5O!P%@AP[4\PZX54(P^)7CC)7}' '$EICAR-STANDARD-ANTIVIRUS' \
       '-TEST-FILE!$H+H*' >"$samples/downloads/eicar.com"

echo
echo "Scanning $samples"
echo "with the built-in default configuration (test signatures in $work/db):"
echo
# The default adapter takes its signature directory from KORMO_CLAMAV_DATABASE
# when set (else /var/lib/clamav). The scan runs in $work, where no
# mav.properties overrides the built-in configuration.
status=0
(cd "$work" && KORMO_CLAMAV_DATABASE="$work/db" "$build/mavscan" "$samples") || status=$?
echo
echo "mavscan exit status: $status (0 all clean, 1 something found, 2 an error)"
[ "$status" -eq 1 ]
