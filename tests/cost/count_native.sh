#!/usr/bin/env bash
# count_native.sh SANDBOX CLIENT OPERATION CHUNKS: prints how many instructions the library executes
# for one operation.
#
# Only what libtarvo itself executes counts: which instructions the C library takes depends on the
# processor. Timing, caches and load play no part, so the counts are exact.
set -euo pipefail
sandbox=$1 client=$2
shift 2
times=7 # prime: what does not repeat exactly hardly divides by it

# What the caller's shell asks of the library, the loader or valgrind does not count.
unset ZUL_TRACE LD_LIBRARY_PATH LD_PRELOAD VALGRIND_OPTS
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# Instructions executed in libtarvo, of all that callgrind has put down. The line after calls= is
# what the callee took, which stands at the callee, too.
sum_of_library() {
    awk '
    /^c?ob=/ {
        id = $1
        sub(/^c?ob=/, "", id)
        if (NF > 1)
            is_library[id] = index($0, "/libtarvo.so") > 0
        if (/^ob=/)
            inside = is_library[id]
    }
    /^calls=/ { getline; next }
    /^[0-9+*-]/ && inside { sum += $2 }
    END { printf "%.0f\n", sum }' "$1"
}

if ! "$sandbox" -- valgrind --tool=callgrind --toggle-collect=measure --dump-line=no \
    --callgrind-out-file="$scratch/out" "$client" "$@" "$times" >"$scratch/said" 2>&1; then
    cat "$scratch/said" >&2
    exit 1
fi
sum=$(sum_of_library "$scratch/out")
if ((sum == 0 || sum % times != 0)); then
    echo "$1, $2 chunks: $sum instructions in $times times: none, or not each time as many" >&2
    exit 1
fi
echo $((sum / times))
