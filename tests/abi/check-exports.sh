#!/bin/sh
# check-exports.sh <nm> <library> <list>
# Compares the symbols that the library exports with the list: demangled names, one a line, sorted
# bytewise. The difference is printed; lines with a "+" are exported but not listed.
# Constructors and destructors have several symbols of one demangled name, listed once. "long long"
# and "1ll" read as "long" and "1l", so that one list serves processors of 32 and 64 bits.
set -eu

if [ "$#" -ne 3 ]; then
    echo "usage: $0 <nm> <library> <list>" >&2
    exit 2
fi
nm=$1
library=$2
list=$3

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$nm" -D --defined-only --demangle --format=posix "$library" > "$work/symbols"
# posix format: the name, which may hold blanks, then type, value and size.
sed -E -e 's/ [A-Za-z] [0-9a-f]+( [0-9a-f]+)?$//' -e 's/@.*$//' -e 's/long long/long/g' -e 's/([0-9])ll/\1l/g' \
    "$work/symbols" | LC_ALL=C sort -u > "$work/exported"
if [ ! -s "$work/exported" ]; then
    echo "$library exports nothing" >&2
    exit 1
fi
diff -u "$list" "$work/exported"
