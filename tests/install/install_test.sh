#!/usr/bin/env bash
# Install-and-consume test (see CMakeLists.txt here). Environment: KORMO_BUILD_DIR,
# KORMO_SOURCE_DIR, CMAKE, CC, CXX, KORMO_SAN_FLAGS, KORMO_EXPECT_JAR.
set -euo pipefail
build=$KORMO_BUILD_DIR
src=$KORMO_SOURCE_DIR
work=$(mktemp -d /tmp/kormomav-install.XXXXXX)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
unset PEL_LIB LD_LIBRARY_PATH KORMO_CLAMAV_DATABASE
failures=0
passes=0

check() { # check DESCRIPTION COMMAND...
    local what=$1
    shift
    if "$@"; then
        passes=$((passes + 1))
    else
        echo "FAILED: $what" >&2
        failures=$((failures + 1))
    fi
}

# expect NAME STATUS EXPECTED-OUTPUT COMMAND...: exit status and exact stdout.
expect() {
    local name=$1 want_rc=$2 want_out=$3 rc=0 out
    shift 3
    out=$("$@" 2>"$work/stderr") || rc=$?
    if [ "$rc" -ne "$want_rc" ] || [ "$out" != "$want_out" ]; then
        echo "FAILED: $name: exit $rc (want $want_rc), output:" >&2
        printf '%s\n' "$out" >&2
        echo "want:" >&2
        printf '%s\n' "$want_out" >&2
        sed 's/^/stderr: /' "$work/stderr" >&2
        failures=$((failures + 1))
    else
        passes=$((passes + 1))
    fi
}

# ---- Install into a temporary prefix --------------------------------------------
"$CMAKE" --install "$build" --prefix "$prefix" >"$work/install.log"
lib=$prefix/lib
[ -d "$lib" ] || lib=$(dirname "$(find "$prefix" -name 'libkormomav.so.1' | head -n1)")
for f in "$lib/libkormomav.so" "$lib/libkormomav.so.1" "$lib/kormomav/libkormopel.so" \
         "$prefix/include/kormomav/kormomav.h" "$prefix/include/kormomav/kormopel.h" \
         "$prefix/include/kormomav/mavprofile.h" "$prefix/bin/mavscan" \
         "$prefix/share/man/man1/mavscan.1" "$lib/cmake/kormomav/kormomavConfig.cmake" \
         "$lib/cmake/kormomav/kormomavConfigVersion.cmake" "$lib/pkgconfig/kormomav.pc"; do
    check "installed: $f" test -e "$f"
done
if [ -n "${KORMO_EXPECT_JAR:-}" ] && [ "$KORMO_EXPECT_JAR" = 1 ]; then
    check "installed: kormomav.jar" test -f "$prefix/share/java/kormomav.jar"
fi
check "libkormomav.so -> libkormomav.so.1" test "$(readlink "$lib/libkormomav.so")" = libkormomav.so.1
check "SONAME libkormomav.so.1" \
    bash -c "readelf -d '$lib/libkormomav.so.1' | grep -q 'SONAME.*\[libkormomav.so.1\]'"
check "no build path in the installed run paths" \
    bash -c "! readelf -d '$prefix/bin/mavscan' '$lib/libkormomav.so.1' | grep -q '$build'"

# ---- Test signatures and samples ----------------------------------------------------
"$src/scripts/make-testdb.sh" "$work/db" >/dev/null
export KORMO_CLAMAV_DATABASE=$work/db
mkdir "$work/samples"
printf 'nothing to see\n' >"$work/samples/clean.txt"
printf '%s%s%s' 'X5O!P%@AP[4\PZX54(P^)7CC)7}' '$EICAR-STANDARD-ANTIVIRUS' '-TEST-FILE!$H+H*' \
    >"$work/samples/eicar.com"
clean=$work/samples/clean.txt
eicar=$work/samples/eicar.com
cat >"$work/scan.properties" <<PROPS
mav.defaults.profile=MAIN
mav.profile.MAIN=MAIN
mav.profile.MAIN.Active=true
mav.profile.MAIN.ProfileSteps.0=0
mav.profile.MAIN.ProfileSteps.0.ProfileEntryType=0
mav.profile.MAIN.ProfileSteps.0.ProfileEntryValue=G
mav.group.G=G
mav.provider.Pelmark.Adapters.CLAM=CLAM
mav.provider.Pelmark.Adapters.CLAM.Active=true
mav.provider.Pelmark.Adapters.CLAM.Group=G
mav.provider.Pelmark.Adapters.CLAM.AdapterPath=$lib/kormomav/libkormopel.so
PROPS

want_found="$clean: OK
$eicar: Eicar-Test-Signature.UNOFFICIAL FOUND"

run_examples() { # run_examples HOW DIR
    local how=$1 dir=$2
    check "$how: scan_c uses the installed library" \
        bash -c "ldd '$dir/scan_c' | grep -q '$lib/libkormomav.so.1'"
    expect "$how: scan_c" 1 "$want_found" "$dir/scan_c" "$lib/kormomav/libkormopel.so" "$clean" "$eicar"
    expect "$how: scan_c clean" 0 "$clean: OK" "$dir/scan_c" "$lib/kormomav/libkormopel.so" "$clean"
    expect "$how: scan_profile" 1 "$want_found" \
        "$dir/scan_profile" "$work/scan.properties" MAIN "$clean" "$eicar"
}

# ---- Examples with the CMake package ------------------------------------------------
"$CMAKE" -S "$src/examples" -B "$work/ex-cmake" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_COMPILER="$CC" -DCMAKE_CXX_COMPILER="$CXX" \
    -DCMAKE_C_FLAGS="$KORMO_SAN_FLAGS" -DCMAKE_CXX_FLAGS="$KORMO_SAN_FLAGS" \
    -DCMAKE_EXE_LINKER_FLAGS="$KORMO_SAN_FLAGS" >"$work/ex-cmake.log"
"$CMAKE" --build "$work/ex-cmake" >>"$work/ex-cmake.log"
run_examples "CMake package" "$work/ex-cmake"

# ---- Examples with pkg-config -------------------------------------------------------
mkdir "$work/ex-pc"
cp "$src/examples/Makefile" "$src/examples/scan_c.c" "$src/examples/scan_profile.cpp" "$work/ex-pc/"
PKG_CONFIG_PATH="$lib/pkgconfig" CFLAGS="$KORMO_SAN_FLAGS" CXXFLAGS="$KORMO_SAN_FLAGS" \
    LDFLAGS="$KORMO_SAN_FLAGS -Wl,-rpath,$lib" make -s -C "$work/ex-pc" CC="$CC" CXX="$CXX" \
    >"$work/ex-pc.log"
pc_inc=$(PKG_CONFIG_PATH="$lib/pkgconfig" pkg-config --variable=includedir kormomav)
check "pkg-config: include directory in the prefix" \
    test "$(cd "$pc_inc" && pwd -P)" = "$(cd "$prefix/include/kormomav" && pwd -P)"
run_examples "pkg-config" "$work/ex-pc"

# ---- The installed mavscan with the built-in default configuration ---------------------
# Its default adapter is found in the private adapter folder beside the library.
expect "installed mavscan" 1 "$eicar: Eicar-Test-Signature.UNOFFICIAL FOUND" \
    "$prefix/bin/mavscan" -q "$clean" "$eicar"
expect "installed mavscan, clean" 0 "" "$prefix/bin/mavscan" -q "$clean"

echo "$passes passed, $failures failed"
[ "$failures" -eq 0 ]
