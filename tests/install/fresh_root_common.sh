#!/usr/bin/env bash
# Read by the scripts that fresh_root.sh runs inside, where common.sh cannot be seen.
set -euo pipefail
cd /tmp

fail() {
    echo "$*" >&2
    exit 1
}

quietly() {
    "$@" >said 2>&1 || {
        cat said >&2
        fail "failed: $*"
    }
}

expect() { # WHAT WANTED COMMAND...
    local what=$1 wanted=$2 printed
    shift 2
    printed=$("$@") || fail "$what: failed: $*"
    [[ $printed == "$wanted" ]] || fail "$what: '$printed' instead of '$wanted'"
}

files_of_ours() {
    find /etc /usr /var -xdev -name '*tarvo*' ! -path '/var/lib/dpkg/*' ! -path '/var/tmp/*'
}

# Installed documents count, too: they were left out to save room.
keep_documents() {
    rm -f /var/lib/man-db/auto-update # an index of all manuals takes long and helps nobody here
    find /etc/dpkg/dpkg.cfg.d -type f -exec sed -i '/^path-exclude/d' {} +
}
