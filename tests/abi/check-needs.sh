#!/bin/sh
# check-needs.sh <readelf> <library> [<undefined symbol>...]
# The library has the SONAME that its users are linked to, names nothing but the C and C++ runtimes among the libraries that it needs, and
# leaves each of the given symbols to the process that loads it.
set -eu

if [ "$#" -lt 2 ]; then
    echo "usage: $0 <readelf> <library> [<undefined symbol>...]" >&2
    exit 2
fi
readelf=$1
library=$2
shift 2
status=0

soname=$("$readelf" -dW "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\].*/\1/p')
if [ "$soname" != "$(basename "$library" | sed 's/\.so.*/.so.1/')" ]; then
    echo "$library has the SONAME '$soname'" >&2
    status=1
fi

needed=$("$readelf" -dW "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\].*/\1/p')
if [ -z "$needed" ]; then
    echo "$library needs no library at all, not even the C runtime: is it a shared library?" >&2
    exit 1
fi
for name in $needed; do
    case $name in
    libc.so.* | libm.so.* | libgcc_s.so.* | libstdc++.so.* | ld-linux*.so.*) ;;
    *)
        echo "$library needs $name" >&2
        status=1
        ;;
    esac
done

symbols=$("$readelf" --dyn-syms -W "$library")
for symbol in "$@"; do
    # columns: number, value, size, type, binding, visibility, section, name[@version]
    if ! printf '%s\n' "$symbols" | awk -v wanted="$symbol" '
        $7 == "UND" { name = $8; sub(/@.*/, "", name); if (name == wanted) found = 1 }
        END { exit !found }'; then
        echo "$library does not leave $symbol to the process" >&2
        status=1
    fi
done
exit "$status"
