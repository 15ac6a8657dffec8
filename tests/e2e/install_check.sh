#!/bin/sh
# Installs the build tree into a fresh prefix and runs the installed recaster
# with no library path set: it must find liblockbase and libgridview through
# its own RPATH. The binary in the build folder must do the same.
# Usage: install_check.sh <cmake> <build folder> <built recaster> [emulator...]
# In a cross build the emulator's words follow; the programs then run under it
# and the loader's view of the libraries is not checked.
set -u
cmake=$1
build=$2
built=$3
shift 3

prefix=$(mktemp -d "${TMPDIR:-/tmp}/markforge-install-XXXXXX") || exit 1
trap 'rm -rf "$prefix"' EXIT

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# <binary> <where> [emulator...]: --version exits 0 and starts with the tool's own line.
check_version() {
    binary=$1
    where=$2
    shift 2
    out=$(env -u LD_LIBRARY_PATH "$@" "$binary" --version 2>&1)
    status=$?
    [ "$status" -eq 0 ] || fail "$where recaster --version exited with $status: $out"
    first=$(printf '%s\n' "$out" | head -n 1)
    [ "$first" = "recaster 1.1.0" ] || fail "$where recaster --version printed: $out"
}

# <binary> <folder> <where>: both libraries resolve inside <folder>.
check_libraries_in() {
    libs=$(env -u LD_LIBRARY_PATH ldd "$1") || fail "ldd $1"
    for lib in liblockbase.so libgridview.so; do
        path=$(printf '%s\n' "$libs" | awk -v lib="$lib" '$1 == lib { print $3 }')
        case "$path" in
        "$2"/*) ;;
        *) fail "$3 recaster takes $lib from '$path', not from $2" ;;
        esac
    done
}

# <binary> <where>: every RUNPATH folder is $ORIGIN-relative; an empty
# entry would make the loader search the current folder.
check_runpath() {
    runpath=$(readelf -d "$1" | sed -n 's/.*(RUNPATH).*\[\(.*\)\]/\1/p') || fail "readelf $1"
    [ -n "$runpath" ] || fail "$2 $(basename "$1") has no RUNPATH"
    old_ifs=$IFS
    IFS=:
    for entry in $runpath""; do
        case "$entry" in
        '$ORIGIN' | '$ORIGIN'/*) ;;
        *) fail "$2 $(basename "$1") has the RUNPATH entry '$entry' in [$runpath]" ;;
        esac
    done
    IFS=$old_ifs
}

"$cmake" --install "$build" --prefix "$prefix" >/dev/null || fail "cmake --install"
[ -x "$prefix/bin/recaster" ] || fail "no bin/recaster under the prefix"

check_version "$prefix/bin/recaster" installed "$@"
check_version "$built" build-folder "$@"
if [ "$#" -eq 0 ]; then
    check_libraries_in "$prefix/bin/recaster" "$prefix" installed
    check_libraries_in "$built" "$(dirname "$built")" build-folder
    for binary in "$prefix/bin/recaster" "$prefix"/lib*/liblockbase.so "$built" "$(dirname "$built")/liblockbase.so"; do
        check_runpath "$binary" "$(case "$binary" in "$prefix"/*) echo installed ;; *) echo build-folder ;; esac)"
    done
fi

echo "installed and build-folder recaster run without LD_LIBRARY_PATH"
