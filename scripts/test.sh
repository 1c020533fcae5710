#!/usr/bin/env bash
# The test command: installs what is missing, builds with AddressSanitizer and
# UndefinedBehaviorSanitizer, runs every test, then runs the thread stress test
# under ThreadSanitizer; prints the tests/code ratio last.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh
kormo_install_deps

jobs=$(nproc)
cmake -S . -B build/asan -DCMAKE_BUILD_TYPE=Debug -DKORMO_SANITIZE=ON -DKORMO_WERROR=ON \
  -DKORMO_BUILD_TESTS=ON -DKORMO_BUILD_BENCH=ON -DKORMO_BUILD_JAVA=ON
cmake --build build/asan -j"$jobs"
status=0
ctest --test-dir build/asan --output-on-failure -j"$jobs" || status=$?

if [ -x scripts/tsan.sh ]; then
  scripts/tsan.sh || status=$?
fi

# The Debian packages: built, checked by lintian, installed on this machine,
# used by a consumer and mavscan, and removed again.
scripts/deb.sh --install build/deb || status=$?

scripts/test-ratio.sh || true
exit $status
