# What is checked of a command that is not run (not_run.txt). Each is called with the words of the
# command, in the root of the tree, and fails with a line on standard output that says what
# is wrong. Words in capitals stand for anything. Sourced, with documents_build and documents_exceptions
# set; the pattern that fits is noted in the file documents_used, if that is set.
# shellcheck shell=sh disable=SC2154

# Prints the name of the check of the first row whose pattern fits the command, or fails.
check_of() {
    while IFS= read -r check_row; do
        case $check_row in '' | '#'*) continue ;; esac
        check_pattern=${check_row%%  *}
        # shellcheck disable=SC2254  # it is a pattern
        case $1 in
            $check_pattern)
                check_row=${check_row#"$check_pattern"}
                check_row=${check_row#"${check_row%%[! ]*}"}
                echo "${check_row%%  *}"
                printf '%s\n' "$check_pattern" >>"${documents_used:-/dev/null}"
                return
                ;;
        esac
    done <"$documents_exceptions"
    return 1
}

is_placeholder() {
    case $1 in *[a-z]*) return 1 ;; *[A-Z]*) ;; *) return 1 ;; esac
}

# The script is there, says of itself that it takes these words, and looks for them.
is_a_script() {
    [ "$1" != sudo ] || shift
    [ -e "$1" ] || { echo "there is no $1" && return 1; }
    if [ "$1 ${2:-}" = "scripts/with-arm64 ctest" ]; then
        shift
        chooses_tests "$@"
        return
    fi
    [ -x "$1" ] || [ $# -eq 1 ] || { echo "$1 is not to be run" && return 1; }
    sources=$1
    [ "$1" != scripts/bench ] || [ ! -e "bench/${2:-}.cpp" ] || sources="$1 bench/$2.cpp"
    shift
    for word in "$@"; do
        case $word in [0-9]*) continue ;; esac
        # shellcheck disable=SC2086  # one word a file
        sed -n '/^\(#\|\/\/\)/p' $sources | grep -qwF -e "$word" ||
            { echo "${sources%% *} says nothing of $word" && return 1; }
        # shellcheck disable=SC2086
        is_placeholder "$word" || sed '/^\(#\|\/\/\)/d' $sources | grep -qwF -e "$word" ||
            { echo "${sources%% *} does not know $word" && return 1; }
    done
}

# has_preset configure|build|test NAME
has_preset() {
    awk -v list="\"$1Presets\":" -v name="\"name\": \"$2\"" '
        /Presets":/ { inside = index($0, list) }
        inside && index($0, name) { found = 1 }
        END { exit !found }' CMakePresets.json || { echo "there is no $1 preset $2" && return 1; }
}

# cmake --preset NAME [-DVARIABLE=VALUE]...
configures_a_preset() {
    has_preset configure "$3" || return 1
    shift 3
    for word in "$@"; do
        variable=${word#-D}
        grep -q "^${variable%%=*}:" "$documents_build/CMakeCache.txt" ||
            { echo "there is no variable ${variable%%=*}" && return 1; }
    done
}

# cmake --build --preset NAME [--target TARGET]...
builds_a_preset() {
    has_preset build "$4" || return 1
    shift 4
    while [ $# -gt 0 ]; do
        [ "$1" = --target ] || { echo "$1 is not --target" && return 1; }
        ninja -C "$documents_build" -t query "$2" >/dev/null 2>&1 ||
            { echo "there is no target $2" && return 1; }
        shift 2
    done
}

# ctest [--preset NAME] [ARGUMENT...]
chooses_tests() {
    shift
    if [ "${1:-}" = --preset ]; then
        has_preset test "$2" || return 1
        shift 2
    fi
    case "${1:-} ${2:-}" in "-R "*) ! is_placeholder "$2" || shift 2 ;; esac
    ctest --test-dir "$documents_build" -N "$@" 2>&1 | grep -q '^Total Tests: [1-9]' ||
        { echo "no test is chosen by $*" && return 1; }
}

# apt-get install NAME..., brew install NAME...: what scripts/lib.sh installs for a task.
names_packages() {
    manager=$1
    shift 2
    packages_of_tasks "$manager" | grep -qxF -e "$*" ||
        { echo "scripts/lib.sh installs '$(packages_of_tasks "$manager" | head -n 1)' to build" && return 1; }
}

# A line for each task and system, building first, of a machine that has nothing but its package manager.
packages_of_tasks() {
    # shellcheck disable=SC2016  # expanded by the inner shell
    bash -c '
        source scripts/lib.sh
        manager=$1
        has() { [[ $manager == apt-get && $1 == dpkg ]]; }
        has_library() { false; }
        compiles() { false; }
        compgen() { false; }
        names_of() {
            local name
            for name in $("$1"); do
                if [[ $manager == brew ]]; then formula_of "$name"; else package_of "$name"; fi
            done | paste -sd " " -
        }
        for list in missing_for_building $(declare -F | sed -n "s/^declare -f \(missing_for_.*\)/\1/p"); do
            grep() { true; }  # this is Debian 12
            names_of "$list"
            grep() { false; }
            names_of "$list"
        done' bash "$1"
}
