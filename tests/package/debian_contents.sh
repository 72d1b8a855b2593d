#!/bin/sh
# Fails, and shows the difference, unless the Debian packages in a folder are of the given version and
# hold these files and no others, everybody's to read and root's.
#
#     debian_contents.sh FOLDER VERSION LIBDIR
set -eu
packages=$1 version=$2 libdir=$3
status=0

# Compares the list on standard input with what is in a package: mode, owner, file.
expect_files() {
    expected=$(sed 's,^\([^ ]*\) ,\1 root/root ./usr/,' | sort -k 3)
    found=$(dpkg-deb --contents "$1" | awk '!/^d/ { print $1, $2, $6 }' | sort -k 3)
    [ "$found" = "$expected" ] && return
    printf '%s has:\n%s\ninstead of:\n%s\n' "$1" "$found" "$expected" >&2
    status=1
}

expect_folders() {
    closed=$(dpkg-deb --contents "$1" | awk '/^d/ && !/^drwxr-xr-x root\/root /')
    [ -z "$closed" ] && return
    printf '%s has:\n%s\n' "$1" "$closed" >&2
    status=1
}

# What stands in a field must match the pattern.
expect_field() {
    printf '%s\n' "$(dpkg-deb --field "$1" "$2")" | grep -qx "$3" && return
    printf '%s: %s is %s\n' "$1" "$2" "$(dpkg-deb --field "$1" "$2")" >&2
    status=1
}

set -- "$packages"/*.deb
[ $# -eq 2 ] || { echo "there are other packages than two: $*" >&2 && exit 1; }

utility=$(echo "$packages"/hxusbvctl_*.deb)
expect_folders "$utility"
expect_field "$utility" Version "$version-.*"
expect_field "$utility" Depends 'libc6 (.*), libgcc-s1 (.*), libstdc++6 (.*)'
expect_files "$utility" <<END_OF_LIST
-rwxr-xr-x sbin/hxusbvctl
-rwxr-xr-x sbin/hxusbvd-sim
-rw-r--r-- share/bash-completion/completions/hxusbvctl
-rw-r--r-- share/doc/hxusbvctl/changelog.Debian.gz
-rw-r--r-- share/doc/hxusbvctl/changelog.gz
-rw-r--r-- share/doc/hxusbvctl/copyright
-rw-r--r-- share/fish/vendor_completions.d/hxusbvctl.fish
-rw-r--r-- share/man/man8/hxusbvctl.8.gz
-rw-r--r-- share/man/man8/hxusbvd-sim.8.gz
-rw-r--r-- share/zsh/vendor-completions/_hxusbvctl
END_OF_LIST

library=$(echo "$packages"/libhxkqueue-dev_*.deb)
expect_folders "$library"
expect_field "$library" Version "$version-.*"
expect_field "$library" Depends 'libc6-dev'
expect_files "$library" <<END_OF_LIST
-rw-r--r-- include/hxkqueue/kqueue/HXKQueue.h
-rw-r--r-- include/hxkqueue/kqueue/HXKQueueAcceptedConnection.h
-rw-r--r-- include/hxkqueue/kqueue/HXKQueueBipipeClient.h
-rw-r--r-- include/hxkqueue/kqueue/HXKQueueEvent.h
-rw-r--r-- include/hxkqueue/kqueue/HXKQueueStreamSocket.h
-rw-r--r-- include/hxkqueue/kqueue/HXKQueueTCPClient.h
-rw-r--r-- include/hxkqueue/kqueue/HXKQueueTCPServer.h
-rw-r--r-- include/hxkqueue/kqueue/HXKQueueTimer.h
-rw-r--r-- include/hxkqueue/kqueue/HXKQueueUnixClient.h
-rw-r--r-- include/hxkqueue/kqueue/HXKQueueUnixServer.h
-rw-r--r-- include/hxkqueue/kqueue/byte_queue.h
-rw-r--r-- include/hxkqueue/kqueue/byte_stream.h
-rw-r--r-- include/hxkqueue/kqueue/event_block_slot.h
-rw-r--r-- include/hxkqueue/kqueue/listening_socket.h
-rw-r--r-- include/hxkqueue/platform/log.h
-rw-r--r-- include/hxkqueue/platform/peer_credentials.h
-rw-r--r-- include/hxkqueue/sys/event.h
-rw-r--r-- $libdir/cmake/hxkqueue/hxkqueueConfig.cmake
-rw-r--r-- $libdir/cmake/hxkqueue/hxkqueueConfigVersion.cmake
-rw-r--r-- $libdir/cmake/hxkqueue/hxkqueueTargets-release.cmake
-rw-r--r-- $libdir/cmake/hxkqueue/hxkqueueTargets.cmake
-rw-r--r-- $libdir/libhxkqueue.a
-rw-r--r-- $libdir/pkgconfig/hxkqueue.pc
-rw-r--r-- share/doc/libhxkqueue-dev/changelog.Debian.gz
-rw-r--r-- share/doc/libhxkqueue-dev/changelog.gz
-rw-r--r-- share/doc/libhxkqueue-dev/copyright
-rw-r--r-- share/man/man3/hxkqueue.3.gz
END_OF_LIST
exit $status
