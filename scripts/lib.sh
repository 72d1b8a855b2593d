# What the scripts share: how they speak, and what they need installed. Sourced, never run.
# macOS has bash 3.2, which knows no mapfile and takes an empty array for an unset variable.
# shellcheck shell=bash disable=SC2034

readonly run_directory=/var/run
readonly control_path=$run_directory/hxusbvctl.sock

say() { printf '%s\n' "== $*"; }

die() {
    printf '%s\n' "${0##*/}: $*" >&2
    exit 1
}

# Prints the comment that the script begins with, and ends with a status. The script stands in its root.
usage() {
    sed -n '2,/^set /s/^# \{0,1\}//p' "scripts/${0##*/}"
    exit "$1"
}

# Runs a command, and shows what it prints only if it fails: ninja prints a compiler's errors on
# standard output.
quietly() {
    local output
    output=$("$@") && return 0
    printf '%s\n' "$output" >&2
    return 1
}

# What root leaves in the tree belongs to the one who asked for root.
give_back() {
    [[ $EUID -ne 0 || -z ${SUDO_UID:-} || ! -d build ]] || chown -R "$SUDO_UID" build
}

has() { command -v "$1" >/dev/null 2>&1; }

# The first argument is the lower of two versions, or they are equal.
at_least() { [[ $(printf '%s\n%s\n' "$1" "$2" | sort -V | head -n 1) == "$1" ]]; }

is_macos() { [[ $(uname -s) == Darwin ]]; }

# Whether the C++ compiler takes the program on standard input; further arguments go to it.
compiles() {
    local homebrew=()
    # Apple's compiler does not look there by itself; CMake does.
    if is_macos && has brew; then
        homebrew=("-I$(brew --prefix)/include" "-L$(brew --prefix)/lib")
    fi
    "${CXX:-c++}" -x c++ -std=c++20 - ${homebrew[@]+"${homebrew[@]}"} "$@" >/dev/null 2>&1
}

has_compiler() {
    compiles -fsyntax-only <<'END'
#include <span>
#if defined(__apple_build_version__) ? __clang_major__ < 15 : \
    defined(__clang__) ? __clang_major__ < 14 : __GNUC__ < 12
#error "too old"
#endif
int main() {}
END
}

has_cmake() {
    has cmake && at_least 3.25 "$(cmake --version | sed -n '1s/[^0-9]*//p')"
}

has_boost_json() {
    compiles -fsyntax-only <<'END'
#include <boost/version.hpp>
#if BOOST_VERSION < 108100
#error "too old"
#endif
#if !__has_include(<boost/json/src.hpp>)
#error "missing"
#endif
END
}

has_gtest() {
    local program status=0
    program=$(mktemp)
    compiles -o "$program" -lgtest_main -lgtest -pthread <<'END' || status=1
#include <gtest/gtest.h>
TEST(Installation, Works) {}
END
    rm -f "$program"
    return "$status"
}

# Each prints what is missing of what a task needs, one name a line.
missing_for_building() {
    has_compiler || echo g++
    has_cmake || echo cmake
    has ninja || echo ninja-build
    has_boost_json || echo boost-json
}

missing_for_testing() {
    missing_for_building
    has_gtest || echo libgtest-dev
    has pkg-config || echo pkg-config
}

# Of what makes the packages of this system; where there are none, cpack makes archives.
missing_package_tools() {
    if has dpkg; then
        has dpkg-shlibdeps || echo dpkg-dev
        has file || echo file
    fi
}

missing_for_packaging() {
    missing_for_building
    missing_package_tools
}

# Tests that lack one of these are left out, and say so.
missing_that_tests_can_do_without() {
    missing_package_tools
    has fish || echo fish
    if has dpkg && ! has lintian; then echo lintian; fi
    has mandoc || echo mandoc
    is_macos || has rpmbuild || echo rpm
    has ruby || echo ruby
    has xmllint || echo libxml2-utils
    has zsh || echo zsh
    is_macos || missing_for_documents
}

# What commands in documents are run with.
missing_for_documents() {
    has gdb || echo gdb
    has hexdump || echo bsdextrautils
    has jq || echo jq
    has socat || echo socat
    has strace || echo strace
}

missing_for_cross_macos() {
    missing_for_building
    has llvm-lipo-14 || echo llvm-14
    has file || echo file
    has npm || echo npm
    [[ -e /usr/src/googletest/CMakeLists.txt ]] || echo googletest
}

# To build for Linux on 64-bit Arm and run what was built.
missing_for_arm64() {
    missing_for_testing
    has aarch64-linux-gnu-g++ || echo g++-aarch64-linux-gnu
    has qemu-aarch64 || echo qemu-user
    [[ -e /usr/src/googletest/CMakeLists.txt ]] || echo googletest
}

has_library() { pkg-config --exists "$1" 2>/dev/null; }

missing_for_benchmarks() {
    missing_for_building
    has pkg-config || echo pkg-config
    has_library libuv || echo libuv1-dev
    has_library libevent_core || echo libevent-dev
    compiles -fsyntax-only <<<'#include <ev.h>' || echo libev-dev
    has_library benchmark || echo libbenchmark-dev
    has_library simdjson || echo libsimdjson-dev
    has jq || echo jq
    has python3 || echo python3
    has socat || echo socat
}

missing_for_guard() {
    missing_for_benchmarks
    has strace || echo strace
    has valgrind || echo valgrind
}

