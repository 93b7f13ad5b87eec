#!/bin/sh
# check-interposed.sh <nm> <not failed> <interposers>... -- <library>...
# Each function that the libraries import can be failed by each of the interposers (a library for
# preloading or an archive), or stands in the list of those that need not be.
set -eu

nm=$1 not_failed=$2
shift 2
interposers=
while [ "$1" != -- ]; do
    interposers="$interposers $1"
    shift
done
shift

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
names() {
    sed -E -e 's/^.* //' -e 's/@.*$//' | LC_ALL=C sort -u
}
grep -vE '^(#|$)' "$not_failed" >"$work/patterns"
for library in "$@"; do
    "$nm" -D --undefined-only "$library"
done | names >"$work/imports"
if ! grep -qx recv "$work/imports" || ! grep -qx poll "$work/imports"; then
    echo "these are not the imports of both libraries" >&2
    exit 2
fi
grep -vxEf "$work/patterns" "$work/imports" >"$work/wanted"

status=0
for interposer in $interposers; do
    case $interposer in
    *.a) "$nm" --defined-only --extern-only "$interposer" ;;
    *) "$nm" -D --defined-only "$interposer" ;;
    esac | grep -E ' [TW] ' | names >"$work/defined"
    if missing=$(LC_ALL=C comm -23 "$work/wanted" "$work/defined") && [ -n "$missing" ]; then
        printf '%s cannot fail:\n%s\n' "$interposer" "$missing"
        status=1
    fi
done
exit "$status"
