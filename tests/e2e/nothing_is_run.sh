#!/usr/bin/env bash
# Where scripts/e2e can run no machine it fails and says what helps: it never passes for want of a
# kernel. It is tried in a folder of its own, with package tools that find everything installed and
# reach nothing; it ends before it would build anything.
set -euo pipefail
place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
mkdir -p "$place"/{bin,tests,scripts,cmake}
cp -r tests/e2e "$place/tests"
cp scripts/{e2e,setup} "$place/scripts"
cp cmake/packages.txt "$place/cmake"
cd "$place"

# tool NAME TEXT: of the folder, with this text for a program.
tool() {
    printf '#!/bin/sh\n%s\n' "$2" >"bin/$1"
    chmod +x "bin/$1"
}

# says RUN WORDS...: scripts/e2e RUN ends with 3 and these words, and nothing counts as fetched.
says() {
    local run=$1 words printed status=0
    shift
    printed=$(PATH=$place/bin:$PATH scripts/e2e "$run" 2>&1) || status=$?
    for words; do
        if ! grep -qF "$words" <<<"$printed"; then
            printf '%s: it does not say "%s":\n%s\n' "$run" "$words" "$printed"
            exit 1
        fi
    done
    if ((status != 3)) || [[ -e build-e2e/6.1/complete ]]; then
        printf '%s: status %d instead of 3, or something counts as fetched:\n%s\n' \
            "$run" "$status" "$printed"
        exit 1
    fi
}

tool dpkg-query 'echo installed'
unreachable='echo "E: no network" >&2; exit 100'
tool apt-cache "$unreachable"
tool apt-get "$unreachable"
says 6.1/low/plain 'E: no network' 'nothing is proved' "apt-get update" 'nothing was run'
says deep/low/debug 'E: no network' 'nothing is proved' "apt-get update" 'nothing was run'

# The names are known, the packages cannot be had.
tool apt-cache 'printf "  Depends: %s\n" linux-image-x linux-headers-x linux-headers-x-common'
says 6.1/low/plain 'E: no network' 'nothing is proved' 'nothing was run'

# What comes is no package.
tool apt-get 'echo interrupted >linux-image-x.deb'
says 6.1/low/plain 'linux-image-x.deb' 'nothing was run'

# apt's lists name what the mirror has no more: root renews them and gets as far as above.
# shellcheck disable=SC2016 # the tool's own
tool apt-get 'case $* in
*update*) touch "$0.renewed" ;;
*) [ -e "$0.renewed" ] && echo interrupted >linux-image-x.deb ;;
esac'
if ((EUID == 0)); then
    says 6.1/low/plain 'linux-image-x.deb' 'nothing was run'
else
    says 6.1/low/plain 'nothing is proved' "apt-get update' as root" 'nothing was run'
fi

says 6.13/low/plain "unknown run '6.13/low/plain'" '6.1 6.12' 'nothing was run'
says 6.1/lwo/plain "unknown run '6.1/lwo/plain'" 'low'
says 6.1/low/slow "unknown run '6.1/low/slow'" 'debug'
