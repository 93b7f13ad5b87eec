#!/bin/sh
# Checks that the library of a 32-bit processor keeps 64-bit time: it asks the C library for the
# 64-bit calls and does not read the C++ library's wall clock, which may be 32 bits wide.
#
#     check-time64.sh <nm> <library>
set -eu

nm=$1
library=$2

imports=$("$nm" -D --undefined-only "$library" | sed 's/.* U //; s/@.*//')
status=0

for name in __clock_gettime64 __pthread_cond_timedwait64; do
    if ! printf '%s\n' "$imports" | grep -qx "$name"; then
        echo "$library does not import $name"
        status=1
    fi
done

for name in clock_gettime pthread_cond_timedwait _ZNSt6chrono3_V212system_clock3nowEv; do
    if printf '%s\n' "$imports" | grep -qx "$name"; then
        echo "$library imports $name"
        status=1
    fi
done

exit $status
