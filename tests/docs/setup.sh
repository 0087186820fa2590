#!/usr/bin/env bash
# scripts/setup against a double of Debian's package tools: what it asks for, and what it says.
set -euo pipefail
umask 022

place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
mkdir "$place/cmake" "$place/bin"
cp -r scripts "$place"

# A machine of its own: PATH holds these doubles and a few tools, sudo only where a case adds it.
for tool in bash dirname env grep sed sort; do
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
[[ $* != *install*unknown* ]]
END

# needs PACKAGE...: for every purpose there is.
needs() {
    printf '%s\n' '[all]' "$@" >"$place/cmake/packages.txt"
}

faults=0
# expect CASE STATUS [PURPOSE...]: what standard input says is printed.
expect() {
    local printed wanted status=0
    wanted=$(cat)
    printed=$("${setup[@]}" "${@:3}" 2>&1) || status=$?
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
setup: installing needs root, and sudo is missing; run this script as root
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


needs unknown-package
expect "a package that cannot be had" 1 <<'END'
setup: installing unknown-package
as root: apt-get (noninteractive) -q -o DPkg::Lock::Timeout=300 update
as root: apt-get (noninteractive) -q -o DPkg::Lock::Timeout=300 install --yes --no-install-recommends unknown-package
setup: apt-get failed, see above
setup: check the network, and that /etc/apt names the sources of Debian 12; then run this again
END

cat >"$place/cmake/packages.txt" <<'END'
# What is needed.
[one]
first # and why

[two] one three
# a heading
second
[three]
third
present
END
# installs CASE PACKAGES [PURPOSE...]
installs() {
    expect "$1" 0 "${@:3}" <<END
setup: installing $2
as root: apt-get (noninteractive) -q -o DPkg::Lock::Timeout=300 update
as root: apt-get (noninteractive) -q -o DPkg::Lock::Timeout=300 install --yes --no-install-recommends $2
END
}
installs "a purpose" "first" one
installs "a purpose that includes others" "first second third" two
installs "two purposes" "first third" three one
installs "every purpose" "first second third"

expect "no such purpose" 2 one four <<'END'
setup: unknown purpose 'four'; choose from: one two three
END
expect "two purposes in one word" 2 "one two" <<'END'
setup: unknown purpose 'one two'; choose from: one two three
END

rm "$place/bin/apt-get"
expect "another system than Debian" 1 <<'END'
setup: not a Debian system: dpkg-query and apt-get are missing; install what cmake/packages.txt lists
END

# The list itself: what scripts ask for is in it, and what it includes.
while read -r purpose; do
    if ! grep -q "^\[$purpose\]" cmake/packages.txt; then
        echo "cmake/packages.txt has no section for the purpose '$purpose'"
        faults=1
    fi
done < <({
    sed -n 's/^\[.*\] *//p' cmake/packages.txt
    sed -n 's/.*\.\/scripts\/setup *//p' scripts/* .ci/run
} | tr -s ' ' '\n' | grep .)
exit "$faults"
