#!/usr/bin/env bash
# docs/hardware.md and BRINGING UP A MACHINE of tarvo(7), besides the session that session.sh runs:
# the files that they have one write are read by the tools that will read them, and do what is said
# of them. What only a real machine can run is in a list here, and named at each run.
#
# usage: hardware.sh BUILD_DIRECTORY, in the source directory
set -euo pipefail
build_dir=$1
page=$PWD/docs/hardware.md
manual=$PWD/man/tarvo.7

for tool in dtc systemd-analyze; do
    if ! command -v "$tool" >/dev/null; then
        echo "SKIPPED: $tool is not installed"
        exit 77
    fi
done

export PATH="$build_dir:$PATH"
status=0
refusal=$(tarvo-sandbox -- true 2>&1) || status=$?
if ((status == 125)); then
    echo "SKIPPED: no sandbox on this machine: $refusal"
    exit 77
fi

place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT

faults=0
complain() {
    echo "$*"
    faults=$((faults + 1))
}

# block KIND [FIRST_LINE]: what stands in the page's block of that kind, and begins so.
block() {
    awk -v kind="$1" -v first="${2-}" '
        /^```/ { inside = $0 == "```" kind; new = 1; next }
        new { new = 0; wanted = !first || $0 == first }
        inside && wanted
    ' "$page"
}

# in_sandbox COMMAND...: on a machine with a region.
world=low
in_sandbox() {
    tarvo-sandbox --world "$world" -- "$@"
}

# What no sandbox can run, as the pages show it, one a line.
only_on_a_machine() {
    cat <<'END'
# update-grub
# grep -o 'memmap=[^ ]*' /boot/grub/grub.cfg
# grep -o 'memmap=[^ ]*' /proc/cmdline
# grep -i reserved /proc/iomem
# grep CmaTotal /proc/meminfo
# grep STRICT_DEVMEM /boot/config-$(uname -r)
# cat /sys/kernel/security/lockdown
# systemctl daemon-reload
# systemctl enable --now var-shmem.mount my_driver.service
# docker run --cap-drop=ALL --cap-add=SYS_RAWIO --device=/dev/mem --pid=host \
# apparmor_parser -r /etc/apparmor.d/my_driver
# semodule -i my_driver_tarvo.cil
# ausearch -m avc -c my_driver
# sysctl fs.protected_regular
# chown root:root /var/tmp/tarvo /var/tmp/tarvo_lib /var/tmp/tarvo_lock
END
}

check_list() {
    diff <(only_on_a_machine) <(block "console machine" | grep '^# ') ||
        complain "these commands of docs/hardware.md are neither run nor listed here"
    echo "$(only_on_a_machine | wc -l) commands need a real machine and are not run:"
    only_on_a_machine
    echo "two blocks need tools that are not here: the AppArmor profile, the SELinux module"
}

