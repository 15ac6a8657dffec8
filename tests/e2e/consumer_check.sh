#!/bin/sh
# Installs the build tree into a fresh prefix, then builds a small front end
# against it twice, through find_package(markforge) and through pkg-config,
# and runs both: the installed headers, libraries, CMake package and .pc
# files are enough to write a program of one's own.
# Usage: consumer_check.sh <cmake> <build folder> <consumer source folder> <c++ compiler> [compiler flags]
# The flags are the ones the libraries were built with that a program using
# them must share (the sanitizers).
set -u
cmake=$1
build=$2
source=$3
cxx=$4
cxxflags=${5:-}

work=$(mktemp -d "${TMPDIR:-/tmp}/markforge-consumer-XXXXXX") || exit 1
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# <program> <how it was built>: prints the resolved name and its hex text.
check_output() {
    out=$("$1" 2>&1) || fail "the $2 consumer failed: $out"
    [ "$out" = "/keys/dev 2F6B6579732F646576" ] || fail "the $2 consumer printed: $out"
}

"$cmake" --install "$build" --prefix "$prefix" >/dev/null || fail "cmake --install"

"$cmake" -S "$source" -B "$work/build" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$cxxflags" -DCMAKE_PREFIX_PATH="$prefix" \
    >"$work/configure.log" 2>&1 || { cat "$work/configure.log" >&2; fail "configuring against find_package"; }
"$cmake" --build "$work/build" >"$work/build.log" 2>&1 || { cat "$work/build.log" >&2; fail "building against find_package"; }
check_output "$work/build/consumer" find_package

pcdir=$(dirname "$(find "$prefix" -name markforge.pc | head -n 1)")
[ -n "$pcdir" ] && [ "$pcdir" != . ] || fail "no markforge.pc installed"
flags=$(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs markforge) || fail "pkg-config markforge"
libdir=$(PKG_CONFIG_PATH=$pcdir pkg-config --variable=libdir markforge)
# shellcheck disable=SC2086  # the flags are words
"$cxx" $cxxflags -std=c++17 -o "$work/consumer-pc" "$source/consumer.cpp" $flags -Wl,-rpath,"$libdir" ||
    fail "building against pkg-config's flags: $flags"
check_output "$work/consumer-pc" pkg-config

echo "a program builds and runs against the installed tree (find_package and pkg-config)"
