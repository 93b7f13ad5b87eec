#!/bin/sh
# Looks at an installed tree as its users do: the headers are there, and a C and a C++ program are
# built and run against it, by find_package and by pkg-config.
# Usage: check-consumers.sh TREE SOURCE_DIR LIBDIR CC CXX TOOLCHAIN_FILE [EMULATOR...]
#   TREE    the prefix of the installation; LIBDIR is the library folder below it
set -eu

tree=$1 source=$2 libdir=$3 cc=$4 cxx=$5 toolchain=$6
shift 6

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# All public headers, and no private one.
(cd "$source" && ls Framework/GCL/*.h Framework/VT/*.h) | LC_ALL=C sort >"$work/wanted"
(cd "$tree/include/KivGCL" && find Framework -type f) | LC_ALL=C sort >"$work/installed"
diff -u "$work/wanted" "$work/installed"
echo "headers: all of them"

# run NAME COMMAND: runs a built program and looks at what it prints.
run() {
    name=$1
    program=$2
    shift 2
    if [ $# -gt 0 ]; then
        output=$("$@" -E "LD_LIBRARY_PATH=$tree/$libdir" "$program" 2>&1)
    else
        output=$(LD_LIBRARY_PATH=$tree/$libdir "$program" 2>&1)
    fi
    for expected in $expectations; do
        case $output in
        *"$expected"*) ;;
        *)
            printf '%s: no "%s" in its output:\n%s\n' "$name" "$expected" "$output"
            exit 1
            ;;
        esac
    done
    echo "$name: as expected"
}
c_expectations='[0xA, 0xFF] KIV.GCL CList_GetNext: 0x8008'
cxx_expectations='[1] KIV.CONSUMER main: KIV.GCL'

cmake -S "$source/tests/package/consumer" -B "$work/consumer" -G Ninja \
    -DCMAKE_PREFIX_PATH="$tree" \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
    ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain"} >>"$work/log" || {
    cat "$work/log"
    exit 1
}
cmake --build "$work/consumer" >>"$work/log" || {
    cat "$work/log"
    exit 1
}
expectations=$c_expectations
run 'find_package, C' "$work/consumer/c-consumer" "$@"
expectations=$cxx_expectations
run 'find_package, C++' "$work/consumer/cxx-consumer" "$@"

export PKG_CONFIG_LIBDIR="$tree/$libdir/pkgconfig"
flags=$(pkg-config --cflags --libs KivGCL VorTrace)
# shellcheck disable=SC2086 # a list of options
"$cc" -std=c99 -o "$work/c" "$source/tests/package/consumer/consumer.c" $flags
# shellcheck disable=SC2086
"$cxx" -std=c++11 -o "$work/cxx" "$source/tests/package/consumer/consumer.cpp" $flags
expectations=$c_expectations
run 'pkg-config, C' "$work/c" "$@"
expectations=$cxx_expectations
run 'pkg-config, C++' "$work/cxx" "$@"

# Linking the library alone must not pull in a trace framework: the program's link then fails.
# shellcheck disable=SC2046
if "$cc" -std=c99 -o "$work/alone" "$source/tests/package/consumer/consumer.c" \
    $(pkg-config --cflags --libs KivGCL) 2>"$work/log"; then
    echo "the library alone: linked without a trace framework"
    exit 1
fi
grep -q VT_beginImpl "$work/log"
echo "the library alone: asks the process for a trace framework"
