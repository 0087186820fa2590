#!/usr/bin/env bash
# cost.sh SANDBOX CLIENT RENEWAL OPERATION CHUNKS: how many instructions the library executes for
# one operation, against counts.txt. RENEWAL is the command to name where they differ.
# cost.sh SANDBOX CLIENT: counts all again and writes counts.txt.
#
# Only what libtarvo itself executes counts: which instructions the C library takes depends on the
# processor. Timing, caches and load play no part, so the counts are exact.
set -euo pipefail
sandbox=$1 client=$2
counts=$(dirname "$0")/counts.txt
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

# count OPERATION CHUNKS: prints the instructions of one operation.
count() {
    local sum
    rm -f "$scratch/out"
    if ! "$sandbox" -- valgrind --tool=callgrind --toggle-collect=measure --dump-line=no \
        --callgrind-out-file="$scratch/out" "$client" "$@" "$times" >"$scratch/said" 2>&1; then
        cat "$scratch/said" >&2
        return 1
    fi
    sum=$(sum_of_library "$scratch/out")
    if ((sum == 0 || sum % times != 0)); then
        echo "$1, $2 chunks: $sum instructions in $times times: none, or not each time as many" >&2
        return 1
    fi
    echo $((sum / times))
}

check() {
    local renewal=$1 operation=$2 chunks=$3 expected seen
    expected=$(awk -v o="$operation" -v c="$chunks" '$1 == o && $2 == c { print $3 }' "$counts")
    seen=$(count "$operation" "$chunks")
    [[ $seen == "$expected" ]] && return
    echo "$operation, $chunks chunks: expected $expected instructions, counted $seen"
    echo "If the change is meant: $renewal"
    return 1
}

renew() {
    local operation chunks before now
    while read -r operation chunks before; do
        if [[ $operation == "#"* ]]; then
            echo "$operation $chunks $before"
            continue
        fi
        now=$(count "$operation" "$chunks")
        [[ $now == "$before" ]] || echo "$operation, $chunks chunks: $before -> $now" >&2
        echo "$operation $chunks $now"
    done <"$counts" >"$scratch/counts"
    cat "$scratch/counts" >"$counts"
}

if (($# == 2)); then
    renew
else
    check "${@:3}"
fi
