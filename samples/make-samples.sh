#!/usr/bin/env bash
# Regenerates the sample files in this folder (new keys every time):
#   bash samples/make-samples.sh [path/to/recaster]
# The markforge files are written by the recaster given (default:
# build-demo/bin/recaster, which scripts/demo.sh builds).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
RECASTER="${1:-../build-demo/bin/recaster}"
[ -x "$RECASTER" ] || { echo "no recaster at $RECASTER: run scripts/demo.sh first or pass its path" >&2; exit 1; }

printf 'markforge sample payload: the bytes the sample signatures sign.\n' >payload.txt

# A 2048-bit RSA key: PKCS#1 private, SubjectPublicKeyInfo public, and the
# bare modulus.
openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out rsa2048-generated.pem 2>/dev/null
openssl rsa -in rsa2048-generated.pem -traditional -out rsa2048-private.pem 2>/dev/null
rm rsa2048-generated.pem
openssl pkey -in rsa2048-private.pem -pubout -out rsa2048-public.pem
modulus_hex="$(openssl rsa -in rsa2048-private.pem -noout -modulus | sed 's/^Modulus=//')"
printf "$(sed 's/../\\x&/g' <<<"$modulus_hex")" >rsa2048-modulus.raw

# The same key as markforge key files.
"$RECASTER" --convertkey -i rsa2048-public.pem -o rsa2048-public.markforge -I pem -O markforge
"$RECASTER" --convertkey -i rsa2048-private.pem -o rsa2048-private.markforge -I pem -O markforge

# Signatures over the payload: raw RSA (256 bytes), its markforge signature
# header, and a DER ECDSA P-256 signature with the public key to check it.
openssl dgst -sha256 -sign rsa2048-private.pem -out payload-rsa2048.sig.raw payload.txt
"$RECASTER" --convertsig -i payload-rsa2048.sig.raw -o payload-rsa2048.sig.markforge -I raw -O markforge
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out p256-private.pem
openssl pkey -in p256-private.pem -pubout -out p256-public.pem
openssl dgst -sha256 -sign p256-private.pem -out payload-p256.sig.der payload.txt
rm p256-private.pem
ls -l
