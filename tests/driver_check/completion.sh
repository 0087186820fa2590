#!/usr/bin/env bash
# Every option of the help, and every PCI device after --device, is offered in bash, zsh and fish.
# Argument: tarvo-driver-check.
set -euo pipefail
cd "$(dirname "$0")/../.."

expect() { # SHELL WHAT, with what is offered as standard input and the wanted lines as arguments
    local shell=$1 what=$2 offered
    shift 2
    offered=$(sort -u)
    [[ $offered == "$(printf '%s\n' "$@" | sort -u)" ]] || {
        printf '%s offers for %s:\n%s\nand not:\n' "$shell" "$what" "$offered"
        printf '%s\n' "$@"
        exit 1
    }
}

mapfile -t options < <("$1" --help | sed -nE 's/^ +(-[a-z],)?(--[a-z-]+).*/\2/p')
mapfile -t devices < <(ls /sys/bus/pci/devices)

in_bash() {
    bash -c 'source completions/bash/tarvo-driver-check
        COMP_WORDS=(tarvo-driver-check "$@") COMP_CWORD=$#
        _tarvo_driver_check
        printf "%s\n" "${COMPREPLY[@]}"' bash "$@"
}

# With what the function calls of zsh in place.
in_zsh() {
    zsh -f -c "_arguments() { print -rl -- \"\$@\" }; compadd() { shift; print -rl -- \"\$@\" }
        source completions/zsh/_tarvo-driver-check; $1"
}

in_fish() {
    # shellcheck disable=SC2016 # fish expands it
    fish --no-config -c 'source completions/fish/tarvo-driver-check.fish
        complete -C "$argv[1]"' "tarvo-driver-check $1" | cut -f1
}

((${#options[@]} >= 5)) || { echo "the help names ${#options[@]} options"; exit 1; }
in_bash -- | expect bash options "${options[@]}"
in_fish -- | expect fish options "${options[@]}"
in_zsh : | grep -oE '^(\(- \*\))?--[a-z-]+' | grep -oE -- '--.*' | expect zsh options "${options[@]}"
in_bash --device '' | expect bash devices "${devices[@]}"
in_fish '--device ' | expect fish devices "${devices[@]}"
in_zsh _tarvo_driver_check_devices | sed '/^[-(]/d' | expect zsh devices "${devices[@]}"
in_zsh : | grep -q ':device:_tarvo_driver_check_devices$'