# The runtimes of clang 14, for its fuzzer, sanitizers and counters: one package.
has_clang_runtimes() { compgen -G "/usr/lib/llvm-14/lib/clang/14*/include/fuzzer/FuzzedDataProvider.h" >/dev/null; }

missing_for_coverage() {
    missing_for_testing
    has clang++-14 || echo clang-14
    has_clang_runtimes || echo libclang-rt-14-dev
    has llvm-cov-14 || echo llvm-14
}

missing_for_fuzzing() {
    missing_for_building
    has clang++-14 || echo clang-14
    has_clang_runtimes || echo libclang-rt-14-dev
    has llvm-symbolizer-14 || echo llvm-14
}

# Another version of one of these formats, or warns, otherwise.
missing_for_linting() {
    missing_for_testing
    missing_for_benchmarks
    has clang-format-14 || echo clang-format-14
    has clang-tidy-14 || echo clang-tidy-14
    has_clang_runtimes || echo libclang-rt-14-dev
    has cppcheck || echo cppcheck
    has mandoc || echo mandoc
    has shellcheck || echo shellcheck
}

# What apt-get calls a missing thing. Debian 12's default Boost is too old.
package_of() {
    local name=$1
    if [[ $name == boost-json ]]; then
        name=libboost-json-dev
        grep -qs '^VERSION_CODENAME=bookworm' /etc/os-release && name=libboost-json1.81-dev
    fi
    echo "$name"
}

# What Homebrew calls it, and nothing for the compiler, which is Apple's.
formula_of() {
    case $1 in
        g++) ;;
        ninja-build) echo ninja ;;
        boost-json) echo boost ;;
        libgtest-dev) echo googletest ;;
        libbenchmark-dev) echo google-benchmark ;;
        libsimdjson-dev) echo simdjson ;;
        pkg-config) echo pkgconf ;;
        *) echo "$1" ;;
    esac
}

install_with_homebrew() {
    has_compiler || die "a C++ compiler is missing or too old; Xcode 15's: xcode-select --install"
    local name formulas=()
    for name in "$@"; do formulas+=("$(formula_of "$name")"); done
    has brew || die "missing: $*; with Homebrew: brew install ${formulas[*]}"
    say "missing: $*; installing: ${formulas[*]}"
    brew install "${formulas[@]}" || die "to do it by hand: brew install ${formulas[*]}"
}

install_with_apt() {
    has apt-get || die "missing: $*; there is no apt-get here to install them with"
    local name packages=() as_root=() by_hand
    for name in "$@"; do packages+=("$(package_of "$name")"); done
    by_hand="missing: $*; run as root: apt-get update && apt-get install ${packages[*]}"
    if [[ $EUID -ne 0 ]]; then
        has sudo || die "$by_hand"
        as_root=(sudo)
    fi
    say "missing: $*; updating the package lists (apt-get update)"
    "${as_root[@]}" apt-get update -q || die "$by_hand"
    say "installing: ${packages[*]}"
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -q -y --no-install-recommends "${packages[@]}" || die "$by_hand"
}

# Installs what missing_for_... prints, and does nothing when it prints nothing.
install_missing() {
    local check=$1 missing
    missing=$("$check")
    [[ -n $missing ]] || return 0
    # shellcheck disable=SC2086  # one word each
    if is_macos; then install_with_homebrew $missing; else install_with_apt $missing; fi
    missing=$("$check")
    [[ -z $missing ]] ||
        die "still missing or too old: ${missing//$'\n'/ } (needed: g++ 12 or clang 14, CMake 3.25, Boost 1.81)"
}

if is_macos; then
    readonly no_namespaces="macOS has no namespaces"
else
    readonly no_namespaces="namespaces are forbidden"
fi

# Whether this user can have a mount namespace, with the given arguments to unshare.
can_unshare() {
    has unshare && unshare --mount "$@" -- mount -t tmpfs tmpfs "$run_directory" 2>/dev/null
}

# Sets private to the command that runs another one where /var/run may be mounted over, and to
# nothing where the system forbids it.
find_private_run() {
    private=()
    if [[ $EUID -eq 0 ]] && can_unshare; then
        private=(unshare --mount --)
    elif can_unshare --map-root-user; then
        private=(unshare --mount --map-root-user --)
    fi
}

# Sets runner to the command that tests run under, and without_path to why they have no
# $control_path to run on, or to nothing. Where only root may have namespaces, root makes one for
# the tests, with a /var/run that is the user's; the tests then take turns on it. Where nobody may,
# they take turns on the machine's. What runs under sudo is told its variables by env.
find_test_runner() {
    runner=()
    without_path=
    find_private_run
    [[ ${#private[@]} -eq 0 ]] || return 0
    if [[ $EUID -ne 0 ]] && has unshare && has sudo && sudo -n unshare --mount true 2>/dev/null; then
        # shellcheck disable=SC2016  # expanded by the inner shell
        runner=(sudo -n unshare --mount -- bash -c
            'mount -t tmpfs -o "uid=$1,gid=$2,mode=0755" tmpfs /var/run && shift 2 &&
             exec setpriv --reuid "$SUDO_UID" --regid "$SUDO_GID" --init-groups -- "$@"'
            bash "$(id -u)" "$(id -g)")
    elif [[ ! -w $run_directory ]]; then
        without_path="$no_namespaces and $run_directory is not writable"
    elif [[ -e $control_path || -L $control_path ]]; then
        without_path="$no_namespaces and it is in use"
    fi
}
