#!/usr/bin/env bash
# Words are completed in bash, zsh and fish: commands, options, and the chunks and devices that are
# there. Arguments: tarvo-sandbox, tarvoctl, the client of the tests.
set -euo pipefail
cd "$(dirname "$0")/../.."

# shellcheck disable=SC2317 # called in the sandbox
scene() {
    PATH=$(dirname "$tool"):$PATH
    coproc CLIENT { exec "$client"; }
    local command
    for command in 'alloc rx_ring 65536 driver' 'alloc rx_stats 4096 agent' \
        'alloc rx_stats 8192 agent' 'alloc other 4096 agent' 'register 0 3 0'; do
        echo "$command" >&"${CLIENT[1]}"
        read -r _ <&"${CLIENT[0]}"
    done
    local shell
    for shell in bash zsh fish; do
        expect "$shell" 'tarvoctl sh' show
        expect "$shell" 'tarvoctl li' limits list
        expect "$shell" 'tarvoctl show rx_' rx_ring rx_stats
        expect "$shell" 'tarvoctl free o' other
        expect "$shell" 'tarvoctl unregister 0000' 0000:03:00.0
        expect "$shell" 'tarvoctl list --by' --bytes
        expect "$shell" 'tarvoctl iommu-map --prot r' r rw
    done
    kill "$CLIENT_PID"
}

expect() {
    local shell=$1 line=$2 found
    shift 2
    found=$("in_$shell" "$line" | sort | tr '\n' ' ')
    if [[ $found != "$* " ]]; then
        echo "$shell completes '$line' to '$found', not to '$* '"
        return 1
    fi
}

in_bash() {
    bash -c 'source completions/bash/tarvoctl
        read -ra COMP_WORDS <<<"$1"
        COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
        _tarvoctl
        printf "%s\n" "${COMPREPLY[@]}"' bash "$1"
}

# The function is called as zsh would, with what it calls of zsh in place.
in_zsh() {
    zsh -f -c 'words=(${=1}); CURRENT=$#words
        compadd() { print -rl -- ${(M)${(P)2}:#${words[CURRENT]}*} }
        source completions/zsh/_tarvoctl' zsh "$1"
}

in_fish() {
    # shellcheck disable=SC2016 # fish expands it
    fish --no-config -c 'source completions/fish/tarvoctl.fish; complete -C "$argv[1]"' "$1" |
        cut -f1
}

export tool=$2 client=$3
export -f scene expect in_bash in_zsh in_fish
exec "$1" --world low -- bash -euo pipefail -c scene
