#!/usr/bin/env bash
# Fails when the shared library exports anything beyond the public interface:
# the Mav* C functions (not the internal MavI*/MavIX*/MavPX* ones), the kernel
# runtime functions, the Java natives and the mav:: classes.
set -euo pipefail
lib=$1
syms=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//')
allowed='^(Mav[A-Z][a-z]|MavPPrintTrace$|MavPFreeInfo$|MavPXBytesFromTempFile$|Thr[A-Z]|Dl[A-Z]|ErrGetLastText$|ErrClear$|CTrc|Dp[A-Z]|rscpInit$|GetProcessCodePageU$|SetProcessCodePageFromEnv$|Utf8sToUcs$|UcsToUtf8s$|strn?cmpiU$|strlcpyU$|mkstempsU$|localtimeU$|timeOfDayU$|Java_kormo_security_core_server_mav_service_jni_Mavgate_[A-Za-z]+$|_ZN3mav|_ZNK3mav|_ZT[ISV]N3mav|KORMOMAV_1$)'
bad=$(printf '%s\n' "$syms" | grep -Ev "$allowed" || true)
internal=$(printf '%s\n' "$syms" | grep -E '^Mav(I[A-Z]|IX|PX)' | grep -v '^MavPXBytesFromTempFile$' || true)
for must in MavInit MavEnd MavScanClean MavErrorName MavStartRuntime Utf8sToUcs DlLoadLib \
            Java_kormo_security_core_server_mav_service_jni_Mavgate_initPEL; do
  printf '%s\n' "$syms" | grep -qx "$must" || { echo "missing export: $must"; exit 1; }
done
if [ -n "$bad$internal" ]; then
  echo "unexpected exports:"
  printf '%s\n' $bad $internal
  exit 1
fi
echo "exports ok: $(printf '%s\n' "$syms" | wc -l) symbols"
