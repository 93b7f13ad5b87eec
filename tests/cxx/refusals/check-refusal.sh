#!/bin/sh
# A use that must not compile does not, and the compiler says why; the use of CASE 0 compiles.
# Usage: check-refusal.sh COMPILER SOURCE_DIR CASE TEXT
set -eu

status=0
output=$("$1" -std=c++17 -fsyntax-only -Werror=unused-result -I "$2" -DCASE="$3" \
    "$2/tests/cxx/refusals/Refusals.cpp" 2>&1) || status=$?
if [ "$3" -eq 0 ]; then
    printf '%s\n' "$output"
    exit "$status"
fi
if [ "$status" -eq 0 ]; then
    echo "case $3 compiles"
    exit 1
fi
case $output in
*"$4"*) echo "case $3: $4" ;;
*)
    printf 'case %s: no "%s" in what the compiler says:\n%s\n' "$3" "$4" "$output"
    exit 1
    ;;
esac
