#!/usr/bin/env bash
# files.sh compare prefix: what is installed below a prefix, with modes, against prefix.txt.
# files.sh compare packages FOLDER: what is in the packages there against packages.txt.
# files.sh renew FOLDER: makes the packages there and writes both lists again.
# shellcheck source=tests/install/common.sh
source "$(dirname "$0")/common.sh"

# Names for what differs between machines, builds and versions.
neutral() {
    sed -e "s#/x86_64-linux-gnu/#/@multiarch@/#" \
        -e "s#tarvoTargets-${TARVO_BUILD_TYPE,,}#tarvoTargets-@build_type@#" \
        -e "s#\<${TARVO_VERSION//./\\.}\>#@version@#g" | sort
}

list_prefix() {
    quietly cmake --install "$TARVO_BUILD" --prefix "$scratch/prefix"
    (cd "$scratch/prefix" && find . ! -type d -printf '%M %P -> %l\n') |
        sed -e 's/ -> $//' \
            -e "s# $TARVO_LIBDIR/\(lib\|cmake\|pkgconfig\)# @libdir@/\1#" \
            -e "s# $TARVO_PYTHON_DIR/tarvo/# @python@/tarvo/#" | neutral
}

# Owner and mode of folders count, too.
list_packages() {
    local file name
    for file in "$1"/*.deb; do
        name=$(basename "$file")
        dpkg-deb --fsys-tarfile "$file" | tar -tv |
            awk -v package="${name%%_*}" '{ $3 = $4 = $5 = ""; print package, $0 }'
    done | tr -s ' ' | neutral
}

compare() { # LIST: standard input is what there is now
    diff --label "tests/install/$1" --label found -U0 "$here/$1" - && return
    fail "If the change is meant: cmake --build $TARVO_BUILD --target renew_installed_files"
}

case "$*" in
"compare prefix") list_prefix | compare prefix.txt ;;
"compare packages "*) list_packages "$3" | compare packages.txt ;;
"renew "*)
    list_prefix >"$here/prefix.txt"
    make_packages "$2"
    list_packages "$2" >"$here/packages.txt"
    ;;
*) fail "usage: files.sh compare prefix | compare packages FOLDER | renew FOLDER" ;;
esac
