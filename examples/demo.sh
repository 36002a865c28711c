#!/usr/bin/env bash
# A first run: a bus, a program that publishes the state of this machine, and the tool that loads
# it back. Called with the build folder; everything that is started here is ended here.
set -euo pipefail

build=${1:?usage: demo.sh BUILD-FOLDER}
busd=$build/trelan/trelanbusd/trelanbusd
ctl=$build/trelan/trelanctl/trelanctl
hoststate=$build/examples/hoststate/hoststate
for program in "$busd" "$ctl" "$hoststate"; do
    [[ -x $program ]] || { echo "demo: $program is not there; build the tree first" >&2; exit 1; }
done

deadline=20 # seconds that anything here may take to come up
work=$(mktemp -d)
bus_pid= host_pid=

cleanup() {
    local status=$?
    trap - EXIT
    for pid in $host_pid $bus_pid; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    if ((status != 0)) && [[ -s $work/bus.log ]]; then
        echo "demo: the log of the bus:" >&2
        cat "$work/bus.log" >&2
    fi
    rm -rf "$work"
    exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

caption() { printf '\n# %s\n' "$1"; }

# A command as one would type it.
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
    if ((status != expected)); then
        echo "demo: that ended with $status, not with $expected" >&2
        exit 1
    fi
}

# wait_for PID WHAT COMMAND...: until the command succeeds, as long as the process is there.
wait_for() {
    local pid=$1 what=$2 end=$((SECONDS + deadline))
    shift 2
    until "$@" >/dev/null 2>&1; do
        if ((SECONDS >= end)) || ! kill -0 "$pid" 2>/dev/null; then
            echo "demo: $what did not come" >&2
            exit 1
        fi
        sleep 0.05
    done
}

caption 'A bus, on free ports of this machine and with a data folder of its own'
start_bus=(--query-port 0 --msg-port 0 --port-file "$work/ports" --data "$work/data")
mkdir "$work/data"
show "$busd" "${start_bus[@]}"
printf ' &\n'
"$busd" "${start_bus[@]}" >"$work/bus.log" 2>&1 &
bus_pid=$!
wait_for "$bus_pid" 'the port of the bus' grep -qE '^query=[0-9]+' "$work/ports"
port=$(sed -n 's/^query=\([0-9]*\).*/\1/p' "$work/ports")
echo "query port: $port"

caption 'A program that publishes the load, memory, network and disks of this machine each second'
publish_args=(--query-port "$port" --interval 1 --seconds 60)
show "$hoststate" "${publish_args[@]}"
printf ' &\n'
"$hoststate" "${publish_args[@]}" &
host_pid=$!
host=$(uname -n)
host=${host//./_}
wait_for "$host_pid" "host.$host.load" "$ctl" --query-port "$port" get "host.$host.load"
# The first value of another second shows that it is not the same one for ever.
first=$("$ctl" --query-port "$port" --json get "host.$host.load")
changed() { [[ $("$ctl" --query-port "$port" --json get "host.$host.load") != "$first" ]]; }
wait_for "$host_pid" 'a second value' changed

caption 'Another program loads all of it back'
run 0 "$ctl" --query-port "$port" ls 'host.*'

caption 'One object, for a script'
run 0 "$ctl" --query-port "$port" --json get "host.$host.load"

caption 'An object that does not exist'
run 1 "$ctl" --query-port "$port" get "host.$host.nothing"

caption 'A publish that the bus refuses: the name has an empty segment'
run 1 "$ctl" --query-port "$port" pub "host..$host" answer=42

caption 'The end: the publisher and the bus are asked to stop'
kill -TERM "$host_pid"
status=0
wait "$host_pid" || status=$?
host_pid=
((status == 0)) || { echo "demo: hoststate ended with $status" >&2; exit 1; }
kill -TERM "$bus_pid"
wait "$bus_pid" || status=$?
bus_pid=
((status == 0)) || { echo "demo: trelanbusd ended with $status" >&2; exit 1; }
echo "both ended with 0"
