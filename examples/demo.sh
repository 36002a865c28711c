#!/usr/bin/env bash
# A first run: a bus, programs that publish, watch, answer and log on it, one of
# them stopped, and the bus killed and started again under all of them. Called with the build folder;
# everything that is started here is ended here, and every step has to go as it should.
set -euo pipefail

build=${1:?usage: demo.sh BUILD-FOLDER}
busd=$build/trelan/trelanbusd/trelanbusd
ctl=$build/trelan/trelanctl/trelanctl
hoststate=$build/examples/hoststate/hoststate
thermostat=$build/examples/controller/controller
for program in "$busd" "$ctl" "$hoststate" "$thermostat"; do
    [[ -x $program ]] || { echo "demo: $program is not there; build the tree first" >&2; exit 1; }
done

deadline=30 # seconds that a program may take to come up
work=$(mktemp -d)
declare -A pids=()

cleanup() {
    local status=$? name
    trap - EXIT
    for name in "${!pids[@]}"; do
        kill "${pids[$name]}" 2>/dev/null || true
        kill -CONT "${pids[$name]}" 2>/dev/null || true
        wait "${pids[$name]}" 2>/dev/null || true
    done
    ((status == 0)) || tail -n 50 "$work"/*.log >&2
    rm -rf "$work"
    exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

fail() {
    echo "demo: $*" >&2
    exit 1
}

caption() { printf '\n# %s\n' "$1"; }

# Prints a command as one would type it.
show() {
    local program=$1 word
    shift
    printf '$ %s' "${program##*/}"
    for word in "$@"; do
        if [[ $word == *[^A-Za-z0-9_./:=-]* ]]; then printf " '%s'" "$word"; else printf ' %s' "$word"; fi
    done
}

# Shows a command, runs it, and holds it to the exit code it should have.
run() {
    local expected=$1 status=0
    shift
    show "$@"
    printf '\n'
    "$@" 2>&1 || status=$?
    ((status == expected)) || fail "that ended with $status, not with $expected"
}

# start NAME COMMAND...: runs the command in the background, with its output in NAME.log.
start() {
    local name=$1
    shift
    show "$@"
    printf ' &\n'
    "$@" >>"$work/$name.log" 2>&1 &
    pids[$name]=$!
}

# wait_for WHAT COMMAND...: waits until the command succeeds, as long as everything runs.
wait_for() {
    local what=$1 end=$((SECONDS + deadline)) name
    shift
    until "$@" >/dev/null 2>&1; do
        ((SECONDS < end)) || fail "$what did not come"
        for name in "${!pids[@]}"; do
            kill -0 "${pids[$name]}" 2>/dev/null || fail "$name has ended"
        done
        sleep 0.05
    done
}

says() { grep -qE -- "$2" "$work/$1.log"; }
lines() { grep -cE -- "$2" "$work/$1.log" || true; }
has_lines() { (($(lines "$1" "$2") >= $3)); }

# more NAME PATTERN COUNT: waits for COUNT more lines of NAME.log that match, and shows them.
more() {
    local had
    had=$(lines "$1" "$2")
    wait_for "what $1 should say" has_lines "$1" "$2" $((had + $3))
    grep -E -- "$2" "$work/$1.log" | sed -n "$((had + 1)),$((had + $3))p"
}

# end NAME: asks the program to stop, and holds it to exit code 0.
end() {
    local status=0 pid=${pids[$1]}
    unset "pids[$1]"
    kill -TERM "$pid"
    wait "$pid" || status=$?
    ((status == 0)) || fail "$1 ended with $status"
}

has_queued() { "$ctl" "${at[@]}" --json clients | grep -qE "\"name\":\"$1\".*\"queued\":[1-9]"; }
is_answered() { "$ctl" "${at[@]}" call "$@"; }
loads='^host\..*\.load '

caption 'A bus, on free ports of this machine and with a data folder of its own'
start bus "$busd" --query-port 0 --msg-port 0 --port-file "$work/ports" --data "$work/data"
wait_for 'the ports of the bus' grep -qE '^msg=[0-9]+' "$work/ports"
at=(--query-port "$(sed -n 's/^query=//p' "$work/ports")" --msg-port "$(sed -n 's/^msg=//p' "$work/ports")")
tail -n 1 "$work/bus.log"

caption 'A program that publishes the load, memory, network and disks of this machine'
start hoststate "$hoststate" "${at[@]:0:2}" --interval 0.5 --seconds 0

caption 'Another process watches; changes are printed as they come'
start watcher "$ctl" "${at[@]}" watch 'host.*'
more watcher "$loads" 3

caption 'What is stored can be loaded at any time; what is permanent is on disk'
run 0 "$ctl" "${at[@]:0:2}" pub room.cellar celsius=12 --permanent
run 0 "$ctl" "${at[@]:0:2}" --json get room.cellar
run 1 "$ctl" "${at[@]:0:2}" get room.nothing

caption 'An application that watches the rooms, and a logging client that prints its log'
start logger "$ctl" "${at[@]}" logs
start thermostat "$thermostat" "${at[@]}"
wait_for 'the log line' says logger 'it is cold'
grep 'it is cold' "$work/logger.log"

caption 'It answers a command; so does any program, with the tool'
run 0 "$ctl" "${at[@]}" call thermostat rooms
start clock "$ctl" "${at[@]}" --name clock serve time --exec /bin/date -- '+{"time":"%T"}'
wait_for 'the clock' is_answered clock time
run 0 "$ctl" "${at[@]}" call clock time

caption 'A reader is stopped: its changes wait in the bus, and nobody else does'
start reader "$ctl" "${at[@]}" --name reader watch 'host.*' 'room.*'
wait_for 'a change for the reader' says reader '^host'
kill -STOP "${pids[reader]}"
echo '(stopped)'
wait_for 'a queue of the reader' has_queued reader
run 0 "$ctl" "${at[@]:0:2}" pub room.garden celsius=20
more watcher "$loads" 2
run 0 "$ctl" "${at[@]}" call thermostat rooms --timeout 5
run 0 "$ctl" "${at[@]}" clients
kill -CONT "${pids[reader]}"
echo '(continued)'
wait_for 'what the reader has missed' says reader '^room.garden '
grep '^room.garden ' "$work/reader.log"
end reader

caption 'The bus is killed, and started again'
kill -KILL "${pids[bus]}"
status=0
wait "${pids[bus]}" 2>/dev/null || status=$?
unset 'pids[bus]'
((status == 128 + 9)) || fail "the bus ended with $status before it was killed"
wait_for 'the loss' says watcher 'is away'
grep 'is away' "$work/watcher.log"
start bus "$busd" "${at[@]}" --data "$work/data"

caption 'Everybody is back, by itself, and what is permanent is there'
wait_for 'the watcher' says watcher 'is back'
grep 'is back' "$work/watcher.log"
more watcher "$loads" 2
wait_for 'the thermostat' is_answered thermostat rooms
run 0 "$ctl" "${at[@]}" call thermostat rooms
wait_for 'the clock' is_answered clock time
run 0 "$ctl" "${at[@]}" call clock time
run 0 "$ctl" "${at[@]:0:2}" pub room.attic celsius=3
wait_for 'a new log line' says logger 'cold in .*attic'
grep 'attic' "$work/logger.log"
run 0 "$ctl" "${at[@]:0:2}" --json get room.cellar

caption 'The end: everything is asked to stop, and ends with 0'
for name in clock logger watcher hoststate bus; do end "$name"; done
tail -n 1 "$work/hoststate.log"
tail -n 1 "$work/bus.log"
echo "$SECONDS s"
