#!/usr/bin/env bash
# Sets the machine up, builds recaster and markforge (Release) and runs them
# on the sample files in samples/: recaster through every kind of
# conversion, markforge through a container's life (key, build, info,
# verify, extract). Each command is shown with what it wrote and what openssl
# makes of the result. Outputs go to build-demo/out/.
#   MARKFORGE_SKIP_SETUP=1   do not run scripts/setup.sh
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
cd "$MARKFORGE_ROOT"

if [ "${MARKFORGE_SKIP_SETUP:-0}" != 1 ]; then
    bash scripts/setup.sh demo
fi

banner "build recaster and markforge (Release) in build-demo/"
cmake -S . -B build-demo -G Ninja -DCMAKE_BUILD_TYPE=Release -DMARKFORGE_TESTS=OFF -DMARKFORGE_WERROR=ON >/dev/null
ninja -C build-demo -j "$MARKFORGE_JOBS" recaster markforge_program keydir

RECASTER=build-demo/bin/recaster
MARKFORGE=build-demo/bin/markforge
TOOL="$RECASTER"
S=samples
OUT=build-demo/out
rm -rf "$OUT"
mkdir -p "$OUT"
CHECKS_FAILED=0
STEPS=0

# Runs recaster with the arguments, printing the command, its exit status and
# whatever it wrote on standard output and standard error.
run() {
    local expected_status="$1"
    shift
    STEPS=$((STEPS + 1))
    printf '\n$ %s %s\n' "$(basename "$TOOL")" "$*"
    local status=0
    "$TOOL" "$@" >"$OUT/.stdout" 2>"$OUT/.stderr" || status=$?
    printf '  exit status %d\n' "$status"
    [ -s "$OUT/.stdout" ] && sed 's/^/  stdout| /' "$OUT/.stdout"
    [ -s "$OUT/.stderr" ] && sed 's/^/  stderr| /' "$OUT/.stderr"
    if [ "$status" -ne "$expected_status" ]; then
        echo "  !! expected exit status $expected_status"
        CHECKS_FAILED=$((CHECKS_FAILED + 1))
    fi
    return 0
}

# Size and first lines (text) or first bytes (binary) of a written file.
show_file() {
    local file="$1"
    if [ ! -e "$file" ]; then
        echo "  !! $file was not written"
        CHECKS_FAILED=$((CHECKS_FAILED + 1))
        return 0
    fi
    printf '  wrote %s: %d bytes\n' "$file" "$(stat -c %s "$file")"
    if grep -qP '[^\x09\x0a\x0d\x20-\x7e]' "$file"; then
        od -A d -t x1 -N 32 "$file" | sed 's/^/    /'
    else
        head -n 3 "$file" | cut -c 1-72 | sed 's/^/    /'
    fi
}

check() {
    local what="$1"
    shift
    if "$@" >/dev/null 2>&1; then
        echo "  check: $what: yes"
    else
        echo "  check: $what: NO"
        CHECKS_FAILED=$((CHECKS_FAILED + 1))
    fi
}

same_as() {
    check "identical to $2" cmp -s "$1" "$2"
}

modulus_of() {
    openssl rsa "$@" -noout -modulus 2>/dev/null
}

same_modulus() {
    [ "$(modulus_of -pubin -in "$1")" = "$(modulus_of -in "$S/rsa2048-private.pem")" ]
}

# r and s of a DER ECDSA signature, each as 64 hex digits, as openssl reads them.
der_integers_hex() {
    openssl asn1parse -inform DER -in "$1" | sed -n 's/.*INTEGER *://p' |
        while read -r hex; do printf '%64s' "$hex" | tr ' ' 0; done | tr 'A-F' 'a-f'
}

raw_hex() {
    od -An -v -t x1 "$1" | tr -d ' \n'
}

# One conversion whose output must equal a bundled sample byte for byte:
# <command> <input> <output> <iformat> <oformat> <expected sample>.
convert_to_sample() {
    run 0 "$1" -i "$2" -o "$3" -I "$4" -O "$5"
    show_file "$3"
    same_as "$3" "$6"
}

banner "key conversions"
run 0 --convertkey -i "$S/rsa2048-modulus.raw" -o "$OUT/from-raw.pem" -I raw -O pem
show_file "$OUT/from-raw.pem"
check "openssl reads a PUBLIC KEY with the sample's modulus" same_modulus "$OUT/from-raw.pem"
check "exponent 65537" bash -c "openssl pkey -pubin -in '$OUT/from-raw.pem' -noout -text | grep -q 'Exponent: 65537'"

