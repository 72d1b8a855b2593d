# What the scripts share that run the utility against a simulated daemon: the programs, a /var/run
# to run on, the daemon, and an end that leaves nothing behind. Sourced after lib.sh, never run.
# shellcheck shell=bash disable=SC2154

build=build/demo
scratch=

# Ends what runs in the background, with all that it has started, also what is stopped there because
# it has asked the terminal for something. Waits for what runs there, and five seconds for what that has
# started.
end_jobs() {
    local job jobs tries
    jobs=$(jobs -p)
    for job in $jobs; do
        kill -TERM -- "-$job" || kill -TERM "$job" || true
        kill -CONT -- "-$job" || true
    done 2>/dev/null
    wait 2>/dev/null || true
    for job in $jobs; do
        for ((tries = 0; tries < 100; ++tries)); do
            kill -0 -- "-$job" 2>/dev/null || break
            sleep 0.05
        done
    done
}

end() {
    trap '' HUP INT QUIT PIPE TERM
    end_jobs
    [[ -z $scratch ]] || rm -rf "$scratch"
    [[ $build != build/demo ]] || give_back
}

# Whatever ends the script, its jobs and its scratch directory end with it, and what it has built is the
# user's.
leave_nothing_behind() {
    trap end EXIT
    trap 'exit 129' HUP
    trap 'exit 130' INT
    trap 'exit 131' QUIT
    trap 'exit 143' TERM
}

# Runs a command in the background, in a process group of its own: the keyboard's signals reach the
# script alone, and the script's end reaches all that the command has started.
start() {
    set -m
    "$@" </dev/null &
    set +m
}

# Runs a command, and hears signals meanwhile, not only at its end. Bash may miss them at the end of a
# command whose output it takes by itself, by $().
run() {
    start "$@"
    wait "$!"
}

# No signal comes between the directory and its name.
make_scratch() {
    scratch=$(trap '' HUP INT QUIT TERM && mktemp -d "${TMPDIR:-/tmp}/hxusbvctl.XXXXXX")
}

configure_and_build() {
    {
        cmake --preset release -B "$build" -DBUILD_TESTING=OFF &&
            cmake --build "$build" --target hxusbvctl hxusbvd-sim
    } >"$build/demo.log" 2>&1
}

build_programs() {
    install_missing missing_for_building
    say "building"
    mkdir -p "$build"
    run configure_and_build || {
        tail -n 20 "$build/demo.log" >&2
        die "the build has failed; all of it is in $build/demo.log"
    }
}

# Takes the programs of a folder instead.
take_programs() {
    build=$1
    [[ -x $build/cli/hxusbvctl && -x $build/sim/hxusbvd-sim ]] ||
        die "nothing is built in $build (wanted: cli/hxusbvctl and sim/hxusbvd-sim)"
}

# Starts this script again, with the same arguments behind the one that enter_run takes, where it can
# have a /var/run of its own. Returns where it cannot, and may use the machine's. sudo is told what it
# would keep from the script.
find_run() {
    local private self=$PWD/scripts/${0##*/}
    local as_root=(sudo env "NO_COLOR=${NO_COLOR:-}" "SHELL=${SHELL:-}")
    find_private_run
    if [[ ${#private[@]} -gt 0 ]]; then
        exec "${private[@]}" "$self" --inside-private "$@"
    fi
    if [[ $EUID -ne 0 && ! -w $run_directory ]] && has unshare && has sudo &&
        sudo unshare --mount true 2>/dev/null; then
        say "namespaces are root's here, so this goes on as root"
        exec "${as_root[@]}" unshare --mount -- "$self" --inside-private "$@"
    fi
    [[ ! -e $control_path && ! -L $control_path ]] ||
        die "$no_namespaces and $control_path is in use; nothing was touched"
    if [[ ! -w $run_directory ]]; then
        has sudo || die "$no_namespaces and $run_directory is root's; run it as root"
        say "$no_namespaces and $run_directory is root's, so this goes on as root"
        exec "${as_root[@]}" "$self" --inside-shared "$@"
    fi
    say "$no_namespaces, so this uses $control_path"
}

# Whether the argument is one that find_run puts in front; if so, makes use of what it tells.
enter_run() {
    case $1 in
        --inside-private)
            mount -t tmpfs -o mode=0755 tmpfs "$run_directory" ||
                die "cannot mount over $run_directory"
            ;;
        --inside-shared)
            [[ ! -e $control_path && ! -L $control_path ]] || die "$control_path is in use"
            ;;
        *) return 1 ;;
    esac
}

run_daemon() { exec "$build/sim/hxusbvd-sim" "$@" >"$scratch/daemon"; }

# Returns once the daemon listens, which is all that it says on standard output.
start_daemon() {
    local line
    mkfifo "$scratch/daemon"
    start run_daemon "$@"
    read -r line <"$scratch/daemon" || die "the simulated daemon does not start"
    say "$line"
}
