#!/usr/bin/env bash
# What scripts/e2e and scripts/vm share: kernels, the driver built for them, and the machine.
# Sourced at the top of the project. Everything is made in build-e2e/, which can be removed. Call
# prepare plainly, never as a condition: it relies on set -e, which bash ignores there.

work=$PWD/build-e2e
# Where the library and the driver come from.
sources=.
mkdir -p "$work"
# $(...) would go on after a failure.
shopt -s inherit_errexit

# Where none is named.
# shellcheck disable=SC2034 # it is for the scripts
usual_kernel=6.12
# The packages that follow a kernel's versions.
declare -A image_of=(
    [6.1]=linux-image-cloud-amd64 [6.12]=linux-image-6.12-cloud-amd64)
declare -A headers_of=(
    [6.1]=linux-headers-cloud-amd64 [6.12]=linux-headers-6.12-cloud-amd64)
# Two more are for tests alone: "arm64" is 6.12 for such machines, "deep" is built here.
declare -A purpose_of=([arm64]=e2e-arm64 [deep]=e2e-deep)
# shellcheck source=tests/e2e/arm64.sh
. tests/e2e/arm64.sh
# shellcheck source=tests/e2e/deep.sh
. tests/e2e/deep.sh

complain() {
    printf 'e2e: %s\n' "$@" >&2
}

# logged LOG COMMAND...: its output goes into LOG, and is shown when it fails.
logged() {
    local log=$1
    shift
    if ! "$@" >"$log" 2>&1; then
        cat "$log" >&2
        return 1
    fi
}

# depends_of PACKAGE PATTERN [WORDS...]: the packages of such names that it depends on. WORDS go to
# the package tools.
depends_of() {
    apt-cache "${@:3}" depends --no-recommends --no-suggests "$1" |
        sed -nE "s/^ [ |]Depends: ($2)$/\1/p" | grep -v -e '-unsigned$' | sort -u
}

# packages_of KERNEL: its image, its headers, and what these need to build a module.
packages_of() {
    local image headers rest
    image=$(depends_of "${image_of[$1]}" 'linux-image-.*') &&
        headers=$(depends_of "${headers_of[$1]}" 'linux-headers-.*') &&
        rest=$(depends_of "$headers" 'linux-(headers-.*-common|kbuild-.*)') &&
        printf '%s\n' "$image" "$headers" "$rest"
}

# download FOLDER PACKAGES [WORDS...]: PACKAGES are lines, WORDS go to the package tools.
download() {
    local packages
    mapfile -t packages <<<"$2"
    echo "e2e: fetching ${packages[*]}"
    (cd "$1" && logged ../log apt-get "${@:3}" -q download "${packages[@]}")
}

# download_kernel KERNEL FOLDER
download_kernel() {
    local packages
    case $1 in
    arm64) download_arm64 "$2" ;;
    deep) download "$2" "$source_of_deep" ;;
    *) packages=$(packages_of "$1") && download "$2" "$packages" ;;
    esac
}

# download_by_fresh_lists KERNEL FOLDER: apt's lists may name versions that the mirror has no more.
# Only root can renew them.
download_by_fresh_lists() {
    ((EUID == 0)) && logged "$2/../log" apt-get -q update && download_kernel "$@"
}

# fetch KERNEL: its packages, unpacked in build-e2e/KERNEL and installed nowhere. What is there is
# kept: remove the folder for newer ones.
fetch() {
    local place=$work/$1
    ./scripts/setup "${purpose_of[$1]-e2e}"
    if [[ -e $place/complete ]] && { [[ $1 != deep ]] || is_deep_as_wanted "$place"; }; then
        return
    fi
    rm -rf "$place"
    mkdir -p "$place/packages"
    if ! download_kernel "$1" "$place/packages" &&
        ! download_by_fresh_lists "$1" "$place/packages"; then
        complain "the packages of kernel $1 cannot be had, see above: nothing is proved" \
            "check the network and that /etc/apt names Debian 12 with its security archive," \
            "run 'apt-get update' as root, then this again"
        return 1
    fi
    unpack "$place"
    if [[ $1 == deep ]]; then
        build_deep "$place"
    fi
    touch "$place/complete"
}

