#!/bin/sh
# check-init.sh <readelf> <library> <functions>
# No more than the given number of functions run when the library is loaded: one of the compiler's
# own, and one for each source file with an object that is built by code. All other data is
# initialised before any code runs.
set -eu

if [ "$#" -ne 3 ]; then
    echo "usage: $0 <readelf> <library> <functions>" >&2
    exit 2
fi
# columns behind the number: name, type, address, offset, size, size of an entry (which may be 0)
size=$("$1" -SW "$2" | sed -n 's/^ *\[ *[0-9]*\] \.init_array *INIT_ARRAY *[0-9a-f]* [0-9a-f]* \([0-9a-f]*\) .*/\1/p')
word=$("$1" -hW "$2" | sed -n 's/.*Class: *ELF\([0-9]*\)$/\1/p')
if [ -z "$size" ] || [ -z "$word" ]; then
    echo "$2: its initialisation functions cannot be told" >&2
    exit 1
fi
count=$((0x$size * 8 / word))
if [ "$count" -gt "$3" ]; then
    echo "$2 runs $count functions when it is loaded, not $3" >&2
    exit 1
fi
