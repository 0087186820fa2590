#!/usr/bin/env bash
# fresh_root.sh FOLDER SCRIPT: runs the script beside this one in a machine that has never had any of
# this, with the packages of the folder in /tmp/packages. That machine is this one's root with a layer of memory above it, which takes
# every change and is gone at the end: Debian's tools and what they know of dependencies are real,
# and nothing here is touched. The sources and the build cannot be seen from there.
# shellcheck source=tests/install/common.sh
source "$(dirname "$0")/common.sh"

packages=$1
script=$2
if ((EUID != 0)); then
    fail "This test needs root: installing a package writes where root alone may. A user namespace" \
        "does not help, because in it the files of this machine's root belong to nobody." \
        "Run the tests as root, or leave it out: ctest --exclude-regex fresh_root"
fi

# set_up_root ROOT: mounts go with the namespace.
set_up_root() {
    local layer=$1.layer hidden
    mkdir "$1" "$layer"
    mount -t tmpfs layer "$layer"
    mkdir "$layer/upper" "$layer/work"
    mount -t overlay -o "lowerdir=/,upperdir=$layer/upper,workdir=$layer/work" root "$1" ||
        fail "This kernel does not put a layer above its root, so there is no fresh root to test in"
    mount -t proc proc "$1/proc"
    mount --rbind /sys "$1/sys"
    mount --rbind /dev "$1/dev"
    for hidden in /tmp "$source_dir" "$TARVO_BUILD"; do
        [[ ! -d $1$hidden ]] || mount -t tmpfs hidden "$1$hidden"
    done
    cp -r "$packages" "$1/tmp/packages"
    cp -r "$here/user" "$here"/*fresh_root*.sh "$1/tmp"
}

run_in_root() {
    set_up_root "$scratch/root"
    cd "$scratch/root"
    pivot_root . mnt # not chroot alone: whoever enters this namespace is to find this root
    umount --lazy mnt
    exec chroot . /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
        LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive \
        bash "/tmp/$script" "$TARVO_VERSION"
}
export -f set_up_root run_in_root fail
export scratch source_dir here packages script

unshare --mount --propagation private --pid --fork --kill-child bash -euo pipefail -c run_in_root
