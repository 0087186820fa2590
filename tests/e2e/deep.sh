#!/usr/bin/env bash
# The kernel of scripts/e2e --deep, which no package has: it checks its own memory and locks. It is
# built from Debian's sources, with what deep.config names and nothing else. Sourced by host.sh.

# shellcheck disable=SC2034 # host.sh downloads it
source_of_deep=linux-source-6.12

# build_deep PLACE: as other kernels look when their packages are unpacked.
build_deep() {
    local place=$1 result=$1/usr/src/linux-headers-6.12-deep
    echo "e2e: building a kernel that checks itself, in 15 minutes of processor time"
    tar -xf "$place/usr/src/$source_of_deep.tar.xz" -C "$place"
    mkdir -p "$result" "$place/boot"
    logged "$place/log" make -C "$place/$source_of_deep" O="$result" \
        KCONFIG_ALLCONFIG="$PWD/tests/e2e/deep.config" allnoconfig
    has_all_of "$result/.config"
    logged "$place/log" nice make -C "$result" -j"$(nproc)" bzImage modules
    cp "$result/arch/x86/boot/bzImage" "$place/boot/vmlinuz-deep"
}

# has_all_of CONFIG: of deep.config. An option that depends on another one is left out silently.
has_all_of() {
    local line
    while read -r line; do
        if ! grep -qxF -e "$line" "$1"; then
            complain "the kernel cannot be as tests/e2e/deep.config wants it: $line"
            return 1
        fi
    done < <(grep '^CONFIG' tests/e2e/deep.config)
}
