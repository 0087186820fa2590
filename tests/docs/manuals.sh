#!/usr/bin/env bash
# The manual pages in man/: that they are well formed, cover every call with its signature, quote
# messages that exist and offsets as they are, refer to pages that exist, and that their programs
# compile and run.
#
# usage: manuals.sh BUILD_DIRECTORY "C COMPILER AND FLAGS" "C++ COMPILER AND FLAGS", in the source
# directory
set -euo pipefail
build_dir=$1
read -ra cc <<<"$2"
read -ra cxx <<<"$3"

if ! command -v mandoc >/dev/null; then
    echo "SKIPPED: mandoc is not installed"
    exit 77
fi
sandbox_status=0
refusal=$("$build_dir/tarvo-sandbox" -- true 2>&1) || sandbox_status=$?

faults=0
complain() {
    echo "$*"
    faults=$((faults + 1))
}

place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
warnings=(-Wall -Wextra -Werror -Iinclude)

# Pages that are links to others are left out: what is true of one is true of the other.
mapfile -t pages < <(find man -type f -name '*.[1-9]' | sort)

# enough COUNT LEAST WHAT: a pattern that finds nothing would find nothing wrong either.
enough() {
    (($1 >= $2)) || complain "only $1 $3 found"
}

# The references are looked at below, and which pages the machine has indexed does not matter here.
check_form() {
    local report
    mandoc -T lint man/*.[1-9] >"$place/lint" 2>"$place/lint_errors" || true
    report=$(cat "$place"/lint* |
        grep -vE 'outdated mandoc\.db|referenced manual not found') || return 0
    complain "$report"
}

# The names that tarvo.h declares, one a line.
declared_names() {
    sed -e 's|//.*||' -e 's|^ *\*.*||' -e 's|/\*.*||' include/tarvo.h | tr '\n' ' ' | tr ';' '\n' |
        grep -oP '.*TARVO_API.*?\K\w+(?=\(|\s*$)' | grep -v '^TARVO_API$'
}

check_calls() {
    local name count=0
    while read -r name; do
        count=$((count + 1))
        if [[ ! -e man/$name.3 ]]; then
            complain "$name has no manual page"
        elif ! grep -qE "^\.Nm $name( ,)?\$" "man/$name.3"; then
            complain "man/$name.3 does not say what $name is"
        fi
    done < <(declared_names)
    enough "$count" 27 "calls"
}

# Every name that a page goes by is one that it can be found by.
check_names() {
    local page name
    for page in "${pages[@]}"; do
        while read -r name; do
            [[ -e man/$name.${page##*.} ]] || complain "$page: there is no page of the name $name"
        done < <(sed -n '/^\.Sh NAME/,/^\.Nd/s/^\.Nm \([^ ]*\).*/\1/p' "$page")
    done
}

check_references() {
    local page name section count=0
    for page in "${pages[@]}"; do
        while read -r _ name section; do
            if [[ $name == tarvo* || -n $(compgen -G "man/$name.*") ]]; then
                count=$((count + 1))
                [[ -e man/$name.$section ]] || complain "$page refers to $name($section)"
            fi
        done < <(grep -oE '\bXr [^ ]+ [0-9]' "$page")
    done
    enough "$count" 50 "references"
}

