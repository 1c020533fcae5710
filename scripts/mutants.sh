#!/usr/bin/env bash
# Mutation check: applies the source mutations of scripts/mutants.txt one at a
# time to a scratch copy of the tree, rebuilds it (no sanitizers: faster) and
# runs the tests its labels name. A mutant is killed when a test fails, the
# test run times out, or the mutated source no longer compiles (counted
# apart); it survives when every test passes. A line whose text is no longer
# found in its file is reported as NOMATCH and left out of the count, so a
# moved or rewritten line shows up instead of silently passing.
#
#   scripts/mutants.sh [-k] [filter]      filter: a regex on the mutation line
#   MUTANTS_DIR   scratch directory (default: build/mutants)
#   MUTANT_TIMEOUT  seconds for one mutant's test run (default 120)
#   -k            keep going after the baseline fails (failing tests excluded)
#
# Ends with "mutants: K of N killed"; exits 1 when a line did not match.
set -uo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
work=${MUTANTS_DIR:-$root/build/mutants}
timeout_s=${MUTANT_TIMEOUT:-120}
jobs=2
keep=0
if [ "${1:-}" = "-k" ]; then keep=1; shift; fi
filter=${1:-}

# A fresh scratch copy: the worktree is never mutated. tar keeps time stamps,
# so a later run rebuilds only what changed. A run that was killed with a
# mutant in place leaves "dirty": then every file is taken as new, so nothing
# built from the mutant survives.
rm -rf "$work/src"
mkdir -p "$work/src"
touch_all=()
[ -f "$work/dirty" ] && touch_all=(--touch)
tar -C "$root" --exclude=./build --exclude=./.git -cf - . | tar -C "$work/src" -xf - "${touch_all[@]}"
rm -f "$work/dirty"
src=$work/src
bld=$work/build
list=$src/scripts/mutants.txt  # the copy: edits during a run do not reach it
log=$work/log
mkdir -p "$log"

cmake -S "$src" -B "$bld" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0 \
      -DKORMO_BUILD_BENCH=OFF >"$log/configure.txt" 2>&1 || {
    echo "configure failed: $log/configure.txt"; exit 2; }
cmake --build "$bld" -j$jobs >"$log/build.txt" 2>&1 || {
    echo "baseline build failed: $log/build.txt"; exit 2; }

# The baseline: every test must pass unmutated. Failing ones are excluded
# (with -k) so they cannot pass for kills.
exclude='^$'
if ! ctest --test-dir "$bld" -j$jobs --timeout "$timeout_s" >"$log/baseline.txt" 2>&1; then
    failed=$(sed -n 's/^[[:space:]]*[0-9]* - \([^ ]*\) (.*/\1/p' "$log/baseline.txt")
    echo "baseline failures:"; echo "$failed" | sed 's/^/  /'
    [ $keep = 1 ] || { echo "fix them or rerun with -k"; exit 2; }
    exclude="^($(echo "$failed" | sed 's/[][().*+?^$|\\]/\\&/g' | paste -sd'|'))\$"
fi

# Applies one mutation in place: prints OK or NOMATCH. Literal text, first match.
apply() {
    python3 - "$1" "$2" "$3" <<'EOF'
import sys
path, find, repl = sys.argv[1:4]
text = open(path, encoding="utf-8").read()
if find not in text:
    print("NOMATCH"); sys.exit(0)
open(path, "w", encoding="utf-8").write(text.replace(find, repl, 1))
print("OK")
EOF
}

killed=0 survived=0 total=0 nomatch=0 stillborn=0 i=0
survivors=()
restore=""
put_back() {
    [ -n "$restore" ] && mv "$restore.orig" "$restore" && touch "$restore" && rm -f "$work/dirty"
    restore=""
}
trap 'put_back; exit 3' INT TERM
trap put_back EXIT
while IFS= read -r line; do
    case "$line" in ''|'#'*) continue ;; esac
    i=$((i + 1))
    [ -n "$filter" ] && ! [[ "$line" =~ $filter ]] && continue
    file=${line%% @@ *}; rest=${line#* @@ }
    labels=${rest%% @@ *}; rest=${rest#* @@ }
    find=${rest%% @@ *}; repl=${rest#* @@ }
    tag="#$i $file: ${find:0:60}"
    if [ ! -f "$src/$file" ]; then
        echo "NOMATCH   $tag (no such file)"; nomatch=$((nomatch + 1)); continue
    fi
    : >"$work/dirty"
    cp -p "$src/$file" "$src/$file.orig"
    restore=$src/$file
    if [ "$(apply "$src/$file" "$find" "$repl")" != OK ]; then
        echo "NOMATCH   $tag"; nomatch=$((nomatch + 1))
    elif ! cmake --build "$bld" -j$jobs >"$log/m$i.build.txt" 2>&1; then
        echo "NOBUILD   $tag"; stillborn=$((stillborn + 1))
    else
        total=$((total + 1))
        sel=()
        [ "$labels" != "*" ] && sel=(-L "$labels")
        timeout -k 10 "$timeout_s" ctest --test-dir "$bld" "${sel[@]}" -E "$exclude" -j$jobs \
            --timeout "$timeout_s" --stop-on-failure --output-on-failure >"$log/m$i.test.txt" 2>&1
        rc=$?
        if [ $rc = 0 ]; then
            echo "SURVIVED  $tag"; survived=$((survived + 1)); survivors+=("#$i")
        else
            how=timeout
            [ $rc = 124 ] || how=$(sed -n '/tests FAILED:/{n;s/^[[:space:]]*//;s/ (.*//;p;q}' \
                                   "$log/m$i.test.txt")
            echo "killed    $tag ($how)"; killed=$((killed + 1))
        fi
    fi
    # Put the source back, touched so that make rebuilds it with the next
    # mutant (or the final build).
    put_back
done <"$list"
cmake --build "$bld" -j$jobs >"$log/build.txt" 2>&1

echo "not applied: $nomatch NOMATCH, $stillborn NOBUILD"
[ ${#survivors[@]} -gt 0 ] && echo "survivors: ${survivors[*]}"
echo "mutants: $killed of $total killed"
[ $nomatch = 0 ]
