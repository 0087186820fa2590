#!/usr/bin/env bash
# A page of docs/: the commands of its console blocks, run one after the other in one shell on one
# machine, print what is printed there.
#
# usage: session.sh BUILD_DIRECTORY PAGE LEAST_COMMANDS, in the source directory
set -euo pipefail
source_dir=$PWD
build_dir=$1
page=$source_dir/$2
least=$3

# session: what stands in the ```console blocks.
session() {
    # shellcheck disable=SC2016 # marks of the page
    sed -n '/^```console$/,/^```$/{/^```/!p}' "$page"
}

# As a person would have it who types the lines: what a command prints stands below it.
typed() {
    local line
    while IFS= read -r line <&3; do
        printf '%s\n' "$line"
        eval "${line#$ }" </dev/null
    done 3< <(session | grep '^\$ ')
}

place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
cd "$place"
ln -s "$source_dir/examples" "$source_dir/python" .
ln -s "$build_dir" build
export -f typed session
export page
export PYTHONDONTWRITEBYTECODE=1

[[ $(session | grep -c '^\$ ') -ge $least ]] || { echo "$page has hardly a command"; exit 1; }
# The machine that the page starts.
# shellcheck disable=SC2016
mapfile -t machine < <(sed -n '/^```sh$/,/^```$/{/tarvo-sandbox/p}' "$page")
[[ ${machine[0]} == *"-- bash" ]] || { echo "$page starts no machine"; exit 1; }
status=0
${machine[0]} -c typed >printed 2>&1 || status=$?
if ((status == 125)); then
    echo "SKIPPED: no sandbox on this machine: $(cat printed)"
    exit 77
fi
# That there are processes nobody can look into is of this machine, not of the page.
grep -vE 'could not (look into|see the open files)' printed | diff <(session) -
