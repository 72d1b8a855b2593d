#!/bin/sh
# The shell that runs what `commands` has found in a document, each command where the one before it has
# left off.
#
#     session.sh DOCUMENT FOLDER ROOT BUILD EXCEPTIONS OPTIONAL
#
# DOCUMENT is how the document is called, FOLDER where its commands are, OPTIONAL the programs without
# which the rest of it is left out. The shell is a person's: names of its own begin with documents_.
documents_name=$1
documents_folder=$2
documents_root=$3
documents_build=$4
documents_exceptions=$5
documents_optional=$6
documents_failures=0
documents_ran=0
documents_checked=0
documents_left_out=
documents_ended=
# shellcheck source=tests/documents/checks.sh
. "$(dirname "$0")/checks.sh"

# A command could end this shell.
documents_end() {
    [ -n "$documents_ended" ] || documents_fail "the shell ends"
    echo "$documents_name: $documents_ran commands run, $documents_checked commands and tests checked"
    [ "$documents_failures" -eq 0 ] || exit 1
    [ -z "$documents_left_out" ] || exit 77
    exit 0
}
trap documents_end EXIT

# documents_fail REASON [FILE]
documents_fail() {
    documents_failures=$((documents_failures + 1))
    printf '%s:%s: %s\n' "$documents_name" "$documents_line" "$1"
    printf '%s\n' "$documents_command" | sed 's/^/    $ /'
    [ -z "${2:-}" ] || sed 's/^/    /' "$2"
}

# A program that installs packages is as good as none for a user who is not root outside, too.
documents_has() {
    command -v "$1" >/dev/null || return 1
    [ "$1" != apt-get ] || [ -w /var/lib/dpkg ]
}

# Sets documents_program to one that the command needs and that is not here, or fails.
documents_lacking() {
    for documents_program in $documents_optional; do
        case " $(printf '%s' "$1" | tr '\n' ' ') " in
            *" $documents_program "*) documents_has "$documents_program" || return 0 ;;
        esac
    done
    return 1
}

# Sets documents_status, and leaves what was printed in the file output.
documents_run() {
    documents_ran=$((documents_ran + 1))
    eval "$documents_command" >"$documents_folder/output" 2>&1 </dev/null 9<&-
    documents_status=$?
}

documents_check() {
    documents_checked=$((documents_checked + 1))
    documents_wrong=$(documents_is_right) || documents_fail "$documents_wrong"
}

documents_is_right() {
    case $(printf '%s\n' "$documents_command" | sed -e 's/"[^"]*"//g' -e "s/'[^']*'//g") in
        *[\<\>\;\&\`\(]* | *'
'*) echo "is more than one command, and cannot be checked" && return 1 ;;
    esac
    cd "$documents_root" || return
    eval "$documents_way $documents_command"
}

documents_sh() {
    if documents_way=$(check_of "$documents_command"); then
        documents_check
        return
    fi
    documents_run
    [ "$documents_status" -eq 0 ] ||
        documents_fail "ends with status $documents_status" "$documents_folder/output"
}

documents_console() {
    documents_run
    diff -u --label expected --label got "$documents_folder/$documents_number.expected" \
        "$documents_folder/output" >"$documents_folder/difference" ||
        documents_fail "prints something else" "$documents_folder/difference"
}

# Code within a paragraph: a command that is checked, or one of the utility's, which must understand
# it; files; a test.
documents_inline() {
    documents_is_test && documents_test && return
    if documents_way=$(check_of "$documents_command"); then
        documents_check
        return
    fi
    case $documents_command in "hxusbvctl "*) documents_understood ;; esac
    for documents_word in $documents_command; do documents_file "$documents_word"; done
}

# Files have a dot, too, and no capital behind it.
documents_is_test() {
    case $documents_command in
        *[!A-Za-z0-9.*]*) return 1 ;;
        ?*.[A-Z*]*) ;;
        *) return 1 ;;
    esac
}

# It is as ctest chooses tests by it.
documents_test() {
    documents_checked=$((documents_checked + 1))
    [ -s "$documents_folder/tests" ] ||
        ctest --test-dir "$documents_build" -N |
        sed -n 's/^ *Test *#[0-9]*: *//p' >"$documents_folder/tests"
    case $documents_command in
        '*'*) ;;
        *) ! grep -qE -e "$documents_command" "$documents_folder/tests" || return 0 ;;
    esac
    documents_fail "no test is chosen by this"
}

documents_understood() {
    ! is_placeholder "${documents_command##* }" || return 0
    documents_run
    case $documents_status in
        0 | 2 | 37) ;;
        *) documents_fail "ends with status $documents_status" "$documents_folder/output" ;;
    esac
}

# A path that begins in the root of the tree, or in the folder of a preset, leads somewhere. Words in
# capitals stand for anything.
documents_file() {
    case $1 in
        /* | *[!A-Za-z0-9._*/-]*) return ;;
        build/*/*)
            documents_preset=${1#build/}
            documents_preset=${documents_preset%%/*}
            [ "$documents_preset" = demo ] || has_preset configure "$documents_preset" >/dev/null || return
            ;;
        build/*) return ;;
        */*) [ -d "${1%%/*}" ] || return ;;
        *) return ;;
    esac
    documents_pattern=$(printf '%s\n' "$1" | sed 's/[A-Z][A-Z]*\([./]\|$\)/*\1/g')
    # shellcheck disable=SC2086  # it is a pattern
    for documents_found in $documents_pattern "$documents_build"/$documents_pattern; do
        [ ! -e "$documents_found" ] || return 0
    done
    documents_fail "there is no $1"
}

cd "$documents_root" || exit
while read -r documents_number documents_line documents_kind <&9; do
    documents_command=$(cat "$documents_folder/$documents_number.command")
    if [ "$documents_kind" != inline ] && documents_lacking "$documents_command"; then
        documents_left_out="there is no $documents_program for this user"
        echo "$documents_name: left out from line $documents_line on: $documents_left_out"
        break
    fi
    case $documents_kind in
        sh) documents_sh ;;
        console) documents_console ;;
        inline) cd "$documents_root" && documents_inline ;;
        output) documents_fail "there is no command before this" ;;
        unfinished) documents_fail "this is no command, or only its beginning" ;;
    esac
done 9<"$documents_folder/index"
documents_ended=yes
