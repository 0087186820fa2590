#!/usr/bin/env bash
# lintian.sh FOLDER: Debian's checker of packages. Its warnings are shown by ctest --verbose.
# shellcheck source=tests/install/common.sh
source "$(dirname "$0")/common.sh"

command -v lintian >/dev/null || fail "lintian is not installed; run ./scripts/setup"
lintian --allow-root --fail-on error "$1"/*.deb
