#!/usr/bin/env bash
# packages.sh FOLDER: makes the packages there, for the other tests to look at.
# shellcheck source=tests/install/common.sh
source "$(dirname "$0")/common.sh"

make_packages "$1"
for package in libtarvo0 libtarvo-dev tarvo-tools tarvo-dkms python3-tarvo; do
    compgen -G "$1/${package}_${TARVO_VERSION}-*.deb" >/dev/null || fail "$package was not made"
done
