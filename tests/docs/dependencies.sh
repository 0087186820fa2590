#!/usr/bin/env bash
# The rule of dependencies: every #include line against the table in docs/architecture.md.
set -euo pipefail

mapfile -t files < <(find include src tools examples tests bench -name '*.[ch]pp' -o -name '*.[ch]')

exec awk '
function fault(text) {
    print text
    faults++
}

# The most special row of the table that a file falls under.
function room_of(file,    room, best) {
    for (room in may_include)
        if (index(file, room) == 1 && length(room) > length(best))
            best = room
    return best
}

function ends_with(text, end) {
    return substr(text, length(text) - length(end) + 1) == end
}

# How many folders two paths begin with alike.
function common_folders(a, b,    i, n, in_a, in_b) {
    n = split(a, in_a, "/")
    split(b, in_b, "/")
    for (i = 1; i < n && in_a[i] == in_b[i]; i++)
        ;
    return i
}

# What an #include means: the file beside this one, else the one whose path ends so and that lies
# nearest; nothing if it is not ours. Several that are as near are put down as "a or b".
function meant_by(name, file,    i, beside, distance, nearest, found) {
    beside = file
    sub(/[^\/]*$/, name, beside)
    if (beside in ours)
        return beside
    for (i in ours)
        if (ends_with("/" i, "/" name)) {
            distance = common_folders(file, i)
            if (distance > nearest) {
                nearest = distance
                found = i
            } else if (distance == nearest)
                found = found " or " i
        }
    return found
}

function allowed(room, target,    i, n, rooms) {
    n = split(room " " may_include[room], rooms, " ")
    for (i = 1; i <= n; i++)
        if (index(target, rooms[i]) == 1)
            return 1
    return 0
}

BEGIN {
    for (i = 2; i < ARGC; i++)
        ours[ARGV[i]]
}

FILENAME == ARGV[1] {
    if (/^## /)
        in_rule = /rule of dependencies/
    if (in_rule && /^\| `/) {
        gsub(/`/, "")
        split($0, column, " *\\| *")
        may_include[column[2]] = column[3]
        rows++
    }
    next
}

FNR == 1 {
    room = room_of(FILENAME)
    if (!room)
        fault(FILENAME " is in no room of the table")
}

room && /^[ \t]*#[ \t]*include[ \t]*["<]/ {
    name = $0
    gsub(/^[^"<]*["<]|[">].*$/, "", name)
    sub(/^(\.\.?\/)+/, "", name)
    target = meant_by(name, FILENAME)
    if (!target)
        next
    seen++
    if (target ~ / or /)
        fault(FILENAME " includes " name ", which can be " target)
    else if (!allowed(room, target))
        fault(FILENAME " (" room ") must not include " target)
}

END {
    # A reader that sees nothing would find nothing wrong either.
    if (rows < 10 || seen < 100)
        fault("only " rows " rooms and " seen " #include lines found")
    exit faults > 0
}
' docs/architecture.md "${files[@]}"
