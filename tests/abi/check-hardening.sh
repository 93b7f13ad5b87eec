#!/bin/sh
# check-hardening.sh <readelf> <library> [flags]
# The library is hardened as a release is: its relocated data is read-only and all symbols are bound
# once it is loaded, its stack cannot be executed, no segment can be both written and executed, its
# code has no relocations, it looks in no folder of its own for other libraries, and it calls the
# checking variants of the C library and of the stack protector. With "flags", the compiler wrote
# its options into the debug information, and each source file was compiled with the protectors.
set -eu

if [ "$#" -lt 2 ]; then
    echo "usage: $0 <readelf> <library> [flags]" >&2
    exit 2
fi
readelf=$1
library=$2
status=0

# expect <what is wrong otherwise> <pattern> <text>
expect() {
    if ! printf '%s\n' "$3" | grep -Eq "$2"; then
        echo "$library: $1" >&2
        status=1
    fi
}

# refuse <what is wrong> <pattern> <text>
refuse() {
    if printf '%s\n' "$3" | grep -Eq "$2"; then
        echo "$library: $1" >&2
        status=1
    fi
}

segments=$("$readelf" -lW "$library" | grep -E '^  [A-Z_]+ +0x')
dynamic=$("$readelf" -dW "$library" | grep -E '^ +0x')
symbols=$("$readelf" --dyn-syms -W "$library" | awk '$7 == "UND" { print $8 }')

expect "its relocated data stays writable" '^  GNU_RELRO ' "$segments"
expect "it has no word on its stack" '^  GNU_STACK ' "$segments"
refuse "its stack can be executed" '^  GNU_STACK .* RWE? ?E ' "$segments"
refuse "a segment can be written and executed" '^  LOAD .* RWE ' "$segments"
expect "its symbols are bound late" '\(FLAGS\).*BIND_NOW|\(BIND_NOW\)' "$dynamic"
refuse "its code is relocated" '\(TEXTREL\)|\(FLAGS\).*TEXTREL' "$dynamic"
refuse "it names folders to look in" '\((RPATH|RUNPATH)\)' "$dynamic"
expect "it has no stack protector" '^__stack_chk_fail(@|$)' "$symbols"
expect "it has no checked calls" '^__(v?snprintf|syslog|memcpy|strncpy)_chk(@|$)' "$symbols"

if [ "${3-}" = flags ]; then
    # One line for each source file: the compiler and its options.
    units=$("$readelf" --debug-dump=info -W "$library" | grep 'DW_AT_producer' || true)
    expect "its debug information does not tell how it was compiled" 'GNU C\+\+' "$units"
    for flag in -O2 -fPIC -fstack-protector-strong -fstack-clash-protection; do
        if printf '%s\n' "$units" | grep -v -e " $flag\( \|$\)" | grep -q 'GNU C'; then
            echo "$library: a source file was compiled without $flag" >&2
            status=1
        fi
    done
fi
exit "$status"
