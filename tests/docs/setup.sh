#!/usr/bin/env bash
# scripts/setup against a double of Debian's package tools: what it asks for, and what it says.
set -euo pipefail
umask 022

place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
mkdir "$place/cmake" "$place/bin"
cp -r scripts "$place"

# A machine of its own: PATH holds these doubles and a few tools, sudo only where a case adds it.
for tool in bash dirname env grep sed; do
    ln -s "$(command -v "$tool")" "$place/bin/$tool"
done

# double NAME: a tool that does what standard input says.
double() {
    cat - >"$place/bin/$1"
    chmod 0755 "$place/bin/$1"
}

double dpkg-query <<'END'
#!/bin/bash
for package; do :; done # the last argument
case $package in
present*) echo installed ;;
removed) echo config-files ;;
*) exit 1 ;;
esac
END
double apt-get <<'END'
#!/bin/bash
echo "apt-get ($DEBIAN_FRONTEND) $*"
END

needs() {
    printf '%s\n' "$@" >"$place/cmake/packages.txt"
}

faults=0
# expect CASE STATUS: what standard input says is printed.
expect() {
    local printed wanted status=0
    wanted=$(cat)
    printed=$("${setup[@]}" 2>&1) || status=$?
    if [[ $status != "$2" || $printed != "$wanted" ]]; then
        printf '%s: status %s instead of %s, printed:\n%s\ninstead of:\n%s\n' \
            "$1" "$status" "$2" "$printed" "$wanted"
        faults=1
    fi
}

setup=(env "PATH=$place/bin" "$place/scripts/setup")
if ((EUID == 0)); then
    needs present absent
    expect "root, one package missing" 0 <<'END'
setup: installing absent
apt-get (noninteractive) -q -o DPkg::Lock::Timeout=300 update
apt-get (noninteractive) -q -o DPkg::Lock::Timeout=300 install --yes --no-install-recommends absent
END
    chmod -R a+rX "$place"
    setup=(setpriv --reuid 65534 --clear-groups "${setup[@]}")
fi

needs '# a comment' present '' 'present-too # and why'
expect "nothing missing" 0 </dev/null

needs present absent removed
expect "neither root nor sudo" 1 <<'END'
setup: missing: absent removed
setup: installing needs root, and sudo is not there; run this script as root
END

double sudo <<'END'
#!/bin/bash
echo -n "as root: "
exec "$@"
END
expect "sudo" 0 <<'END'
setup: installing absent removed
as root: apt-get (noninteractive) -q -o DPkg::Lock::Timeout=300 update
as root: apt-get (noninteractive) -q -o DPkg::Lock::Timeout=300 install --yes --no-install-recommends absent removed
END

rm "$place/bin/apt-get"
expect "no Debian" 1 <<'END'
setup: this is no Debian system (dpkg-query and apt-get are not there); cmake/packages.txt lists what to install
END
exit "$faults"
