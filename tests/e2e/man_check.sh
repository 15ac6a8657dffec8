#!/bin/sh
# Renders a built man page as man(1) does and checks it: no warnings from
# the formatter, every section a reader looks for, and (given the program)
# every long option of the program's help screen.
# Usage: man_check.sh <page.N.gz> [[emulator...] program]
set -u
page=$1
shift

fail() {
    echo "FAIL: $(basename "$page"): $*" >&2
    exit 1
}

warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
[ -z "$warnings" ] || fail "man --warnings printed: $warnings"
text=$(MANWIDTH=80 man -l "$page" 2>/dev/null | col -b) || fail "man -l failed"
for section in NAME SYNOPSIS DESCRIPTION OPTIONS "EXIT STATUS" FILES EXAMPLES "SEE ALSO"; do
    printf '%s\n' "$text" | grep -qx "$section" || fail "no $section section"
done

if [ "$#" -gt 0 ]; then
    # The help screen ends with status 1 by design.
    options=$("$@" --help 2>/dev/null | grep -o -- '--[a-z][a-z-]*' | sort -u)
    [ -n "$options" ] || fail "no options found in '$* --help'"
    for option in $options; do
        printf '%s\n' "$text" | grep -q -- "$option" || fail "$option is not described"
    done
fi
echo "$(basename "$page") renders without warnings and describes every option"