convert_to_sample --convertkey "$S/rsa2048-modulus.raw" "$OUT/from-raw.markforge" raw markforge "$S/rsa2048-public.markforge"

convert_to_sample --convertkey "$S/rsa2048-private.pem" "$OUT/from-pem-private.markforge" pem markforge "$S/rsa2048-private.markforge"

convert_to_sample --convertkey "$S/rsa2048-public.pem" "$OUT/from-pem-public.markforge" pem markforge "$S/rsa2048-public.markforge"

convert_to_sample --convertkey "$S/rsa2048-public.pem" "$OUT/from-pem-public.raw" pem raw "$S/rsa2048-modulus.raw"

convert_to_sample --convertkey "$S/rsa2048-public.markforge" "$OUT/from-markforge-public.pem" markforge pem "$S/rsa2048-public.pem"

convert_to_sample --convertkey "$S/rsa2048-public.markforge" "$OUT/from-markforge-public.raw" markforge raw "$S/rsa2048-modulus.raw"

run 0 --convertkey -i "$S/rsa2048-private.markforge" -o "$OUT/from-markforge-private.pem" -I markforge -O pem
show_file "$OUT/from-markforge-private.pem"
check "openssl rsa -check: RSA key ok" openssl rsa -in "$OUT/from-markforge-private.pem" -check -noout
same_as "$OUT/from-markforge-private.pem" "$S/rsa2048-private.pem"

banner "signature conversions"
convert_to_sample --convertsig "$S/payload-rsa2048.sig.raw" "$OUT/from-raw.sig.markforge" raw markforge "$S/payload-rsa2048.sig.markforge"

run 0 --convertsig -i "$S/payload-rsa2048.sig.markforge" -o "$OUT/from-markforge.sig.raw" -I markforge -O raw
show_file "$OUT/from-markforge.sig.raw"
check "openssl dgst -verify: Verified OK" openssl dgst -sha256 -verify "$S/rsa2048-public.pem" \
    -signature "$OUT/from-markforge.sig.raw" "$S/payload.txt"

run 0 --convertsig -i "$S/payload-p256.sig.der" -o "$OUT/from-der.sig.raw" -I der -O raw
show_file "$OUT/from-der.sig.raw"
check "r and s as openssl asn1parse reads them" \
    test "$(raw_hex "$OUT/from-der.sig.raw")" = "$(der_integers_hex "$S/payload-p256.sig.der")"

banner "version screen"
run 0 --version

banner "a refused conversion: a PEM public key to PEM"
run 1 --convertkey -i "$S/rsa2048-public.pem" -o "$OUT/refused.pem" -I pem -O pem

TOOL="$MARKFORGE"
banner "markforge: a development key and a signed container"
mkdir -p "$OUT/keys"
run 0 keygen --bits 2048 -o "$OUT/keys/dev.markforge" --public-out "$OUT/dev.pem"
check "openssl reads the public key" openssl pkey -pubin -in "$OUT/dev.pem" -noout
run 0 build -o "$OUT/demo.img" --key dev --mode development --key-dir "$OUT/keys" --hash sha384 --table \
    readme="$S/payload.txt" key="$S/rsa2048-public.pem"
show_file "$OUT/demo.img"
check "openssl alone verifies every signature (docs/examples/verify-with-openssl.sh)" \
    sh docs/examples/verify-with-openssl.sh "$OUT/demo.img" "$OUT/dev.pem"
run 0 info "$OUT/demo.img" --keyring "$OUT"
run 0 verify "$OUT/demo.img" --key "$OUT/dev.pem" --require-table
run 0 extract "$OUT/demo.img" --component readme -o "$OUT/readme.txt"
same_as "$OUT/readme.txt" "$S/payload.txt"
banner "a changed byte: verify names the component and the archive"
cp "$OUT/demo.img" "$OUT/changed.img"
printf 'X' | dd of="$OUT/changed.img" bs=1 seek=4100 conv=notrunc status=none
run 1 verify "$OUT/changed.img" --key "$OUT/dev.pem"
banner "bytes appended: every signature still holds, but no record covers them"
cp "$OUT/demo.img" "$OUT/appended.img"
printf 'not signed' >>"$OUT/appended.img"
run 1 verify "$OUT/appended.img" --key "$OUT/dev.pem"
rm -f "$OUT/.stdout" "$OUT/.stderr"
banner "demo done"
echo "  $STEPS runs of recaster and markforge; outputs in $OUT/"
if [ "$CHECKS_FAILED" -ne 0 ]; then
    echo "  $CHECKS_FAILED checks FAILED"
    exit 1
fi
echo "  every check passed"
