#!/bin/sh
# Installs the build tree into a fresh prefix, checks that the documents the
# programs point to are there, and runs the installed recaster
# with no library path set: it must find liblockbase and libgridview through
# its own RUNPATH. The binary in the build folder, which has the same layout,
# must do the same.
# A tree built with MARKFORGE_RELOCATABLE=OFF (for the system's library
# folder, as in the Debian packages) must instead carry no RUNPATH at all once
# installed; its installed recaster is run with the library path set.
# Usage: install_check.sh <cmake> <build folder> <built recaster> <lib folder name> <ON|OFF relocatable> [emulator...]
# In a cross build the emulator's words follow; the programs then run under it
# and the loader's view of the libraries is not checked.
set -u
cmake=$1
build=$2
built=$3
libdir=$4
relocatable=$5
shift 5

prefix=$(mktemp -d "${TMPDIR:-/tmp}/markforge-install-XXXXXX") || exit 1
trap 'rm -rf "$prefix"' EXIT

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# <binary> <where> <library path or ""> [emulator...]: --version exits 0 and
# starts with the tool's own line.
check_version() {
    binary=$1
    where=$2
    path=$3
    shift 3
    if [ -n "$path" ]; then
        out=$(env LD_LIBRARY_PATH="$path" "$@" "$binary" --version 2>&1)
    else
        out=$(env -u LD_LIBRARY_PATH "$@" "$binary" --version 2>&1)
    fi
    status=$?
    [ "$status" -eq 0 ] || fail "$where recaster --version exited with $status: $out"
    first=$(printf '%s\n' "$out" | head -n 1)
    [ "$first" = "recaster 1.1.0" ] || fail "$where recaster --version printed: $out"
}

# <binary> <folder> <where>: both libraries resolve inside <folder>.
check_libraries_in() {
    libs=$(env -u LD_LIBRARY_PATH ldd "$1") || fail "ldd $1"
    folder=$(readlink -f "$2")
    for lib in liblockbase.so.1 libgridview.so.1; do
        path=$(printf '%s\n' "$libs" | awk -v lib="$lib" '$1 == lib { print $3 }')
        [ -z "$path" ] || path=$(readlink -f "$path")
        case "$path" in
        "$folder"/*) ;;
        *) fail "$3 recaster takes $lib from '$path', not from $2" ;;
        esac
    done
}

# <binary> <where>: the program's RUNPATH is exactly $ORIGIN/../<lib folder>, the
# one folder it needs. Any other entry would cost look-ups at every start, and
# an empty one would make the loader search the current folder.
check_program_runpath() {
    runpath=$(readelf -d "$1" | sed -n 's/.*(RUNPATH).*\[\(.*\)\]/\1/p') || fail "readelf $1"
    [ "$runpath" = "\$ORIGIN/../$libdir" ] || fail "$2 $(basename "$1") has the RUNPATH [$runpath]"
}

# <library> <where>: liblockbase and libgridview need nothing of ours, so no
# RUNPATH at all; libmarkforge finds liblockbase beside itself, through
# exactly $ORIGIN.
check_library_runpath() {
    case "$(basename "$1")" in
    libmarkforge.so*)
        runpath=$(readelf -d "$1" | sed -n 's/.*(RUNPATH).*\[\(.*\)\]/\1/p')
        [ "$runpath" = "\$ORIGIN" ] || fail "$2 $(basename "$1") has the RUNPATH [$runpath]"
        ! readelf -d "$1" | grep -q '(RPATH)' || fail "$2 $(basename "$1") has an RPATH"
        ;;
    *)
        ! readelf -d "$1" | grep -q -e '(RUNPATH)' -e '(RPATH)' || fail "$2 $(basename "$1") has a RUNPATH or RPATH"
        ;;
    esac
}

"$cmake" --install "$build" --prefix "$prefix" >/dev/null || fail "cmake --install"
[ -x "$prefix/bin/recaster" ] || fail "no bin/recaster under the prefix"
# The documents the help screens and the man page name are installed.
for doc in container-format.md json.md plugins.md sign-agent.md signing-outside.md \
    examples/verify-with-openssl.sh examples/sign-requests.sh; do
    [ -s "$prefix/share/doc/markforge-tools/$doc" ] || fail "share/doc/markforge-tools/$doc is not installed"
done

if [ "$relocatable" = OFF ]; then
    check_version "$prefix/bin/recaster" installed "$prefix/$libdir" "$@"
    check_version "$built" build-folder "" "$@"
    for file in "$prefix/bin/recaster" "$prefix/$libdir"/lib*.so; do
        ! readelf -d "$file" | grep -q -e '(RUNPATH)' -e '(RPATH)' || fail "installed $(basename "$file") has a RUNPATH or RPATH"
    done
    echo "installed files carry no RUNPATH; the build-folder recaster runs without LD_LIBRARY_PATH"
    exit 0
fi
check_version "$prefix/bin/recaster" installed "" "$@"
check_version "$built" build-folder "" "$@"
if [ "$#" -eq 0 ]; then
    built_libs=$(dirname "$(dirname "$built")")/$libdir
    check_libraries_in "$prefix/bin/recaster" "$prefix/$libdir" installed
    check_libraries_in "$built" "$built_libs" build-folder
    check_program_runpath "$prefix/bin/recaster" installed
    check_program_runpath "$built" build-folder
    for library in "$prefix/$libdir"/lib*.so "$built_libs"/lib*.so; do
        check_library_runpath "$library" "$(case "$library" in "$prefix"/*) echo installed ;; *) echo build-folder ;; esac)"
    done
fi

echo "installed and build-folder recaster run without LD_LIBRARY_PATH"
