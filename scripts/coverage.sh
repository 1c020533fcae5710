#!/usr/bin/env bash
# Line coverage of the library (sec/mav) and the adapters under the whole test
# suite: a gcov build in build/coverage (or $COVERAGE_DIR), every test, lcov.
# Prints one line per area and "coverage: P% of L lines" for both together.
# Needs lcov (Debian package lcov); not part of CI.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
bld=${COVERAGE_DIR:-$root/build/coverage}
command -v lcov >/dev/null || { echo "lcov is missing (apt-get install lcov)"; exit 2; }

cmake -S . -B "$bld" -DCMAKE_BUILD_TYPE=Debug -DKORMO_BUILD_BENCH=OFF \
      -DCMAKE_C_FLAGS=--coverage -DCMAKE_CXX_FLAGS=--coverage \
      -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage >/dev/null
cmake --build "$bld" -j2 >/dev/null
find "$bld" -name "*.gcda" -delete  # counts of earlier runs and builds
ctest --test-dir "$bld" -j2 --timeout 300 >"$bld/ctest.txt" 2>&1 ||
    echo "some tests failed (see $bld/ctest.txt); coverage counted anyway"
lcov --quiet --capture --directory "$bld" --output-file "$bld/all.info" 2>/dev/null
lcov --quiet --extract "$bld/all.info" "$root/sec/mav/*" "$root/adapters/clamav/*" \
     "$root/adapters/clamd/*" "$root/adapters/common/*" --output-file "$bld/kormo.info"

area() {  # prints "name: P% (hit of total)"
    lcov --quiet --extract "$bld/kormo.info" "$2" --output-file "$bld/area.info" >/dev/null 2>&1
    lcov --summary "$bld/area.info" 2>&1 | sed -n "s|^ *lines\.*: *\(.*\)|$1: \1|p"
}
area "sec/mav " "$root/sec/mav/*"
area "adapters" "$root/adapters/*"
lcov --summary "$bld/kormo.info" 2>&1 |
    sed -n 's/^ *lines\.*: *\([0-9.]*%\) (\([0-9]*\) of \([0-9]*\) lines).*/coverage: \1 of \3 lines/p'
