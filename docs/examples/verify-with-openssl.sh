#!/bin/sh
# Checks every signature of a markforge container with od, dd and the openssl
# tool alone, following docs/container-format.md. The header block must start
# at byte 0 (as `markforge build` writes it).
#   usage: verify-with-openssl.sh CONTAINER PUBLIC-KEY.pem
# Prints one line per signature, and one line per place where the records do
# not cover the payload exactly (each at the end of the one before, the file
# ending with the last); exits 0 when all verify and the layout holds, 1
# otherwise. The table of contents (build --table) is checked as a
# component; what it lists is left to `markforge verify`.
set -eu
container=$1
key=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The big-endian 32-bit word at byte $1 of the container.
word() {
    od -A n -t u1 -j "$1" -N 4 "$container" | awk '{ print $1 * 16777216 + $2 * 65536 + $3 * 256 + $4 }'
}

# Verifies signature file $2 over content file $1: the content's digest as
# upper-case hex text is what the signature signs.
check() {
    openssl dgst "-$hash" -r "$1" | cut -d ' ' -f 1 | tr -d '*' | tr a-f A-F | tr -d '\n' >"$work/digest.txt"
    openssl dgst "-$hash" -verify "$key" -signature "$2" "$work/digest.txt" >/dev/null 2>&1
}

S=$(word 8)
A=$(word $((12 + S)))
case $(word $((16 + S + A))) in
32) hash=sha256 ;;
48) hash=sha384 ;;
64) hash=sha512 ;;
*) echo "unknown digest length" >&2; exit 1 ;;
esac

status=0
tail -c +4097 "$container" >"$work/payload.bin"
record=$((16 + S))
expected=0
while [ "$record" -lt $((16 + S + A)) ]; do
    size=$(word "$record")
    offset=$(word $((record + 4)))
    name=$(dd if="$container" bs=1 skip=$((record + 8)) count=16 status=none | tr -d '\0')
    if [ "$offset" -ne "$expected" ]; then
        echo "layout: component $name at payload offset $offset, not $expected: FAILED"
        status=1
    fi
    expected=$((offset + size))
    dd if="$work/payload.bin" of="$work/component.bin" bs=1 skip="$offset" count="$size" status=none
    dd if="$container" of="$work/component.sig" bs=1 skip=$((record + 28)) count="$(word $((record + 24)))" status=none
    if check "$work/component.bin" "$work/component.sig"; then echo "component $name: ok"; else echo "component $name: FAILED"; status=1; fi
    record=$((record + 540))
done

payload=$(wc -c <"$work/payload.bin")
if [ "$payload" -ne "$expected" ]; then
    echo "layout: the payload is $payload bytes, the records cover $expected: FAILED"
    status=1
fi

# The archive signature covers the whole payload; with one component it is
# that component's own signature, which covers the same bytes.
dd if="$container" of="$work/archive.sig" bs=1 skip=12 count="$S" status=none
if check "$work/payload.bin" "$work/archive.sig"; then echo "archive: ok"; else echo "archive: FAILED"; status=1; fi
exit "$status"
