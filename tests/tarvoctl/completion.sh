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
        expect "$shell" 'tarvoctl list --js' --json --json=compact
        expect_every_choice "$shell"
    done
    kill "$CLIENT_PID"
}

# What the help of each command names as an option with a value, or as one of an option's values.
expect_every_choice() {
    local command line option
    local -a choices
    for command in $("$tool" --help | sed -n 's/^  \([a-z][a-z-]*\) .*/\1/p'); do
        while read -r line; do
            expect "$1" "tarvoctl $command $line" "$line"
        done < <("$tool" "$command" --help | grep -oE -- '--[a-z-]+=[a-z]+')
        while IFS=' ' read -r option line; do
            mapfile -t choices < <(grep -oE '[a-z]+' <<<"$line" | sort)
            expect "$1" "tarvoctl $command $option " "${choices[@]}"
        done < <("$tool" "$command" --help | grep -oE -- '--[a-z-]+ [A-Z]+:\{.*\}')
    done
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
        [[ $1 != *" " ]] || COMP_WORDS+=("")
        COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
        _tarvoctl
        printf "%s\n" "${COMPREPLY[@]}"' bash "$1"
}

# The function is called as zsh would, with what it calls of zsh in place.
in_zsh() {
    zsh -f -c 'words=(${=1}); [[ $1 != *" " ]] || words+=(""); CURRENT=$#words
        compadd() { print -rl -- ${(M)${(P)2}:#${words[CURRENT]}*} }
        source completions/zsh/_tarvoctl' zsh "$1"
}

in_fish() {
    # shellcheck disable=SC2016 # fish expands it
    fish --no-config -c 'source completions/fish/tarvoctl.fish; complete -C "$argv[1]"' "$1" |
        cut -f1
}

export tool=$2 client=$3
export -f scene expect expect_every_choice in_bash in_zsh in_fish
exec "$1" --world low -- bash -euo pipefail -c scene
