#!/bin/bash
# Drives markforge's bash completion as bash would, with Debian's
# bash-completion loaded (the completion uses its helpers): sets the command
# line, calls _markforge, and compares COMPREPLY.
# Usage: completion_check.sh <completion/markforge>
set -u
source /usr/share/bash-completion/bash_completion || exit 1
source "$1" || exit 1

work=$(mktemp -d "${TMPDIR:-/tmp}/markforge-completion-XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
mkdir "$work/keys"
touch "$work/zImage" "$work/keygen.so" "$work/dev.pem"
cd "$work" || exit 1

failures=0

# <expected words, sorted, space-separated> <words of the command line...>:
# the last word is the one being completed.
expect() {
    local expected=$1
    shift
    COMP_WORDS=("$@")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMP_LINE="$*"
    COMP_POINT=${#COMP_LINE}
    COMPREPLY=()
    _markforge
    local got
    got=$(printf '%s\n' "${COMPREPLY[@]}" | sed '/^$/d' | LC_ALL=C sort | tr '\n' ' ' | sed 's/ $//')
    if [ "$got" != "$expected" ]; then
        echo "FAIL: '$*' completed to [$got], expected [$expected]" >&2
        failures=$((failures + 1))
    fi
}

expect "--help --version build keygen" markforge ""
expect "build" markforge bu
expect "--hash --header-only --help" markforge build --h
expect "development production" markforge build --mode ""
expect "sha256 sha384 sha512" markforge build --hash ""
expect "2048 3072 4096" markforge keygen --bits ""
expect "--bits --help --output --public-out" markforge keygen ""
expect "keys" markforge build --key-dir k
expect "keygen.so keys" markforge build --plugin key
expect "kernel=zImage" markforge build kernel=z
expect "dev.pem" markforge build --verify-key d
expect "" markforge build --key ""

[ "$failures" -eq 0 ] || exit 1
echo "markforge completion: every case as expected"
