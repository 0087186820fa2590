#!/usr/bin/env bash
# cost.sh COUNTS RENEWAL OPERATION CHUNKS -- COUNTER...: how many instructions the library executes
# for one operation, against the file COUNTS. COUNTER is the command that counts them, and RENEWAL the
# one to name where they differ.
# cost.sh COUNTS -- COUNTER...: counts all again and writes COUNTS.
set -euo pipefail
counts=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

check() {
    local renewal=$1 operation=$2 chunks=$3 expected seen
    shift 4
    expected=$(awk -v o="$operation" -v c="$chunks" '$1 == o && $2 == c { print $3 }' "$counts")
    seen=$("$@" "$operation" "$chunks")
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
        now=$("$@" "$operation" "$chunks" </dev/null)
        [[ $now == "$before" ]] || echo "$operation, $chunks chunks: $before -> $now" >&2
        echo "$operation $chunks $now"
    done <"$counts" >"$scratch/counts"
    cat "$scratch/counts" >"$counts"
}

if [[ $2 == -- ]]; then
    renew "${@:3}"
else
    check "${@:2}"
fi
