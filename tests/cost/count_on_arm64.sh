#!/usr/bin/env bash
# count_on_arm64.sh SANDBOX CLIENT ARM64_CLIENT OPERATION CHUNKS: prints how many instructions the
# library for arm64 executes for one operation. qemu puts each of them down; what a process does only
# once drops out, as a run of one operation is subtracted from a run of eight.
set -euo pipefail
sandbox=$1 client=$2 arm64_client=$3
shift 3
times=7

unset ZUL_TRACE LD_LIBRARY_PATH LD_PRELOAD
state=$(mktemp -d)
trap 'rm -rf "$state"' EXIT

in_sandbox() {
    "$sandbox" --state "$state" -- "$@"
}

# The emulated loader puts the library at the same place each time.
emulate() {
    in_sandbox setarch --addr-no-randomize qemu-aarch64 -L /usr/aarch64-linux-gnu "$@"
}

# instructions TIMES OPERATION CHUNKS: of all code from the library's beginning on, up to more than it
# has and less than lies between it and the next one.
instructions() {
    emulate -singlestep -d exec,nochain -dfilter "$library+0x40000" -D /dev/fd/3 \
        "$arm64_client" "${@:2}" "$1" 3>&1 >/dev/null | wc -l
}

library=$(emulate -E LD_TRACE_LOADED_OBJECTS=1 "$arm64_client" |
    sed -n 's/.*libtarvo\.so\.0 => .* (\(0x[0-9a-f]*\))$/\1/p')
# The chunks are there beforehand: to make them takes thousands of times as many instructions.
in_sandbox "$client" "$@" 1
more=$(($(instructions $((times + 1)) "$@") - $(instructions 1 "$@")))
if ((more == 0 || more % times != 0)); then
    echo "$1, $2 chunks: $more instructions in $times times: none, or not each time as many" >&2
    exit 1
fi
echo $((more / times))
