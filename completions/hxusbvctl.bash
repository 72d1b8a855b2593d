# shellcheck shell=bash
# Completes hxusbvctl's command line in bash, from 3.2 on, which is what macOS has: its words, the
# options of each command, and the ids, hosts and devices that it lists.

# Prints what hxusbvctl prints for the arguments, of which the first is its own name. Fails without
# a daemon, and after a second with one that does not answer.
_hxusbvctl_list() {
    sh -c '
        "$@" & list=$!
        { trap "kill \$!; exit" TERM; sleep 1 & wait $!; kill $list; } >/dev/null & limit=$!
        wait $list; status=$?
        kill $limit
        exit $status' sh "$@" </dev/null 2>/dev/null
}

# Splits the command line, up to the cursor, into words: the shell's, where COMP_WORDS has
# readline's, which end at a colon too.
_hxusbvctl_split() {
    local line=${COMP_LINE:0:COMP_POINT} rest piece i
    words=()
    for ((i = 0; i <= COMP_CWORD; ++i)); do
        rest=${line#"${line%%[![:space:]]*}"}
        piece=${COMP_WORDS[i]}
        [[ $rest == "$piece"* ]] || piece=$rest
        if [[ $i -eq 0 || $rest != "$line" ]]; then
            words+=("$piece")
        else
            words[${#words[@]} - 1]+=$piece
        fi
        line=${rest#"$piece"}
    done
}

# Reads the options before the word that is being typed, as getopt does. Sets typed to what that
# word is: the letter of the option whose argument it is, "operand", "any" for an option or the
# operand, or nothing behind the operand.
_hxusbvctl_read_options() {
    local options=$1 i letter cluster last=$((${#words[@]} - 1))
    typed=any port=33000 host='' server=''
    for ((i = 3; i < last; ++i)); do
        typed=any
        if [[ ${words[i]} == -- ]]; then
            typed=operand
            [[ $((i + 1)) -eq $last ]] || typed=
            return
        fi
        if [[ ${words[i]} != -?* ]]; then
            typed=
            return
        fi
        cluster=${words[i]:1}
        while [[ -n $cluster ]]; do
            letter=${cluster:0:1}
            cluster=${cluster:1}
            [[ $options == *"$letter:"* ]] || continue
            if [[ -z $cluster ]]; then
                typed=$letter
                ((++i))
                cluster=${words[i]}
            fi
            case $letter in
                p) port=$cluster ;;
                h) host=$cluster ;;
                i) server=$cluster ;;
            esac
            break
        done
        [[ $i -eq $last ]] || typed=any
    done
}

# Adds a candidate, if it goes on from what is typed, and what to show beside it. Of those that are
# the same the first counts: what two have in common is inserted, and beyond the candidate that would
# be a name's text.
_hxusbvctl_offer() {
    [[ $1 == "$current"* && $offered != *" $1 "* ]] || return 0
    offered+=" $1 "
    COMPREPLY+=("$1")
    descriptions+=("${2//[[:cntrl:]]/?}")
}

_hxusbvctl_offer_words() {
    local word
    for word in "$@"; do _hxusbvctl_offer "$word" ''; done
}

# The letters of getopt's notation.
_hxusbvctl_offer_options() {
    local letters=${1//:/} i
    for ((i = 0; i < ${#letters}; ++i)); do _hxusbvctl_offer "-${letters:i:1}" ''; done
}

# Hands each server that hxusbvctl lists to a function: id, host, port, state.
_hxusbvctl_each_server() {
    local list line pattern='^([0-9]+) - (.*):([0-9]+) - (.*)$'
    list=$(_hxusbvctl_list "$program" srv list -D) || return 0
    while IFS= read -r line; do
        [[ $line =~ $pattern ]] && "$1" "${BASH_REMATCH[@]:1}"
    done <<<"$list"
}

_hxusbvctl_offer_server() { _hxusbvctl_offer "$1" "$2:$3 - $4"; }

# A host goes with the port of the line. One that the shell would read as something else is not
# offered.
_hxusbvctl_offer_host() {
    [[ $3 == "$port" && $2 != *[!A-Za-z0-9._:%-]* ]] && _hxusbvctl_offer "$2" "$4"
}

_hxusbvctl_take_id() { [[ $2 == "$host" && $3 == "$port" ]] && server=$1; }

# The devices that are to be plugged, or unplugged: those of the server that the line names by their
# own ids, otherwise all.
_hxusbvctl_offer_devices() {
    local list line pattern='^([0-9]+):([0-9]+) - [0-9a-f]{4}:[0-9a-f]{4}:[0-9a-f]{4} - (.*)$'
    local words_of_list=(dev list)
    [[ $1 == plug ]] || words_of_list+=(-p)
    if [[ -n $host ]]; then
        _hxusbvctl_each_server _hxusbvctl_take_id
        [[ -n $server ]] || return 0
    fi
    list=$(_hxusbvctl_list "$program" "${words_of_list[@]}") || return 0
    while IFS= read -r line; do
        [[ $line == "${server:+$server:}$current"* && $line =~ $pattern ]] || continue
        [[ $1 == unplug || $line != *', plugged' ]] || continue
        if [[ -z $server ]]; then
            _hxusbvctl_offer "${BASH_REMATCH[1]}:${BASH_REMATCH[2]}" "${BASH_REMATCH[3]}"
        else
            _hxusbvctl_offer "${BASH_REMATCH[2]}" "${BASH_REMATCH[3]}"
        fi
    done <<<"$list"
}

_hxusbvctl_offer_operands() {
    local name
    case $1 in
        'srv add')
            while IFS= read -r name; do
                _hxusbvctl_offer_words "$name"
            done < <(compgen -A hostname -- "$current")
            ;;
        'dev plug' | 'dev unplug') _hxusbvctl_offer_devices "${1#dev }" ;;
    esac
}

_hxusbvctl_offer_arguments() {
    local form="${words[1]} ${words[2]}" options typed port host server
    case $form in
        'srv list') options=D ;;
        'srv add') options=p: ;;
        'srv remove' | 'srv disconnect' | 'srv reconnect') options=p:h:i: ;;
        'dev list') options=nNp ;;
        'dev plug') options=p:h:i:1 ;;
        'dev unplug') options=p:h:i: ;;
        *) return ;;
    esac
    _hxusbvctl_read_options "$options"
    case $typed in
        i) _hxusbvctl_each_server _hxusbvctl_offer_server ;;
        h) _hxusbvctl_each_server _hxusbvctl_offer_host ;;
        any)
            if [[ $current == -* ]]; then
                _hxusbvctl_offer_options "$options"
            else
                _hxusbvctl_offer_operands "$form"
            fi
            ;;
        operand) _hxusbvctl_offer_operands "$form" ;;
    esac
}

