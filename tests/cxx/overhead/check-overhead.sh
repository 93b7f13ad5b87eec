#!/bin/sh
# Compares the functions of an object file in pairs, layer_NAME and plain_NAME: both must make the
# same calls, and the first must not have more instructions than the second. Six are allowed:
# compilers double a block's end here and there.
# Usage: check-overhead.sh OBJDUMP OBJECT_FILE
set -eu

"$1" -dr --no-show-raw-insn "$2" | awk '
    # A call counts by the name in its relocation; one without a relocation by its operands.
    function flush() {
        if (pending != "")
            calls[name] = calls[name] " " pending
        pending = ""
    }
    /^[0-9a-f]+ <.*>:$/ {
        flush()
        name = substr($2, 2, length($2) - 3)
        # Some compilers put what exceptions need into a part of its own, NAME.cold.
        wanted = name ~ /^(layer|plain)_[A-Za-z]+$/
        next
    }
    !wanted { next }
    /R_[A-Z0-9_]+[ \t]/ {
        if ($2 ~ /(PLT32|_CALL|_JUMP24)$/ && $3 !~ /^\.text/) {
            target = $3
            sub(/-0x[0-9a-f]+$/, "", target)
            pending = target
        }
        flush()
        next
    }
    /^ *[0-9a-f]+:[ \t]/ {
        flush()
        if ($2 ~ /^(nop|xchg|data16|cs$|endbr64|udf)/)
            next
        count[name]++
        if ($2 ~ /^(call|callq|bl|blx)$/)
            pending = $0
    }
    END {
        flush()
        pairs = wrong = 0
        for (name in count) {
            if (name !~ /^layer_/)
                continue
            pairs++
            plain = name
            sub(/^layer/, "plain", plain)
            if (!(plain in count)) {
                print name ": has no pair"
                wrong++
                continue
            }
            printf "%-26s %3d instructions, by hand %3d; calls:%s\n",
                substr(name, 7), count[name], count[plain], calls[name]
            if (calls[name] != calls[plain]) {
                print "  differs: by hand it calls" calls[plain]
                wrong++
            } else if (count[name] > count[plain] + 6) {
                print "  differs: it has more instructions"
                wrong++
            }
        }
        print pairs " pairs, " wrong " differ"
        exit pairs < 10 || wrong > 0
    }'
