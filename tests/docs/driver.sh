#!/usr/bin/env bash
# docs/driver.md and tarvo-driver-check have the same clauses, in the same words, and the pages about
# the driver's files refer to both.
#
# usage: driver.sh BUILD_DIRECTORY, in the source directory
set -euo pipefail
build_dir=$1
page=docs/driver.md

if ! refusal=$("$build_dir/tarvo-sandbox" -- true 2>&1); then
    echo "SKIPPED: no sandbox on this machine: $refusal"
    exit 77
fi

faults=0
complain() {
    echo "$*"
    faults=$((faults + 1))
}

# Clauses that no program can check say so; all of the last section are such.
clauses_of_the_page() {
    awk -v RS= '/^\*\*[1-6]\.[0-9]+ / && !/\*Not checked/' "$page" |
        sed -nE 's/^\*\*([1-6]\.[0-9]+ [^*]*)\.\*\*.*/\1/p'
}

checked_clauses() {
    "$build_dir/tarvo-sandbox" --world cma -- "$build_dir/tarvo-driver-check" |
        sed -nE 's/^(not )?ok [0-9]+ - //; s/ # SKIP .*//; /^[1-9]\.[0-9]+ /p'
}

(($(checked_clauses | wc -l) > 30)) || complain "tarvo-driver-check prints less than 30 clauses"
diff <(clauses_of_the_page) <(checked_clauses) ||
    complain "$page (<) and tarvo-driver-check (>) differ"

for manual in man/proc_tarvo.5 man/tarvo_iommu_map_region.5; do
    grep -q '^\.Pa driver\.md' "$manual" || complain "$manual does not name $page"
    grep -q '^\.Xr tarvo-driver-check 8' "$manual" || complain "$manual does not name the checker"
done
exit $((faults > 0))
