#!/bin/sh
# Checks that the sink works in a child process, whatever other threads were doing at the fork: it
# makes no call of the C library that takes a lock which fork leaves held. syslog(3) is the
# exception that its header names.
#
#     check-fork.sh <nm> <library>
set -eu

nm=$1
library=$2

imports=$("$nm" -D --undefined-only "$library" | sed 's/.* U //; s/@.*//')
if ! printf '%s\n' "$imports" | grep -qx write; then
    echo "$library does not import write: is it the sink?"
    exit 1
fi
locking=$(printf '%s\n' "$imports" | grep -E \
    '^(_*(gmtime|localtime|mktime|timegm|timelocal|strftime|ctime|asctime|tzset)|setlocale|setenv|unsetenv|putenv|rand|random|srand|getaddrinfo|getpw|dlopen|dlsym|_*v?f?printf|f?put[cs]|fwrite|fopen|fflush)' ||
    true)
if [ -n "$locking" ]; then
    echo "$library imports, of what locks: $(echo "$locking" | tr "\n" " ")"
    exit 1
fi
