# Drives a bash completion function as bash would, for the completion tests;
# sourced, never run. The caller sets COMPLETION_FUNCTION, calls
# completion_folder with the files the cases need, then `expect` per case and
# completion_result at the end.

failures=0

# A fresh working folder holding the empty files and folders named (a
# trailing / makes a folder), removed at exit; the shell moves into it.
completion_folder() {
    work=$(mktemp -d "${TMPDIR:-/tmp}/markforge-completion-XXXXXX") || exit 1
    trap 'rm -rf "$work"' EXIT
    cd "$work" || exit 1
    local name
    for name in "$@"; do
        case $name in
        */) mkdir -p "$name" ;;
        *) touch "$name" ;;
        esac
    done
}

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
    "$COMPLETION_FUNCTION"
    local got
    got=$(printf '%s\n' "${COMPREPLY[@]}" | sed '/^$/d' | LC_ALL=C sort | tr '\n' ' ' | sed 's/ $//')
    if [ "$got" != "$expected" ]; then
        echo "FAIL: '$*' completed to [$got], expected [$expected]" >&2
        failures=$((failures + 1))
    fi
}

# Exits 1 after any failed case, else says so and exits 0.
completion_result() {
    [ "$failures" -eq 0 ] || exit 1
    echo "$COMPLETION_FUNCTION: every case as expected"
}
