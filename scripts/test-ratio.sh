#!/usr/bin/env bash
# Prints the size of the tests against the code, in lines that are neither
# blank nor comment-only (a line starting, after blanks, with //, #, * or /*),
# over files ending .c .cc .cpp .h .hpp .java .sh .py .cmake and CMakeLists.txt.
# Tests: tests/, fuzz/, adapters/testpel, java/src/test. bench/ is neither.
set -euo pipefail
cd "$(dirname "$0")/.."
count() {
    git ls-files -co --exclude-standard -- "$@" |
        grep -E '(\.(c|cc|cpp|h|hpp|java|sh|py|cmake)|(^|/)CMakeLists\.txt)$' |
        while IFS= read -r f; do [ -f "$f" ] && cat "$f"; done |
        grep -cvE '^[[:space:]]*($|//|#|\*|/\*)' || true
}
tests=$(count tests fuzz adapters/testpel java/src/test)
code=$(count . ':!tests' ':!fuzz' ':!adapters/testpel' ':!java/src/test' ':!bench')
awk -v t="$tests" -v c="$code" \
    'BEGIN { printf "tests/code: %d / %d lines = %.2f\n", t, c, c ? t / c : 0 }'
