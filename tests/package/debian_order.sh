#!/bin/sh
# Fails when lintian finds an error in the Debian packages in a folder; or a warning, if it is Debian
# 12's lintian, for each version warns of other things.
#
#     debian_order.sh LINTIAN FOLDER
failures=error
grep -qs '^VERSION_CODENAME=bookworm' /etc/os-release && failures=error,warning
exec "$1" --no-cfg --profile debian --fail-on $failures --tag-display-limit 0 "$2"/*.deb
