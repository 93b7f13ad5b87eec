#!/bin/sh
# Builds the small examples as a user does: against an installed library, as projects of their own.
# Their outputs are compared, and the first program is built from its folder alone.
# Usage: check-examples.sh BUILD_DIR SOURCE_DIR CC CXX TOOLCHAIN_FILE
set -eu

build=$1 source=$2 cc=$3 cxx=$4 toolchain=$5

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# quietly COMMAND...: shows the output of a command only if it fails.
quietly() {
    "$@" >"$work/log" 2>&1 || {
        cat "$work/log"
        exit 1
    }
}

# configure SOURCE NAME: configures a project that finds the installed library.
configure() {
    quietly cmake -S "$1" -B "$work/$2" -G Ninja -DCMAKE_PREFIX_PATH="$work/tree" \
        -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_BUILD_TYPE=Release \
        ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain"}
}

quietly cmake --install "$build" --prefix "$work/tree"
# The examples alone: nothing but the installed tree may provide the headers.
mkdir "$work/source"
cp -R "$source/examples" "$work/source/"

configure "$work/source/examples" examples
quietly cmake --build "$work/examples"
ctest --test-dir "$work/examples" --no-tests=error --output-on-failure \
    >"$work/log" || {
    cat "$work/log"
    exit 1
}
grep 'tests passed' "$work/log"

configure "$work/source/examples/first-program" first
quietly cmake --build "$work/first"
echo "first-program: builds from its folder alone"
