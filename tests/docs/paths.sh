#!/usr/bin/env bash
# Every file of the project that a document names is there, and every file of the library is in
# the page that says where things are decided.
set -euo pipefail

rooms='src|include|kernel|tools|tests|examples|scripts|docs|man|cmake|packaging|python|completions|\.ci'
missing=0

complain() {
    echo "$1 names $2, which does not exist"
    missing=1
}

named=0
for document in README.md CONTRIBUTING.md CHANGELOG.md docs/*.md; do
    # Between backticks, from the top of the project on.
    while read -r path; do
        named=$((named + 1))
        [[ -e $path ]] || complain "$document" "$path"
    done < <(grep -oE "\`($rooms)/[A-Za-z0-9_./-]*" "$document" | tr -d '`')
    # Links, from the document on.
    while read -r path; do
        named=$((named + 1))
        [[ -e $(dirname "$document")/$path ]] || complain "$document" "$path"
    done < <(grep -oE '\]\([^):]*\)' "$document" | sed -e 's/^](//' -e 's/)$//')
done

while read -r file; do
    if ! grep -qF "\`${file%.*}." docs/architecture.md; then
        echo "docs/architecture.md does not say what $file decides"
        missing=1
    fi
done < <(find src -name '*.[ch]pp')

while read -r row; do
    echo "docs/architecture.md has this row twice: $row"
    missing=1
done < <(grep '^|.*`' docs/architecture.md | sort | uniq -d)

# A pattern that finds nothing would find nothing wrong either.
((named > 50)) || { echo "only $named paths found"; missing=1; }
exit "$missing"
