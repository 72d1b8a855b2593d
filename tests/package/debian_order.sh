#!/bin/sh
# Fails when lintian has an error or a warning to tell of the Debian packages in a folder.
#
#     debian_order.sh LINTIAN FOLDER
export LC_ALL=C
found=$("$1" --no-cfg --allow-root --tag-display-limit 0 "$2"/*.deb 2>&1)
status=$?
printf '%s\n' "$found"
[ $status -eq 0 ] && ! printf '%s\n' "$found" | grep -q '^[EW]: '