# Readline replaces only what is behind the last colon.
_hxusbvctl_trim_to_readline_word() {
    local before=${current%"${current##*:}"} i
    [[ -n $before && $COMP_WORDBREAKS == *:* ]] || return 0
    for ((i = 0; i < ${#COMPREPLY[@]}; ++i)); do COMPREPLY[i]=${COMPREPLY[i]#"$before"}; done
}

# Descriptions go where candidates are only listed. They stand behind a blank, so what several
# candidates have in common ends before.
_hxusbvctl_describe() {
    local i
    [[ ${#COMPREPLY[@]} -gt 1 ]] || return 0
    case ${COMP_TYPE:-} in
        33 | 63 | 64) ;;
        *) return 0 ;;
    esac
    for ((i = 0; i < ${#COMPREPLY[@]}; ++i)); do
        [[ -z ${descriptions[i]} ]] || COMPREPLY[i]+="  (${descriptions[i]})"
    done
}

_hxusbvctl() {
    local words current program offered='' descriptions=()
    COMPREPLY=()
    _hxusbvctl_split
    current=${words[${#words[@]} - 1]}
    program=${words[0]}
    [[ $program != \~/* ]] || program=$HOME/${program:2}
    case ${#words[@]}:${words[1]} in
        2:-*) _hxusbvctl_offer_words -h --help ;;
        2:*) _hxusbvctl_offer_words srv dev ;;
        3:srv) _hxusbvctl_offer_words list add remove disconnect reconnect ;;
        3:dev) _hxusbvctl_offer_words list plug unplug ;;
        *) _hxusbvctl_offer_arguments ;;
    esac
    _hxusbvctl_trim_to_readline_word
    _hxusbvctl_describe
}

# From bash 4.4 on the candidates stay in the order of the list.
complete -o nosort -F _hxusbvctl hxusbvctl 2>/dev/null || complete -F _hxusbvctl hxusbvctl
