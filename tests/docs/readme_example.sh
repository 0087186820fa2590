#!/usr/bin/env bash
# README's example, as printed: the program is compiled and run by the printed commands and prints
# what is printed there.
#
# usage: readme_example.sh BUILD_DIRECTORY COMPILER [FLAG...], in the source directory
set -euo pipefail
source_dir=$PWD
build_dir=$1
compiler=("${@:2}")

status=0
refusal=$("$build_dir/tarvo-sandbox" -- true 2>&1) || status=$?
if ((status == 125)); then
    echo "SKIPPED: no sandbox on this machine: $refusal"
    exit 77
fi

# block LANGUAGE: what stands between ```LANGUAGE and ```.
block() {
    sed -n "/^\`\`\`$1\$/,/^\`\`\`\$/{/^\`\`\`/!p}" "$source_dir/README.md"
}

cc() {
    command "${compiler[@]}" "$@"
}

# Every command of the session with what it prints.
replay() {
    local line
    while IFS= read -r line; do
        echo "$line"
        eval "${line#$ }" </dev/null
    done < <(block console | grep '^\$ ')
}

place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
cd "$place"
ln -s "$source_dir/include" include
ln -s "$build_dir" build
block c >rx_ring.c

[[ -s rx_ring.c && -n $(block console) ]] || { echo "README has no example"; exit 1; }
replay >printed 2>&1 || { cat printed; exit 1; }
diff <(block console) printed

# What the comment on a full region says: no word from the program, and the reason from the command.
why=$(sed -n 's/.*a full region is silent: "\(tarvoctl .*\)" says why.*/\1/p' rx_ring.c)
[[ -n $why ]] || { echo "README does not say how to learn why"; exit 1; }
PATH=$build_dir:$PATH tarvo-sandbox -- sh -c "tarvoctl alloc all 713031680 >/dev/null
    ./rx_ring 2>&1; echo \"status \$?\"; $why" >full || status=$?
if [[ $status != 1 || $(head -n 1 full) != 'status 1' ]] || ! grep -q ' not fit: ' full; then
    cat full
    exit 1
fi
