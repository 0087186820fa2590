#!/usr/bin/env bash
# in_fresh_root.sh VERSION: run by fresh_root.sh, inside, with the packages in
# /tmp/packages.
# shellcheck source=tests/install/fresh_root_common.sh
source "$(dirname "$0")/fresh_root_common.sh"
version=$1

names=(libtarvo0 libtarvo-dev tarvo-tools python3-tarvo)
files=()
for name in "${names[@]}"; do
    files+=("$(echo "packages/$name"_*.deb)")
done

# As if none of it had ever been here.
forget_earlier_installations() {
    dpkg --purge --force-depends "${names[@]}" >/dev/null 2>&1
    rm -rf /var/shmem /run/lock/subsys
    keep_documents
    expect "files that are there before" "" files_of_ours
}

# Without the library nobody gets what needs it.
check_dependencies() {
    local name
    if dpkg --force-unsafe-io --install "${files[@]:1}" >said 2>&1; then
        fail "all but libtarvo0 was installed without it"
    fi
    for name in "${names[@]:1}"; do
        grep -q "$name depends on libtarvo0" said || fail "$name was not refused: $(cat said)"
    done
    dpkg --purge "${names[@]:1}" >/dev/null 2>&1
}

check_installation() {
    expect "what dpkg finds half installed" "" dpkg --audit
    expect "what dpkg finds changed" "" dpkg --verify "${names[@]}"
    grep -q 'libtarvo\.so\.0 .*=> /' <<<"$(ldconfig -p)" || fail "the loader does not know the library"
    # shellcheck disable=SC2016 # for awk
    expect "the folders" "755 root root /var/shmem
755 root root /run/lock/subsys" stat --format '%a %U %G %n' /var/shmem /run/lock/subsys
    expect "the manual of a call" /usr/share/man/man3/tarvo_alloc_func.3.gz man -w tarvo_free
}

build_and_run() {
    expect "the version for pkg-config" "$version" pkg-config --modversion tarvo
    local flags
    read -ra flags < <(pkg-config --cflags --libs tarvo)
    quietly cc -std=c11 -Wall -Wextra -Werror user/user.c "${flags[@]}" -o pc_user_c
    quietly c++ -std=c++20 -Wall -Wextra -Werror user/user.cpp "${flags[@]}" -o pc_user_cpp
    quietly cmake -S user -B by_cmake
    quietly cmake --build by_cmake
    for program in ./pc_user_c ./pc_user_cpp by_cmake/user_c by_cmake/user_cpp; do
        expect "$program" "ready at 0x00001000" tarvo-sandbox -- "$program"
    done
    expect "Python" "ready at 0x00001000" tarvo-sandbox -- /usr/bin/python3 user/user.py
    # shellcheck disable=SC2016 # the inner shell expands
    tarvo-sandbox -- sh -euc './pc_user_c && tarvoctl list' >listed
    grep -q '\<ring\>' listed || fail "tarvoctl does not list the chunk: $(cat listed)"
}

forget_earlier_installations
check_dependencies
quietly dpkg --force-unsafe-io --install "${files[@]}"
check_installation
build_and_run
quietly dpkg --purge "${names[@]}"
expect "files that are left behind" "" files_of_ours
[[ ! -e /var/shmem ]] || fail "/var/shmem was empty and is left behind"
