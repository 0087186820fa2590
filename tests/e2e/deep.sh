#!/usr/bin/env bash
# The kernel of scripts/e2e --deep, which no package has: it checks its own memory and locks. It is
# built from Debian's sources, with what deep.config names and nothing else. Sourced by host.sh.

# shellcheck disable=SC2034 # host.sh downloads it
source_of_deep=linux-source-6.12

# build_deep PLACE: as other kernels look when their packages are unpacked.
build_deep() {
    local place=$1 result=$1/usr/src/linux-headers-6.12-deep
    echo "e2e: building a kernel that checks itself, which takes 15 minutes of processor time"
    tar -xf "$place/usr/src/$source_of_deep.tar.xz" -C "$place"
    mkdir -p "$result" "$place/boot"
    logged "$place/log" make -C "$place/$source_of_deep" O="$result" \
        KCONFIG_ALLCONFIG="$PWD/tests/e2e/deep.config" allnoconfig
    # An option that depends on another one is left out silently.
    if ! is_deep_as_wanted "$place"; then
        complain "the kernel cannot be as tests/e2e/deep.config wants it"
        return 1
    fi
    logged "$place/log" nice make -C "$result" -j"$(nproc)" bzImage modules
    cp "$result/arch/x86/boot/bzImage" "$place/boot/vmlinuz-deep"
}

# is_deep_as_wanted PLACE: whether its configuration has each line of deep.config. Prints those that
# it has not.
is_deep_as_wanted() {
    local status=0
    grep '^CONFIG' tests/e2e/deep.config |
        grep -vxF -f "$1/usr/src/linux-headers-6.12-deep/.config" || status=$?
    # Of grep: no line was left.
    ((status == 1))
}
