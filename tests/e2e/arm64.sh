#!/usr/bin/env bash
# The machine for arm64: Debian's kernel 6.12 and busybox for it, library, client and driver built by
# a cross compiler. Its IOMMU is an SMMU, which a device tree describes. Sourced by host.sh.

# Apt's lists of another machine's packages lie in build-e2e, so that it takes no root.
arm64_apt=(-o APT::Architecture=arm64 -o APT::Architectures=arm64 -o APT::Sandbox::User=root
    -o "Dir::State::Lists=$work/apt/lists" -o "Dir::Cache=$work/apt/cache"
    -o Dir::State::status=/dev/null)

# download_arm64 FOLDER: programs of the headers run here, and are this machine's.
download_arm64() {
    local image headers tools
    mkdir -p "$work"/apt/{lists/partial,cache/archives/partial}
    logged "$work/apt/log" apt-get "${arm64_apt[@]}" -q update &&
        image=$(depends_of linux-image-6.12-cloud-arm64 'linux-image-.*' "${arm64_apt[@]}") &&
        headers=$(depends_of linux-headers-6.12-cloud-arm64 'linux-headers-.*' "${arm64_apt[@]}") &&
        tools=$(depends_of "$headers" 'linux-(headers-.*-common|kbuild-.*)' "${arm64_apt[@]}") &&
        download "$1" "$image"$'\n'"$headers"$'\n'busybox-static "${arm64_apt[@]}" &&
        download "$1" "$tools"
}

# library_arm64: in the folder where the tests have it, too, and as these configure it.
library_arm64() {
    logged "$work/build.log" cmake -S . -B build/arm64 -G Ninja \
        -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/arm64.cmake" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_PROJECT_tarvo_INCLUDE="$PWD/cmake/googletest_source.cmake"
    logged "$work/build.log" cmake --build build/arm64 --target tarvo tarvo-client edu physical
}

# initramfs_arm64: everything but the module, in build-e2e/arm64/files.cpio.
initramfs_arm64() {
    local place=$work/arm64 files=$work/arm64/files built=build/arm64 name
    bare_files "$files" "$place/bin/busybox"
    cp "$built"/tests/client/tarvo-client "$built"/tests/e2e/{edu,physical} "$files/bin"
    for name in ld-linux-aarch64.so.1 libc.so.6 libgcc_s.so.1 libm.so.6 libstdc++.so.6; do
        cp -L "/usr/aarch64-linux-gnu/lib/$name" "$files/lib"
    done
    cp "$built/libtarvo.so.0" "$files/lib"
    aarch64-linux-gnu-strip "$files/bin/tarvo-client" "$files/lib"/lib*
    archive "$files" | whole_file "$place/files.cpio"
}

# machine_arm64 WORDS...: as machine. Two devices with DMA engines, and a serial adapter that has a
# driver and hands over the verdict. The kernel leaves the last 64 MiB alone.
# shellcheck disable=SC2034,SC2054 # it is for the caller; the commas are QEMU's
machine_arm64() {
    local place=$work/arm64
    qemu=(qemu-system-aarch64 -M virt,iommu=smmuv3 -cpu cortex-a57 -accel tcg -m 512
        -device "edu,addr=4,dma_mask=0xffffffff" -device "edu,addr=5,dma_mask=0xffffffff"
        -device "pci-serial-2x,addr=6,chardev2=serial1" -display none -nodefaults -no-reboot
        -kernel "$place"/boot/vmlinuz-* -initrd "$place/initrd.cpio"
        -append "console=ttyAMA0 panic=-1 norandmaps mem=448M $*")
}
