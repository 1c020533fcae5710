#!/usr/bin/env bash
# Runs the lifecycle and scan test executables of a build without sanitizers
# (build/valgrind) under valgrind's memcheck, each bounded in time. Exits
# non-zero when a test fails, valgrind reports an error or a leak, or a run
# exceeds its time. scripts/valgrind.supp would list deliberate reads that
# memcheck cannot prove harmless.
#
# Usage: scripts/valgrind.sh [TEST...]
#   TEST   names of tests/<name> folders (default: lifecycle scan params
#          profile robust stress, those that are test executables)
# Environment: VALGRIND_TIMEOUT seconds per executable (default 1200).
set -euo pipefail
cd "$(dirname "$0")/.."

if ! command -v valgrind >/dev/null; then
  echo "valgrind.sh: valgrind is not installed (see scripts/deps.sh)" >&2
  exit 2
fi

if [ $# -gt 0 ]; then
  names=("$@")
else
  names=()
  for n in lifecycle scan params profile robust stress; do
    # A folder of .cpp files without its own CMakeLists.txt is test_<name>.
    if [ -d "tests/$n" ] && [ ! -f "tests/$n/CMakeLists.txt" ] &&
       compgen -G "tests/$n/*.cpp" >/dev/null; then
      names+=("$n")
    fi
  done
fi
limit=${VALGRIND_TIMEOUT:-1200}
build=build/valgrind
jobs=$(nproc)

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DKORMO_SANITIZE=OFF -DKORMO_TSAN=OFF \
  -DKORMO_BUILD_BENCH=OFF -DKORMO_BUILD_JAVA=OFF -DKORMO_BUILD_ENGINES=OFF >/dev/null
cmake --build "$build" -j"$jobs" --target testpel

export TESTPEL_DIR="$PWD/$build/adapters/testpel"
# Threads are serialised under valgrind: the stress test gets fewer
# rounds; the checks are the same.
export KORMO_SOAK_ROUNDS=${KORMO_SOAK_ROUNDS:-150}
export KORMO_SOAK_SECONDS=${KORMO_SOAK_SECONDS:-120}
mkdir -p "$build/valgrind-logs"

status=0
results=()
for n in "${names[@]}"; do
  exe="$build/tests/test_$n"
  log="$build/valgrind-logs/$n.log"
  if ! cmake --build "$build" -j"$jobs" --target "test_$n" >"$log" 2>&1; then
    status=1
    tail -20 "$log"
    results+=("$(printf '%-16s %-22s' "test_$n" "did not build")")
    continue
  fi
  echo "== valgrind test_$n (at most ${limit}s)"
  start=$(date +%s)
  rc=0
  timeout --signal=KILL "$limit" valgrind --tool=memcheck --leak-check=full \
    --show-leak-kinds=definite,indirect --errors-for-leak-kinds=definite,indirect \
    --error-exitcode=99 --track-origins=yes --num-callers=30 \
    --suppressions=scripts/valgrind.supp \
    "$exe" --gtest_brief=1 >"$log" 2>&1 || rc=$?
  secs=$(( $(date +%s) - start ))
  errors=$(sed -n 's/.*ERROR SUMMARY: \([0-9]*\) errors.*/\1/p' "$log" | tail -1)
  lost=$(sed -n 's/.*definitely lost: \([0-9,]*\) bytes.*/\1/p' "$log" | tail -1)
  case $rc in
    0) verdict="clean" ;;
    99) verdict="valgrind errors" ;;
    124|137) verdict="timed out" ;;
    *) verdict="test failed (exit $rc)" ;;
  esac
  if [ "$rc" -ne 0 ]; then
    status=1
    tail -60 "$log"
  fi
  results+=("$(printf '%-16s %-22s errors %-4s definitely lost %-8s %5ss' "test_$n" "$verdict" \
    "${errors:-?}" "${lost:-0}" "$secs")")
done

echo
echo "== summary (logs in $build/valgrind-logs)"
printf '%s\n' "${results[@]}"
exit $status
