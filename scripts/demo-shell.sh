# The user's shell, where hxusbvctl, its completion and its manual are found. It reads the user's own
# start files, and then ours, which lie in the scratch directory, as its history does. Sourced by
# scripts/demo, never run.
# shellcheck shell=bash disable=SC2154

write_environment() {
    mkdir -p "$scratch/man/man8"
    ln -s "$PWD"/man/*.8 "$scratch/man/man8"
    # An empty path at the end stands for the system's own.
    cat >"$scratch/environment" <<'END'
export PATH="$DEMO_PROGRAMS:$PATH"
export MANPATH="$DEMO_SCRATCH/man:${MANPATH:-}"
HISTFILE=$DEMO_SCRATCH/history
END
}

write_bash_start() {
    cat >"$scratch/bashrc" <<'END'
[[ ! -r ~/.bashrc ]] || source ~/.bashrc
source "$DEMO_SCRATCH/environment"
source "$DEMO_TREE/completions/hxusbvctl.bash"
END
}

# Zsh looks into ZDOTDIR for each of its start files anew, and .zshenv is where users set it.
write_zsh_start() {
    cat >"$scratch/.zshenv" <<'END'
ZDOTDIR=${DEMO_ZDOTDIR:-$HOME}
[[ ! -r $ZDOTDIR/.zshenv ]] || source "$ZDOTDIR/.zshenv"
DEMO_ZDOTDIR=$ZDOTDIR
ZDOTDIR=$DEMO_SCRATCH
END
    cat >"$scratch/.zshrc" <<'END'
ZDOTDIR=$DEMO_ZDOTDIR
[[ ! -r $ZDOTDIR/.zshrc ]] || source "$ZDOTDIR/.zshrc"
source "$DEMO_SCRATCH/environment"
fpath=("$DEMO_TREE/completions" $fpath)
if whence compdef >/dev/null; then
    autoload -Uz _hxusbvctl
    compdef _hxusbvctl hxusbvctl
else
    autoload -Uz compinit
    compinit -D -u
fi
END
}

write_fish_start() {
    cat >"$scratch/start.fish" <<'END'
set -gx PATH $DEMO_PROGRAMS $PATH
set -q MANPATH; or set MANPATH ''
set -gx MANPATH $DEMO_SCRATCH/man $MANPATH
set -g fish_history ''
source $DEMO_TREE/completions/hxusbvctl.fish
END
}

# Sets command to what starts the user's shell, and completed to whether it completes there: one that
# reads its commands from a pipe has no use for that.
choose_shell() {
    local name
    completed=yes
    command=("${SHELL:-bash}")
    name=${command##*/}
    [[ -t 0 ]] || name=
    case $name in
        bash)
            write_bash_start
            command+=(--rcfile "$scratch/bashrc" -i)
            ;;
        zsh)
            write_zsh_start
            export DEMO_ZDOTDIR=${ZDOTDIR:-} ZDOTDIR=$scratch
            command+=(-i)
            ;;
        fish)
            write_fish_start
            # shellcheck disable=SC2016  # expanded by fish
            command+=(--init-command 'source $DEMO_SCRATCH/start.fish' -i)
            ;;
        *)
            # shellcheck source=/dev/null
            source "$scratch/environment"
            completed=
            ;;
    esac
}

# More than once, for a shell that is about to wait for a key does so, and hears it with the next one.
hang_up() {
    local tries
    for ((tries = 0; tries < 50; ++tries)); do
        kill -HUP "$1" 2>/dev/null || return 0
        sleep 0.1
    done
    kill -KILL "$1" 2>/dev/null || true
}

# The keyboard's signals are for what runs in the shell; the others hang the shell up, as the end of
# a terminal does. In the background it would ignore the keyboard, but for the trap, which exec undoes.
open_shell() {
    local command completed
    export DEMO_TREE=$PWD DEMO_SCRATCH=$scratch
    DEMO_PROGRAMS=$(cd "$build/cli" && pwd)
    export DEMO_PROGRAMS
    write_environment
    choose_shell
    say "hxusbvctl works at this prompt, and its manual does: man hxusbvctl"
    [[ -z $completed ]] || say "Tab completes, as in: hxusbvctl dev plug <Tab><Tab>"
    say "exit or Ctrl-D leaves"
    (trap : INT QUIT && exec "${command[@]}") <&0 &
    trap '' INT QUIT
    trap 'hang_up $!; exit 129' HUP
    trap 'hang_up $!; exit 143' TERM
    wait "$!" || true
}