# What the synopses declare, each as a statement that compiles if a header declares the same.
signatures() {
    awk '
    function statement(    i, all) {
        for (i = 1; i <= arguments; i++) {
            sub(/ = .*/, "", argument[i])
            all = all (i > 1 ? ", " : "") argument[i]
        }
        printf "// %s\nconst auto same_%d = static_cast<%s (*)(%s)>(&%s);\n", \
            FILENAME, ++count, type, all, name
    }
    function split_arguments(text) {
        arguments = 0
        while (match(text, /"[^"]*"|[^ "]+/)) {
            argument[++arguments] = substr(text, RSTART, RLENGTH)
            gsub(/"/, "", argument[arguments])
            text = substr(text, RSTART + RLENGTH)
        }
    }
    /^\.Sh / { in_synopsis = $2 == "SYNOPSIS" }
    !in_synopsis { next }
    /^\.Ft / { type = substr($0, 5) }
    /^\.Fn / { name = $2; split_arguments(substr($0, 5 + length(name))); statement() }
    /^\.Fo / { name = $2; arguments = 0 }
    /^\.Fa / { argument[++arguments] = substr($0, 5); gsub(/"/, "", argument[arguments]) }
    /^\.Fc/ { statement() }
    ' "$@"
}

check_signatures() {
    local report
    {
        printf '#include <tarvo.hpp>\nnamespace tarvo {\n'
        signatures "${pages[@]}"
        printf '}\n'
    } >"$place/signatures.cpp"
    enough "$(grep -c static_cast "$place/signatures.cpp")" 45 "signatures"
    report=$("${cxx[@]}" -std=c++20 "${warnings[@]}" -Wno-unused-variable -fsyntax-only \
        "$place/signatures.cpp" 2>&1) || complain "no header declares what a synopsis says: $report"
}

# The texts that the pages list as messages, one a line, as far as they are always the same.
quoted_messages() {
    sed -n 's/^\.It Sy "\([^"]*\)".*/\1/p' "$@" | sed -e 's/\\&//g' -e 's/\\-/-/g' | sort -u
}

# A message stands in the sources, or in a test that has seen it. The tools' pages have none.
check_messages() {
    local message count=0
    while IFS= read -r message; do
        count=$((count + 1))
        grep -rqF -- "$message" src include docs/behaviour.md tests/system ||
            complain "nothing prints: $message"
    done < <(quoted_messages man/*.[357])
    enough "$count" 40 "messages"
}

# OFFSET BYTES FIELD of each row of the page's tables, with the record's name in front; BYTES of the
# last row, which is no field, is the record's own.
page_layout() {
    awk '
    /^\.Ss / { record = $NF }
    /^\.It [0-9]+ Ta / {
        split(substr($0, 5), column, " Ta ")
        field = column[3]
        sub(/^Va /, "", field)
        sub(/\._arr$/, "", field)
        if (expected[record] + 0 != column[1])
            print "gap at " column[1] " of " record
        expected[record] = column[1] + column[2]
        if (column[4] == "end")
            print "sizeof(" record ") == " column[1]
        else if (field != "\\-")
            print "offsetof(" record ", " field ") == " column[1]
    }' man/tarvo_lib.5 | sort
}

code_layout() {
    grep -oE '(sizeof|offsetof)\([^)]*\) == [0-9]+' src/shared/layout.hpp | sort
}

check_layout() {
    enough "$(code_layout | wc -l)" 35 "offsets"
    diff <(code_layout) <(page_layout) || complain "man/tarvo_lib.5 is not src/shared/layout.hpp"
}

# Each literal display that holds a main() becomes a file: PAGE.c, or PAGE.cpp if it is C++.
extract_programs() {
    awk -v place="$place" '
    /^\.Bd -literal/ { inside = 1; text = ""; main = "" }
    inside && !/^\.[BE]d/ {
        line = $0
        gsub(/\\e/, "\\", line)
        gsub(/\\-/, "-", line)
        gsub(/\\&/, "", line)
        text = text line "\n"
        if (/^int main/)
            main = /main\(void\)/ ? "c" : "cpp"
    }
    /^\.Ed/ {
        inside = 0
        if (main) {
            file = FILENAME
            gsub(/^man\/|\.[1-9]$/, "", file)
            printf "%s", text > (place "/" file "." main)
        }
    }' "$@"
}

# run_program PROGRAM WORLD
run_program() {
    local printed status=0
    printed=$("$build_dir/tarvo-sandbox" --world "$2" -- "$1" 2>&1) || status=$?
    ((status == 0)) || complain "$(basename "$1") in the world $2: status $status: $printed"
}

check_programs() {
    local source program world compiler count=0
    extract_programs "${pages[@]}"
    rm -f "$place/signatures.cpp"
    for source in "$place"/*.c "$place"/*.cpp; do
        count=$((count + 1))
        program=${source%.*}
        compiler=("${cc[@]}")
        [[ $source == *.c ]] || compiler=("${cxx[@]}" -std=c++20)
        if ! "${compiler[@]}" "${warnings[@]}" "$source" -o "$program" \
            -L"$build_dir" -ltarvo -Wl,-rpath,"$build_dir"; then
            complain "the program in $(basename "$program") does not compile"
            continue
        fi
        ((sandbox_status != 125)) || continue
        for world in simulation high cma; do
            run_program "$program" "$world"
        done
    done
    enough "$count" 10 "programs"
}

# A driver that gets no memory takes its device's registration with it.
leaves_no_device() {
    local printed
    ((sandbox_status != 125)) || return 0
    printed=$("$build_dir/tarvo-sandbox" --world cma --rule op=allocate,errno=ENOMEM -- \
        sh -c "! '$place/tarvo_register_device' 2>/dev/null && '$place/tarvo_dump_begin'")
    [[ -z $printed ]] || complain "tarvo_register_device leaves behind: $printed"
}

# Memory that somebody else has in a CMA region stays that somebody's.
leaves_memory_alone() {
    ((sandbox_status != 125)) || return 0
    "$build_dir/tarvo-sandbox" --world cma -- \
        sh -c "echo a probe 10000 >/proc/tarvo; '$place/tarvo_steps' && grep -q ^probe /proc/tarvo" \
        >"$place/printed" || complain "tarvo_steps gives memory back that is not its own"
}

# The two lines of output that tarvo(7) shows are what the library prints.
check_shown_output() {
    local shown
    ((sandbox_status != 125)) || return 0
    cat >"$place/prog.c" <<'END'
#include <tarvo.h>
int main(void) {
    char nothing;
    tarvo_alloc_func("rx_ring", 4096, "me");
    tarvo_free("rx_ring");
    return tarvo_unmap("rx_ring", &nothing, 0);
}
END
    "${cc[@]}" "${warnings[@]}" "$place/prog.c" -o "$place/prog" -L"$build_dir" -ltarvo \
        -Wl,-rpath,"$build_dir"
    # Without the shell's own word on how it ends.
    {
        (cd "$place" && "$build_dir/tarvo-sandbox" -- env ZUL_TRACE=tarvo=5 ./prog) \
            >"$place/output" 2>&1 || true
    } 2>/dev/null
    while IFS= read -r shown; do
        grep -qxF -- "$shown" "$place/output" ||
            complain "man/tarvo.7 shows, and nothing prints: $shown"
    done < <(sed -n "s/[\\](aq/'/g; /^prog: tarvo:/p; /^\[tarvo:5\]/p" man/tarvo.7)
}

check_form
check_calls
check_names
check_references
check_signatures
check_messages
check_layout
check_programs
leaves_no_device
leaves_memory_alone
check_shown_output

if ((faults == 0 && sandbox_status == 125)); then
    echo "SKIPPED: no sandbox on this machine to run the programs in: $refusal"
    exit 77
fi
exit $((faults > 0))
