#!/usr/bin/env bash
# Builds the lifecycle stress test and the test adapter with ThreadSanitizer
# (build/tsan) and runs the stress test. Exits non-zero when the test fails or
# ThreadSanitizer reports anything.
set -euo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)
cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=Debug -DKORMO_TSAN=ON -DKORMO_WERROR=ON \
  -DKORMO_BUILD_BENCH=OFF -DKORMO_BUILD_JAVA=OFF -DKORMO_BUILD_ENGINES=OFF >/dev/null
cmake --build build/tsan -j"$jobs" --target test_stress testpel

log=build/tsan/stress.log
export TSAN_OPTIONS="halt_on_error=1 exitcode=66 second_deadlock_stack=1 ${TSAN_OPTIONS:-}"
export TESTPEL_DIR="$PWD/build/tsan/adapters/testpel"
status=0
# Some kernels map memory where TSan does not expect it; without address-space
# randomisation it always runs.
run=(build/tsan/tests/test_stress)
if command -v setarch >/dev/null && setarch "$(uname -m)" -R true 2>/dev/null; then
  run=(setarch "$(uname -m)" -R "${run[@]}")
fi
"${run[@]}" >"$log" 2>&1 || status=$?
cat "$log"
if grep -q "ThreadSanitizer" "$log"; then
  echo "tsan.sh: ThreadSanitizer reported a problem" >&2
  [ "$status" -ne 0 ] || status=1
fi
if [ "$status" -eq 0 ]; then
  echo "tsan.sh: stress test clean under ThreadSanitizer"
fi
exit "$status"
