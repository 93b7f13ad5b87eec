#!/bin/sh
# Every C++ block of a page stands in a source file, line by line but for the indentation.
# Usage: check-quotes.sh PAGE SOURCE
set -eu

awk '
    function trimmed(line) {
        gsub(/^[ \t]+|[ \t]+$/, "", line)
        return line "\n"
    }
    FNR == NR {
        source = source trimmed($0)
        next
    }
    /^```cpp$/ {
        inside = 1
        block = ""
        begun = FNR
        next
    }
    inside && /^```$/ {
        inside = 0
        blocks++
        if (index("\n" source, "\n" block) == 0) {
            print FILENAME ":" begun ": this block is not in the source"
            wrong++
        }
        next
    }
    inside { block = block trimmed($0) }
    END {
        print blocks + 0 " blocks, " wrong + 0 " wrong"
        exit blocks == 0 || wrong > 0
    }' "$2" "$1"
