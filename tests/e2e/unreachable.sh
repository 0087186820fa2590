#!/usr/bin/env bash
# Where Debian's packages cannot be had, scripts/e2e fails and says what helps: it never passes for
# want of a kernel. In a folder of its own, with package tools that reach nothing.
set -euo pipefail
place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
mkdir -p "$place/bin" "$place/tests"
cp -r tests/e2e "$place/tests"
for tool in apt-get apt-cache; do
    printf '#!/bin/sh\necho "E: no network" >&2\nexit 100\n' >"$place/bin/$tool"
    chmod +x "$place/bin/$tool"
done
cd "$place"

status=0
printed=$(PATH=$place/bin:$PATH bash -c '. tests/e2e/host.sh; fetch 6.1' 2>&1) || status=$?
for words in 'E: no network' 'nothing is proved' "apt-get update"; do
    if ! grep -qF "$words" <<<"$printed"; then
        printf 'it does not say "%s":\n%s\n' "$words" "$printed"
        exit 1
    fi
done
if ((status != 3)) || [[ -e build-e2e/6.1/complete ]]; then
    echo "status $status instead of 3, or something counts as fetched"
    exit 1
fi
