#!/bin/sh
# Runs StaticObjects, which must end with 0 and say each of its steps.
# Usage: check-static-objects.sh PROGRAM [EMULATOR...]
set -eu
program=$1
shift
said=$("$@" "$program")
[ "$said" = "earliest built
built before main
used in main
destroyed after main
earliest destroyed" ] || {
    printf '%s\n' "$said"
    exit 1
}
