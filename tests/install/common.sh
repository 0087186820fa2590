#!/usr/bin/env bash
# Read by the scripts beside it. They learn of the build from variables that begin with TARVO_.
set -euo pipefail
umask 022
export LC_ALL=C.UTF-8

# What the caller's shell asks of the loader, the library or the build tools does not count.
unset LD_LIBRARY_PATH LD_PRELOAD ZUL_TRACE SIMULATION_VMID DESTDIR CFLAGS CXXFLAGS CPPFLAGS LDFLAGS
unset PYTHONPATH CMAKE_PREFIX_PATH "${!PKG_CONFIG_@}"

here=$(dirname "$(realpath "${BASH_SOURCE[0]}")")
source_dir=$(realpath "$here/../..")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

fail() {
    echo "$*" >&2
    exit 1
}

# quietly COMMAND...: its output is shown only when it fails.
quietly() {
    "$@" >"$scratch/said" 2>&1 || {
        cat "$scratch/said" >&2
        fail "failed: $*"
    }
}

# expect WHAT WANTED COMMAND...: what the command prints.
expect() {
    local what=$1 wanted=$2 printed
    shift 2
    printed=$("$@") || fail "$what: failed: $*"
    [[ $printed == "$wanted" ]] || fail "$what: '$printed' instead of '$wanted'"
}

# make_packages FOLDER: from what is built already, laid out as scripts/package does it. Where the
# build is configured for another prefix than Debian's, only that is done anew.
make_packages() {
    local tree=$scratch/tree
    quietly cmake -S "$source_dir" -B "$tree" -G Ninja -DCMAKE_INSTALL_PREFIX=/usr \
        -DCMAKE_BUILD_TYPE="$TARVO_BUILD_TYPE" -DTARVO_COMPLETE=ON -DBUILD_TESTING=OFF
    cp -a "$TARVO_BUILD"/{libtarvo.so*,tarvo-driver-check,tarvo-sandbox,tarvoctl} "$tree"
    # Where the tools find the library in the build they come from, which that one does not know.
    printf 'file(RPATH_REMOVE FILE "%s")\n' "$tree"/{tarvo-driver-check,tarvo-sandbox,tarvoctl} >"$tree/remove.cmake"
    quietly cmake -P "$tree/remove.cmake"
    rm -rf "$1"
    quietly cpack --config "$tree/CPackConfig.cmake" -G DEB -B "$1"
    rm -r "$1/_CPack_Packages"
}
