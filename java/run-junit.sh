#!/bin/sh
# Runs the JUnit 5 tests of the Java bridge in a JVM with -Xcheck:jni.
#   run-junit.sh JAVA CONSOLE_JAR CLASSPATH TEST_JAR PRELOAD [JVM options...]
# PRELOAD: the sanitizer runtime to preload (empty: none). Fails when the JVM
# printed any JNI check warning, even if every test passed.
set -u
java=$1 console=$2 classpath=$3 testjar=$4 preload=$5
shift 5
log=$(mktemp) || exit 1
trap 'rm -f "$log"' EXIT
run() {
  "$java" -Xcheck:jni -Xmx512m "$@" -jar "$console" --disable-banner --disable-ansi-colors \
    --details=tree --fail-if-no-tests --class-path "$classpath" --scan-class-path="$testjar"
}
if [ -n "$preload" ]; then
  LD_PRELOAD=$preload \
  ASAN_OPTIONS=detect_leaks=0:handle_segv=0:allow_user_segv_handler=1:${ASAN_OPTIONS:-} \
    run "$@" >"$log" 2>&1
else
  run "$@" >"$log" 2>&1
fi
status=$?
cat "$log"
if grep -qE "WARNING in native method|WARNING: JNI|Warning: Calling other JNI" "$log"; then
  echo "run-junit.sh: JNI check warnings above" >&2
  [ "$status" -eq 0 ] && status=1
fi
exit $status
