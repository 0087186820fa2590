#!/usr/bin/env bash
# dkms_in_fresh_root.sh VERSION: run by fresh_root.sh, inside. The driver's package builds the module
# for a kernel that is installed and does not run, and leaves nothing when it goes.
# shellcheck source=tests/install/fresh_root_common.sh
source "$(dirname "$0")/fresh_root_common.sh"
version=$1
package=$(echo packages/tarvo-dkms_*.deb)

files_of_ours() {
    find /etc /lib/modules /usr /var -xdev \( -name '*tarvo*' -o -path '*/dkms/tarvo*' \) \
        ! -path '/var/lib/dpkg/*' ! -path '/var/tmp/*' ! -path '/usr/share/man/*' ! -path '/tmp/*'
}

# The running kernel's own modules would make DKMS build for that one alone.
forget_the_running_kernel() {
    local each
    for each in /lib/modules/*; do
        [[ -e $each/build/include ]] || rm -rf "$each"
    done
    mapfile -t kernels < <(ls /lib/modules)
    ((${#kernels[@]} > 0)) || fail "no kernel has its headers here; run ./scripts/setup test"
}

forget_earlier_installations() {
    dpkg --purge tarvo-dkms libtarvo0 libtarvo-dev tarvo-tools python3-tarvo >/dev/null 2>&1
    keep_documents
    expect "files that are there before" "" files_of_ours
}

check_module() { # KERNEL
    local kernel=$1 module
    expect "dkms" "tarvo/$version, $kernel, x86_64: installed" dkms status -m tarvo -k "$kernel"
    module=$(find "/lib/modules/$kernel/updates/dkms" -name 'tarvo.ko*')
    [[ -n $module ]] || fail "there is no module in /lib/modules/$kernel/updates/dkms"
    expect "the kernel that it is for" "$kernel" sh -c "modinfo -F vermagic $module | cut -d' ' -f1"
    modinfo -F parm "$module" | grep -q '^region:' || fail "the module takes no region"
    modinfo -F signer "$module" | grep -q . || fail "the module is not signed"
    grep -q "/tarvo\.ko" "/lib/modules/$kernel/modules.dep" || fail "modprobe does not know it"
    [[ -e /var/lib/dkms/mok.pub ]] || fail "there is no key to enroll"
}

# Whether the unit would load the module.
condition_holds() {
    sed -n 's/^ExecCondition=//p' /usr/lib/systemd/system/tarvo.service | sh
}

check_configuration() {
    ! condition_holds || fail "the module would be loaded without a region"
    expect "options before anything is configured" "" sh -c "modprobe -c | grep '^options tarvo'; :"
    sed -i 's/^#options/options/' /etc/modprobe.d/tarvo.conf
    expect "options that are configured" "options tarvo region=256M@0x80000000" \
        sh -c "modprobe -c | grep '^options tarvo'"
    condition_holds || fail "the module would not be loaded with a region"
    expect "what starts before all services" "../tarvo.service" \
        readlink /usr/lib/systemd/system/sysinit.target.wants/tarvo.service
    expect "what systemd finds wrong" "" systemd-analyze --man=no verify tarvo.service
}

# The bookkeeping goes at the start of the machine, and at no other time.
check_bookkeeping() {
    mkdir -p /var/shmem
    touch /var/shmem/tarvo_lib
    quietly systemd-tmpfiles --remove tarvo-dkms.conf
    expect "the bookkeeping of a machine that runs" tarvo_lib ls /var/shmem
    quietly systemd-tmpfiles --boot --remove tarvo-dkms.conf
    expect "the bookkeeping of the last start" "" ls /var/shmem
    rmdir /var/shmem
}

# Installing headers must not fail because of a kernel that the driver is not for.
check_other_kernels() {
    local status kernel
    for kernel in 5.10.0-1-amd64 6.0.0-1-amd64 6.17.0-1-amd64 7.0.0-1-amd64; do
        status=0
        dkms build -m tarvo -v "$version" -k "$kernel" >said 2>&1 || status=$?
        ((status == 77)) || fail "kernel $kernel is not passed over: $status: $(cat said)"
    done
}

forget_the_running_kernel
forget_earlier_installations
quietly dpkg --force-unsafe-io --install "$package"
expect "what dpkg finds half installed" "" dpkg --audit
for kernel in "${kernels[@]}"; do
    check_module "$kernel"
done
check_configuration
check_bookkeeping
check_other_kernels
quietly dpkg --purge tarvo-dkms
expect "what dkms still has" "" dkms status
expect "files that are left behind" "" files_of_ours
