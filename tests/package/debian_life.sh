#!/bin/sh
# Installs the Debian packages in a folder below a root of their own, uses what they bring, where it
# is looked for, and removes them. Fails unless all is found and nothing is left.
#
#     debian_life.sh FOLDER
set -eu
cd "$(dirname "$0")/../.."
packages=$1
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
trap 'exit 1' HUP INT TERM
export HOME="$root/home" PATH="$root/usr/sbin:$PATH:/usr/sbin:/sbin"

fail() {
    echo "$*" >&2
    exit 1
}

has() { command -v "$1" >/dev/null 2>&1; }

# Whoever runs this, and whatever the system's own dpkg leaves out.
with_dpkg() {
    dpkg --root="$root" --log="$root/log" --force-not-root --force-depends --path-include='/usr/*' "$@" \
        >"$root/output" 2>&1 || fail "dpkg $*: $(cat "$root/output")"
}

# A file that is installed is one of the sources.
expect_same() { cmp "$2" "$root/usr/$1" || fail "$1 is not $2"; }

expect_page() {
    gzip -dc "$root/usr/share/man/$1.gz" | cmp - "$2" || fail "$1 is not $2"
}

mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$HOME"
: >"$root/var/lib/dpkg/status"
with_dpkg --install "$packages"/*.deb
[ "$(command -v hxusbvctl)" = "$root/usr/sbin/hxusbvctl" ] || fail "there is no utility"

hxusbvctl -h | grep -q '^Usage:	hxusbvctl srv' || fail "the utility prints no help"
hxusbvd-sim --help | grep -q '^Usage: hxusbvd-sim' || fail "the daemon prints no help"

expect_page man8/hxusbvctl.8 man/hxusbvctl.8
expect_page man8/hxusbvd-sim.8 man/hxusbvd-sim.8
expect_page man3/hxkqueue.3 man/hxkqueue.3
if has man; then
    for page in '8 hxusbvctl' '8 hxusbvd-sim' '3 hxkqueue'; do
        # shellcheck disable=SC2086  # a section and a name
        man -M "$root/usr/share/man" -w $page >/dev/null || fail "man does not find $page"
    done
fi

expect_same share/bash-completion/completions/hxusbvctl completions/hxusbvctl.bash
if [ -e /usr/share/bash-completion/bash_completion ]; then
    # shellcheck disable=SC2016  # expanded by bash
    XDG_DATA_DIRS=$root/usr/share bash --norc -c '
        source /usr/share/bash-completion/bash_completion
        _completion_loader hxusbvctl
        complete -p hxusbvctl' >/dev/null || fail "bash finds no completion"
fi
expect_same share/zsh/vendor-completions/_hxusbvctl completions/_hxusbvctl
if has zsh; then
    # shellcheck disable=SC2016
    zsh -fc 'print -l $fpath' | grep -qx /usr/share/zsh/vendor-completions || fail "zsh does not look there"
fi
expect_same share/fish/vendor_completions.d/hxusbvctl.fish completions/hxusbvctl.fish
if has fish; then
    XDG_DATA_DIRS=$root/usr/share fish -c 'complete --do-complete "hxusbvctl d"' |
        grep -q '^dev' || fail "fish completes nothing"
fi

with_dpkg --remove hxusbvctl libhxkqueue-dev
with_dpkg --purge hxusbvctl libhxkqueue-dev
[ ! -e "$root/usr" ] || fail "left: $(find "$root/usr")"
[ -z "$(dpkg --root="$root" --get-selections)" ] || fail "dpkg still knows of a package"
