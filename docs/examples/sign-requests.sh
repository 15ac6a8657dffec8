#!/bin/sh
# sign-requests.sh REQ.json KEY.pem DIR
#
# The offline signing step of markforge, with openssl alone: signs the value
# of every request in REQ.json (written by `markforge build --mode offline`)
# with the PEM private key KEY.pem, into DIR/NAME.sig, the folder
# `markforge attach --signatures DIR` reads. Needs jq, xxd and openssl.
#
# Each value is already the digest to sign: openssl pkeyutl with
# -pkeyopt digest:HASH wraps it in that hash's DigestInfo and makes the
# PKCS#1 v1.5 signature, without hashing it again.
set -eu
if [ $# -ne 3 ]; then
    echo "usage: $0 REQ.json KEY.pem DIR" >&2
    exit 2
fi
requests=$1
key=$2
folder=$3

jq -e .requests "$requests" >/dev/null
jq -r '.requests[] | "\(.signature_file) \(.hash) \(.to_sign)"' "$requests" |
    while read -r file hash value; do
        printf '%s' "$value" | xxd -r -p |
            openssl pkeyutl -sign -inkey "$key" -pkeyopt "digest:$hash" -out "$folder/$file"
        echo "signed $file"
    done
