#!/bin/sh
# Fails, and names them, when a document tells another version than the one given: CHANGELOG.md of the
# newest changes, README.md of what find_package asks for, which is MAJOR.MINOR.
cd "$(dirname "$0")/../.." || exit 1

version=$1
status=0

expect() {
    [ "$2" = "$3" ] && return
    echo "$1 tells of '$2' instead of '$3'" >&2
    status=1
}

expect CHANGELOG.md "$(sed -n 's/^## \[\(.*\)\].*/\1/p' CHANGELOG.md | head -n 1)" "$version"
expect README.md "$(sed -n 's/^find_package(hxkqueue \([0-9.]*\).*/\1/p' README.md)" "${version%.*}"
exit $status
