#!/usr/bin/env bash
# Fails, and names it, when the development container lacks something that a script would install, but
# for scripts/cross-macos and scripts/test arm64, which are said to install what they need themselves.
# shellcheck disable=SC2317  # lib.sh calls what it finds defined
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
# shellcheck source=scripts/lib.sh
source scripts/lib.sh

# The machine has nothing but what Debian begins with.
has() { [[ $1 == dpkg ]]; }
has_library() { false; }
compiles() { false; }
compgen() { false; }
is_macos() { false; }

container=$(sed -n 's/^install_missing //p' .devcontainer/install | while read -r list; do
    if declare -F "$list" >/dev/null; then "$list"; fi
done)
[[ $container == *g++* ]] || die "the container's lists cannot be read: $container"

status=0
count=0
for list in $(declare -F | sed -n 's/^declare -f \(missing_.*\)/\1/p'); do
    case $list in missing_for_cross_macos | missing_for_arm64) continue ;; esac
    count=$((count + 1))
    for name in $("$list"); do
        grep -qxF -e "$name" <<<"$container" && continue
        echo "the container lacks $name ($list)"
        status=1
    done
done
[[ $count -ge 7 ]] || die "there are only $count lists"
exit "$status"
