#!/bin/bash
# Drives recaster's bash completion as bash would: sets COMP_WORDS and
# COMP_CWORD for a command line, calls _recaster, and compares COMPREPLY.
# Usage: completion_check.sh <completion/recaster>
set -u
script=$1
source "$script" || exit 1

work=$(mktemp -d "${TMPDIR:-/tmp}/markforge-completion-XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
mkdir "$work/keys"
touch "$work/key.pem" "$work/key.markforge" "$work/other.txt"
cd "$work" || exit 1

failures=0

# <expected words, sorted, space-separated> <words of the command line...>:
# the last word is the one being completed.
expect() {
    local expected=$1
    shift
    COMP_WORDS=("$@")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMPREPLY=()
    _recaster
    local got
    got=$(printf '%s\n' "${COMPREPLY[@]}" | sed '/^$/d' | sort | tr '\n' ' ' | sed 's/ $//')
    if [ "$got" != "$expected" ]; then
        echo "FAIL: '$*' completed to [$got], expected [$expected]" >&2
        failures=$((failures + 1))
    fi
}

expect "--convertkey --convertsig --help --version" recaster ""
expect "--convertkey --convertsig" recaster --conv
expect "--iformat --input --oformat --output" recaster --convertkey ""
expect "--iformat --oformat --output" recaster --convertkey -i key.pem ""
expect "--iformat" recaster --convertsig --input a --output b --i
expect "markforge pem raw" recaster --convertkey -I ""
expect "markforge pem raw" recaster --convertkey --oformat ""
expect "der markforge raw" recaster --convertsig -I ""
expect "der" recaster --convertsig --iformat d
expect "markforge pem raw" recaster --convertsig -O ""
expect "key.markforge key.pem keys" recaster --convertkey -i key
expect "other.txt" recaster --convertkey -o o
expect "" recaster -k ""
expect "" recaster --convertkey -I x

[ "$failures" -eq 0 ] || exit 1
echo "recaster completion: every case as expected"
