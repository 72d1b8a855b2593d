# Completes hxusbvctl's command line in fish: its words, the options of each command, and the ids,
# hosts and devices that it lists.

# Prints what hxusbvctl prints for the arguments. Prints nothing without a daemon, and after a
# second with one that does not answer.
function __hxusbvctl_list
    set -l program (string replace -r '^~/' "$HOME/" -- (commandline -opc)[1])
    set -l lines (sh -c '
        "$@" & list=$!
        { trap "kill \$!; exit" TERM; sleep 1 & wait $!; kill $list; } >/dev/null & limit=$!
        wait $list; status=$?
        kill $limit
        exit $status' sh $program $argv </dev/null 2>/dev/null)
    and string replace -ra '\p{Cc}' '?' -- $lines
end

# Whether so many words stand before the one that is being typed, and the second of them is this.
function __hxusbvctl_is_word
    set -l words (commandline -opc)
    test (count $words) -eq $argv[1]; and test "$words[2]" = "$argv[2]"
end

# Whether the line is of one of these forms and has no operand yet.
function __hxusbvctl_is_form
    set -l words (commandline -opc)
    contains -- "$words[2] $words[3]" $argv; or return
    set -l options D 1 p= h= i=
    test "$words[2] $words[3]" = 'dev list'; and set options n N p
    # The argument of the last option may be what is being typed.
    set argv $words[4..]
    argparse -s $options -- $argv 2>/dev/null
    or argparse -s $options -- $argv '' 2>/dev/null
    and test (count $argv) -eq 0
end

function __hxusbvctl_servers
    __hxusbvctl_list srv list -D | string replace -rf '^(\d+) - (.*)$' '$1\t$2'
end

# Those with the port of the line.
function __hxusbvctl_hosts
    argparse -s 1 p= h= i= -- (commandline -opc)[4..] '' 2>/dev/null
    set -q _flag_p; or set -l _flag_p 33000
    set -l port (string escape --style=regex -- $_flag_p)
    __hxusbvctl_list srv list -D |
        string replace -rf "^\d+ - ([\w.:%-]+):$port - (.*)\$" '$1\t$2'
end

# The devices that are to be plugged, or unplugged: those of the server that the line names by their
# own ids, otherwise all.
function __hxusbvctl_devices
    set -l action $argv[1]
    argparse -s 1 p= h= i= -- (commandline -opc)[4..] 2>/dev/null
    set -q _flag_p; or set -l _flag_p 33000
    set -l server $_flag_i
    if set -q _flag_h
        set -l address (string escape --style=regex -- $_flag_h:$_flag_p)
        set server (__hxusbvctl_list srv list -D |
            string replace -rf "^(\d+) - $address - .*\$" '$1')[1]
        test -n "$server"; or return
    end
    set -l id '(\d+:\d+)'
    test -n "$server"; and set id (string escape --style=regex -- $server):'(\d+)'
    if test $action = unplug
        __hxusbvctl_list dev list -p
    else
        __hxusbvctl_list dev list | string match -rv ', plugged$'
    end | string replace -rf "^$id - [\da-f:]{14} - (.*)\$" '$1\t$2'
end

complete -c hxusbvctl -f

complete -c hxusbvctl -n '__hxusbvctl_is_word 1' -a srv -d 'Servers'
complete -c hxusbvctl -n '__hxusbvctl_is_word 1' -a dev -d 'Devices'
complete -c hxusbvctl -n '__hxusbvctl_is_word 1' -s h -l help -d 'Show the usage'

complete -c hxusbvctl -n '__hxusbvctl_is_word 2 srv' -a list -d 'Show the servers and their devices'
complete -c hxusbvctl -n '__hxusbvctl_is_word 2 srv' -a add -d 'Add a server'
complete -c hxusbvctl -n '__hxusbvctl_is_word 2 srv' -a remove -d 'Remove a server'
complete -c hxusbvctl -n '__hxusbvctl_is_word 2 srv' -a disconnect -d 'Disconnect a server'
complete -c hxusbvctl -n '__hxusbvctl_is_word 2 srv' -a reconnect -d 'Reconnect a server'

complete -c hxusbvctl -n '__hxusbvctl_is_word 2 dev' -a list -d 'Show the devices of all servers'
complete -c hxusbvctl -n '__hxusbvctl_is_word 2 dev' -a plug -d 'Plug a device into this machine'
complete -c hxusbvctl -n '__hxusbvctl_is_word 2 dev' -a unplug \
    -d 'Unplug a device from this machine'

complete -c hxusbvctl -n '__hxusbvctl_is_form "srv list"' -s D -d 'Without their devices'

complete -c hxusbvctl -n '__hxusbvctl_is_form "dev list"' -s n -d 'Sorted by name'
complete -c hxusbvctl -n '__hxusbvctl_is_form "dev list"' -s N -d 'Sorted by name, backwards'
complete -c hxusbvctl -n '__hxusbvctl_is_form "dev list"' -s p -d 'Plugged devices only'

set -l of_server '"srv remove" "srv disconnect" "srv reconnect" "dev plug" "dev unplug"'
complete -c hxusbvctl -n "__hxusbvctl_is_form 'srv add' $of_server" -s p -x \
    -d 'TCP port of the server'
complete -c hxusbvctl -n "__hxusbvctl_is_form $of_server" -s h -x -a '(__hxusbvctl_hosts)' \
    -d 'Server by its host'
complete -c hxusbvctl -n "__hxusbvctl_is_form $of_server" -s i -x -a '(__hxusbvctl_servers)' \
    -d 'Server by its id'

complete -c hxusbvctl -n '__hxusbvctl_is_form "srv add"' -a '(__fish_print_hostnames)' -d 'Host'

complete -c hxusbvctl -n '__hxusbvctl_is_form "dev plug"' -s 1 \
    -d 'Once, without plugging it again later'
complete -c hxusbvctl -n '__hxusbvctl_is_form "dev plug"' -a '(__hxusbvctl_devices plug)'
complete -c hxusbvctl -n '__hxusbvctl_is_form "dev unplug"' -a '(__hxusbvctl_devices unplug)'
