#!/bin/sh
# Fails, and names them, when a list of tests that are left out names one that there is not.
cd "$(dirname "$0")/.." || exit 1

# As GoogleTest names tests: [PREFIX/]SUITE.TEST[/PARAMETER], where TEST may end with an asterisk.
exists() {
    suite=${1%%.*}
    suite=${suite##*/}
    test=${1#*.}
    test=${test%%/*}
    case $test in
        *'*') end='' test=${test%?} ;;
        *) end='\)' ;;
    esac
    grep -rzEqs --include='*.cpp' "TEST(_F|_P)?\($suite,[[:space:]]*$test$end" .
}

if exists Tee.NoSuch || exists NoSuch.\* || ! exists Tee.\*; then
    echo "names are not told apart" >&2
    exit 1
fi

status=0
for list in left_out_*.txt; do
    while read -r name _; do
        case $name in '' | '#'*) continue ;; esac
        exists "$name" && continue
        echo "$list names what is not there: $name" >&2
        status=1
    done <"$list"
done
exit $status