# The headers name their own place, which is not where they are unpacked.
unpack() {
    local package
    for package in "$1"/packages/*.deb; do
        dpkg -x "$package" "$1"
    done
    rm -r "$1/packages"
    find "$1/usr/src" -path '*/linux-headers-*-cloud-*/Makefile' -exec sed -i "s|/usr/src|$1&|" {} +
}

# module KERNEL: tarvo.ko in build-e2e/KERNEL/module, built anew when a source differs. After a
# failure nothing of it stays: a second build would have nothing to compile and nothing to warn of.
module() {
    local place=$work/$1 headers file
    headers=$(find "$place/usr/src" -maxdepth 1 -name 'linux-headers-*' ! -name '*-common')
    mkdir -p "$place/module"
    for file in "$sources"/kernel/{Kbuild,Makefile,*.[ch]}; do
        cmp -s "$file" "$place/module/$(basename "$file")" || cp "$file" "$place/module"
    done
    if ! nice make -C "$place/module" KDIR="$headers" W=1 >"$place/module.log" 2>&1 ||
        grep -qi 'warning:' "$place/module.log"; then
        cat "$place/module.log" >&2
        rm -r "$place/module"
        complain "the driver does not build without warnings for kernel $1"
        return 1
    fi
}

# library: as everybody builds it, and what drives it. build/ is configured each time: packages that
# this needs may have come since.
library() {
    logged "$work/build.log" cmake -S . -B build -G Ninja
    logged "$work/build.log" cmake --build build --target \
        tarvo tarvoctl tarvo-driver-check tarvo-sandbox tarvo-client edu physical timed tarvo_i386
    if [[ $sources != . ]]; then
        logged "$work/build.log" cmake -S "$sources" -B "$sources/build" -G Ninja \
            -DBUILD_TESTING=OFF
        logged "$work/build.log" cmake --build "$sources/build" --target tarvo
    fi
}

# prepare KERNEL...: Debian's packages, the library, the driver and the machines' files.
prepare() {
    local kernel
    for kernel; do
        fetch "$kernel"
    done
    library
    initramfs
    for kernel; do
        module "$kernel"
        if [[ $kernel == arm64 ]]; then
            library_arm64
            initramfs_arm64
        fi
        initrd "$kernel"
    done
}

# --- the machine's files ---

# copy_libraries PROGRAM FOLDER: the libraries that the program needs.
copy_libraries() {
    local needed library
    needed=$(ldd "$1")
    while read -r library; do
        install -D "$library" "$2/$(basename "$library")"
    done < <(sed -nE 's/.*=> (\/[^ ]*) .*/\1/p' <<<"$needed")
}

# with_libraries FOLDER PROGRAM...: copies of both, where the programs look for the latter.
with_libraries() {
    local folder=$1 program
    shift
    for program; do
        install -D "$program" "$folder/bin/$(basename "$program")"
        copy_libraries "$program" "$folder/lib"
    done
    install -D /lib64/ld-linux-x86-64.so.2 "$folder/lib64/ld-linux-x86-64.so.2"
}

# The 32-bit client with its libraries, which have the names of the others.
with_client_32() {
    local folder=$1 client=build/i386/tests/client/tarvo-client
    copy_libraries "$client" "$folder/lib32"
    install -D "$client" "$folder/lib32/tarvo-client"
    install -D /lib32/ld-linux.so.2 "$folder/lib/ld-linux.so.2"
    cat >"$folder/bin/tarvo-client32" <<'END'
#!/bin/sh
LD_LIBRARY_PATH=/lib32 exec /lib32/tarvo-client
END
    chmod +x "$folder/bin/tarvo-client32"
}

