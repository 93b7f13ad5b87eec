#!/bin/sh
# check-quotes.sh <page> <source>
# Each line of the page's C++ code stands in the source, which is compiled and run.
set -eu

awk '/^```cpp$/ { inside = 1; next } /^```$/ { inside = 0 } inside && NF' "$1" | {
    lines=0
    status=0
    while IFS= read -r line; do
        lines=$((lines + 1))
        if ! grep -qxF -- "$line" "$2"; then
            echo "$1: not in $2: $line"
            status=1
        fi
    done
    echo "$lines lines"
    [ "$lines" -gt 0 ] && exit "$status"
}
