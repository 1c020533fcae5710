#!/usr/bin/env bash
# Builds the Debian packages with dpkg-buildpackage from a copy of the tracked
# tree, runs lintian on them (any error fails), and with --install installs
# them on this machine, builds a consumer against the installed -dev package,
# scans with it and with mavscan, and removes the packages again.
#   scripts/deb.sh [--install] [OUTDIR]     (default OUTDIR: build/deb)
set -euo pipefail
cd "$(dirname "$0")/.."
install=0
if [ "${1:-}" = --install ]; then install=1; shift; fi
out=$(realpath -m "${1:-build/deb}")
. scripts/deps.sh
kormo_install_deps
kormo_install_packages debhelper dpkg-dev fakeroot lintian

version=$(dpkg-parsechangelog -S Version)
rm -rf "$out"
mkdir -p "$out/src/kormomav-$version"
git ls-files -z | xargs -0 tar -cf - | tar -xf - -C "$out/src/kormomav-$version"
jobs=$(nproc)
(cd "$out/src/kormomav-$version" &&
    DEB_BUILD_OPTIONS="parallel=$jobs" dpkg-buildpackage -b -us -uc >"$out/build.log" 2>&1) ||
    { tail -n 40 "$out/build.log"; exit 1; }
mv "$out"/src/*.deb "$out"/src/*.ddeb "$out"/src/*.changes "$out"/src/*.buildinfo "$out/" 2>/dev/null || true
ls "$out"/*.deb

echo "== lintian"
lintian --fail-on error --tag-display-limit 0 "$out"/*.changes | tee "$out/lintian.log"

[ "$install" = 1 ] || exit 0

echo "== install, consume, remove"
work=$(mktemp -d /tmp/kormomav-deb.XXXXXX)
pkgs=$(for f in "$out"/*.deb; do dpkg-deb -f "$f" Package; done | grep -v dbgsym)
trap 'dpkg --purge $pkgs >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
apt-get install -y -q --no-install-recommends "$out"/*.deb >"$work/apt.log" 2>&1 ||
    { cat "$work/apt.log"; exit 1; }
scripts/make-testdb.sh "$work/db" >/dev/null
printf '%s%s%s' 'X5O!P%@AP[4\PZX54(P^)7CC)7}' '$EICAR-STANDARD-ANTIVIRUS' '-TEST-FILE!$H+H*' \
    >"$work/eicar.com"
printf 'nothing to see\n' >"$work/clean.txt"
cc $(pkg-config --cflags kormomav) examples/scan_c.c -o "$work/scan_c" $(pkg-config --libs kormomav)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
fails=0
check() { # check NAME WANT-STATUS COMMAND...
    local name=$1 want=$2 rc=0
    shift 2
    "$@" >"$work/out" 2>&1 || rc=$?
    if [ "$rc" -ne "$want" ]; then
        echo "FAILED: $name: exit $rc (want $want)"; cat "$work/out"; fails=$((fails + 1))
    else
        echo "ok: $name"
    fi
}
export KORMO_CLAMAV_DATABASE=$work/db
check "consumer, clean" 0 "$work/scan_c" "/usr/lib/$multiarch/kormomav/libkormopel.so" "$work/clean.txt"
check "consumer, EICAR" 1 "$work/scan_c" "/usr/lib/$multiarch/kormomav/libkormopel.so" "$work/eicar.com"
check "mavscan (default adapter), clean" 0 mavscan -q "$work/clean.txt"
check "mavscan (default adapter), EICAR" 1 mavscan -q "$work/eicar.com"
check "man page installed" 0 test -f /usr/share/man/man1/mavscan.1.gz
check "jar installed" 0 test -f /usr/share/java/kormomav.jar
check "reference pages installed" 0 test -f /usr/share/man/man3/MavScanFile.3.gz
echo "$((7 - fails)) passed, $fails failed"
[ "$fails" -eq 0 ]