# The shell that reads /etc/default/grub, then GRUB, whose quotes are the shell's, then the kernel.
check_grub() {
    local word="GRUB_CMDLINE_LINUX" in_file in_grub in_kernel
    in_file=$(block sh | grep "^$word=")
    in_grub=$(env -i sh -c "$in_file; printf %s \"\$$word\"")
    in_kernel=$(env -i sh -c "printf %s $in_grub")
    for text in "${in_file##* }" "$in_grub" "$in_kernel"; do
        text=${text%\"}
        grep -qF "| \`${text# }\` |" "$page" || complain "docs/hardware.md does not show ${text# }"
    done
    [[ $in_kernel == "memmap=256M\$0x80000000" ]] || complain "the kernel reads $in_kernel"
    grep -qF "memmap=256M\\e\\e\\e\$0x80000000" "$manual" ||
        complain "tarvo(7) does not have the quotes of docs/hardware.md"
}

check_device_tree() {
    local report
    {
        echo '/dts-v1/; / { #address-cells = <2>; #size-cells = <2>; };'
        block dts
    } >"$place/machine.dts"
    report=$(dtc -I dts -O dtb -o "$place/machine.dtb" "$place/machine.dts" 2>&1) ||
        complain "dtc refuses the device tree"
    [[ -z $report ]] || complain "dtc: $report"
    dtc -I dtb -O dts "$place/machine.dtb" | grep -q 'reg = <0x00 0x80000000 0x00 0x10000000>' ||
        complain "the device tree does not reserve the region of the examples"
}

# unit NAME: written where the page has it.
unit() {
    block ini "# /etc/systemd/system/$1" >"$place/$1"
    [[ -s $place/$1 ]] || complain "docs/hardware.md has no unit $1"
}

# The program that the service runs is there, on the machine where this is asked.
check_units() {
    local report
    unit var-shmem.mount
    unit my_driver.service
    # shellcheck disable=SC2016 # for the inner shell
    report=$(in_sandbox sh -c 'mount -t tmpfs -o mode=755 tmpfs /usr/local/bin &&
        cp /bin/true /usr/local/bin/my_driver && systemd-analyze verify "$@"' - \
        "$place/var-shmem.mount" "$place/my_driver.service" 2>&1) || complain "a unit is refused"
    [[ -z $report ]] || complain "systemd-analyze: $report"
}

# room OPTIONS: the area and its copy fit into a file system that is mounted so.
check_room() {
    # shellcheck disable=SC2016
    in_sandbox sh -ec 'mount -t tmpfs -o "$1" tmpfs /var/shmem
        tarvoctl alloc frames 64K
        tr "\0" "\1" </dev/zero | head -c 70131712 >/var/shmem/copy' - "$1" >"$place/room" 2>&1 ||
        complain "no room with $1: $(cat "$place/room")"
}

check_mounts() {
    local options
    options=$(sed -n 's/^Options=//p' "$place/var-shmem.mount")
    check_room "$options"
    grep -qF "tmpfs /var/shmem tmpfs $options 0 0" "$manual" ||
        complain "tarvo(7) mounts /var/shmem with other options than $options"
    sed -n 's/^\.Dl \(tmpfs .*\)/\1/p' "$manual" >"$place/fstab"
    in_sandbox mount -T "$place/fstab" /var/shmem || complain "mount refuses tarvo(7)'s fstab line"
}

# What a process namespace hides. In simulation: its own /proc has no driver's double.
check_container() {
    local printed world=simulation
    printed=$(in_sandbox env "PYTHONPATH=$PWD/python" "LD_LIBRARY_PATH=$build_dir" \
        PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 - 2>/dev/null <<'END'
import subprocess
import tarvo

inside = ["unshare", "--pid", "--fork", "--mount-proc"]
with tarvo.allocated("frames", 4096, "python3") as frames, frames.map():
    for where in [], inside:
        for command in ["who", "frames"], ["leaks"], ["free", "frames"]:
            ended = subprocess.run(
                [*where, "tarvoctl", *command], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL
            )
            print(*command[:1], ended.returncode, end=" ")
END
    )
    [[ $printed == "who 0 leaks 0 free 1 who 1 leaks 1 free 0 " ]] ||
        complain "of a mapped chunk a container learns something else than docs/hardware.md says:" \
            "$printed"
}

# The commands of BRINGING UP A MACHINE, as they are shown.
manual_commands() {
    sed -n -e '/^\.Sh BRINGING UP/,/^\.Sh ENV/!d' -e 's/\\-/-/g' \
        -e 's/^\.Dl \(# .*\)/\1/p' "$manual"
}

# On one machine, in their order; the program is the reader's.
check_manual_commands() {
    local commands
    commands=$(manual_commands | grep -vxF "$(only_on_a_machine)")
    (($(wc -l <<<"$commands") >= 6)) || complain "tarvo(7) brings up a machine by: $commands"
    printf '#!/bin/sh\nexec tarvoctl alloc rx_ring 64K\n' >"$place/rx_ring"
    chmod +x "$place/rx_ring"
    (cd "$place" && in_sandbox sh -exc "${commands//# /}") >"$place/printed" 2>&1 ||
        complain "tarvo(7) has a command that fails: $(cat "$place/printed")"
}

check_tmpfiles() {
    sed -n 's/^\.Dl \(d .*\)/\1/p' "$manual" >"$place/tmpfiles"
    unshare --map-root-user systemd-tmpfiles --create --root="$place/root" "$place/tmpfiles" ||
        complain "systemd-tmpfiles refuses the line of tarvo(7)"
    [[ $(stat -c %a "$place/root/run/lock/subsys") == 755 ]] ||
        complain "the line of tarvo(7) does not make /run/lock/subsys with mode 755"
}

check_list
check_grub
check_device_tree
check_units
check_mounts
check_tmpfiles
check_manual_commands
check_container
exit $((faults > 0))
