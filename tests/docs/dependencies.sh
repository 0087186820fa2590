#!/usr/bin/env bash
# The rule of dependencies: every #include line against the table in docs/architecture.md.
set -euo pipefail

# Rows of the table, without backticks: room and what else it may include.
rows() {
    sed -n '/^## The rule of dependencies/,/^## Where/p' docs/architecture.md |
        tr -d '`' | grep -E '^\| [a-z]+/'
}

declare -A may_include
while IFS='|' read -r _ room others _; do
    room=${room// /}
    may_include[$room]="$room $others"
done < <(rows)

mapfile -t files < <(find include src tools examples tests -name '*.[ch]pp' -o -name '*.[ch]')

# room_of FILE: the most special row of the table that it falls under.
room_of() {
    local room best=
    for room in "${!may_include[@]}"; do
        if [[ $1 == "$room"* && ${#room} -gt ${#best} ]]; then
            best=$room
        fi
    done
    echo "$best"
}

# resolve FILE NAME: the file of ours that an #include in FILE means: the one beside it, else the
# one whose path ends so; nothing for another project's.
resolve() {
    local beside=${1%/*}/$2 file
    if [[ -e $beside ]]; then
        realpath --relative-to=. "$beside"
        return
    fi
    for file in "${files[@]}"; do
        if [[ $file == */"$2" ]]; then
            echo "$file"
        fi
    done
}

# allowed ROOM FILE
allowed() {
    local room
    for room in ${may_include[$1]}; do
        if [[ $2 == "$room"* ]]; then
            return 0
        fi
    done
    return 1
}

faults=0
fault() {
    echo "$1"
    faults=$((faults + 1))
}

seen=0
for file in "${files[@]}"; do
    room=$(room_of "$file")
    if [[ -z $room ]]; then
        fault "$file is in no room of the table"
        continue
    fi
    while read -r name; do
        mapfile -t targets < <(resolve "$file" "$name")
        ((${#targets[@]} > 0)) || continue
        seen=$((seen + 1))
        if ((${#targets[@]} > 1)); then
            fault "$file includes $name, which can be any of ${targets[*]}"
        elif ! allowed "$room" "${targets[0]}"; then
            fault "$file ($room) must not include ${targets[0]}"
        fi
    done < <(sed -nE 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*["<]([^">]+)[">].*/\1/p' "$file")
done

# A reader that sees nothing would find nothing wrong either.
((${#may_include[@]} >= 10 && seen > 50)) ||
    fault "only ${#may_include[@]} rooms and $seen #include lines found"
exit $((faults > 0))
