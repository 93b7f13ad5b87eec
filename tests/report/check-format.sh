#!/bin/sh
# A report whose arguments do not fit its format does not compile, for that reason; one whose
# arguments fit does.
# Usage: check-format.sh COMPILER SOURCE_DIR CASE
set -eu

status=0
output=$("$1" -std=c++17 -fsyntax-only -Werror=format -I "$2" "-D$3" \
    "$2/tests/report/Sites.cpp" 2>&1) || status=$?
if [ "$3" = RightArguments ]; then
    printf '%s\n' "$output"
    exit "$status"
fi
if [ "$status" -eq 0 ]; then
    echo "$3 compiles"
    exit 1
fi
case $output in
*error:*format*) ;;
*)
    printf '%s: the compiler says nothing of a format:\n%s\n' "$3" "$output"
    exit 1
    ;;
esac
