#!/bin/sh
# Makes the utility's RPM package of a build, installs it into a folder of its own, and removes it.
# Fails unless it has these files and no others, the utility runs, and nothing is left.
#
#     rpm_package.sh BUILD CPACK VERSION
set -eu
build=$1 cpack=$2 version=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
trap 'exit 1' HUP INT TERM
unset DESTDIR
export HOME="$scratch"

fail() {
    echo "$*" >&2
    exit 1
}

with_rpm() {
    rpm --dbpath "$scratch/database" "$@" >"$scratch/output" 2>&1 ||
        fail "rpm $*: $(cat "$scratch/output")"
}

"$cpack" --config "$build/CPackConfig.cmake" -G RPM -B "$scratch/packages" >"$scratch/output" 2>&1 ||
    fail "$(cat "$scratch/output")"
package=$(echo "$scratch/packages/hxusbvctl-$version"-*.rpm)
[ -e "$package" ] || fail "there is no package of version $version: $(ls "$scratch/packages")"

expected='-rwxr-xr-x root /usr/sbin/hxusbvctl
-rwxr-xr-x root /usr/sbin/hxusbvd-sim
-rw-r--r-- root /usr/share/bash-completion/completions/hxusbvctl
-rw-r--r-- root /usr/share/fish/vendor_completions.d/hxusbvctl.fish
-rw-r--r-- root /usr/share/man/man8/hxusbvctl.8
-rw-r--r-- root /usr/share/man/man8/hxusbvd-sim.8
-rw-r--r-- root /usr/share/zsh/site-functions/_hxusbvctl'
# Where rpm compresses pages, it does that by itself.
found=$(rpm --query --list --verbose --package "$package" | awk '{ print $1, $3, $NF }' | sed 's/\.8\.gz$/.8/')
[ "$found" = "$expected" ] || fail "the package has: $found"

# What it depends on is not in this database.
with_rpm --install --nodeps --prefix "$scratch/usr" "$package"
"$scratch/usr/sbin/hxusbvctl" -h | grep -q '^Usage:' || fail "the utility prints no help"
with_rpm --erase hxusbvctl
left=$(find "$scratch/usr" ! -type d)
[ -z "$left" ] || fail "left: $left"
