#!/usr/bin/env bash
# Builds a small signature database for tests and demos in DIR:
#   DIR/kormo-test.ndb   body signatures: the EICAR test signature
#                        ("Eicar-Test-Signature", at offset 0) and a marker
#                        string anywhere in an object ("Kormo.Test.Marker")
#   DIR/kormo-test.hdb   hash signatures of the generated samples
#                        ("Kormo.Test.Hash.1", "Kormo.Test.Hash.2")
#   DIR/samples/         hash1.bin, hash2.bin (matched by hash), clean.txt
#   DIR/marker.txt       the marker string (so tests need not repeat it)
# Nothing is downloaded and no test malware is stored: the EICAR string only
# exists here in pieces and is assembled while the signature is written.
set -euo pipefail

if [ $# -ne 1 ]; then
    echo "usage: $0 DIR" >&2
    exit 2
fi
dir=$1
mkdir -p "$dir/samples"

hex() { od -An -v -tx1 | tr -d ' \n'; }

# The EICAR test string, assembled from pieces.
e1='X5O!P%@AP[4\PZX54(P^)7CC)7}'
e2='$EICAR-STANDARD-ANTIVIRUS'
e3='-TEST-FILE!$H+H*'
eicar_hex=$(printf '%s%s%s' "$e1" "$e2" "$e3" | hex)

marker='KORMO-TEST-MARKER-7f3a91c2'
printf '%s' "$marker" >"$dir/marker.txt"
marker_hex=$(printf '%s' "$marker" | hex)

# Deterministic sample contents: the same bytes on every run and machine.
gen() { # gen SEED LINES
    awk -v seed="$1" -v n="$2" 'BEGIN { for (i = 0; i < n; i++) printf "%s line %06d %08x\n", seed, i, (i * 2654435761 + seed) % 4294967296 }'
}
gen 11 200 >"$dir/samples/hash1.bin"
gen 23 3000 >"$dir/samples/hash2.bin"
printf 'An ordinary text file without anything to find.\n' >"$dir/samples/clean.txt"

{
    printf 'Eicar-Test-Signature:0:0:%s\n' "$eicar_hex"
    printf 'Kormo.Test.Marker:0:*:%s\n' "$marker_hex"
} >"$dir/kormo-test.ndb.tmp"

hashline() { # hashline FILE NAME -> md5:size:NAME
    local f=$1 name=$2 line
    if command -v sigtool >/dev/null 2>&1; then
        line=$(sigtool --md5 "$f")
        printf '%s:%s\n' "${line%:*}" "$name"
    else
        printf '%s:%s:%s\n' "$(md5sum "$f" | cut -d' ' -f1)" "$(stat -c %s "$f")" "$name"
    fi
}
{
    hashline "$dir/samples/hash1.bin" Kormo.Test.Hash.1
    hashline "$dir/samples/hash2.bin" Kormo.Test.Hash.2
} >"$dir/kormo-test.hdb.tmp"

mv "$dir/kormo-test.ndb.tmp" "$dir/kormo-test.ndb"
mv "$dir/kormo-test.hdb.tmp" "$dir/kormo-test.hdb"
echo "test signatures written to $dir"
