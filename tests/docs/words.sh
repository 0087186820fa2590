#!/usr/bin/env bash
# No file says what docs/words.md says in other words.
set -euo pipefail

page=docs/words.md
# shellcheck disable=SC2016 # the backticks are those of the table
mapfile -t patterns < <(sed -nE 's/^\|.*\| `(.*)` \|$/\1/p' "$page" | sed 's/\\|/|/g')
if ((${#patterns[@]} < 8)); then
    echo "$page: only ${#patterns[@]} rows have a regular expression; the table was not read" >&2
    exit 1
fi

rooms=(src include kernel tools tests examples bench python scripts cmake packaging man completions docs
    README.md CONTRIBUTING.md SECURITY.md CMakeLists.txt .ci)
found=0
for pattern in "${patterns[@]}"; do
    # Each finds what it is for: a row of the page has the words it warns of.
    if ! grep -qP "$pattern" <<<"mend judge is told behind it no plain file is no number process(es)
, for it is thereof incognito is not there"; then
        echo "$page: the expression $pattern finds none of the words that the page names" >&2
        found=1
    fi
    if grep -rnIiP --exclude={LICENSE,"${page##*/}","${0##*/}"} -- "$pattern" "${rooms[@]}"; then
        echo "^ see $page: $pattern" >&2
        found=1
    fi
done
exit "$found"