# bare_files FOLDER BUSYBOX: what every machine has, made anew.
bare_files() {
    local files=$1 applet
    rm -rf "$files"
    mkdir -p "$files"/{bin,dev,lib,proc,sys,root,tmp,e2e,var}
    cp "$2" "$files/bin/busybox"
    for applet in $(/bin/busybox --list); do
        [[ $applet == busybox ]] || ln -s busybox "$files/bin/$applet"
    done
    cp tests/e2e/guest/* "$files/e2e"
    mv "$files/e2e/init" "$files/init"
    chmod +x "$files/init"
}

# initramfs: everything but the module, in build-e2e/files.cpio.
initramfs() {
    local files=$work/files
    bare_files "$files" /bin/busybox
    with_libraries "$files" build/tarvo{ctl,-driver-check,-sandbox} \
        build/tests/client/tarvo-client build/tests/e2e/{edu,physical,timed}
    with_client_32 "$files"
    if [[ $sources != . ]]; then
        cp "$sources/build/libtarvo.so.0" "$files/lib/libtarvo.so.0"
    fi
    strip "$files"/bin/tarvo{ctl,-client,-driver-check,-sandbox} "$files/lib"/lib*
    archive "$files" | whole_file "$work/files.cpio"
}

# initrd KERNEL: what its machines boot from, with the module, in build-e2e/KERNEL/initrd.cpio.
initrd() {
    local place=$work/$1 files=$work/files.cpio
    if [[ $1 == arm64 ]]; then
        files=$place/files.cpio
    fi
    mkdir -p "$place/initrd/lib"
    cp "$place/module/tarvo.ko" "$place/initrd/lib"
    (cat "$files" && archive "$place/initrd") | whole_file "$place/initrd.cpio"
}

archive() {
    (cd "$1" && find . | cpio --quiet -o -H newc -R 0:0)
}

# whole_file PATH: standard input, at once: another machine may be about to read the file.
whole_file() {
    local new
    new=$(mktemp "$1.XXXXXX")
    cat >"$new"
    mv "$new" "$1"
}

# --- the machine ---

# Two devices with DMA engines that an IOMMU holds back, one on the root bus and one below a root
# port, and one that none does; a serial adapter has a driver. The DMA engines have 32 bits.
devices=(
    -device intel-iommu
    -device "edu,addr=4,dma_mask=0xffffffff"
    -device "pcie-root-port,id=root_port,addr=5,chassis=1"
    -device "edu,bus=root_port,dma_mask=0xffffffff"
    -device "pci-serial,addr=6"
    -device "pxb-pcie,id=free_bus,bus_nr=0x40,bypass_iommu=on"
    -device "i82801b11-bridge,id=free_bridge,bus=free_bus"
    -device "edu,bus=free_bridge,addr=1,dma_mask=0xffffffff"
)

# For the story that times calls with four devices.
more_devices=(
    -device "edu,bus=pcie.0,addr=7,dma_mask=0xffffffff"
    -device "edu,bus=pcie.0,addr=8,dma_mask=0xffffffff"
)

# For the kernel that is built here, which has the driver of a device with virtual functions.
divided_device=(
    -device "nvme-subsys,id=divided"
    -device "nvme,bus=pcie.0,addr=0xa,serial=divided,subsys=divided,sriov_max_vfs=1,\
sriov_vq_flexible=2,sriov_vi_flexible=1"
)

# memory_of STORY: how much the machine has. Up to 2.75 GiB all of it is below 4 GiB.
memory_of() {
    if [[ $1 == high ]]; then
        echo 4096
    else
        echo 2700
    fi
}

# reserved_of STORY: for the kernel's command line.
# shellcheck disable=SC2016 # $ is a character of memmap=
reserved_of() {
    if [[ $1 == high ]]; then
        echo 'memmap=64M$0x140000000 memmap=64M$0x20000000'
    else
        echo 'memmap=64M$0xa0000000'
    fi
}

# machine KERNEL STORY WORDS...: QEMU's command line, its serial lines left out, into the array
# "qemu". WORDS go to the kernel. Programs lie at the same addresses each time (norandmaps), so that
# QEMU translates them once.
# shellcheck disable=SC2034,SC2054 # it is for the caller; the commas are QEMU's
machine() {
    local kernel=$1 place=$work/$1 story=$2
    if [[ $kernel == arm64 ]]; then
        machine_arm64 "${@:3}"
        return
    fi
    shift 2
    qemu=(qemu-system-x86_64 -M q35,kernel-irqchip=split -accel tcg -m "$(memory_of "$story")"
        "${devices[@]}" -display none -nodefaults -no-reboot -kernel "$place"/boot/vmlinuz-*
        -initrd "$place/initrd.cpio"
        -append "console=ttyS0 intel_iommu=on panic=-1 norandmaps $(reserved_of "$story") $*")
    if [[ $story == ratios ]]; then
        qemu+=("${more_devices[@]}")
    fi
    if [[ $kernel == deep ]]; then
        qemu+=("${divided_device[@]}")
    fi
}
